// Rows of view factors against closed-form references in the three modes, the
// enclosure and reciprocity invariants, and the ray steering of mirror, periodic
// and absorbing zones.
//
// Tolerances come from the measured discretisation error of each configuration
// (hemisphere cells cut by target edges, and the midpoint rule over the emitter's
// faces), with a margin of about two; each bound is well below the change a
// wrong weight, a missing normalisation or a lost transform produces.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "AnalyticViewFactors.h"
#include "TestMesh.h"

namespace hemiray {
namespace {

using testmesh::RandomStateGuard;
using testmesh::TestMesh;
constexpr double pi = std::numbers::pi;

// ---------------------------------------------------------------------------
// Closed-form references

// 3D: the emitter is cut into n x n faces with n = res / 2, so both the hemicube
// and the midpoint rule over the emitter improve together. With the frames turned
// at random the cut cells average out and the error falls as 1/res^2: over 20
// generator states the worst errors were 0.46, 0.30 and 0.32 / res^2 (parallel)
// and 0.42, 0.57 and 0.54 / res^2 (perpendicular) at res 8, 16, 32; the bounds
// are 0.6 and 0.8 / res^2.
TEST(ViewFactorRow, ParallelRectanglesMatchTheCatalogue) {
    RandomStateGuard guard;
    const double a = 1, b = 2, c = 1;
    const double truth = testmesh::parallelRectangles(a, b, c);
    for (int res : {8, 16, 32}) {
        const int n = res / 2;
        TestMesh mesh(3);
        const int32_t wall = mesh.addZone(1);
        mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(a, 0, 0), Vec3(0, b, 0), n, n);
        mesh.addGrid(wall, 1, Vec3(0, 0, c), Vec3(0, b, 0), Vec3(a, 0, 0));
        mesh.finish();
        setThreadRandomState(1);
        const auto row = mesh.row(0, Hemisphere(3, res));
        EXPECT_NEAR(row[1], truth, 0.6 / (res * res)) << "res " << res;
        EXPECT_EQ(row[0], 0.0);  // a flat glob does not see itself
    }
}

TEST(ViewFactorRow, PerpendicularRectanglesMatchTheCatalogue) {
    RandomStateGuard guard;
    const double l = 1, w = 0.5, h = 2;
    const double truth = testmesh::perpendicularRectangles(l, w, h);
    for (int res : {8, 16, 32}) {
        const int n = res / 2;
        TestMesh mesh(3);
        const int32_t wall = mesh.addZone(1);
        mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(l, 0, 0), Vec3(0, w, 0), n, n);
        mesh.addGrid(wall, 1, Vec3(0, 0, 0), Vec3(0, 0, h), Vec3(l, 0, 0));  // normal +y
        mesh.finish();
        setThreadRandomState(1);
        const auto row = mesh.row(0, Hemisphere(3, res));
        EXPECT_NEAR(row[1], truth, 0.8 / (res * res)) << "res " << res;
    }
}

// Axisymmetric: each emitter ring is its own glob, so its row is the view factor
// of the ring (of any point on it) to the opposite disc; weighting the rings by
// their revolved areas gives the disc-to-disc factor. (A glob of several rings
// weights its faces by segment length, not by revolved area.) The frame is not
// turned here, so cells cut by the disc's rim do not average out: the error is
// O(1/res) and irregular. Over 8 to 32 rings and res 10 to 80 the worst ring was
// 0.22 / res off, and the disc value, a weighted mean of the rings, no worse;
// the bound is 0.3 / res.
TEST(ViewFactorRow, CoaxialDisksMatchTheCatalogue) {
    const double r1 = 1, r2 = 0.8, L = 0.6;
    const double truth = testmesh::coaxialDisks(r1, r2, L);
    struct Case {
        int rings, res;
    };
    for (const Case& k : {Case{8, 10}, Case{16, 20}, Case{32, 40}}) {
        const double tolerance = 0.3 / k.res;
        TestMesh mesh(1);
        const int32_t wall = mesh.addZone(1);
        for (int i = 0; i < k.rings; ++i)
            mesh.addSegment(wall, i, Vec3(0, r1 * i / k.rings, 0),
                            Vec3(0, r1 * (i + 1) / k.rings, 0));
        mesh.addSegment(wall, k.rings, Vec3(L, r2, 0), Vec3(L, 0, 0));
        mesh.finish();
        const Hemisphere hemisphere(3, k.res);
        double weighted = 0, area = 0;
        for (int i = 0; i < k.rings; ++i) {
            const double rMid = r1 * (i + 0.5) / k.rings;
            const auto row = mesh.row(i, hemisphere);
            const double pointTruth = testmesh::pointToParallelDisk(L, r2, rMid);
            EXPECT_NEAR(row[k.rings], pointTruth, tolerance) << "ring " << i;
            weighted += rMid * row[k.rings];
            area += rMid;
        }
        EXPECT_NEAR(weighted / area, truth, tolerance) << "res " << k.res;
    }
}

// Planar: crossed strings are exact for segments, and the fan's normalised weights
// are the exact view factors of their angular cells, so the only error is the
// cells cut by a target's ends: at most half a cell, pi / (8 res), per end and
// emitter point. Over n = 7 to 64 faces and res 8 to 256 the worst measured error
// was 0.35 / res; the bound is 0.5 / res.
TEST(ViewFactorRow, PlanarStripsMatchCrossedStrings) {
    struct Strip {
        Vec3 b0, b1;
    };
    const Vec3 a0(0, 0, 0), a1(1, 0, 0);
    for (const Strip& s : {Strip{Vec3(0, 1, 0), Vec3(1, 1, 0)},
                           Strip{Vec3(0.5, 0.7, 0), Vec3(2.5, 0.7, 0)}}) {
        const double truth = testmesh::crossedStrings(a0, a1, s.b0, s.b1);
        struct Case {
            int n, res;
        };
        for (const Case& k : {Case{8, 16}, Case{31, 16}, Case{8, 64}, Case{31, 64},
                              Case{8, 256}, Case{31, 256}}) {
            TestMesh mesh(2);
            const int32_t wall = mesh.addZone(1);
            mesh.addSegment(wall, 0, a1, a0, k.n);  // normal +y
            mesh.addSegment(wall, 1, s.b0, s.b1);   // normal -y
            mesh.finish();
            const auto row = mesh.row(0, Hemisphere(2, k.res));
            EXPECT_NEAR(row[1], truth, 0.5 / k.res) << "n " << k.n << " res " << k.res;
        }
    }
}

// ---------------------------------------------------------------------------
// Enclosures: every ray lands on a wall, so rows sum to 1 to rounding whatever
// the resolution, and the entries converge to the closed forms.

TEST(ViewFactorRow, UnitCubeRowsSumToOneAndConverge) {
    RandomStateGuard guard;
    const double opposite = testmesh::parallelRectangles(1, 1, 1);
    const double adjacent = testmesh::perpendicularRectangles(1, 1, 1);
    double previousError = 1;
    for (int n : {4, 8}) {
        TestMesh mesh(3);
        const int32_t wall = mesh.addZone(1);
        // Inward normals; glob 0 bottom, 1 top, 2..5 the sides.
        mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), n, n);
        mesh.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0), n, n);
        mesh.addGrid(wall, 2, Vec3(0, 0, 0), Vec3(0, 0, 1), Vec3(1, 0, 0), n, n);
        mesh.addGrid(wall, 3, Vec3(0, 1, 0), Vec3(1, 0, 0), Vec3(0, 0, 1), n, n);
        mesh.addGrid(wall, 4, Vec3(0, 0, 0), Vec3(0, 1, 0), Vec3(0, 0, 1), n, n);
        mesh.addGrid(wall, 5, Vec3(1, 0, 0), Vec3(0, 0, 1), Vec3(0, 1, 0), n, n);
        mesh.finish();
        setThreadRandomState(1);
        const int res = 2 * n;
        double error = 0;
        for (int glob : {0, 3}) {
            const auto row = mesh.row(glob, Hemisphere(3, res));
            EXPECT_NEAR(testmesh::sum(row), 1.0, 1e-13) << "glob " << glob;
            EXPECT_EQ(row[glob], 0.0);
            for (int other = 0; other < 6; ++other) {
                if (other == glob) continue;
                const bool facing = other / 2 == glob / 2;
                error = std::max(error,
                                 std::abs(row[other] - (facing ? opposite : adjacent)));
            }
        }
        EXPECT_LT(error, 0.8 / (res * res));  // as for the rectangles above
        EXPECT_LT(error, previousError);
        previousError = error;
    }
}

// An irregular convex pentagon: all rows, sums, and every entry against crossed
// strings; reciprocity follows from the references.
TEST(ViewFactorRow, PlanarPolygonRowsSumToOneAndConverge) {
    const Vec3 v[] = {Vec3(0, 0, 0), Vec3(3, 0, 0), Vec3(3.5, 1.5, 0), Vec3(1.5, 3, 0),
                      Vec3(-0.5, 1.2, 0)};
    constexpr int sides = 5;
    double previousError = 1;
    struct Case {
        int n, res;
    };
    for (const Case& k : {Case{8, 16}, Case{32, 64}}) {
        TestMesh mesh(2);
        const int32_t wall = mesh.addZone(1);
        for (int i = 0; i < sides; ++i)
            mesh.addSegment(wall, i, v[(i + 1) % sides], v[i], k.n);
        mesh.finish();
        double error = 0;
        for (int i = 0; i < sides; ++i) {
            const auto row = mesh.row(i, Hemisphere(2, k.res));
            EXPECT_NEAR(testmesh::sum(row), 1.0, 1e-13) << "side " << i;
            for (int j = 0; j < sides; ++j) {
                const double truth =
                    j == i ? 0.0
                           : testmesh::crossedStrings(v[i], v[(i + 1) % sides],
                                                      v[(j + 1) % sides], v[j]);
                error = std::max(error, std::abs(row[j] - truth));
            }
        }
        EXPECT_LT(error, 0.5 / k.res);  // as for the strips above
        EXPECT_LT(error, previousError);
        previousError = error;
    }
}

// Axisymmetric closed cylinder (radius 1, length 1): two discs cut into rings and
// the mantle, which sees itself. Bounds as for the coaxial discs.
TEST(ViewFactorRow, AxisymmetricCylinderRowsSumToOne) {
    const int rings = 16;
    TestMesh mesh(1);
    const int32_t wall = mesh.addZone(1);
    for (int i = 0; i < rings; ++i)
        mesh.addSegment(wall, i, Vec3(0, double(i) / rings, 0),
                        Vec3(0, double(i + 1) / rings, 0));
    const int32_t mantle = rings;
    mesh.addSegment(wall, mantle, Vec3(0, 1, 0), Vec3(1, 1, 0), 4);
    for (int i = 0; i < rings; ++i)
        mesh.addSegment(wall, mantle + 1 + i, Vec3(1, double(rings - i) / rings, 0),
                        Vec3(1, double(rings - i - 1) / rings, 0));
    mesh.finish();
    const Hemisphere hemisphere(3, 20);
    const double disks = testmesh::coaxialDisks(1, 1, 1);
    double weighted = 0, area = 0;
    for (int i = 0; i < rings; ++i) {
        const auto row = mesh.row(i, hemisphere);
        EXPECT_NEAR(testmesh::sum(row), 1.0, 1e-13) << "ring " << i;
        double toFarDisk = 0;
        for (int j = mantle + 1; j < mesh.globCount(); ++j) toFarDisk += row[j];
        const double rMid = (i + 0.5) / rings;
        weighted += rMid * toFarDisk;
        area += rMid;
    }
    EXPECT_NEAR(weighted / area, disks, 0.3 / 20);
    // The mantle: A_disk F(disk -> mantle) = A_mantle F(mantle -> disk), so each disc
    // takes (1 - F_dd) / 2 of the mantle's row and the mantle sees itself with F_dd.
    const auto row = mesh.row(mantle, hemisphere);
    EXPECT_NEAR(testmesh::sum(row), 1.0, 1e-13);
    double toNearDisk = 0;
    for (int j = 0; j < rings; ++j) toNearDisk += row[j];
    EXPECT_NEAR(toNearDisk, (1 - disks) / 2, 0.3 / 20);
    EXPECT_NEAR(row[mantle], disks, 0.3 / 20);
}

// ---------------------------------------------------------------------------
// Mirror, periodic and absorbing zones

// Two 2 x 1 plates at z = 0 and z = 1, cut in half at x = 0. The half model (right
// halves and a mirror in the plane x = 0 between the plates) must give the bottom
// right half the row it has in the full model, summed over a glob and its image.
// With the same frames the mirrored rays are the full model's, so the rows agree
// to rounding. (The top plates are cut finely: a face is hit only beyond a
// thousandth of its size, and a coarse top plate would miss rays reflected right
// next to the seam.) The full model is also closed-form: by symmetry either bottom
// half sees the whole top plate as the whole bottom plate does (bound as for the
// parallel rectangles; measured within 1.6e-3 over five generator states).
TEST(ViewFactorRow, MirrorHalfModelReproducesTheFullModel) {
    RandomStateGuard guard;
    const int n = 8, res = 16, top = 32;
    const Hemisphere hemisphere(3, res);
    TestMesh full(3);
    const int32_t fullWall = full.addZone(1);
    full.addGrid(fullWall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), n, n);
    full.addGrid(fullWall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0), top, top);
    full.addGrid(fullWall, 2, Vec3(-1, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), n, n);
    full.addGrid(fullWall, 3, Vec3(-1, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0), top, top);
    full.finish();
    TestMesh half(3);
    const int32_t wall = half.addZone(1), mirror = half.addZone(zoneTypeMirror);
    half.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), n, n);
    half.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0), top, top);
    half.addGrid(mirror, -1, Vec3(0, 0, 0), Vec3(0, 1, 0), Vec3(0, 0, 1), 2,
                 2);  // normal +x
    half.finish();

    setThreadRandomState(7);
    const auto fullRow = full.row(0, hemisphere);
    setThreadRandomState(7);  // same frames: the mirrored rays are the full model's
    const auto halfRow = half.row(0, hemisphere);
    EXPECT_NEAR(halfRow[1], fullRow[1] + fullRow[3], 1e-12);
    EXPECT_EQ(halfRow[0], 0.0);
    const double truth = testmesh::parallelRectangles(2, 1, 1);
    EXPECT_NEAR(halfRow[1], truth, 0.6 / (res * res));
}

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
    TestMesh mesh(2);
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

INSTANTIATE_TEST_SUITE_P(ViewFactorRow, HundredBounces,
                         ::testing::Values(98, 99, 100, 101));

// A regular octagon about (2, -1), cut to the quarter between the vertices at 0
// and 90 degrees: two sides and two radial periodic faces. Rays leaving through
// the face at 0 degrees come back through the one at 90 degrees, turned by +90
// degrees about the centre, and the reverse; each zone carries its own angle.
// The quarter's rows are the full octagon's summed over the four images of each
// side: the full model itself traced with the same fan (equal to rounding: the
// rays are the same lines), and crossed strings. Each entry gathers four image
// sides, eight cut ends; over n = 4 to 31 and res 16 to 256 the worst error was
// 0.5 / res, and the bound is 0.8 / res.
TEST(ViewFactorRow, RotationalPeriodicSectorReproducesTheFullRing) {
    const Vec3 centre(2, -1, 0);
    const auto v = testmesh::regularPolygon(8, 1.0, centre);
    const int n = 16, res = 64;
    const Hemisphere hemisphere(2, res);
    TestMesh full(2);
    const int32_t fullWall = full.addZone(1);
    for (int i = 0; i < 8; ++i) full.addSegment(fullWall, i, v[(i + 1) % 8], v[i], n);
    full.finish();

    TestMesh sector(2);
    const int32_t wall = sector.addZone(1);
    const int32_t periodic = sector.addZone(zoneTypePeriodic);
    const int32_t shadow = sector.addZone(zoneTypePeriodicShadow);
    sector.makeRotational(periodic, pi / 2, centre, Vec3(0, 0, 1));
    sector.makeRotational(shadow, -pi / 2, centre, Vec3(0, 0, 1));
    for (int i = 0; i < 2; ++i) sector.addSegment(wall, i, v[i + 1], v[i], n);
    sector.addSegment(periodic, -1, v[0], centre);  // normal +y, into the quarter
    sector.addSegment(shadow, -1, centre, v[2]);    // normal +x
    sector.finish();

    for (int i = 0; i < 2; ++i) {
        const auto fullRow = full.row(i, hemisphere);
        const auto row = sector.row(i, hemisphere);
        EXPECT_NEAR(testmesh::sum(row), 1.0, 1e-13);
        for (int j = 0; j < 2; ++j) {
            double image = 0, truth = 0;
            for (int k = j; k < 8; k += 2) {
                image += fullRow[k];
                if (k != i)
                    truth +=
                        testmesh::crossedStrings(v[i], v[i + 1], v[(k + 1) % 8], v[k]);
            }
            EXPECT_NEAR(row[j], image, 1e-12) << i << " -> " << j;
            EXPECT_NEAR(row[j], truth, 0.8 / res) << i << " -> " << j;
        }
    }
}

// A cell of an infinite channel between plates y = 0 and y = 1, periodic in x with
// period 1: the top is split at x = 0.3. By translation invariance the emitting
// cell's energy spreads evenly over the infinite top plate, so the pieces receive
// 0.3 and 0.7 (an asymmetric split, so a shift of the wrong sign cannot pass). The
// fan's most grazing ray crosses about 4 res / pi cells, under 100 up to res 64.
// Measured errors 0.061 / res at res 16 and 0.016 / res at 64; the bound is
// 0.1 / res. The top is cut into pieces of 0.1 so that its minimum hit distance
// does not drop rays that re-enter right under it.
TEST(ViewFactorRow, TranslationalPeriodicCellIsAnInfiniteChannel) {
    const int n = 16;
    TestMesh mesh(2);
    const int32_t wall = mesh.addZone(1);
    const int32_t periodic = mesh.addZone(zoneTypePeriodic);
    const int32_t shadow = mesh.addZone(zoneTypePeriodicShadow);
    mesh.makeTranslational(periodic, Vec3(-1, 0, 0));  // leaves at x = 1, enters at x = 0
    mesh.makeTranslational(shadow, Vec3(1, 0, 0));
    mesh.addSegment(wall, 0, Vec3(1, 0, 0), Vec3(0, 0, 0), n);    // normal +y
    mesh.addSegment(wall, 1, Vec3(0, 1, 0), Vec3(0.3, 1, 0), 3);  // normal -y
    mesh.addSegment(wall, 2, Vec3(0.3, 1, 0), Vec3(1, 1, 0), 7);
    mesh.addSegment(periodic, -1, Vec3(1, 1, 0), Vec3(1, 0, 0));  // normal -x
    mesh.addSegment(shadow, -1, Vec3(0, 0, 0), Vec3(0, 1, 0));    // normal +x
    mesh.finish();
    for (int res : {16, 64}) {
        const auto row = mesh.row(0, Hemisphere(2, res));
        EXPECT_NEAR(testmesh::sum(row), 1.0, 1e-13);
        EXPECT_NEAR(row[1], 0.3, 0.1 / res);
        EXPECT_NEAR(row[2], 0.7, 0.1 / res);
        EXPECT_EQ(row[0], 0.0);
    }
}

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
        TestMesh mesh(2);
        const int32_t wall = mesh.addZone(1), absorbing = mesh.addZone(2003);
        mesh.addSegment(wall, 0, e1, e0, n);  // normal +y
        mesh.addSegment(wall, 1, w0, w1);     // normal -y
        if (absorber) mesh.addSegment(absorbing, 2, a0, a1);
        mesh.finish();
        const auto row = mesh.row(0, Hemisphere(2, res));
        const double toWall = testmesh::crossedStrings(e0, e1, w0, w1);
        const double blocked = absorber ? testmesh::crossedStrings(e0, e1, a0, a1) : 0.0;
        EXPECT_NEAR(row[1], toWall - blocked, 0.5 / res);
        EXPECT_EQ(mesh.touchedColumns(), 1);  // nothing in the absorber's column
    }
}

// ---------------------------------------------------------------------------
// Bookkeeping: empty rows, glob means, randomness

TEST(ViewFactorRow, RowsAreEmptyWhenNothingIsHit) {
    TestMesh mesh(3);
    const int32_t wall = mesh.addZone(1);
    mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0));
    mesh.addGrid(wall, 1, Vec3(0, 0, -1), Vec3(1, 0, 0),
                 Vec3(0, 1, 0));  // behind, facing away
    mesh.addGrid(wall, 3, Vec3(0, 0, 2), Vec3(1, 0, 0),
                 Vec3(0, 1, 0));  // glob 2 has no faces
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
    auto build = [&](TestMesh& mesh, bool oneGlob) {
        const int32_t wall = mesh.addZone(1);
        for (int i = 0; i < 3; ++i)
            mesh.addGrid(wall, oneGlob ? 0 : (i == 0 ? 0 : i + 1), Vec3(edges[i], 0, 0),
                         Vec3(edges[i + 1] - edges[i], 0, 0), Vec3(0, 1, 0));
        mesh.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0.3), Vec3(1.5, 0, 0.5));
        mesh.finish();
    };
    TestMesh joined(3), separate(3);
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
    auto build = [](TestMesh& mesh, int32_t degenerateGlob) {
        const int32_t wall = mesh.addZone(1);
        mesh.addFace(wall, degenerateGlob, {Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(2, 0, 0)});
        mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0));
        mesh.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0));
        mesh.finish();
    };
    TestMesh with(3), without(3);
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

TEST(ViewFactorRow, PlanarAndAxisymmetricRowsDrawNoRandomNumbers) {
    RandomStateGuard guard;
    for (int dimension : {1, 2}) {
        TestMesh mesh(dimension);
        const int32_t wall = mesh.addZone(1);
        mesh.addSegment(wall, 0, Vec3(0, 1, 0), Vec3(0, 2, 0), 4);
        mesh.addSegment(wall, 1, Vec3(1, 2, 0), Vec3(1, 1, 0));
        mesh.finish();
        setThreadRandomState(777);
        const auto first = mesh.row(0, Hemisphere(dimension == 2 ? 2 : 3, 8));
        EXPECT_EQ(threadRandomState(), 777u) << dimension;
        setThreadRandomState(12345);
        const auto second = mesh.row(0, Hemisphere(dimension == 2 ? 2 : 3, 8));
        EXPECT_EQ(first, second) << dimension;
        EXPECT_GT(first[1], 0.0) << dimension;
    }
}

TEST(ViewFactorRow, ThreeDimensionalRowsFollowTheThreadState) {
    RandomStateGuard guard;
    TestMesh mesh(3);
    const int32_t wall = mesh.addZone(1);
    mesh.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), 3, 3);
    mesh.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0));
    mesh.finish();
    const Hemisphere hemisphere(3, 6);
    setThreadRandomState(1);
    const auto first = mesh.row(0, hemisphere);
    const uint32_t after = threadRandomState();
    EXPECT_NE(after, 1u);
    setThreadRandomState(1);
    EXPECT_EQ(mesh.row(0, hemisphere), first);  // bit for bit
    EXPECT_EQ(threadRandomState(), after);
    // Another state turns the frames: a different row of the same accuracy.
    const auto other = mesh.row(0, hemisphere);
    EXPECT_NE(other, first);
    EXPECT_NEAR(other[1], first[1], 0.02);
}

TEST(ViewFactorRowDeathTest, WallWithoutGlobAborts) {
    TestMesh mesh(2);
    const int32_t wall = mesh.addZone(1);
    mesh.addSegment(wall, 0, Vec3(1, 0, 0), Vec3(0, 0, 0));
    mesh.addSegment(wall, -1, Vec3(0, 1, 0), Vec3(1, 1, 0));
    mesh.finish();
    const Hemisphere hemisphere(2, 4);
    EXPECT_DEATH(
        mesh.row(0, hemisphere),
        "src/SparseRowVector:[0-9]+: Assertion 'j >= 0 && j < w.size\\(\\)' failed");
}

}  // namespace
}  // namespace hemiray
