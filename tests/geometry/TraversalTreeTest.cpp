// The flat tracing copy against two references. Brute force: random rays from
// inside closed random meshes must find the nearest of all faces, which checks the
// tree's construction and clipping as well. The recursive walk of the node tree
// (the oracle, written literally after the traversal rules): over the clipped
// interval the flat copy must give the same hit or miss, face and hit point to the
// last bit.
// Random intervals reach the rules for tSplit below tmin and roots outside the
// interval; origins placed on split planes reach the equality rule; faces that
// have no record (polygons of five nodes, faces without nodes) reach the fallback.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <vector>

#include "geometry/RayTraversal.h"
#include "geometry/TraversalTree.h"
#include "models/QuietTree.h"
#include "models/RandomMeshes.h"
#include "support/RecursiveTraversal.h"

namespace hemiray {
namespace {

using meshes::Kind;

bool sameBits(double a, double b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}
bool sameBits(const Vec3& a, const Vec3& b) {
    return sameBits(a[0], b[0]) && sameBits(a[1], b[1]) && sameBits(a[2], b[2]);
}

// The nearest hit of all faces, in index order with a shrinking limit: ties go to
// the later face, as they do inside a leaf.
struct BruteHit {
    int32_t face = -1;
    double t = 0;
};
BruteHit nearestOfAllFaces(const FaceSet& faces, const Vec3& O, const Vec3& D, double tmax) {
    BruteHit hit;
    for (int32_t f = 0; f < faces.faceCount(); ++f) {
        double t = 0;
        if (intersectFace(faces, f, O, D, 0.0, tmax, t)) hit = {f, tmax = t};
    }
    return hit;
}

struct Answer {
    bool hit = false;
    int32_t face = -1;
    Vec3 point;
};

Answer reference(const BspNode& root, const Vec3& O, const Vec3& D, double tmin, double tmax) {
    Answer a;
    a.hit = root.dimension == 1 ? traverseAxisymmetric(root, O, D, a.point, a.face, tmin, tmax)
                                : traversePlanar(root, O, D, a.point, a.face, tmin, tmax);
    return a;
}

Answer flatAnswer(const TraversalTree& flat, const Vec3& O, const Vec3& D, double tmin,
                  double tmax) {
    Answer a;
    a.hit = flat.traverse(O, D, a.point, a.face, tmin, tmax);
    return a;
}

// Compares traversal over the clipped interval and over a random sub-interval;
// counts the hits so that callers can check that the rays did reach faces.
void expectSameAnswers(const BspNode& root, const TraversalTree& flat,
                       const std::vector<meshes::Ray>& rays, meshes::Rng& rng, int& hits) {
    hits = 0;
    for (size_t i = 0; i < rays.size(); ++i) {
        const Vec3& O = rays[i].origin;
        const Vec3& D = rays[i].direction;
        double enter0 = 0, exit0 = 0;
        if (!flat.clip(O, D, enter0, exit0)) continue;

        const double lo = std::max(enter0, -10.0);
        const double hi = std::min(exit0, 10.0);
        const double a = meshes::uniform(rng, lo, hi);
        const double b = meshes::uniform(rng, lo, hi);
        const std::pair<double, double> intervals[] = {{enter0, exit0},
                                                       {std::min(a, b), std::max(a, b)}};
        for (const auto& [tmin, tmax] : intervals) {
            const Answer expected = reference(root, O, D, tmin, tmax);
            const Answer actual = flatAnswer(flat, O, D, tmin, tmax);
            ASSERT_EQ(actual.hit, expected.hit)
                << "ray " << i << " [" << tmin << ", " << tmax << "]";
            if (!expected.hit) continue;
            ++hits;
            ASSERT_EQ(actual.face, expected.face) << "ray " << i;
            ASSERT_TRUE(sameBits(actual.point, expected.point))
                << "ray " << i << ": " << actual.point << " vs " << expected.point;
        }
        Vec3 point;
        int32_t face = -1;
        const Answer expected = reference(root, O, D, enter0, exit0);
        EXPECT_EQ(flat.trace(O, D, point, face), expected.hit) << "ray " << i;
    }
}

// Split positions of the interior nodes, with their axes.
void collectSplits(const BspNode& node, std::vector<std::pair<int32_t, double>>& splits) {
    if (node.isLeaf()) return;
    splits.emplace_back(node.splitAxis, node.splitPosition);
    collectSplits(*node.child[0], splits);
    collectSplits(*node.child[1], splits);
}

size_t countNodes(const BspNode& node) {
    return node.isLeaf() ? 1 : 1 + countNodes(*node.child[0]) + countNodes(*node.child[1]);
}

class FlatCopy : public ::testing::TestWithParam<Kind> {};

TEST_P(FlatCopy, FindsTheNearestOfAllFaces) {
    // A few hundred faces: deep enough for several tree levels, small enough for
    // brute force on many rays.
    const auto mesh = meshes::withFaceCount(GetParam(), 320, 20240611);
    const MeshView view{&mesh->nodes, &mesh->faces};
    const TraversalTree flat(*models::quietTree(view));
    constexpr int rayCount = 60000;
    int misses = 0, ties = 0;
    for (const meshes::Ray& ray : meshes::randomRays(*mesh, rayCount, 7)) {
        // Planar and 3D faces have one crossing each, so brute force runs unlimited,
        // which also shows that clipping loses no hit. A steep cone's far crossing
        // can be its mirror image beyond the apex, outside the vessel: in
        // axisymmetric runs brute force stops where the root box does.
        constexpr double unlimited = std::numeric_limits<double>::max();
        double enter = 0, limit = unlimited;
        if (mesh->faces.dimension == 1 && !flat.clip(ray.origin, ray.direction, enter, limit))
            limit = unlimited;
        const BruteHit brute = nearestOfAllFaces(mesh->faces, ray.origin, ray.direction, limit);
        Vec3 point;
        int32_t face = -1;
        const bool hit = flat.trace(ray.origin, ray.direction, point, face);
        misses += brute.face < 0 ? 1 : 0;
        ASSERT_EQ(hit, brute.face >= 0) << ray.origin << " along " << ray.direction;
        const Vec3 brutePoint = ray.origin + ray.direction * brute.t;
        if (!hit || face == brute.face) {
            ASSERT_TRUE(!hit || point == brutePoint) << ray.origin << " along " << ray.direction;
            continue;
        }
        // Two faces at the same parameter (a shared edge or node) may come out of
        // different leaves; the hit point is still the same.
        ASSERT_LE(norm(point - brutePoint), 1e-12 * (1 + norm(brutePoint))) << ray.origin;
        ++ties;
    }
    // The meshes are closed: rays that miss everything slip through at edges and
    // nodes only; many misses would mean a broken generator, not a tested tree.
    EXPECT_LT(misses, rayCount / 1000);
    RecordProperty("ties", ties);
}

// Random rays, and as many again with their origins moved exactly onto split
// planes, with the direction's component on that axis negative, zero and positive:
// the rule that searches both sides, high first for a negative component.
TEST_P(FlatCopy, AnswersExactlyAsTheTree) {
    const auto mesh = meshes::withFaceCount(GetParam(), 2500, 8);
    const MeshView view{&mesh->nodes, &mesh->faces};
    const auto root = models::quietTree(view);
    const TraversalTree flat(*root);
    EXPECT_EQ(flat.nodeCount(), countNodes(*root));
    std::vector<std::pair<int32_t, double>> splits;
    collectSplits(*root, splits);
    ASSERT_GT(splits.size(), 20u);
    // Every axis the tree measures is split somewhere, the radius of axisymmetric
    // runs (a cylinder) included, so that every kind of split is crossed.
    std::vector<bool> splitAxes(3, false);
    for (const auto& split : splits) splitAxes[size_t(split.first)] = true;
    EXPECT_EQ(splitAxes, (std::vector<bool>{true, true, root->axisCount == 3}));
    meshes::Rng rng(9);
    std::vector<meshes::Ray> rays = meshes::randomRays(*mesh, 3000, 23);
    for (size_t i = 0; i < rays.size(); i += 2) {
        const auto& [axis, position] = splits[i / 2 % splits.size()];
        rays[i].origin[axis] = position;
        const double sign = i % 3 == 0 ? -1.0 : i % 3 == 1 ? 0.0 : 1.0;
        rays[i].direction[axis] = sign * std::abs(rays[i].direction[axis]);
        if (norm(rays[i].direction) == 0) rays[i].direction[(axis + 1) % 2] = 1.0;
    }
    int hits = 0;
    expectSameAnswers(*root, flat, rays, rng, hits);
    EXPECT_GT(hits, 3000);
}

INSTANTIATE_TEST_SUITE_P(RandomMeshes, FlatCopy,
                         ::testing::Values(Kind::Axisymmetric, Kind::Planar, Kind::Triangles,
                                           Kind::Quads),
                         [](const auto& param) { return meshes::nameOf(param.param); });

// A 3D mesh of triangles, quads and pentagons (the fan of a regular pentagon has no
// record), plus a two-node face and a face without nodes: every shape in one tree.
TEST(FlatCopyMixedFaces, PolygonsWithAndWithoutRecords) {
    auto mesh = meshes::withFaceCount(Kind::Quads, 1200, 3);
    const int32_t walls = mesh->faces.faceCount();
    // Split some quads into two triangles and put pentagons on others, in a new set.
    meshes::Mesh mixed(Kind::Triangles);
    mixed.nodes = mesh->nodes;
    for (int32_t f = 0; f < walls; ++f) {
        const int32_t b = mesh->faces.faceNodeStart[f];
        const int32_t* q = &mesh->faces.faceNodes[static_cast<size_t>(b)];
        if (f % 3 == 0) {
            mixed.addFace({q[0], q[1], q[2]});
            mixed.addFace({q[0], q[2], q[3]});
        } else if (f % 3 == 1) {
            // The midpoint of the first edge as a fifth node on the same plane.
            const int32_t mid = mixed.addNode((mixed.nodes[q[0]] + mixed.nodes[q[1]]) * 0.5);
            mixed.addFace({q[0], mid, q[1], q[2], q[3]});
        } else {
            mixed.addFace({q[0], q[1], q[2], q[3]});
        }
    }
    mixed.addFace({0, 1});
    mixed.addFace({});
    computeFaceGeometry(mixed.faces);
    mixed.interiorMin = mesh->interiorMin;
    mixed.interiorMax = mesh->interiorMax;
    mixed.obstacleCenter = mesh->obstacleCenter;
    mixed.obstacleRadius = mesh->obstacleRadius;
    const MeshView view{&mixed.nodes, &mixed.faces};
    const auto root = models::quietTree(view);
    const TraversalTree flat(*root);
    meshes::Rng rng(1);
    std::vector<meshes::Ray> rays;
    for (int i = 0; i < 2000; ++i)
        rays.push_back({meshes::interiorPoint(mixed, rng), meshes::randomUnit(rng, false)});
    int hits = 0;
    expectSameAnswers(*root, flat, rays, rng, hits);
    EXPECT_GT(hits, 2000);
}

// Planar and axisymmetric faces read their first two nodes; a one-node face reads
// its node twice, and a face without nodes is tested from the face set.
TEST(FlatCopyMixedFaces, SegmentsAndConesWithFewNodes) {
    for (const Kind kind : {Kind::Planar, Kind::Axisymmetric}) {
        auto mesh = meshes::withFaceCount(kind, 800, 12);
        // Rays first: the ray maker cannot aim from a face without an area vector.
        const std::vector<meshes::Ray> rays = meshes::randomRays(*mesh, 1500, 4);
        mesh->addFace({0});
        mesh->addFace({});
        mesh->addFace({1, 2, 3});
        computeFaceGeometry(mesh->faces);
        const MeshView view{&mesh->nodes, &mesh->faces};
        const auto root = models::quietTree(view);
        const TraversalTree flat(*root);
        meshes::Rng rng(2);
        int hits = 0;
        expectSameAnswers(*root, flat, rays, rng, hits);
        EXPECT_GT(hits, 1500) << meshes::nameOf(kind);
    }
}

// Rays aimed at the end points of every axisymmetric segment, exactly and a few
// units in the last place beside them, at several azimuths: the position along the
// segment is then 0 or 1 up to rounding, where the cone test's shortcut that skips
// the azimuth of far-off points must still leave every decision to the full test.
TEST(FlatCopyConeEnds, RaysAtSegmentEndsAnswerAsTheTree) {
    const auto mesh = meshes::withFaceCount(Kind::Axisymmetric, 300, 77);
    const MeshView view{&mesh->nodes, &mesh->faces};
    const auto root = models::quietTree(view);
    const TraversalTree flat(*root);
    meshes::Rng rng(3);
    std::vector<meshes::Ray> rays;
    const FaceSet& faces = mesh->faces;
    for (int32_t f = 0; f < faces.faceCount(); ++f)
        for (int k = 0; k < 2; ++k) {
            const Vec3& end = mesh->nodes[static_cast<size_t>(
                faces.faceNodes[static_cast<size_t>(faces.faceNodeStart[f] + k)])];
            for (const double nudge : {0.0, 4e-16, -4e-16, 3e-15, -3e-15}) {
                const double phi = meshes::uniform(rng, 0, 2 * std::numbers::pi);
                const double r = end[1] * (1 + nudge);
                const Vec3 target(end[0] * (1 + nudge), r * std::cos(phi), r * std::sin(phi));
                const Vec3 origin = meshes::interiorPoint(*mesh, rng);
                rays.push_back({origin, target - origin});
            }
        }
    int hits = 0;
    expectSameAnswers(*root, flat, rays, rng, hits);
    EXPECT_GT(hits, 1000);
}

// No faces: a root leaf with an empty list, which every ray passes. (A root leaf
// with faces is RayTraversalTest's tie case.)
TEST(FlatCopySmallTrees, EmptyTree) {
    NodeArray nodes;
    FaceSet faces(3, nodes);
    const MeshView view{&nodes, &faces};
    const auto empty = models::quietTree(view);
    const TraversalTree flatEmpty(*empty);
    EXPECT_EQ(flatEmpty.nodeCount(), 1u);
    EXPECT_EQ(flatEmpty.leafEntryCount(), 0u);
    Vec3 point;
    int32_t face = -1;
    EXPECT_FALSE(flatEmpty.trace(Vec3(0, 0, 0), Vec3(0, 0, 1), point, face));
}

}  // namespace
}  // namespace hemiray
