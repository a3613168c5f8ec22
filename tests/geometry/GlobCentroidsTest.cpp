// Glob points: the area-weighted centroid, moved onto a curved glob's own surface
// along (or against) the summed area vector. Expected points are worked out by hand.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

#include "geometry/GlobCentroids.h"
#include "models/RandomMeshes.h"

namespace hemiray {
namespace {

using meshes::Kind;
using meshes::Mesh;

// One glob of quads with the given corners; returns its table with points placed.
GlobTable placedGlob(Mesh& mesh, const std::vector<std::array<Vec3, 4>>& quads) {
    for (const auto& corners : quads) {
        const auto first = static_cast<int32_t>(mesh.nodes.size());
        for (const Vec3& p : corners) mesh.addNode(p);
        mesh.addFace({first, first + 1, first + 2, first + 3});
        mesh.faces.faceGlob.back() = 0;
    }
    computeFaceGeometry(mesh.faces);
    GlobTable globs(1, mesh.faces);
    placeGlobCentroids(globs);
    return globs;
}

void expectNear(const Vec3& actual, const Vec3& expected) {
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(actual[i], expected[i], 1e-12) << actual;
}

TEST(GlobCentroids, CurvedGlobsMoveOntoTheirOwnSurface) {
    struct Case {
        const char* name;
        std::vector<std::array<Vec3, 4>> quads;
        Vec3 normal, point;
    };
    const double w0 = std::sqrt(2.0), w1 = std::sqrt(5.0);
    const Case cases[] = {
        // The floor [0,2]x[0,1] facing up (area 2) and the wall x = 2 facing -x (area
        // 1): centroid (4/3, 1/2, 1/6), N = (-1, 0, 2). Along N the floor is behind the
        // ray; against N it is reached at t = 1/12.
        {"inside corner",
         {{{{0, 0, 0}, {2, 0, 0}, {2, 1, 0}, {0, 1, 0}}},
          {{{2, 0, 0}, {2, 0, 1}, {2, 1, 1}, {2, 1, 0}}}},
         {-1, 0, 2},
         {17.0 / 12, 0.5, 0}},
        // A floor of area 1 facing up under a ceiling of area 2 facing down: N = (0, 0,
        // -1), centroid (2.5/3, 1/2, 2/3); along N the floor is reached at t = 2/3.
        {"facing plates",
         {{{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}}},
          {{{0, 0, 1}, {0, 1, 1}, {2, 1, 1}, {2, 0, 1}}}},
         {0, 0, -1},
         {2.5 / 3, 0.5, 0}},
        // A roof ridge along y, area vectors (-1, 0, 1) and (1, 0, 2): the centroid
        // lies under the roof, meets the faces from behind going up, and stays.
        {"roof",
         {{{{0, 0, 0}, {1, 0, 1}, {1, 1, 1}, {0, 1, 0}}},
          {{{1, 0, 1}, {3, 0, 0}, {3, 1, 0}, {1, 1, 1}}}},
         {0, 0, 3},
         {(w0 * 0.5 + w1 * 2.0) / (w0 + w1), 0.5, 0.5}},
        // Two coplanar quads of areas 1 and 3 facing down: a flat glob keeps the
        // area-weighted centroid.
        {"flat",
         {{{{0, 0, 0.5}, {0, 1, 0.5}, {1, 1, 0.5}, {1, 0, 0.5}}},
          {{{1, 0, 0.5}, {1, 1, 0.5}, {4, 1, 0.5}, {4, 0, 0.5}}}},
         {0, 0, -4},
         {2, 0.5, 0.5}},
        // One bent quad: the glob is its face, two fan triangles of equal area with
        // area vectors (0, -1/2, 1/2) and (-1/2, 0, 1/2).
        {"single face",
         {{{{0, 0, 0}, {1, 0, 0}, {1, 1, 1}, {0, 1, 0}}}},
         {-0.5, -0.5, 1},
         {0.5, 0.5, 1.0 / 3}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Mesh mesh(Kind::Quads);
        const GlobTable globs = placedGlob(mesh, c.quads);
        EXPECT_EQ(globs.globNormal[0], c.normal);
        expectNear(globs.globCentroid[0], c.point);
    }
}

TEST(GlobCentroids, PlanarCornerMovesOntoItsSegmentAndAnEmptyGlobHasNoPoint) {
    // Segments (2,0) -> (0,0) facing +y (length 2) and (2,1) -> (2,0) facing -x
    // (length 1): centroid (4/3, 1/6), N = (-1, 2): against N the first segment is
    // reached at t = 1/12, at (17/12, 0). Glob 1 has no faces.
    Mesh mesh(Kind::Planar);
    for (const Vec3& p : {Vec3(2, 0, 0), Vec3(0, 0, 0), Vec3(2, 1, 0)}) mesh.addNode(p);
    mesh.addFace({0, 1});
    mesh.addFace({2, 0});
    mesh.faces.faceGlob = {0, 0};
    computeFaceGeometry(mesh.faces);
    GlobTable globs(2, mesh.faces);
    placeGlobCentroids(globs);
    expectNear(globs.globCentroid[0], {17.0 / 12, 0, 0});
    EXPECT_EQ(globs.globNormal[1], Vec3(0, 0, 0));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(std::isnan(globs.globCentroid[1][i]));
}

}  // namespace
}  // namespace hemiray
