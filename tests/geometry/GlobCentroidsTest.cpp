// Glob points: the area-weighted centroid, moved onto a curved glob's own surface
// along (or against) the summed area vector.
#include <gtest/gtest.h>

#include <cmath>

#include "../support/Meshes.h"
#include "geometry/GlobCentroids.h"

namespace hemiray {
namespace {

using meshes::Kind;
using meshes::Mesh;

void expectNear(const Vec3& actual, const Vec3& expected) {
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(actual[i], expected[i], 1e-12) << actual;
}

// Quads with the given corner lists, each in the glob given.
struct GlobMesh {
    Mesh mesh{Kind::Quads};
    void quad(std::initializer_list<Vec3> corners, int32_t glob) {
        const auto first = static_cast<int32_t>(mesh.nodes.size());
        for (const Vec3& p : corners) mesh.addNode(p);
        mesh.addFace({first, first + 1, first + 2, first + 3});
        mesh.faces.faceGlob.back() = glob;
    }
};

TEST(GlobCentroids, InsideCornerMovesAgainstTheSummedAreaVector) {
    // Glob 0: the floor [0,2]x[0,1] at z = 0 facing up (area 2), then the wall
    // x = 2, y and z in [0,1], facing -x (area 1). Area-weighted centroid
    // (2*(1, 0.5, 0) + (2, 0.5, 0.5)) / 3 = (4/3, 0.5, 1/6); summed area vector
    // N = (-1, 0, 2). Along N the floor is behind the ray; against N it is reached
    // at t = 1/12, at (17/12, 0.5, 0).
    GlobMesh g;
    g.quad({{0, 0, 0}, {2, 0, 0}, {2, 1, 0}, {0, 1, 0}}, 0);
    g.quad({{2, 0, 0}, {2, 0, 1}, {2, 1, 1}, {2, 1, 0}}, 0);
    computeFaceGeometry(g.mesh.faces);
    ASSERT_EQ(g.mesh.faces.faceNormal[1], Vec3(-1, 0, 0));
    GlobTable globs(1, g.mesh.faces);
    placeGlobCentroids(globs);
    EXPECT_EQ(globs.globNormal[0], Vec3(-1, 0, 2));
    expectNear(globs.globCentroid[0], {17.0 / 12, 0.5, 0});
}

TEST(GlobCentroids, FacingPlatesMoveAlongTheSummedAreaVector) {
    // Floor [0,1]x[0,1] at z = 0 facing up (area 1), ceiling [0,2]x[0,1] at z = 1
    // facing down (area 2): N = (0, 0, -1), centroid (2.5/3, 0.5, 2/3). Along N the
    // floor is reached at t = 2/3.
    GlobMesh g;
    g.quad({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}}, 0);
    g.quad({{0, 0, 1}, {0, 1, 1}, {2, 1, 1}, {2, 0, 1}}, 0);
    computeFaceGeometry(g.mesh.faces);
    ASSERT_EQ(g.mesh.faces.faceNormal[1], Vec3(0, 0, -2));
    GlobTable globs(1, g.mesh.faces);
    placeGlobCentroids(globs);
    EXPECT_EQ(globs.globNormal[0], Vec3(0, 0, -1));
    expectNear(globs.globCentroid[0], {2.5 / 3, 0.5, 0});
}

TEST(GlobCentroids, RoofSeenFromBelowKeepsTheAreaWeightedCentroid) {
    // A roof ridge along y: x in [0,1] rising to (1, *, 1), then falling to
    // (3, *, 0); area vectors (-1, 0, 1) and (1, 0, 2) point up and out, N =
    // (0, 0, 3). The centroid lies under the roof: going up it meets the faces from
    // behind, going down they are behind the ray, so it stays.
    GlobMesh g;
    g.quad({{0, 0, 0}, {1, 0, 1}, {1, 1, 1}, {0, 1, 0}}, 0);
    g.quad({{1, 0, 1}, {3, 0, 0}, {3, 1, 0}, {1, 1, 1}}, 0);
    computeFaceGeometry(g.mesh.faces);
    ASSERT_EQ(g.mesh.faces.faceNormal[0], Vec3(-1, 0, 1));
    ASSERT_EQ(g.mesh.faces.faceNormal[1], Vec3(1, 0, 2));
    GlobTable globs(1, g.mesh.faces);
    placeGlobCentroids(globs);
    const double w0 = std::sqrt(2.0), w1 = std::sqrt(5.0);
    EXPECT_EQ(globs.globNormal[0], Vec3(0, 0, 3));
    expectNear(globs.globCentroid[0], {(w0 * 0.5 + w1 * 2.0) / (w0 + w1), 0.5, 0.5});
}

TEST(GlobCentroids, FlatSingleAndEmptyGlobsKeepTheirCentroid) {
    GlobMesh g;
    // Glob 0: two coplanar quads of areas 1 and 3 in the plane z = 0.5, facing down.
    g.quad({{0, 0, 0.5}, {0, 1, 0.5}, {1, 1, 0.5}, {1, 0, 0.5}}, 0);
    g.quad({{1, 0, 0.5}, {1, 1, 0.5}, {4, 1, 0.5}, {4, 0, 0.5}}, 0);
    // Glob 1: one bent (non-planar) quad.
    g.quad({{0, 0, 0}, {1, 0, 0}, {1, 1, 1}, {0, 1, 0}}, 1);
    // Glob 3 with one face; glob 2 gets none.
    g.quad({{5, 5, 5}, {6, 5, 5}, {6, 6, 5}, {5, 6, 5}}, 3);
    computeFaceGeometry(g.mesh.faces);
    GlobTable globs(4, g.mesh.faces);
    placeGlobCentroids(globs);
    // (1 * (0.5, 0.5) + 3 * (2.5, 0.5)) / 4 = (2, 0.5).
    expectNear(globs.globCentroid[0], {2, 0.5, 0.5});
    EXPECT_EQ(globs.globNormal[0], Vec3(0, 0, -4));
    EXPECT_EQ(globs.globCentroid[1], g.mesh.faces.faceCentroid[2]);
    EXPECT_EQ(globs.globNormal[1], g.mesh.faces.faceNormal[2]);
    EXPECT_EQ(globs.globCentroid[3], g.mesh.faces.faceCentroid[3]);
    EXPECT_EQ(globs.globNormal[2], Vec3(0, 0, 0));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(std::isnan(globs.globCentroid[2][i]));
}

TEST(GlobCentroids, PlanarCornerMovesOntoItsSegment) {
    // Segments (2,0) -> (0,0) facing +y (length 2) and (2,1) -> (2,0) facing -x
    // (length 1): centroid (2*(1,0) + (2,0.5))/3 = (4/3, 1/6), N = (-1, 2): against
    // N the first segment is reached at t = 1/12, at (17/12, 0).
    Mesh mesh(Kind::Planar);
    mesh.addNode({2, 0, 0});
    mesh.addNode({0, 0, 0});
    mesh.addNode({2, 1, 0});
    mesh.addFace({0, 1});
    mesh.addFace({2, 0});
    mesh.faces.faceGlob = {0, 0};
    computeFaceGeometry(mesh.faces);
    ASSERT_EQ(mesh.faces.faceNormal[0], Vec3(0, 2, 0));
    ASSERT_EQ(mesh.faces.faceNormal[1], Vec3(-1, 0, 0));
    GlobTable globs(1, mesh.faces);
    placeGlobCentroids(globs);
    expectNear(globs.globCentroid[0], {17.0 / 12, 0, 0});
}

}  // namespace
}  // namespace hemiray
