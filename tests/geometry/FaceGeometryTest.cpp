// Face area vectors and centroids against hand-computed values, degenerate faces,
// and the glob grouping with its last-face-decides activity rule.
#include <gtest/gtest.h>

#include <cmath>

#include "../support/Meshes.h"
#include "geometry/FaceGeometry.h"

namespace hemiray {
namespace {

using meshes::Kind;
using meshes::Mesh;

void expectNear(const Vec3& actual, const Vec3& expected, double tolerance = 1e-12) {
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(actual[i], expected[i], tolerance) << "component " << i << " of " << actual;
}

void expectAllNaN(const Vec3& v) {
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(std::isnan(v[i])) << v;
}

TEST(FaceGeometry, UnitSquareHasUnitAreaVectorAndCentreCentroid) {
    Mesh mesh(Kind::Quads);
    mesh.addNode({0, 0, 0});
    mesh.addNode({1, 0, 0});
    mesh.addNode({1, 1, 0});
    mesh.addNode({0, 1, 0});
    mesh.addFace({0, 1, 2, 3});
    mesh.addFace({3, 2, 1, 0});  // reversed order: reversed area vector
    computeFaceGeometry(mesh.faces);
    ASSERT_EQ(mesh.faces.faceNormal.size(), 2u);
    EXPECT_EQ(mesh.faces.faceNormal[0], Vec3(0, 0, 1));
    EXPECT_EQ(mesh.faces.faceNormal[1], Vec3(0, 0, -1));
    expectNear(mesh.faces.faceCentroid[0], {0.5, 0.5, 0});
    expectNear(mesh.faces.faceCentroid[1], {0.5, 0.5, 0});
}

TEST(FaceGeometry, NonConvexPolygonAnywhereInSpace) {
    // An L of area 3 made of the rectangles [0,2]x[0,1] and [0,1]x[1,2]: centroid
    // ((2*1 + 1*0.5)/3, (2*0.5 + 1*1.5)/3) = (5/6, 5/6). Every fan triangle from
    // (0,0) turns the same way, so the fan gives the true area. Then the same L
    // rotated and moved far from the origin.
    const double lx[6] = {0, 2, 2, 1, 1, 0};
    const double ly[6] = {0, 0, 1, 1, 2, 2};
    meshes::Rng rng(3);
    const auto rotation = meshes::detail::randomRotation(rng);
    const Vec3 shift(1e3, -2e3, 5e2);
    Mesh mesh(Kind::Quads);
    for (int i = 0; i < 6; ++i) mesh.addNode({lx[i], ly[i], 0});
    for (int i = 0; i < 6; ++i) mesh.addNode(rotation.apply({lx[i], ly[i], 0}) + shift);
    mesh.addFace({0, 1, 2, 3, 4, 5});
    mesh.addFace({6, 7, 8, 9, 10, 11});
    computeFaceGeometry(mesh.faces);
    expectNear(mesh.faces.faceNormal[0], {0, 0, 3});
    expectNear(mesh.faces.faceCentroid[0], {5.0 / 6, 5.0 / 6, 0});
    expectNear(mesh.faces.faceNormal[1], rotation.apply({0, 0, 3}));
    expectNear(mesh.faces.faceCentroid[1], rotation.apply({5.0 / 6, 5.0 / 6, 0}) + shift, 1e-9);
}

TEST(FaceGeometry, DegeneratePolygonsGetZeroAreaAndUndefinedCentroid) {
    Mesh mesh(Kind::Triangles);
    mesh.addNode({0, 0, 0});
    mesh.addNode({1, 0, 0});
    mesh.addNode({2, 0, 0});
    mesh.addNode({1, 1, 0});
    mesh.addFace({0, 1, 2});     // collinear
    mesh.addFace({0, 1, 1});     // repeated node
    mesh.addFace({0, 3});        // two nodes
    mesh.addFace({3});           // one node
    mesh.addFace({});            // none
    mesh.addFace({0, 1, 3, 3});  // a repeated node does not spoil a real triangle
    computeFaceGeometry(mesh.faces);
    for (int f = 0; f < 5; ++f) {
        SCOPED_TRACE(f);
        EXPECT_EQ(mesh.faces.faceNormal[static_cast<size_t>(f)], Vec3(0, 0, 0));
        expectAllNaN(mesh.faces.faceCentroid[static_cast<size_t>(f)]);
    }
    EXPECT_EQ(mesh.faces.faceNormal[5], Vec3(0, 0, 0.5));
    expectNear(mesh.faces.faceCentroid[5], {2.0 / 3, 1.0 / 3, 0});
}

class SegmentGeometry : public ::testing::TestWithParam<Kind> {};

TEST_P(SegmentGeometry, FirstTwoNodesTurnedClockwise) {
    Mesh mesh(GetParam());
    mesh.addNode({0, 0, 0});
    mesh.addNode({1, 0, 0});
    mesh.addNode({5, 7, 0});
    mesh.addNode({3, 4, 0});
    mesh.addFace({0, 1});
    mesh.addFace({0, 1, 2});  // only the first two nodes count
    mesh.addFace({1, 3});
    mesh.addFace({3});  // a single node: a segment of no length at the node
    mesh.addFace({});
    computeFaceGeometry(mesh.faces);
    for (int f = 0; f < 2; ++f) {
        EXPECT_EQ(mesh.faces.faceNormal[static_cast<size_t>(f)], Vec3(0, -1, 0));
        EXPECT_EQ(mesh.faces.faceCentroid[static_cast<size_t>(f)], Vec3(0.5, 0, 0));
    }
    // (1,0) -> (3,4): direction (2,4) turned clockwise is (4,-2); length sqrt(20).
    EXPECT_EQ(mesh.faces.faceNormal[2], Vec3(4, -2, 0));
    EXPECT_EQ(mesh.faces.faceCentroid[2], Vec3(2, 2, 0));
    EXPECT_EQ(mesh.faces.faceNormal[3], Vec3(0, 0, 0));
    EXPECT_EQ(mesh.faces.faceCentroid[3], Vec3(3, 4, 0));
    EXPECT_EQ(mesh.faces.faceNormal[4], Vec3(0, 0, 0));
    expectAllNaN(mesh.faces.faceCentroid[4]);
}

INSTANTIATE_TEST_SUITE_P(PlanarAndAxisymmetric, SegmentGeometry,
                         ::testing::Values(Kind::Axisymmetric, Kind::Planar),
                         [](const ::testing::TestParamInfo<Kind>& param) {
                             return meshes::nameOf(param.param);
                         });

TEST(FaceGeometry, NonFiniteCoordinatesGiveNonFiniteGeometryOnlyForTheirFaces) {
    Mesh mesh(Kind::Triangles);
    mesh.addNode({0, 0, 0});
    mesh.addNode({1, 0, 0});
    mesh.addNode({0, 1, 0});
    mesh.addNode({std::nan(""), 0, 0});
    mesh.addNode({HUGE_VAL, 0, 0});
    mesh.addFace({0, 1, 3});
    mesh.addFace({0, 4, 2});
    mesh.addFace({0, 1, 2});
    computeFaceGeometry(mesh.faces);
    EXPECT_TRUE(std::isnan(mesh.faces.faceCentroid[0][0]));
    EXPECT_FALSE(std::isfinite(mesh.faces.faceNormal[1][2]));
    EXPECT_EQ(mesh.faces.faceNormal[2], Vec3(0, 0, 0.5));
}

TEST(FaceGeometryDeathTest, NodeIndexOutsideTheNodeArrayAborts) {
    Mesh mesh(Kind::Triangles);
    mesh.addNode({0, 0, 0});
    mesh.addNode({1, 0, 0});
    mesh.addFace({0, 1, 2});
    EXPECT_DEATH(computeFaceGeometry(mesh.faces), "face node index inside the node array");
    Mesh below(Kind::Planar);
    below.addNode({0, 0, 0});
    below.addFace({-1, 0});  // node number 0 in the file
    EXPECT_DEATH(computeFaceGeometry(below.faces), "face node index inside the node array");
}

// Faces 0..7 with these globs and zone types.
struct GlobFixture {
    Mesh mesh{Kind::Planar};
    GlobFixture(std::initializer_list<int32_t> globs, std::initializer_list<int32_t> types) {
        for (size_t i = 0; i < globs.size(); ++i) mesh.addNode({static_cast<double>(i), 0, 0});
        mesh.addNode({static_cast<double>(globs.size()), 0, 0});
        auto type = types.begin();
        int32_t f = 0;
        for (int32_t g : globs) {
            mesh.addFace({f, f + 1}, *type++);
            mesh.faces.faceGlob.back() = g;
            ++f;
        }
    }
};

TEST(GlobTable, GroupsFacesStablyAndSkipsFacesWithoutGlob) {
    GlobFixture fixture({2, 0, -1, 2, 0, 2, -1, 1}, {1, 1, 1, 1, 1, 1, 1, 1});
    const GlobTable globs(3, fixture.mesh.faces);
    EXPECT_EQ(globs.faces, &fixture.mesh.faces);
    EXPECT_EQ(globs.globCount(), 3);
    EXPECT_EQ(globs.globFaceStart, (std::vector<int32_t>{0, 2, 3, 6}));
    // Entries past the grouped faces stay 0.
    EXPECT_EQ(globs.globFaces, (std::vector<int32_t>{1, 4, 7, 0, 3, 5, 0, 0}));
    EXPECT_EQ(globs.globNormal, std::vector<Vec3>(3));
    EXPECT_EQ(globs.globCentroid, std::vector<Vec3>(3));
}

TEST(GlobTable, LastFaceOfAGlobDecidesWhetherItIsActive) {
    // Glob 0: walls, then a special type last -> inactive. Glob 1: a special type,
    // then a wall last -> active. Glob 2: walls, with a special face of no glob in
    // between -> active. Glob 3: no faces -> inactive.
    GlobFixture fixture({0, 1, 0, 2, -1, 1, 0, 2}, {5, 2007, 1999, 3, 2012, 1, 2000, 7});
    const GlobTable globs(4, fixture.mesh.faces);
    EXPECT_EQ(globs.globActive, (std::vector<bool>{false, true, true, false}));
}

TEST(GlobTable, IdsOutsideTheGlobCountAreIgnored) {
    GlobFixture fixture({0, 5, -7, 1, 2, 0}, {1, 1, 1, 2500, 1, 1});
    const GlobTable globs(2, fixture.mesh.faces);
    EXPECT_EQ(globs.globFaceStart, (std::vector<int32_t>{0, 2, 3}));
    EXPECT_EQ(globs.globFaces, (std::vector<int32_t>{0, 5, 3, 0, 0, 0}));
    EXPECT_EQ(globs.globActive, (std::vector<bool>{true, false}));

    const GlobTable none(-3, fixture.mesh.faces);  // a corrupt count means no globs
    EXPECT_EQ(none.globCount(), 0);
    EXPECT_EQ(none.globFaceStart, (std::vector<int32_t>{0}));
}

}  // namespace
}  // namespace hemiray
