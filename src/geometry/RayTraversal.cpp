// Ray/face tests of the three modes. Everything here runs once per traced ray on
// every worker thread: no allocation, no shared state.
#include "geometry/RayTraversal.h"

#include <cmath>
#include <limits>

#include "geometry/RayMath.h"

namespace hemiray {

namespace {

using raymath::Azimuth;

inline const Vec3& nodeOf(const FaceSet& faces, int32_t entry) {
    return (*faces.nodes)[static_cast<size_t>(faces.faceNodes[static_cast<size_t>(entry)])];
}

inline Azimuth azimuthOf(const Vec3& P) {
    return raymath::azimuthOf(P.v[1], P.v[2]);
}

}  // namespace

double safeDivide(double num, double den) {
    return raymath::safeDivide(num, den);
}

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
            const double s =
                std::abs(ex) <= std::abs(er) ? (az.radius - r0) / er : (P.v[0] - x0) / ex;
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

bool intersectFace(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D, double tmin,
                   double tmax, double& t) {
    if (faces.dimension == 1) return intersectCone(faces, face, O, D, tmin, tmax, t);
    if (faces.dimension == 2) return intersectSegment(faces, face, O, D, tmin, tmax, t);
    return intersectPolygon(faces, face, O, D, tmin, tmax, t);
}

}  // namespace hemiray
