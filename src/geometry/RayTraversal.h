// The ray/face tests of the three modes, which the flat tracing tree and the glob
// centroids share. Pure functions of their arguments; they allocate nothing and are
// called from every worker thread.
// A ray is O + t D; D need not be normalised.
#pragma once

#include <cstdint>

#include "geometry/BspTree.h"

namespace hemiray {

// num/den, or sgn(num) sgn(den) DBL_MAX where the quotient would overflow (sgn(0) = +1).
[[nodiscard]] double safeDivide(double num, double den);

// Real roots of a t^2 + b t + c = 0, ascending; returns how many (0, 1 or 2).
int solveQuadratic(double a, double b, double c, double roots[2]);

// Ray/face tests. t is written before the range checks, so it also holds a value
// after a miss; tmin is not used (each test has its own lower threshold).
bool intersectPolygon(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D, double tmin,
                      double tmax, double& t);
bool intersectSegment(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D, double tmin,
                      double tmax, double& t);
bool intersectCone(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D, double tmin,
                   double tmax, double& t);
// Dispatches on faces.dimension: 1 cone, 2 segment, otherwise polygon.
bool intersectFace(const FaceSet& faces, int32_t face, const Vec3& O, const Vec3& D, double tmin,
                   double tmax, double& t);

}  // namespace hemiray
