// The BVH tracer must return the BSP walk's hit (face and point, every bit) for
// every ray, on meshes made to provoke the cases its certificate guards against;
// and each lane of the SIMD polygon group must give intersectPolygon's answer.
#include <gtest/gtest.h>

#include <cstring>
#include <iostream>

#include "geometry/Bvh.h"
#include "geometry/RayTracer.h"
#include "geometry/RayTraversal.h"
#include "models/RandomMeshes.h"

namespace hemiray {
namespace {

struct TracerCase {
    meshes::Kind kind;
    double offset;  // added to every coordinate
};

void PrintTo(const TracerCase& c, std::ostream* os) {
    *os << meshes::nameOf(c.kind) << " +" << c.offset;
}

class BvhTracer : public ::testing::TestWithParam<TracerCase> {};

// Two rays traced at once, as runs trace them, against the walk: the number of
// hits, or -1 (with the failure recorded) where an answer differs.
int pairHitsAsTheWalk(const RayTracer& tracer, const TraversalTree& tree, const Vec3 O[2],
                      const Vec3 D[2]) {
    Vec3 actual[2];
    int32_t actualFace[2] = {-1, -1};
    bool hit[2] = {false, false};
    tracer.tracePair(O, D, actual, actualFace, hit);
    int hits = 0;
    for (int r = 0; r < 2; ++r) {
        Vec3 expected;
        int32_t expectedFace = -1;
        const bool walkHit = tree.trace(O[r], D[r], expected, expectedFace);
        if (hit[r] != walkHit ||
            (walkHit && (actualFace[r] != expectedFace ||
                         std::memcmp(actual[r].v, expected.v, sizeof expected.v) != 0))) {
            ADD_FAILURE() << "ray " << r << ": BVH hit " << hit[r] << " face " << actualFace[r]
                          << ", walk hit " << walkHit << " face " << expectedFace;
            return -1;
        }
        hits += walkHit ? 1 : 0;
    }
    return hits;
}

// A random enclosure plus faces in the root box's first split planes (x at one half
// and one quarter, y at one half; pentagons among them), a duplicate face (exact
// ties), zero-area faces and a warped quad; rays from random points, from
// split-plane points, at shared nodes, and restarted from hit points as mirror and
// periodic steps do.
TEST_P(BvhTracer, ReturnsTheWalksHits) {
    const auto mesh = meshes::withFaceCount(GetParam().kind, 3000, 11);
    for (Vec3& p : mesh->nodes)
        p = p + Vec3(GetParam().offset, GetParam().offset, GetParam().offset);
    auto rays = meshes::randomRays(*mesh, 20000, 5);  // before the zero-area faces come
    const auto addFace = [&](std::initializer_list<Vec3> points) {
        std::vector<int32_t> ids;
        for (const Vec3& p : points) ids.push_back(mesh->addNode(p));
        mesh->faces.faceId.push_back(mesh->faces.faceCount());
        for (int32_t n : ids) mesh->faces.faceNodes.push_back(n);
        hemiray::addFace(mesh->faces, 1, 0);
    };
    const MeshView view{&mesh->nodes, &mesh->faces};
    std::streambuf* console = std::cout.rdbuf(nullptr);
    const TraversalTree probe(BspNode(3, &view, true));
    const Vec3 lo = probe.boxMin(), hi = probe.boxMax();
    const double xHalf = (hi[0] + lo[0]) * 0.5, xQuarter = (xHalf + lo[0]) * 0.5,
                 yHalf = (hi[1] + lo[1]) * 0.5;
    const Vec3 c = (lo + hi) * 0.5;
    for (const double x : {xHalf, xQuarter})
        addFace({Vec3(x, c[1] - 0.1, c[2] - 0.1), Vec3(x, c[1] + 0.1, c[2] - 0.1),
                 Vec3(x, c[1] + 0.1, c[2] + 0.1), Vec3(x, c[1] - 0.1, c[2] + 0.1),
                 Vec3(x, c[1] - 0.15, c[2])});
    addFace(
        {Vec3(c[0], yHalf, c[2]), Vec3(c[0] + 0.2, yHalf, c[2]), Vec3(c[0], yHalf, c[2] + 0.2)});
    for (int k = 0; k < 2; ++k)
        addFace({mesh->nodes[0], mesh->nodes[1], mesh->nodes[2]});   // a tie pair
    addFace({c, c + Vec3(0.1, 0.1, 0.1), c + Vec3(0.2, 0.2, 0.2)});  // collinear: zero area
    addFace({c, c, c + Vec3(0, 0.1, 0.3)});
    addFace({c + Vec3(0.3, 0, 0), c + Vec3(0.5, 0, 0.06), c + Vec3(0.5, 0.2, 0),
             c + Vec3(0.3, 0.2, 0.05)});  // warped
    computeFaceGeometry(mesh->faces);
    const TraversalTree tree(BspNode(3, &view, true));
    std::cout.rdbuf(console);
    const RayTracer tracer(tree, mesh->faces, TraceEngine::Bvh);
    ASSERT_NE(tracer.bvh(), nullptr);

    meshes::Rng rng(3);
    for (int k = 0; k < 2000; ++k) {
        const Vec3 d = meshes::randomUnit(rng, false);
        rays.push_back(
            {Vec3(k % 2 ? xHalf : xQuarter, c[1] + meshes::uniform(rng, -0.3, 0.3), c[2]), d});
        const Vec3 node = mesh->nodes[static_cast<size_t>(
            meshes::uniform(rng, 0, static_cast<double>(mesh->nodes.size())))];
        rays.push_back({c, node - c});
    }
    uint64_t fallbacks = 0, hits = 0;
    for (size_t i = 0; i < rays.size(); ++i) {
        const meshes::Ray ray = rays[i];
        Vec3 expected, actual;
        int32_t expectedFace = -1, actualFace = -1;
        const bool expectedHit = tree.trace(ray.origin, ray.direction, expected, expectedFace);
        ASSERT_EQ(tracer.trace(ray.origin, ray.direction, actual, actualFace, fallbacks),
                  expectedHit)
            << i;
        if (!expectedHit) continue;
        ++hits;
        ASSERT_EQ(actualFace, expectedFace) << i;
        ASSERT_EQ(std::memcmp(actual.v, expected.v, sizeof actual.v), 0) << i;
        if (rays.size() > 60000) continue;
        const Vec3& n = mesh->faces.faceNormal[static_cast<size_t>(expectedFace)];
        rays.push_back({expected, ray.direction - (2 * dot(n, ray.direction) / dot(n, n)) * n});
        rays.push_back({expected + Vec3(0.125, 0, 0), ray.direction});
    }
    EXPECT_GT(hits, rays.size() / 2);
    EXPECT_LT(fallbacks, hits / 2) << "the BVH should answer most rays itself";

    // Two at a time, as runs trace them; neighbours in the list differ in origin,
    // length of walk and fallback.
    for (size_t i = 0; i + 1 < rays.size(); i += 2) {
        const Vec3 O[2] = {rays[i].origin, rays[i + 1].origin};
        const Vec3 D[2] = {rays[i].direction, rays[i + 1].direction};
        ASSERT_GE(pairHitsAsTheWalk(tracer, tree, O, D), 0) << "rays " << i << " and " << i + 1;
    }
}

INSTANTIATE_TEST_SUITE_P(Meshes, BvhTracer,
                         ::testing::Values(TracerCase{meshes::Kind::Triangles, 0},
                                           TracerCase{meshes::Kind::Quads, 0},
                                           TracerCase{meshes::Kind::Triangles, 1e3},
                                           TracerCase{meshes::Kind::Quads, 1e6}));

// Normal cones: a stack of square plates, double-sided ones (each triangle also
// with its nodes reversed, so that the area vectors cancel exactly) between
// one-sided ones facing up, so that subtrees whose faces face every way sit beside
// subtrees facing one way. Rays in every direction from between them.
TEST(BvhCones, SkipOnlyFacesThatFaceAway) {
    meshes::Mesh mesh(meshes::Kind::Triangles);
    constexpr int levels = 200;
    for (int level = 0; level < levels; ++level) {
        const double z = level;
        const int32_t a = mesh.addNode(Vec3(0, 0, z)), b = mesh.addNode(Vec3(1, 0, z)),
                      c = mesh.addNode(Vec3(1, 1, z)), d = mesh.addNode(Vec3(0, 1, z));
        mesh.addFace({a, b, c});  // facing up
        mesh.addFace({a, c, d});
        if (level % 2 == 0) {  // and down
            mesh.addFace({a, c, b});
            mesh.addFace({a, d, c});
        }
    }
    computeFaceGeometry(mesh.faces);
    const MeshView view{&mesh.nodes, &mesh.faces};
    std::streambuf* console = std::cout.rdbuf(nullptr);
    const TraversalTree tree(BspNode(3, &view, true));
    std::cout.rdbuf(console);
    const RayTracer tracer(tree, mesh.faces, TraceEngine::Bvh);
    ASSERT_NE(tracer.bvh(), nullptr);

    meshes::Rng rng(7);
    int hits = 0;
    for (int k = 0; k < 20000; ++k) {
        const Vec3 O[2] = {Vec3(meshes::uniform(rng, 0.05, 0.95), meshes::uniform(rng, 0.05, 0.95),
                                meshes::uniform(rng, 0.1, levels - 1.1)),
                           O[0]};
        const Vec3 D[2] = {meshes::randomUnit(rng, false), meshes::randomUnit(rng, false)};
        const int pairHits = pairHitsAsTheWalk(tracer, tree, O, D);
        ASSERT_GE(pairHits, 0) << "pair " << k;
        hits += pairHits;
    }
    EXPECT_GT(hits, 10000);
}

// Groups of neighbouring mesh faces and rays aimed at a point or a node of the
// first; each lane against intersectPolygon, also with the limit set to exactly a
// lane's t (accepted there).
TEST(PolygonGroup, EveryLaneIsTheScalarTest) {
    for (const meshes::Kind kind : {meshes::Kind::Triangles, meshes::Kind::Quads}) {
        const auto mesh = meshes::withFaceCount(kind, 2000, 21);
        const int corners = kind == meshes::Kind::Triangles ? 3 : 4;
        meshes::Rng rng(4);
        Lanes4 group[16];
        int hits = 0;
        for (meshes::Ray ray : meshes::randomRays(*mesh, 20000, 8)) {
            const auto first =
                static_cast<int32_t>(meshes::uniform(rng, 0, mesh->faces.faceCount() - 4));
            const int32_t face[4] = {first, first + 1, first + 2, first + 3};
            Vec3 target, normal;
            meshes::pointOnFace(*mesh, first, rng, target, normal);
            if (meshes::uniform(rng, 0, 1) < 0.3)
                target = mesh->nodes[static_cast<size_t>(mesh->faces.faceNodes[static_cast<size_t>(
                    mesh->faces.faceNodeStart[static_cast<size_t>(first)])])];
            ray.direction = target - ray.origin;
            const int count = 1 + static_cast<int>(meshes::uniform(rng, 0, 4));
            const float bound = packPolygonGroup(mesh->faces, face, count, corners, group);
            double limit = meshes::uniform(rng, 0, 1) < 0.5 ? 1e300 : meshes::uniform(rng, 0, 3);
            for (int pass = 0; pass < 2; ++pass) {
                unsigned expected = 0;
                double t[4] = {}, tLane[4] = {}, tWide[4] = {};
                for (int k = 0; k < count; ++k)
                    if (intersectPolygon(mesh->faces, face[k], ray.origin, ray.direction, 0, limit,
                                         t[k]))
                        expected |= 1u << k;
                const unsigned lanes = testPolygonGroupSse2(group, corners, bound, ray.origin,
                                                            ray.direction, limit, tLane);
                std::memcpy(tWide, tLane, sizeof tWide);
                const unsigned wide = cpuHasAvx2()
                                          ? testPolygonGroupAvx2(group, corners, bound, ray.origin,
                                                                 ray.direction, limit, tWide)
                                          : lanes;
                ASSERT_EQ(lanes, expected);
                ASSERT_EQ(wide, expected);
                for (int k = 0; k < count; ++k) {
                    if (!(expected & (1u << k))) continue;
                    ASSERT_EQ(std::memcmp(&tLane[k], &t[k], sizeof t[k]), 0);
                    ASSERT_EQ(std::memcmp(&tWide[k], &t[k], sizeof t[k]), 0);
                    limit = t[k];
                    ++hits;
                }
            }
        }
        EXPECT_GT(hits, 10000);
    }
}

}  // namespace
}  // namespace hemiray
