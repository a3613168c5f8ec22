// Closed-form view factors used as references by the sampling tests (Howell's
// catalogue of configuration factors, and Hottel's crossed strings in the plane).
#pragma once

#include <cmath>
#include <numbers>

#include "SmallVector"

namespace hemiray::analytic {

// C-11: between two directly opposed, aligned a x b rectangles at distance c.
inline double parallelRectangles(double a, double b, double c) {
    const double X = a / c, Y = b / c;
    const double sx = std::sqrt(1 + X * X), sy = std::sqrt(1 + Y * Y);
    return 2 / (std::numbers::pi * X * Y) *
           (std::log(sx * sy / std::sqrt(1 + X * X + Y * Y)) + X * sy * std::atan(X / sy) +
            Y * sx * std::atan(Y / sx) - X * std::atan(X) - Y * std::atan(Y));
}

// C-14: from a rectangle of width w to a perpendicular one of height h that shares
// its edge of length l.
inline double perpendicularRectangles(double l, double w, double h) {
    const double H = h / l, W = w / l, H2 = H * H, W2 = W * W, S = std::sqrt(H2 + W2);
    const double logTerm = std::log((1 + W2) * (1 + H2) / (1 + W2 + H2)) +
                           W2 * std::log(W2 * (1 + W2 + H2) / ((1 + W2) * (W2 + H2))) +
                           H2 * std::log(H2 * (1 + H2 + W2) / ((1 + H2) * (H2 + W2)));
    return (W * std::atan(1 / W) + H * std::atan(1 / H) - S * std::atan(1 / S) + logTerm / 4) /
           (std::numbers::pi * W);
}

// From a disc of radius r1 to a coaxial parallel disc of radius r2 at distance L.
inline double coaxialDisks(double r1, double r2, double L) {
    const double R1 = r1 / L, R2 = r2 / L;
    const double X = 1 + (1 + R2 * R2) / (R1 * R1);
    return 0.5 * (X - std::sqrt(X * X - 4 * (R2 / R1) * (R2 / R1)));
}

// From a small area parallel to a disc of radius a at distance h, its foot at
// radius r from the disc's axis.
inline double pointToParallelDisk(double h, double a, double r) {
    const double H = h / a, R = r / a, Z = 1 + H * H + R * R;
    return 0.5 * (1 - (Z - 2) / std::sqrt(Z * Z - 4 * R * R));
}

// Crossed strings: from segment a0-a1 to segment b0-b1 of a convex enclosure, both
// seeing each other unobstructed, with a0 and b0 on the same side of the strings:
// (crossed - uncrossed) / (2 |a0 a1|).
inline double crossedStrings(const Vec3& a0, const Vec3& a1, const Vec3& b0, const Vec3& b1) {
    return (norm(a0 - b1) + norm(a1 - b0) - norm(a0 - b0) - norm(a1 - b1)) / (2 * norm(a1 - a0));
}

}  // namespace hemiray::analytic
