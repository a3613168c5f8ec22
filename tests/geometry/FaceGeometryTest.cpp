// Face area vectors and centroids against hand-computed values, degenerate and
// non-finite faces, and the glob grouping with its last-face-decides activity rule.
#include <gtest/gtest.h>

#include <cmath>

#include "geometry/FaceGeometry.h"
#include "models/RandomMeshes.h"

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

TEST(FaceGeometry, PolygonAreaVectorAndCentroidAnywhereInSpace) {
    // An L of area 3 made of [0,2]x[0,1] and [0,1]x[1,2]: centroid (5/6, 5/6). Every
    // fan triangle from (0,0) turns the same way, so the fan gives the true area.
    // Then the same L rotated and moved far from the origin, and a unit square both
    // ways round.
    const double lx[6] = {0, 2, 2, 1, 1, 0}, ly[6] = {0, 0, 1, 1, 2, 2};
    meshes::Rng rng(3);
    const auto rotation = meshes::detail::randomRotation(rng);
    const Vec3 shift(1e3, -2e3, 5e2);
    Mesh mesh(Kind::Quads);
    for (int i = 0; i < 6; ++i) mesh.addNode({lx[i], ly[i], 0});
    for (int i = 0; i < 6; ++i) mesh.addNode(rotation.apply({lx[i], ly[i], 0}) + shift);
    for (const Vec3& p : {Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(1, 1, 0), Vec3(0, 1, 0)})
        mesh.addNode(p);
    mesh.addFace({0, 1, 2, 3, 4, 5});
    mesh.addFace({6, 7, 8, 9, 10, 11});
    mesh.addFace({12, 13, 14, 15});
    mesh.addFace({15, 14, 13, 12});
    computeFaceGeometry(mesh.faces);
    const auto& normal = mesh.faces.faceNormal;
    const auto& centroid = mesh.faces.faceCentroid;
    expectNear(normal[0], {0, 0, 3});
    expectNear(centroid[0], {5.0 / 6, 5.0 / 6, 0});
    expectNear(normal[1], rotation.apply({0, 0, 3}));
    expectNear(centroid[1], rotation.apply({5.0 / 6, 5.0 / 6, 0}) + shift, 1e-9);
    EXPECT_EQ(normal[2], Vec3(0, 0, 1));
    EXPECT_EQ(normal[3], Vec3(0, 0, -1));
    expectNear(centroid[3], {0.5, 0.5, 0});
}

TEST(FaceGeometry, DegeneratePolygonsGetZeroAreaAndUndefinedCentroid) {
    Mesh mesh(Kind::Triangles);
    for (const Vec3& p : {Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(2, 0, 0), Vec3(1, 1, 0)})
        mesh.addNode(p);
    mesh.addFace({0, 1, 2});     // collinear
    mesh.addFace({0, 1, 1});     // repeated node
    mesh.addFace({0, 3});        // two nodes
    mesh.addFace({3});           // one node
    mesh.addFace({});            // none
    mesh.addFace({0, 1, 3, 3});  // a repeated node does not spoil a real triangle
    computeFaceGeometry(mesh.faces);
    for (size_t f = 0; f < 5; ++f) {
        EXPECT_EQ(mesh.faces.faceNormal[f], Vec3(0, 0, 0)) << f;
        expectAllNaN(mesh.faces.faceCentroid[f]);
    }
    EXPECT_EQ(mesh.faces.faceNormal[5], Vec3(0, 0, 0.5));
    expectNear(mesh.faces.faceCentroid[5], {2.0 / 3, 1.0 / 3, 0});
}

TEST(FaceGeometry, SegmentsAreTheFirstTwoNodesTurnedClockwise) {
    for (Kind kind : {Kind::Axisymmetric, Kind::Planar}) {
        SCOPED_TRACE(meshes::nameOf(kind));
        Mesh mesh(kind);
        for (const Vec3& p : {Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(5, 7, 0), Vec3(3, 4, 0)})
            mesh.addNode(p);
        mesh.addFace({0, 1});
        mesh.addFace({0, 1, 2});  // only the first two nodes count
        mesh.addFace({1, 3});
        mesh.addFace({3});  // a single node: a segment of no length at the node
        mesh.addFace({});
        computeFaceGeometry(mesh.faces);
        const auto& normal = mesh.faces.faceNormal;
        const auto& centroid = mesh.faces.faceCentroid;
        for (size_t f = 0; f < 2; ++f) {
            EXPECT_EQ(normal[f], Vec3(0, -1, 0));
            EXPECT_EQ(centroid[f], Vec3(0.5, 0, 0));
        }
        // (1,0) -> (3,4): direction (2,4) turned clockwise is (4,-2).
        EXPECT_EQ(normal[2], Vec3(4, -2, 0));
        EXPECT_EQ(centroid[2], Vec3(2, 2, 0));
        EXPECT_EQ(normal[3], Vec3(0, 0, 0));
        EXPECT_EQ(centroid[3], Vec3(3, 4, 0));
        EXPECT_EQ(normal[4], Vec3(0, 0, 0));
        expectAllNaN(centroid[4]);
    }
}

TEST(FaceGeometry, NonFiniteCoordinatesGiveNonFiniteGeometryOnlyForTheirFaces) {
    Mesh mesh(Kind::Triangles);
    for (const Vec3& p : {Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), Vec3(std::nan(""), 0, 0),
                          Vec3(HUGE_VAL, 0, 0)})
        mesh.addNode(p);
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

// Planar faces 0, 1, ... in the given globs and of the given zone types.
std::unique_ptr<Mesh> facesInGlobs(std::vector<int32_t> globs, std::vector<int32_t> types) {
    auto mesh = std::make_unique<Mesh>(Kind::Planar);
    for (size_t i = 0; i <= globs.size(); ++i) mesh->addNode({static_cast<double>(i), 0, 0});
    for (int32_t f = 0; f < static_cast<int32_t>(globs.size()); ++f) {
        mesh->addFace({f, f + 1}, types[static_cast<size_t>(f)]);
        mesh->faces.faceGlob.back() = globs[static_cast<size_t>(f)];
    }
    return mesh;
}

TEST(GlobTable, GroupsFacesStablyAndIgnoresFacesOutsideTheGlobCount) {
    const auto mesh = facesInGlobs({2, 0, -1, 2, 0, 2, -1, 1, 5, -7}, std::vector<int32_t>(10, 1));
    const GlobTable globs(3, mesh->faces);
    EXPECT_EQ(globs.faces, &mesh->faces);
    EXPECT_EQ(globs.globFaceStart, (std::vector<int32_t>{0, 2, 3, 6}));
    EXPECT_EQ(std::vector<int32_t>(globs.globFaces.begin(), globs.globFaces.begin() + 6),
              (std::vector<int32_t>{1, 4, 7, 0, 3, 5}));
    EXPECT_EQ(globs.globNormal, std::vector<Vec3>(3));
    EXPECT_EQ(globs.globCentroid, std::vector<Vec3>(3));
    const GlobTable none(-3, mesh->faces);  // a corrupt count means no globs
    EXPECT_EQ(none.globCount(), 0);
}

TEST(GlobTable, LastFaceOfAGlobDecidesWhetherItIsActive) {
    // Glob 0: walls, then a special type last -> inactive. Glob 1: a special type,
    // then a wall last -> active. Glob 2: walls, with a special face of no glob in
    // between -> active. Glob 3: no faces -> inactive.
    const auto mesh = facesInGlobs({0, 1, 0, 2, -1, 1, 0, 2}, {5, 2007, 1999, 3, 2012, 1, 2000, 7});
    EXPECT_EQ(GlobTable(4, mesh->faces).globActive, (std::vector<bool>{false, true, true, false}));
}

}  // namespace
}  // namespace hemiray
