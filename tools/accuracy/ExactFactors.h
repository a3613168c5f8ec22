// Exact surface-to-surface view factors for the accuracy study's enclosures: axis-
// aligned rectangles on the sides of a box (Ehlert and Smith's corner sums), collinear
// pieces of a convex polygon (crossed strings), and coaxial bands and rings of a
// closed cylinder (disc-to-disc algebra).
#pragma once

#include <algorithm>
#include <cmath>
#include <numbers>

#include "validate/AnalyticViewFactors.h"

namespace hemiray::accuracy {

// An axis-aligned rectangle: the coordinate `axis` is fixed at `level`, the other
// two run over [lo, hi] (indexed by axis, the fixed one unused).
struct Rectangle {
    int axis = 0;
    double level = 0;
    double lo[3] = {0, 0, 0};
    double hi[3] = {0, 0, 0};

    double area() const {
        double a = 1;
        for (int k = 0; k < 3; ++k)
            if (k != axis) a *= hi[k] - lo[k];
        return a;
    }
};

// A1 F12 between parallel rectangles at distance c: rectangle 1 over [x1,x2] x [y1,y2],
// rectangle 2 over [u1,u2] x [v1,v2] in the same two coordinates (J. R. Ehlert and
// T. F. Smith, J. Thermophysics and Heat Transfer 7, 1993).
inline double parallelEnergy(const double x[2], const double y[2], const double u[2],
                             const double v[2], double c) {
    auto corner = [c](double dx, double dy) {
        const double sx = std::sqrt(dx * dx + c * c), sy = std::sqrt(dy * dy + c * c);
        return dy * sx * std::atan(dy / sx) + dx * sy * std::atan(dx / sy) -
               0.5 * c * c * std::log(dx * dx + dy * dy + c * c);
    };
    double sum = 0;
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j)
            for (int k = 0; k < 2; ++k)
                for (int l = 0; l < 2; ++l)
                    sum += ((i + j + k + l) % 2 ? -1 : 1) * corner(u[k] - x[i], v[l] - y[j]);
    return sum / (2 * std::numbers::pi);
}

// A1 F12 between perpendicular rectangles meeting along a common axis: rectangle 1
// spans distances [x1,x2] from the common line and [y1,y2] along it, rectangle 2
// distances [z1,z2] and [v1,v2] along it (same source).
inline double perpendicularEnergy(const double x[2], const double y[2], const double z[2],
                                  const double v[2]) {
    auto corner = [](double dx, double dy, double dz) {
        const double s2 = dx * dx + dz * dz, s = std::sqrt(s2), t2 = s2 + dy * dy;
        const double first = s > 0 ? dy * s * std::atan(dy / s) : 0.0;
        const double second = t2 > 0 ? 0.25 * (s2 - dy * dy) * std::log(t2) : 0.0;
        return first - second;
    };
    double sum = 0;
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j)
            for (int k = 0; k < 2; ++k)
                for (int l = 0; l < 2; ++l)
                    sum += ((i + j + k + l) % 2 ? -1 : 1) * corner(x[i], y[j] - v[l], z[k]);
    return sum / (2 * std::numbers::pi);
}

// F from rectangle a to rectangle b on the sides of a convex box.
inline double rectangleFactor(const Rectangle& a, const Rectangle& b) {
    if (a.axis == b.axis) {
        if (a.level == b.level) return 0;
        const int p = (a.axis + 1) % 3, q = (a.axis + 2) % 3;
        const double x[2] = {a.lo[p], a.hi[p]}, y[2] = {a.lo[q], a.hi[q]};
        const double u[2] = {b.lo[p], b.hi[p]}, v[2] = {b.lo[q], b.hi[q]};
        return parallelEnergy(x, y, u, v, std::abs(a.level - b.level)) / a.area();
    }
    const int common = 3 - a.axis - b.axis;
    // Distances from the line where the two planes meet.
    auto distances = [](const Rectangle& r, int axis, double level, double out[2]) {
        const double d0 = std::abs(r.lo[axis] - level), d1 = std::abs(r.hi[axis] - level);
        out[0] = std::min(d0, d1);
        out[1] = std::max(d0, d1);
    };
    double x[2], z[2];
    distances(a, b.axis, b.level, x);
    distances(b, a.axis, a.level, z);
    const double y[2] = {a.lo[common], a.hi[common]}, v[2] = {b.lo[common], b.hi[common]};
    return perpendicularEnergy(x, y, z, v) / a.area();
}

// Closed cylinder of radius 1 along x: f(h) is the factor between its two cross
// sections at distance h (1 at h = 0).
inline double crossSections(double h) {
    return h <= 0 ? 1.0 : analytic::coaxialDisks(1, 1, h);
}

// Energy (A F) from the ring r1..r2 of a cross section through the coaxial disc of
// radius a at distance h; everything passes at h = 0.
inline double ringThroughDisc(double r1, double r2, double a, double h) {
    auto disc = [&](double r) {
        if (r <= 0) return 0.0;
        if (h <= 0) return std::numbers::pi * r * r;
        return std::numbers::pi * r * r * std::min(1.0, analytic::coaxialDisks(r, a, h));
    };
    return disc(r2) - disc(r1);
}

}  // namespace hemiray::accuracy
