// The direction set: layout of the hemicube and the fan, resolution rounding,
// normalisation, and the weights against analytic form factors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <sstream>
#include <string>

#include "Hemisphere"
#include "SmallVector"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

Vec3 direction(const Hemisphere& h, int k) {
    return {h.dirX(k), h.dirY(k), h.dirZ(k)};
}

// Blocks of the running index: 8 cells on the -t1 side, 8 on +t1, 8 on -t2, 8 on
// +t2, then the 16 of the top face; on a side the tangent along it runs first.
// Cells have edge 0.5, so their centres lie at odd multiples of 0.25, on the upper
// half of the sides (tests/data/golden/hemicube-4.expected, written by hand).
TEST(Hemisphere, CubeResolution4HasItsCellCentresInFaceOrder) {
    const Hemisphere h(3, 4);
    EXPECT_EQ(h.resolution, 4);
    std::ostringstream layout;
    for (int k = 0; k < h.size_; ++k) layout << direction(h, k) << "\n";
    EXPECT_EQ(layout.str(), testing::readFile(testing::goldenPath("hemicube-4.expected")));
}

TEST(Hemisphere, OddResolutionRoundsUpAndNonPositiveGivesTheEmptySet) {
    for (int mode : {2, 3}) {
        const Hemisphere odd(mode, 3), even(mode, 4);
        EXPECT_EQ(odd.resolution, 4);
        ASSERT_EQ(odd.size_, even.size_);
        for (int k = 0; k < odd.size_; ++k) {
            EXPECT_EQ(direction(odd, k), direction(even, k));
            EXPECT_EQ(odd.weight(k), even.weight(k));
        }
    }
    for (int mode : {1, 2, 3})
        for (int res : {0, -1, -3, -4, -2147483647 - 1}) {
            const Hemisphere h(mode, res);
            EXPECT_EQ(h.resolution, 0) << mode << " " << res;
            EXPECT_EQ(h.size_, 0) << mode << " " << res;
        }
}

TEST(Hemisphere, FanResolution10IsSymmetricUnitAndAvoidsNormalAndTangent) {
    const Hemisphere h(2, 10);
    ASSERT_EQ(h.size_, 20);
    const double step = std::numbers::pi / 20;
    for (int k = 0; k < 20; ++k) {
        SCOPED_TRACE(k);
        const int mirror = 19 - k;
        EXPECT_DOUBLE_EQ(h.dirX(k), -h.dirX(mirror));
        EXPECT_DOUBLE_EQ(h.dirZ(k), h.dirZ(mirror));
        EXPECT_DOUBLE_EQ(h.weight(k), h.weight(mirror));
        EXPECT_EQ(h.dirY(k), 0.0);
        EXPECT_NEAR(std::hypot(h.dirX(k), h.dirZ(k)), 1.0, 1e-15);
        // Half a step away from both the normal and the tangent, equally spaced in
        // angle, rising from -t1 towards +t1; cosine-weighted.
        EXPECT_NEAR(std::atan2(h.dirX(k), h.dirZ(k)), (k + 0.5) * step - std::numbers::pi / 2,
                    1e-14);
        EXPECT_NE(h.dirX(k), 0.0);
        EXPECT_NEAR(h.weight(k) / h.dirZ(k), h.weight(0) / h.dirZ(0), 1e-15);
    }
}

TEST(Hemisphere, WeightsArePositiveSumToOneAndPeakAtTheTopCentre) {
    for (int mode : {2, 3})
        for (int res : {2, 4, 10, 50, 200}) {
            SCOPED_TRACE(::testing::Message() << "mode " << mode << " res " << res);
            const Hemisphere h(mode, res);
            ASSERT_GT(h.size_, 0);
            long double sum = 0;
            int largestAt = 0;
            for (int k = 0; k < h.size_; ++k) {
                ASSERT_GT(h.weight(k), 0.0);
                sum += h.weight(k);
                if (h.weight(k) > h.weight(largestAt)) largestAt = k;
            }
            // Each normalised weight carries at most half an ulp of rounding, and a
            // long double sum adds little more: a few ulps of 1 cover the total.
            EXPECT_NEAR(static_cast<double>(sum), 1.0, 4 * std::numeric_limits<double>::epsilon());
            if (mode == 3) {
                // The four centre cells of the top face, the closest to the normal.
                EXPECT_EQ(h.dirZ(largestAt), 1.0);
                EXPECT_NEAR(std::abs(h.dirX(largestAt)), 1.0 / h.resolution, 1e-15);
                EXPECT_NEAR(std::abs(h.dirY(largestAt)), 1.0 / h.resolution, 1e-15);
            } else {
                EXPECT_NEAR(std::abs(h.dirX(largestAt)), std::sin(std::numbers::pi / (4 * res)),
                            1e-15);
            }
        }
}

// The share of weight that falls inside a region of directions is the view factor
// from a differential area to that region. Truths: the top face of the unit
// half-cube (a 2x2 square at height 1) seen from its centre, four corner pieces
// of the differential area to a parallel rectangle (Howell's catalogue); a cone of
// half-angle alpha about the normal gives sin^2(alpha). The cell-centre rule has
// an O(h^2) error on the top face: measured 6.2e-5 at R = 50 and 1.5e-5 at R = 100,
// so the bound is 1e-4 (50/R)^2; cells with a wrong weight law are off by 0.1 or
// more (the normalisation is checked by the sum above). The cone's edge cuts
// cells, an O(h) error that is irregular in R (measured 2.1e-3 at 50, 2.5e-4 at
// 100): bounded by 3e-3.
TEST(Hemisphere, CubeWeightsReproduceDifferentialViewFactors) {
    const double sa = std::sqrt(2.0);  // dA to a 1 x 1 rectangle at distance 1, over one corner
    const double topTruth = 4 * 2 * (1 / sa * std::atan(1 / sa)) / (2 * std::numbers::pi);
    const double alpha = 0.6;
    const double coneTruth = std::sin(alpha) * std::sin(alpha);
    double previousTopError = 1;
    for (int res : {50, 100}) {
        const Hemisphere h(3, res);
        double top = 0, cone = 0;
        for (int k = 0; k < h.size_; ++k) {
            const Vec3 d = direction(h, k);
            if (d[2] == 1.0) top += h.weight(k);
            if (std::acos(d[2] / norm(d)) < alpha) cone += h.weight(k);
        }
        const double topError = std::abs(top - topTruth);
        EXPECT_LT(topError, 1e-4 * (50.0 / res) * (50.0 / res)) << res;
        EXPECT_LT(std::abs(cone - coneTruth), 3e-3) << res;
        EXPECT_LT(topError, previousTopError);
        previousTopError = topError;
    }
}

// Planar analogue: the share of a cosine-weighted fan within +-alpha of the normal
// is sin(alpha). With alpha on a cell boundary (res 30: 60 directions of 3 degrees)
// the midpoint sums are exact: sum of cos((k + 1/2) d) over k < m is
// sin(m d) / (2 sin(d / 2)), so the share is sin(alpha) / sin(pi / 2) to rounding.
TEST(Hemisphere, FanWeightsReproduceTheCosineLaw) {
    const Hemisphere h(2, 30);
    const double alpha = 10 * std::numbers::pi / 60;
    double inside = 0;
    for (int k = 0; k < h.size_; ++k)
        if (std::abs(std::atan2(h.dirX(k), h.dirZ(k))) < alpha) inside += h.weight(k);
    EXPECT_NEAR(inside, std::sin(alpha), 1e-14);
}

TEST(HemisphereDeathTest, AccessOutsideTheSetAborts) {
    const Hemisphere h(3, 2), empty(2, 0);
    ASSERT_EQ(h.size_, 12);
    int past = 12, minusOne = -1, zero = 0;
    const std::string failed = ": Assertion 'i >= 0 && i < size_' failed";
    EXPECT_DEATH((void)h.dirX(past), "src/Hemisphere:28" + failed);
    EXPECT_DEATH((void)h.dirY(minusOne), "src/Hemisphere:29" + failed);
    EXPECT_DEATH((void)h.dirZ(past), "src/Hemisphere:30" + failed);
    EXPECT_DEATH((void)h.weight(minusOne), "src/Hemisphere:31" + failed);
    EXPECT_DEATH((void)empty.weight(zero), "src/Hemisphere:31" + failed);
}

}  // namespace
}  // namespace hemiray
