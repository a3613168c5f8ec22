// Construction of the direction set: the hemicube (cell centres of a unit
// half-cube, weighted by the delta form factor of each cell) or the planar fan
// (equal angles, weighted by the cosine), normalised so the weights sum to 1.
#include "Hemisphere"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace hemiray {

namespace {

constexpr double pi = 3.141592653589793;

// Largest even resolutions whose direction count (3 R^2, resp. 2 R) still fits the
// int32 size field. Nothing near them is allocatable; the bound only keeps the
// arithmetic below defined for any value the parameter section can hold.
constexpr int32_t maxCubeResolution = 26754;      // 3 * 26754^2 = 2147329548
constexpr int32_t maxFanResolution = 1073741822;  // 2 * R < 2^31 - 1

}  // namespace

Hemisphere::Hemisphere(int mode, int hemisphereResolution) {
    // An odd resolution is rounded up to the next even one, so that the hemicube
    // side faces split into whole half-height rows. A negative resolution has no
    // meaning (it would give a negative size): it is clamped to 0, the empty set,
    // whose faces shoot nothing and whose rows stay empty.
    int64_t r = hemisphereResolution < 0 ? 0 : hemisphereResolution;
    if (r % 2 != 0) ++r;
    r = std::min<int64_t>(r, mode == 2 ? maxFanResolution : maxCubeResolution);
    resolution = static_cast<int32_t>(r);
    const int32_t R = resolution;
    size_ = mode == 2 ? 2 * R : 3 * R * R;

    dirX_.assign(size_, 0.0);
    dirY_.assign(size_, 0.0);
    dirZ_.assign(size_, 0.0);
    weight_.assign(size_, 0.0);

    if (mode == 2) {
        const double delta = pi / size_;
        for (int32_t k = 0; k < size_; ++k) {
            const double theta = (k + 0.5) * delta - pi / 2;
            const double s = std::sin(theta), c = std::cos(theta);
            dirX_[k] = s;
            dirZ_[k] = c;
            weight_[k] = c * delta * 0.5;
        }
    } else if (R > 0) {
        // Cell centres: a_i runs up the side faces (normal component in (0, 1)),
        // b_j across a face (in (-1, 1)). The delta form factor of a cell of area
        // h^2 at (x, y, z) on the cube is h^2 cos / (pi d^4) with the cosine taken
        // against the cell's own face: z on the sides, 1 on the top.
        const double h = 2.0 / R;
        const int32_t halfR = R / 2;
        int32_t n = 0;
        auto sideWeight = [h](double a, double b) {
            const double d2 = a * a + b * b + 1;
            return h * h * a / (pi * d2 * d2);
        };
        // The two side faces normal to tangent 1, then the two normal to tangent 2.
        for (int tangent = 1; tangent <= 2; ++tangent)
            for (int s = -1; s <= 1; s += 2)
                for (int32_t i = 0; i < halfR; ++i)
                    for (int32_t j = 0; j < R; ++j, ++n) {
                        const double a = (i + 0.5) * h, b = (j + 0.5) * h - 1;
                        dirX_[n] = tangent == 1 ? s : b;
                        dirY_[n] = tangent == 1 ? b : s;
                        dirZ_[n] = a;
                        weight_[n] = sideWeight(a, b);
                    }
        for (int32_t i = 0; i < R; ++i)
            for (int32_t j = 0; j < R; ++j, ++n) {
                const double bi = (i + 0.5) * h - 1, bj = (j + 0.5) * h - 1;
                const double d2 = bi * bi + bj * bj + 1;
                dirX_[n] = bi;
                dirY_[n] = bj;
                dirZ_[n] = 1;
                weight_[n] = h * h / (pi * d2 * d2);
            }
    }

    // The discrete weights only approximate 1 (the cell-centre rule misses the
    // solid angle of the cells' extent); dividing by their sum makes the share of
    // weight that reaches a target directly a view factor. The sum is compensated
    // (Neumaier): a plain running sum over 3 R^2 terms drifts by ~R^2 ulps, which
    // would leave the normalised total visibly off 1 at fine resolutions.
    double sum = 0, compensation = 0;
    for (const double w : weight_) {
        const double t = sum + w;
        compensation += std::abs(sum) >= std::abs(w) ? (sum - t) + w : (w - t) + sum;
        sum = t;
    }
    sum += compensation;
    for (double& w : weight_) w /= sum;
}

}  // namespace hemiray
