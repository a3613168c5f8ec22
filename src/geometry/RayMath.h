// The guarded arithmetic of the ray tests, inline for the hot loops: the quotient
// that never overflows and the quadratic solver. RayTraversal.h declares the
// out-of-line forms; both compute exactly these expressions.
#pragma once

#include <cmath>
#include <limits>
#include <utility>

namespace hemiray::raymath {

inline constexpr double dblMax = std::numeric_limits<double>::max();

// sgn(0) is +1: a zero never flips a sign.
inline double sgn(double x) {
    return x < 0 ? -1.0 : 1.0;
}

// |num| / DBL_MAX < |den|, the test that num / den stays finite. Written as the
// division it is slow twice over: a divide, and for ordinary |num| a subnormal
// quotient, which many processors finish in microcode. Where |num| <= 2^1000 the
// quotient is at most 2^-23 (DBL_MAX > 2^1023, and rounding cannot pass the
// representable 2^-23), so any |den| >= 2^-20 passes without dividing; every other
// case, NaNs included, takes the division as written, so the answer never differs.
inline bool quotientFits(double num, double den) {
    const double absNum = std::abs(num);
    const double absDen = std::abs(den);
    if (absNum <= 0x1p1000 && absDen >= 0x1p-20) return true;
    return absNum / dblMax < absDen;
}

// num/den, or sgn(num) sgn(den) DBL_MAX where the quotient would overflow.
inline double safeDivide(double num, double den) {
    if (quotientFits(num, den)) return num / den;
    return sgn(num) * sgn(den) * dblMax;
}

// Real roots of a t^2 + b t + c = 0, ascending; returns how many.
inline int solveQuadratic(double a, double b, double c, double roots[2]) {
    double disc = b * b - 4.0 * a * c;
    // A slightly negative discriminant is rounding on a touching ray.
    if (disc < -1e-6 * b * b) return 0;
    if (disc < 0.0) disc = 0.0;
    // The root of larger magnitude first and the other from the product c/a avoids
    // the cancellation of the textbook formula.
    const double q = -0.5 * (b + sgn(b) * std::sqrt(disc));
    int count = 0;
    if (quotientFits(q, a)) roots[count++] = q / a;
    if (quotientFits(c, q)) roots[count++] = c / q;
    if (count == 2 && roots[1] < roots[0]) std::swap(roots[0], roots[1]);
    return count;
}

// Unit radial direction of the point (y, z) about the x axis, as (cos, sin) of its
// azimuth, and the radius measured along it. Divides by the larger of the two
// components so that the quotient stays well conditioned.
struct Azimuth {
    double cy;
    double sz;
    double radius;
};
inline Azimuth azimuthOf(double y, double z) {
    const double theta = std::atan(safeDivide(z, y));
    Azimuth a;
    a.cy = std::abs(std::cos(theta)) * sgn(y);
    a.sz = std::abs(std::sin(theta)) * sgn(z);
    // |cos| of an arctangent is never 0 (atan(+-DBL_MAX) stays short of pi/2), and
    // sz is used only when it is larger than cy, so neither division is by zero.
    a.radius = std::abs(a.sz) <= std::abs(a.cy) ? y / a.cy : z / a.sz;
    return a;
}

}  // namespace hemiray::raymath
