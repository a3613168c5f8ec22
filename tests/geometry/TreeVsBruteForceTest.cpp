// The tree must change nothing but the speed: for many random rays on closed random
// meshes of every mode, the hit the runs' flat tracing copy finds (clipping to the
// root box, then the traversal) is the nearest hit of all faces tested one by one
// with intersectFace.
#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <limits>
#include <sstream>

#include "geometry/RayTraversal.h"
#include "geometry/TraversalTree.h"
#include "support/RecursiveTraversal.h"
#include "models/QuietTree.h"
#include "models/RandomMeshes.h"

namespace hemiray {
namespace {

using meshes::Kind;

struct BruteHit {
    int32_t face = -1;
    double t = 0;
};

// Every face in index order with a shrinking limit: ties go to the later face, as
// they do inside a leaf.
BruteHit nearestOfAllFaces(const FaceSet& faces, const Vec3& O, const Vec3& D, double tmax) {
    BruteHit hit;
    double limit = tmax;
    for (int32_t f = 0; f < faces.faceCount(); ++f) {
        double t = 0;
        if (intersectFace(faces, f, O, D, 0.0, limit, t)) {
            limit = t;
            hit = {f, t};
        }
    }
    return hit;
}

// Planar and 3D faces have a single crossing each, so brute force runs unlimited and
// also proves that clipping to the root box loses no hit. An axisymmetric cone
// reports the larger of its crossings below the limit, and for a steep cone the far
// one is its mirror image beyond the apex, outside the vessel; unlimited, brute force
// would take those, so it is limited like the tree to the ray's stretch in the box.
double bruteForceLimit(const BspNode& root, const meshes::Ray& ray) {
    double tEnter = 0, tExit = std::numeric_limits<double>::max();
    if (root.dimension == 1 && clipToRootBox(root, ray.origin, ray.direction, tEnter, tExit))
        return tExit;
    return std::numeric_limits<double>::max();
}

class TreeVsBruteForce : public ::testing::TestWithParam<Kind> {};

TEST_P(TreeVsBruteForce, TreeFindsTheNearestFaceOfAllFaces) {
    const Kind kind = GetParam();
    // A few hundred faces: deep enough for several tree levels, small enough for
    // brute force on 100000 rays.
    const auto mesh = meshes::withFaceCount(kind, 320, 20240611);
    MeshView view{&mesh->nodes, &mesh->faces};
    const auto tree = models::quietTree(view);
    const BspNode& root = *tree;
    const TraversalTree flat(root);  // what runs trace with
    // The tree splits every axis it measures somewhere, the radius of axisymmetric
    // runs (a cylinder) included, so that every kind of split plane is crossed.
    std::vector<bool> splitAxes(3, false);
    const std::function<void(const BspNode&)> collect = [&](const BspNode& node) {
        if (node.isLeaf()) return;
        splitAxes[size_t(node.splitAxis)] = true;
        collect(*node.child[0]);
        collect(*node.child[1]);
    };
    collect(root);
    EXPECT_EQ(splitAxes, (std::vector<bool>{true, true, root.axisCount == 3}));

    constexpr int rayCount = 100000;
    meshes::Rng rng(7 + static_cast<uint64_t>(kind));
    int misses = 0, ties = 0, mismatches = 0;
    std::ostringstream firstMismatch;
    const auto mismatch = [&](int r, const meshes::Ray& ray, bool hit, int32_t face,
                              const BruteHit& brute) {
        if (mismatches++ > 0) return;
        firstMismatch << "ray " << r << ": origin " << ray.origin << " direction "
                      << ray.direction << ", tree face " << (hit ? face : -1)
                      << ", brute-force face " << brute.face << " at t = " << brute.t;
    };
    for (int r = 0; r < rayCount; ++r) {
        const meshes::Ray ray = meshes::randomRay(*mesh, rng);
        const BruteHit brute =
            nearestOfAllFaces(mesh->faces, ray.origin, ray.direction, bruteForceLimit(root, ray));
        Vec3 point;
        int32_t face = -1;
        const bool hit = flat.trace(ray.origin, ray.direction, point, face);
        if (brute.face < 0) {
            ++misses;
            if (hit) mismatch(r, ray, hit, face, brute);
            continue;
        }
        const Vec3 brutePoint = ray.origin + ray.direction * brute.t;
        if (!hit) {
            mismatch(r, ray, hit, face, brute);
        } else if (face == brute.face) {
            if (!(point == brutePoint)) mismatch(r, ray, hit, face, brute);
        } else if (norm(point - brutePoint) <= 1e-12 * (1 + norm(brutePoint))) {
            // Two faces at the same parameter (a shared edge or node) may come out of
            // different leaves; the hit point is still the same.
            ++ties;
        } else {
            mismatch(r, ray, hit, face, brute);
        }
    }
    EXPECT_EQ(mismatches, 0) << "first: " << firstMismatch.str();
    // The meshes are closed, so rays that miss everything slip through at edges and
    // nodes only; many misses would mean a broken generator, not a tested tree.
    EXPECT_LT(misses, rayCount / 1000) << "misses";
    RecordProperty("ties", ties);
}

INSTANTIATE_TEST_SUITE_P(AllModes, TreeVsBruteForce,
                         ::testing::Values(Kind::Axisymmetric, Kind::Planar, Kind::Triangles,
                                           Kind::Quads),
                         [](const ::testing::TestParamInfo<Kind>& param) {
                             return meshes::nameOf(param.param);
                         });

}  // namespace
}  // namespace hemiray
