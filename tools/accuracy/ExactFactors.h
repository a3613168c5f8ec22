// Exact surface-to-surface view factors for the accuracy study's enclosures: axis-
// aligned rectangles on the sides of a box (Ehlert and Smith's corner sums), collinear
// pieces of a convex polygon (crossed strings), and coaxial bands and rings of a
// closed cylinder (disc-to-disc algebra), and flat triangles of a convex polyhedron
// (the contour form from a point, integrated over the source triangle).
#pragma once

#include <algorithm>
#include <array>
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

using Triangle = std::array<Vec3, 3>;

// F from an element at p with unit normal n to a polygon wholly in front of it
// (nothing in between): (1/2π) |Σ_k θ_k n·(a_k × a_k+1)/|a_k × a_k+1||, a_k the
// vectors to its corners and θ_k the angle between consecutive ones (Hottel and
// Sarofim's contour form).
inline double pointToTriangle(const Vec3& p, const Vec3& n, const Triangle& t) {
    double sum = 0;
    for (int k = 0; k < 3; ++k) {
        const Vec3 a = t[k] - p, b = t[(k + 1) % 3] - p;
        const Vec3 c = cross(a, b);
        const double s = norm(c);
        if (s > 0) sum += std::atan2(s, dot(a, b)) * dot(n, c) / s;
    }
    return std::abs(sum) / (2 * std::numbers::pi);
}

inline double distanceToSegment(const Vec3& p, const Vec3& a, const Vec3& b) {
    const Vec3 d = b - a;
    const double t = std::clamp(dot(p - a, d) / dot(d, d), 0.0, 1.0);
    return norm(p - (a + d * t));
}

// F between two faces of a convex polyhedron (they see each other whole): the point
// form integrated over `from` by a degree-5 rule on sub-triangles, split four ways
// wherever a sub-triangle lies within three of its sizes of `to`'s edges (down to
// 4^-depth of the face), so that shared edges and corners, where the point form
// loses its smoothness, are resolved.
inline double triangleFactor(const Triangle& from, const Triangle& to, int depth = 7) {
    const Vec3 normal = cross(from[1] - from[0], from[2] - from[0]);
    const Vec3 n = normal * (1 / norm(normal));
    const double r15 = std::sqrt(15.0);
    // Radon's seven points: barycentric (a, b, b) and its turns, weights sum to 1.
    const double a1 = (9 - 2 * r15) / 21, b1 = (6 + r15) / 21, w1 = (155 + r15) / 1200;
    const double a2 = (9 + 2 * r15) / 21, b2 = (6 - r15) / 21, w2 = (155 - r15) / 1200;
    auto integral = [&](auto& self, const Triangle& t, int level) -> double {
        const Vec3 centre = (t[0] + t[1] + t[2]) * (1.0 / 3);
        const double size = std::max({norm(t[1] - t[0]), norm(t[2] - t[1]), norm(t[0] - t[2])});
        double near = 1e300;
        for (int k = 0; k < 3; ++k)
            near = std::min(near, distanceToSegment(centre, to[k], to[(k + 1) % 3]));
        if (level < depth && near < 3 * size) {
            const Vec3 m01 = (t[0] + t[1]) * 0.5, m12 = (t[1] + t[2]) * 0.5,
                       m20 = (t[2] + t[0]) * 0.5;
            return self(self, {t[0], m01, m20}, level + 1) +
                   self(self, {m01, t[1], m12}, level + 1) +
                   self(self, {m20, m12, t[2]}, level + 1) + self(self, {m01, m12, m20}, level + 1);
        }
        auto at = [&](double x, double y, double z) {
            return pointToTriangle(t[0] * x + t[1] * y + t[2] * z, n, to);
        };
        double sum = 0.225 * at(1.0 / 3, 1.0 / 3, 1.0 / 3);
        for (const auto& [a, b, w] : {std::array{a1, b1, w1}, std::array{a2, b2, w2}})
            sum += w * (at(a, b, b) + at(b, a, b) + at(b, b, a));
        return sum * 0.5 * norm(cross(t[1] - t[0], t[2] - t[0]));
    };
    return integral(integral, from, 0) / (0.5 * norm(normal));
}

}  // namespace hemiray::accuracy
