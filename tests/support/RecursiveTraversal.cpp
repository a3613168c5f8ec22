// The recursive walk of the node tree, the oracle of the flat tracing tree.
#include "support/RecursiveTraversal.h"

#include <algorithm>
#include <cmath>

#include "geometry/RayMath.h"
#include "geometry/RayTraversal.h"
#include "geometry/TraversalTree.h"

namespace hemiray {

namespace {

using raymath::dblMax;

// Roots of |(O + tD)_yz|^2 = R^2: where the ray crosses the cylinder of radius R
// about the x axis.
inline int cylinderRoots(const Vec3& O, const Vec3& D, double R, double roots[2]) {
    return raymath::solveQuadratic(D.v[1] * D.v[1] + D.v[2] * D.v[2],
                                   2.0 * (D.v[1] * O.v[1] + D.v[2] * O.v[2]),
                                   O.v[1] * O.v[1] - R * R + O.v[2] * O.v[2], roots);
}

}  // namespace

bool clipToRootBox(const BspNode& root, const Vec3& O, const Vec3& D, double& tEnter,
                   double& tExit) {
    return clipToBox(root.dimension, root.axisCount, root.boxMin, root.boxMax, O, D, tEnter, tExit);
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
bool traverse(const BspNode& node, const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
              double tmin, double tmax) {
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

void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const BspNode& tree, SparseRowVector& row) {
    const bool axisymmetric = tree.dimension == 1;
    const auto trace = [&](const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) {
        double tEnter = 0, tExit = 0;
        if (!clipToRootBox(tree, O, D, tEnter, tExit)) return false;
        return axisymmetric ? traverseAxisymmetric(tree, O, D, hitPoint, hitFace, tEnter, tExit)
                            : traversePlanar(tree, O, D, hitPoint, hitFace, tEnter, tExit);
    };
    computeRowWith(glob, dimension, hemisphere, faces, globs, zones, trace, row);
}

}  // namespace hemiray
