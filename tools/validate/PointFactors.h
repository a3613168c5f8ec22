// Exact view factors from a differential element (a point with its normal) to a
// finite surface. The sampler shoots every face's rays from its centroid, so the
// area-weighted mean of these point factors over a glob's face centroids is the
// value its row converges to as the hemisphere is refined: the difference between
// that mean and the surface-to-surface closed form is the error of the mesh alone.
#pragma once

#include <cmath>
#include <numbers>
#include <vector>

#include "SmallVector"

namespace hemiray::analytic {

// From a point P with unit normal n to the planar polygon v[0..m-1], by Lambert's
// contour formula (Hottel and Sarofim, Radiative Transfer, 1967; Modest, Radiative
// Heat Transfer, Chap. 4): F = |sum_k gamma_k n . (R_k x R_k+1) / |R_k x R_k+1|| / 2 pi,
// with R_k = v[k] - P and gamma_k the angle between R_k and R_k+1. Exact when the
// whole polygon lies in front of P (or in its plane) and nothing blocks it; a
// polygon in P's plane that does not contain P gives 0.
inline double pointToPolygon(const Vec3& P, const Vec3& n, const std::vector<Vec3>& v) {
    double sum = 0;
    const size_t m = v.size();
    for (size_t k = 0; k < m; ++k) {
        const Vec3 a = v[k] - P, b = v[(k + 1) % m] - P;
        const Vec3 c = cross(a, b);
        const double length = norm(c);
        // An edge on a line through P subtends no solid angle.
        if (length <= 1e-300) continue;
        sum += std::atan2(length, dot(a, b)) * dot(n, c) / length;
    }
    return std::abs(sum) / (2 * std::numbers::pi);
}

// Planar: from a point P with unit normal n (in the x-y plane) to the segment b0-b1
// in front of it: half the difference of the sines of the angles to its ends
// measured from the normal (the differential form of Hottel's crossed strings).
inline double pointToSegment(const Vec3& P, const Vec3& n, const Vec3& b0, const Vec3& b1) {
    const Vec3 t(n[1], -n[0], 0);
    const Vec3 d0 = b0 - P, d1 = b1 - P;
    return std::abs(dot(t, d0) / norm(d0) - dot(t, d1) / norm(d1)) / 2;
}

// From a ring element on the inside of a cylinder of radius R to the cylinder's
// cross-section (a disc of radius R) at axial distance h: Howell's catalogue B-93,
// F = (X^2 + 2) / (2 sqrt(X^2 + 4)) - X / 2 with X = h / R. It is also the share of
// the element's energy that travels further along the axis than h.
inline double cylinderWallToCrossSection(double h, double R) {
    const double X = h / R;
    return (X * X + 2) / (2 * std::sqrt(X * X + 4)) - X / 2;
}

// From a point on the normal through a corner of a parallel a x b rectangle at
// distance c (Howell's catalogue, Section B, planar element to parallel rectangle).
// Used as the independent check of pointToPolygon.
inline double cornerToParallelRectangle(double a, double b, double c) {
    const double X = a / c, Y = b / c;
    const double sx = std::sqrt(1 + X * X), sy = std::sqrt(1 + Y * Y);
    return (X / sx * std::atan(Y / sx) + Y / sy * std::atan(X / sy)) / (2 * std::numbers::pi);
}

}  // namespace hemiray::analytic
