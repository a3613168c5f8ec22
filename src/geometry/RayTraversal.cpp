// Ray/face tests of the three modes and the nearest-hit traversal of the BSP tree.
// Everything here runs once per traced ray on every worker thread: no allocation,
// no shared state, recursion bounded by the tree's depth limit.
#include "geometry/RayTraversal.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "geometry/RayMath.h"

namespace hemiray {

namespace {

using raymath::Azimuth;
using raymath::dblMax;

inline const Vec3& nodeOf(const FaceSet& faces, int32_t entry) {
    return (*faces.nodes)[static_cast<size_t>(faces.faceNodes[static_cast<size_t>(entry)])];
}

inline Azimuth azimuthOf(const Vec3& P) { return raymath::azimuthOf(P.v[1], P.v[2]); }

// Roots of |(O + tD)_yz|^2 = R^2: where the ray crosses the cylinder of radius R
// about the x axis.
inline int cylinderRoots(const Vec3& O, const Vec3& D, double R, double roots[2]) {
    return raymath::solveQuadratic(D.v[1] * D.v[1] + D.v[2] * D.v[2],
                                   2.0 * (D.v[1] * O.v[1] + D.v[2] * O.v[2]),
                                   O.v[1] * O.v[1] - R * R + O.v[2] * O.v[2], roots);
}

}  // namespace

double safeDivide(double num, double den) { return raymath::safeDivide(num, den); }

int solveQuadratic(double a, double b, double c, double roots[2]) {
    return raymath::solveQuadratic(a, b, c, roots);
}

bool intersectPolygon(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D,
                      double /*tmin*/, double tmax, double& t) {
    const Vec3& n = faces.faceNormal[static_cast<size_t>(face)];
    // Faces are hit only from the side their area vector points to; a ray in the
    // plane misses. A degenerate face has a zero area vector and always misses here.
    const double den = dot(D, n);
    if (den >= 0) return false;
    const int32_t begin = faces.faceNodeStart[static_cast<size_t>(face)];
    const int32_t end = faces.faceNodeStart[static_cast<size_t>(face) + 1];
    if (end <= begin) return false;

    const Vec3 last = nodeOf(faces, end - 1) - O;
    t = dot(last, n) / den;
    // A thousandth of the face's length scale keeps a ray off the face it starts on.
    if (t <= 0.001 * std::sqrt(norm(n))) return false;
    if (t > tmax) return false;

    // The hit lies inside when no edge, seen from O, turns against D; edges run
    // last->first, first->second, ...; a point on an edge counts as inside.
    Vec3 prev = last;
    for (int32_t k = begin; k < end; ++k) {
        const Vec3 cur = nodeOf(faces, k) - O;
        if (dot(cross(prev, cur), D) > 0) return false;
        prev = cur;
    }
    return true;
}

bool intersectSegment(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D,
                      double /*tmin*/, double tmax, double& t) {
    const Vec3& n = faces.faceNormal[static_cast<size_t>(face)];
    const double den = dot(D, n);
    if (den >= 0) return false;
    const int32_t begin = faces.faceNodeStart[static_cast<size_t>(face)];
    const int32_t end = faces.faceNodeStart[static_cast<size_t>(face) + 1];
    if (end <= begin) return false;

    const Vec3 a = nodeOf(faces, begin) - O;
    const Vec3 b = nodeOf(faces, end - begin >= 2 ? begin + 1 : begin) - O;
    t = dot(a, n) / den;
    if (t <= 0.001 * norm(n)) return false;
    if (t > tmax) return false;
    // The ray must pass between the two end points: p0 not to its right, p1 not to
    // its left.
    if (a.v[1] * D.v[0] - a.v[0] * D.v[1] < 0) return false;
    return D.v[1] * b.v[0] - D.v[0] * b.v[1] >= 0;
}

bool intersectCone(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D,
                   double /*tmin*/, double tmax, double& t) {
    const int32_t begin = faces.faceNodeStart[static_cast<size_t>(face)];
    const int32_t end = faces.faceNodeStart[static_cast<size_t>(face) + 1];
    if (end <= begin) return false;
    const Vec3& p0 = nodeOf(faces, begin);
    const Vec3& p1 = nodeOf(faces, end - begin >= 2 ? begin + 1 : begin);
    const double x0 = p0.v[0];
    const double r0 = p0.v[1];
    const double ex = p1.v[0] - x0;
    const double er = p1.v[1] - r0;
    const Vec3& n = faces.faceNormal[static_cast<size_t>(face)];

    if (std::abs(er) * 0.001 <= std::abs(ex)) {
        // Surface of revolution r(x) = r0 + (x - x0) er/ex, multiplied through by ex
        // so that a cylinder (er = 0) needs no special case.
        const double g = ex * r0 + (O.v[0] - x0) * er;
        const double ex2 = ex * ex;
        const double a = er * er * D.v[0] * D.v[0] - (D.v[1] * D.v[1] + D.v[2] * D.v[2]) * ex2;
        const double b = 2.0 * (er * g * D.v[0] - (D.v[1] * O.v[1] + D.v[2] * O.v[2]) * ex2);
        const double c = g * g - ex2 * (O.v[1] * O.v[1] + O.v[2] * O.v[2]);
        double roots[2] = {0.0, 0.0};
        const int count = solveQuadratic(a, b, c, roots);
        // The larger root is tried first; the facing test decides between the two.
        for (int i = count - 1; i >= 0; --i) {
            t = roots[i];
            if (!(1e-10 <= t && t <= tmax)) continue;
            const Vec3 P = O + D * t;
            const Azimuth az = azimuthOf(P);
            // Against the face's area vector turned to P's azimuth.
            if (!((D.v[2] * az.sz + D.v[1] * az.cy) * n.v[1] + n.v[0] * D.v[0] < 0)) continue;
            const double s = std::abs(ex) <= std::abs(er) ? (az.radius - r0) / er
                                                          : (P.v[0] - x0) / ex;
            if (0 <= s && s <= 1) return true;
        }
        return false;
    }

    // An annulus (or disc) in the plane x = x0, hit from either side.
    t = safeDivide(x0 - O.v[0], D.v[0]);
    if (t <= 0.001 * norm(n)) return false;
    if (t > tmax) return false;
    const Vec3 P = O + D * t;
    const double s = (azimuthOf(P).radius - r0) / er;
    return 0 <= s && s <= 1;
}

bool intersectFace(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D,
                   double tmin, double tmax, double& t) {
    if (faces.dimension == 1) return intersectCone(faces, face, O, D, tmin, tmax, t);
    if (faces.dimension == 2) return intersectSegment(faces, face, O, D, tmin, tmax, t);
    return intersectPolygon(faces, face, O, D, tmin, tmax, t);
}

bool clipToRootBox(const BspNode& root, const Vec3& O, const Vec3& D, double& tEnter,
                   double& tExit) {
    tEnter = -dblMax;
    tExit = dblMax;
    for (int32_t i = 0; i < root.axisCount; ++i) {
        if (root.dimension == 1 && i == 1) {
            // The radial axis is the cylinder of the box's outer radius. A ray that
            // misses it or runs parallel to the axis is not clipped by it, and the
            // interval is not tested for emptiness afterwards.
            double roots[2];
            if (cylinderRoots(O, D, root.boxMax.v[1], roots) == 2) {
                tEnter = std::max(tEnter, roots[0]);
                tExit = std::min(tExit, roots[1]);
            }
            continue;
        }
        const double o = O.v[i];
        const double d = D.v[i];
        if (d == 0) {
            if (o < root.boxMin.v[i] || o > root.boxMax.v[i]) return false;
        } else {
            const double t1 = safeDivide(root.boxMin.v[i] - o, d);
            const double t2 = safeDivide(root.boxMax.v[i] - o, d);
            if (d > 0) {
                tEnter = std::max(tEnter, t1);
                tExit = std::min(tExit, t2);
            } else if (d < 0) {
                tEnter = std::max(tEnter, t2);
                tExit = std::min(tExit, t1);
            }
        }
        if (tExit < 0 || tExit < tEnter) return false;
    }
    return true;
}

namespace {

// Nearest hit among a leaf's faces up to tmax. A hit at exactly the current limit
// is accepted, so of two faces at the same t the later one in the list wins.
bool traverseLeaf(const BspNode& leaf, const Vec3& O, const Vec3& D, Vec3& hitPoint,
                  int32_t& hitFace, double tmin, double tmax) {
    const FaceSet& faces = *leaf.mesh->faces;
    double limit = tmax;
    int32_t best = -1;
    double t = 0;
    for (int32_t i = 0; i < leaf.faceCount; ++i) {
        const int32_t f = leaf.faceList[static_cast<size_t>(i)];
        if (intersectFace(faces, f, O, D, tmin, limit, t)) {
            limit = t;
            best = f;
        }
    }
    if (best < 0) return false;
    hitPoint = O + D * limit;
    hitFace = best;
    return true;
}

// Both traversals share the recursion; Axisymmetric reads a split on axis 1 as the
// cylinder of that radius instead of a plane. splitAxis is below axisCount (at
// most 3) by construction, so the coordinates are read unchecked.
template <bool Axisymmetric>
bool traverse(const BspNode& node, const Vec3& O, const Vec3& D, Vec3& hitPoint,
              int32_t& hitFace, double tmin, double tmax) {
    if (node.isLeaf()) return traverseLeaf(node, O, D, hitPoint, hitFace, tmin, tmax);

    const auto search = [&](const BspNode* child, double lo, double hi) {
        return traverse<Axisymmetric>(*child, O, D, hitPoint, hitFace, lo, hi);
    };
    const BspNode* low = node.child[0].get();
    const BspNode* high = node.child[1].get();
    const int32_t axis = node.splitAxis;
    const double s = node.splitPosition;
    const double o = O.v[axis];
    const double d = D.v[axis];

    // An origin on the plane searches both sides over the whole interval; with d < 0
    // the high side still comes first.
    if (o == s) {
        if (d < 0) return search(high, tmin, tmax) || search(low, tmin, tmax);
        return search(low, tmin, tmax) || search(high, tmin, tmax);
    }

    if (Axisymmetric && axis == 1) {
        // The side that the ray is on at tmin is searched first.
        const double yIn = O.v[1] + tmin * D.v[1];
        const double zIn = O.v[2] + tmin * D.v[2];
        const double rIn = std::sqrt(yIn * yIn + zIn * zIn);
        const BspNode* near = s <= rIn ? high : low;
        const BspNode* far = s <= rIn ? low : high;
        double roots[2] = {0.0, 0.0};
        const int count = cylinderRoots(O, D, s, roots);
        if (count == 0) return search(near, tmin, tmax);
        int inside = 0;
        for (int i = 0; i < count; ++i) inside += (tmin <= roots[i] && roots[i] <= tmax) ? 1 : 0;
        if (inside == 0) return search(near, tmin, tmax);
        if (inside == 1) {
            const double tc = (tmin <= roots[0] && roots[0] <= tmax) ? roots[0] : roots[1];
            if (tc >= 0) return search(near, tmin, tc) || search(far, tc, tmax);
            return search(far, tc, tmax);
        }
        const double t0 = roots[0];
        const double t1 = roots[1];
        if (t1 < 0) return search(near, t1, tmax);
        if (t0 < 0) return search(far, t0, t1) || search(near, t1, tmax);
        return search(near, tmin, t0) || search(far, t0, t1) || search(near, t1, tmax);
    }

    const BspNode* near = s <= o ? high : low;
    const BspNode* far = s <= o ? low : high;
    const double tSplit = safeDivide(s - o, d);
    if (0 <= tSplit && tSplit <= tmax) {
        if (tSplit >= tmin) return search(near, tmin, tSplit) || search(far, tSplit, tmax);
        return search(far, tmin, tmax);
    }
    return search(near, tmin, tmax);
}

}  // namespace

bool traversePlanar(const BspNode& node, const Vec3& O, const Vec3& D, Vec3& hitPoint,
                    int32_t& hitFace, double tmin, double tmax) {
    return traverse<false>(node, O, D, hitPoint, hitFace, tmin, tmax);
}

bool traverseAxisymmetric(const BspNode& node, const Vec3& O, const Vec3& D, Vec3& hitPoint,
                          int32_t& hitFace, double tmin, double tmax) {
    return traverse<true>(node, O, D, hitPoint, hitFace, tmin, tmax);
}

}  // namespace hemiray
