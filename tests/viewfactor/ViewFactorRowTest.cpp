// Rows of view factors: the 100-reflection cap, absorbing zones and the bookkeeping
// of rows: empty rows, glob means, zero-area faces and the use of the generator.
// Rows against closed forms in the three modes (rectangles, discs, closed
// enclosures, mirror and periodic models) are the validation cases
// (tests/validation).
//
// Tolerances come from the measured discretisation error of each configuration
// (hemisphere cells cut by target edges, and the midpoint rule over the emitter's
// faces), with a margin of about two; each bound is well below the change a
// wrong weight, a missing normalisation or a lost transform produces.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "models/CodeMesh.h"
#include "validate/AnalyticViewFactors.h"

namespace hemiray {
namespace {

using models::CodeMesh;
using models::RandomStateGuard;
constexpr double pi = std::numbers::pi;

// ---------------------------------------------------------------------------
// The reflection cap and absorbing zones

// A ray between two parallel mirrors y = 0 and y = 1, leaving the emitter at
// (0, 0.5) under 22.5 degrees to the x axis, crosses the channel once per
// 1 / tan(22.5 deg) in x and reaches the wall x = X after round(X tan(22.5 deg))
// reflections, in the middle of the wall. With resolution 2 the fan holds just
// 22.5 and 67.5 degrees to either side; the steep rays are dropped long before.
// The shallow pair carries sin(45 deg) of the weight (the fan's cells are exact).
class HundredBounces : public ::testing::TestWithParam<int> {};

TEST_P(HundredBounces, WallBehindNinetyNineReflectionsScoresAndBehindAHundredDoesNot) {
    const int reflections = GetParam();
    const double X = reflections / std::tan(pi / 8);
    CodeMesh mesh(2);
    const int32_t wall = mesh.addZone(1), mirror = mesh.addZone(zoneTypeMirror);
    mesh.addSegment(wall, 0, Vec3(0, 0.25, 0), Vec3(0, 0.75, 0));  // normal +x
    mesh.addSegment(wall, 1, Vec3(X, 1, 0), Vec3(X, 0, 0));        // normal -x
    const int pieces = 25;  // keeps the faces' minimum hit distance small
    mesh.addSegment(mirror, -1, Vec3(X + 1, 0, 0), Vec3(0, 0, 0), pieces);  // normal +y
    mesh.addSegment(mirror, -1, Vec3(0, 1, 0), Vec3(X + 1, 1, 0), pieces);  // normal -y
    mesh.finish();
    const auto row = mesh.row(0, Hemisphere(2, 2));
    if (reflections < maxBounces) {
        EXPECT_EQ(mesh.touchedColumns(), 1);
        EXPECT_NEAR(row[1], std::sqrt(0.5), 1e-14);
    } else {
        EXPECT_EQ(mesh.touchedColumns(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(ViewFactorRow, HundredBounces, ::testing::Values(98, 99, 100, 101));

// An absorbing plate (zone type 2003, with a glob so that wrong scoring would
// show) between the emitter and a wide wall: the rays it catches end there and
// score nothing, and the wall receives what passes it. Bound as for the strips
// (measured: 2e-4 at res 128).
TEST(ViewFactorRow, AbsorbingZoneEndsRaysWithoutScoring) {
    const Vec3 e0(0, 0, 0), e1(1, 0, 0);
    const Vec3 a0(0.2, 1, 0), a1(0.9, 1, 0);
    const Vec3 w0(-20, 2, 0), w1(21, 2, 0);
    const int n = 16, res = 128;
    for (bool absorber : {false, true}) {
        CodeMesh mesh(2);
        const int32_t wall = mesh.addZone(1), absorbing = mesh.addZone(2003);
        mesh.addSegment(wall, 0, e1, e0, n);  // normal +y
        mesh.addSegment(wall, 1, w0, w1);     // normal -y
        if (absorber) mesh.addSegment(absorbing, 2, a0, a1);
        mesh.finish();
        const auto row = mesh.row(0, Hemisphere(2, res));
        const double toWall = analytic::crossedStrings(e0, e1, w0, w1);
        const double blocked = absorber ? analytic::crossedStrings(e0, e1, a0, a1) : 0.0;
        EXPECT_NEAR(row[1], toWall - blocked, 0.5 / res);
        EXPECT_EQ(mesh.touchedColumns(), 1);  // nothing in the absorber's column
    }
}

// ---------------------------------------------------------------------------
// Bookkeeping: empty rows, glob means, randomness

TEST(ViewFactorRow, RowsAreEmptyWhenNothingIsHit) {
    CodeMesh mesh(3);
    const int32_t wall = mesh.addZone(1);
    mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0));
    mesh.addGrid(wall, 1, Vec3(0, 0, -1), Vec3(1, 0, 0), Vec3(0, 1, 0));  // behind, facing away
    mesh.addGrid(wall, 3, Vec3(0, 0, 2), Vec3(1, 0, 0), Vec3(0, 1, 0));   // glob 2 has no faces
    mesh.finish();
    mesh.row(0, Hemisphere(3, 8));
    EXPECT_EQ(mesh.touchedColumns(), 0);  // every ray escapes
    mesh.row(2, Hemisphere(3, 8));
    EXPECT_EQ(mesh.touchedColumns(), 0);  // no faces, no area
    mesh.row(1, Hemisphere(3, 0));
    EXPECT_EQ(mesh.touchedColumns(), 0);  // no directions
}

// Three emitters of different areas facing a tilted plate: one glob of all three
// against three globs of one face each, traced with the same frames (the faces
// draw their frames in the same order from the same state).
TEST(ViewFactorRow, GlobRowIsTheAreaWeightedMeanOfItsFaces) {
    RandomStateGuard guard;
    const double edges[] = {0, 0.2, 0.7, 1.5};
    auto build = [&](CodeMesh& mesh, bool oneGlob) {
        const int32_t wall = mesh.addZone(1);
        for (int i = 0; i < 3; ++i)
            mesh.addGrid(wall, oneGlob ? 0 : (i == 0 ? 0 : i + 1), Vec3(edges[i], 0, 0),
                         Vec3(edges[i + 1] - edges[i], 0, 0), Vec3(0, 1, 0));
        mesh.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0.3), Vec3(1.5, 0, 0.5));
        mesh.finish();
    };
    CodeMesh joined(3), separate(3);
    build(joined, true);
    build(separate, false);
    const Hemisphere hemisphere(3, 10);
    setThreadRandomState(4242);
    const double glob = joined.row(0, hemisphere)[1];
    setThreadRandomState(4242);
    double mean = 0;
    for (int i = 0; i < 3; ++i) {
        const auto row = separate.row(i == 0 ? 0 : i + 1, hemisphere);
        mean += (edges[i + 1] - edges[i]) * row[1];
    }
    mean /= edges[3];
    EXPECT_GT(glob, 0.1);
    EXPECT_NEAR(glob, mean, 1e-14);
}

// A face of zero area (collinear nodes: zero area vector, 0/0 centroid) adds
// nothing to its glob: neither area nor rays. It still draws its frame, one
// triple, so the faces after it see the generator as if it had been an ordinary
// face whose first draw was accepted. A glob of such faces alone stays empty.
TEST(ViewFactorRow, ZeroAreaFacesAddNothing) {
    RandomStateGuard guard;
    auto build = [](CodeMesh& mesh, int32_t degenerateGlob) {
        const int32_t wall = mesh.addZone(1);
        mesh.addFace(wall, degenerateGlob, {Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(2, 0, 0)});
        mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0));
        mesh.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0));
        mesh.finish();
    };
    CodeMesh with(3), without(3);
    build(with, 0);
    build(without, 2);
    const Hemisphere hemisphere(3, 8);
    setThreadRandomState(99);
    for (int k = 0; k < 3; ++k) (void)threadRandom();
    const uint32_t afterOneTriple = threadRandomState();
    setThreadRandomState(99);
    const auto row = with.row(0, hemisphere);
    setThreadRandomState(afterOneTriple);
    const auto reference = without.row(0, hemisphere);
    EXPECT_EQ(row[1], reference[1]);
    EXPECT_GT(row[1], 0.1);
    without.row(2, hemisphere);
    EXPECT_EQ(without.touchedColumns(), 0);
}

// Planar and axisymmetric frames are fixed; 3D frames are turned by the thread's
// generator, so the same state repeats a row bit for bit and another state gives
// another row of the same accuracy.
TEST(ViewFactorRow, OnlyThreeDimensionalRowsDrawFromTheThreadsGenerator) {
    RandomStateGuard guard;
    for (int dimension : {1, 2, 3}) {
        SCOPED_TRACE(dimension);
        CodeMesh mesh(dimension);
        const int32_t wall = mesh.addZone(1);
        if (dimension == 3) {
            mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), 3, 3);
            mesh.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0));
        } else {
            mesh.addSegment(wall, 0, Vec3(0, 1, 0), Vec3(0, 2, 0), 4);
            mesh.addSegment(wall, 1, Vec3(1, 2, 0), Vec3(1, 1, 0));
        }
        mesh.finish();
        const Hemisphere hemisphere(hemisphereMode(dimension), 6);
        setThreadRandomState(1);
        const auto first = mesh.row(0, hemisphere);
        const uint32_t after = threadRandomState();
        EXPECT_EQ(after == 1u, dimension != 3);
        setThreadRandomState(1);
        EXPECT_EQ(mesh.row(0, hemisphere), first);
        EXPECT_EQ(threadRandomState(), after);
        setThreadRandomState(12345);
        const auto other = mesh.row(0, hemisphere);
        EXPECT_EQ(other == first, dimension != 3);
        EXPECT_GT(first[1], 0.1);
        EXPECT_NEAR(other[1], first[1], 0.02);
    }
}

TEST(ViewFactorRowDeathTest, WallWithoutGlobAborts) {
    CodeMesh mesh(2);
    const int32_t wall = mesh.addZone(1);
    mesh.addSegment(wall, 0, Vec3(1, 0, 0), Vec3(0, 0, 0));
    mesh.addSegment(wall, -1, Vec3(0, 1, 0), Vec3(1, 1, 0));
    mesh.finish();
    EXPECT_DEATH(mesh.row(0, Hemisphere(2, 4)),
                 "src/SparseRowVector:[0-9]+: Assertion 'j >= 0 && j < w.size\\(\\)' failed");
}

}  // namespace
}  // namespace hemiray
