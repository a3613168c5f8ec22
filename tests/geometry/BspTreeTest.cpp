// Tree construction: the depth line, the stopping rules, the rule that files a face
// low, high or both, and structural invariants on random meshes of every mode. The
// split axis, the split position and the root box padding only shape the tree; that
// the shape never changes a hit is TraversalTreeTest's job (brute force).
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iostream>
#include <limits>
#include <sstream>

#include "geometry/BspTree.h"
#include "models/RandomMeshes.h"

namespace hemiray {
namespace {

using meshes::Kind;
using meshes::Mesh;

// The root of a mesh's tree together with what its construction printed.
struct Tree {
    MeshView view;
    std::unique_ptr<BspNode> root;
    std::string console;
    int maxDepth = 0;  // from the depth line

    explicit Tree(const Mesh& mesh) : view{&mesh.nodes, &mesh.faces} {
        std::ostringstream out;
        auto* previous = std::cout.rdbuf(out.rdbuf());
        root = std::make_unique<BspNode>(mesh.faces.dimension, &view, true);
        std::cout.rdbuf(previous);
        console = out.str();
        maxDepth = std::stoi(console.substr(console.find('=') + 1));
    }
};

// Visits every node with its depth below the root.
void forEachNode(const BspNode& node, int depth,
                 const std::function<void(const BspNode&, int)>& visit) {
    visit(node, depth);
    if (node.child[0]) forEachNode(*node.child[0], depth + 1, visit);
    if (node.child[1]) forEachNode(*node.child[1], depth + 1, visit);
}

std::vector<int32_t> faceListOf(const BspNode& node) {
    return std::vector<int32_t>(node.faceList.get(), node.faceList.get() + node.faceCount);
}

// The nodes of face f.
std::vector<Vec3> cornersOf(const Mesh& mesh, int32_t f) {
    std::vector<Vec3> corners;
    for (int32_t k = mesh.faces.faceNodeStart[size_t(f)];
         k < mesh.faces.faceNodeStart[size_t(f) + 1]; ++k)
        corners.push_back(mesh.nodes[size_t(mesh.faces.faceNodes[size_t(k)])]);
    return corners;
}

TEST(BspTree, DepthLineGrowsWithTheLogarithmOfTheFaceCount) {
    // 1.2 log2(N) truncated, plus 2: 1000 -> 11.96 -> 13, 11 -> 4.15 -> 6,
    // 10 -> 3.99 -> 5, 1 -> 0 -> 2; there is no logarithm of 0. Ten faces or fewer
    // stay one leaf, in index order.
    const std::pair<int, const char*> cases[] = {
        {1000, "# Maximum tree depth = 13\n"},       {11, "# Maximum tree depth = 6\n"},
        {10, "# Maximum tree depth = 5\n"},          {1, "# Maximum tree depth = 2\n"},
        {0, "# Maximum tree depth = -2147483646\n"},
    };
    for (const auto& [count, line] : cases) {
        // count disjoint short segments spread along x.
        Mesh mesh(Kind::Planar);
        for (int i = 0; i < count; ++i) {
            const int32_t a = mesh.addNode({i * 1.0, 0.1 * (i % 7), 0});
            mesh.addNode({i * 1.0 + 0.5, 0.1 * (i % 7) + 0.2, 0});
            mesh.addFace({a, a + 1});
        }
        computeFaceGeometry(mesh.faces);
        const Tree tree(mesh);
        EXPECT_EQ(tree.console, line);
        ASSERT_EQ(tree.root->isLeaf(), count <= 10) << count;
        if (count > 10) continue;
        std::vector<int32_t> all(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) all[size_t(i)] = i;
        EXPECT_EQ(faceListOf(*tree.root), all);
    }
}

TEST(BspTree, ElevenIdenticalFacesSplitDownToTheDepthLimit) {
    Mesh mesh(Kind::Triangles);
    for (const Vec3& p : {Vec3(0.1, 0.2, 0.3), Vec3(0.9, 0.25, 0.35), Vec3(0.3, 0.6, 0.7)})
        mesh.addNode(p);
    for (int i = 0; i < 11; ++i) mesh.addFace({0, 1, 2});
    computeFaceGeometry(mesh.faces);
    const Tree tree(mesh);
    ASSERT_EQ(tree.maxDepth, 6);
    int leavesWithFaces = 0;
    forEachNode(*tree.root, 0, [&](const BspNode& node, int depth) {
        if (node.faceCount == 0) return;
        // All eleven travel together, and only the depth limit stops them.
        ++leavesWithFaces;
        EXPECT_EQ(depth, 6);
        EXPECT_EQ(faceListOf(node), (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    });
    EXPECT_GT(leavesWithFaces, 0);
}

TEST(BspTree, FacesGoLowHighOrBothAndFacesOnThePlaneGoHigh) {
    Mesh mesh(Kind::Planar);
    const double ends[11][4] = {
        {0.2, 0.1, 0.8, 0.1},   // 0 below
        {1.0, 0.2, 1.0, 0.8},   // 1 on the plane
        {0.5, 0.3, 1.0, 0.3},   // 2 touches it from below
        {1.0, 0.4, 1.5, 0.4},   // 3 touches it from above
        {0.5, 0.5, 1.5, 0.5},   // 4 crosses
        {1.2, 0.6, 1.8, 0.6},   // 5 above
        {0.1, 0.9, 0.2, 0.9},   // 6 below
        {1.9, 0.9, 1.95, 0.9},  // 7 above
        {1.0, 0.0, 1.0, 1.0},   // 8 on the plane
        {0.0, 0.0, 2.0, 1.0},   // 9 crosses
        {0.99, 0.5, 1.0, 0.5},  // 10 touches it from below
    };
    for (const auto& e : ends) {
        const int32_t a = mesh.addNode({e[0], e[1], 0});
        mesh.addNode({e[2], e[3], 0});
        mesh.addFace({a, a + 1});
    }
    // A hand-made node over all faces with the box [0,2]x[0,1]: split at x = 1.
    const MeshView view{&mesh.nodes, &mesh.faces};
    BspNode node(2, &view, false);
    node.boxMax = Vec3(2, 1, 0);
    node.faceCount = mesh.faces.faceCount();
    node.faceList = std::make_unique<int32_t[]>(11);
    for (int32_t f = 0; f < 11; ++f) node.faceList[size_t(f)] = f;
    buildNode(node, 1);
    ASSERT_FALSE(node.isLeaf());
    EXPECT_EQ(node.splitAxis, 0);
    EXPECT_EQ(node.splitPosition, 1.0);
    EXPECT_EQ(node.faceList, nullptr);
    EXPECT_EQ(faceListOf(*node.child[0]), (std::vector<int32_t>{0, 2, 4, 6, 9, 10}));
    EXPECT_EQ(faceListOf(*node.child[1]), (std::vector<int32_t>{1, 3, 4, 5, 7, 8, 9}));
}

class BspTreeInvariants : public ::testing::TestWithParam<Kind> {};

TEST_P(BspTreeInvariants, LeavesHoldExactlyTheFacesTheirBoxesReach) {
    const auto mesh = meshes::withFaceCount(GetParam(), 3000, 99);
    const Tree tree(*mesh);
    const int32_t faceCount = mesh->faces.faceCount();
    const int32_t axes = tree.root->axisCount;
    const auto inside = [axes](const Vec3& p, const BspNode& box, bool closed) {
        for (int a = 0; a < axes; ++a)
            if (closed ? (p[a] < box.boxMin[a] || p[a] > box.boxMax[a])
                       : !(box.boxMin[a] < p[a] && p[a] < box.boxMax[a]))
                return false;
        return true;
    };
    std::vector<std::vector<Vec3>> corners;
    for (int32_t f = 0; f < faceCount; ++f) {
        corners.push_back(cornersOf(*mesh, f));
        for (const Vec3& p : corners.back()) EXPECT_TRUE(inside(p, *tree.root, true)) << p;
    }

    std::vector<int> leavesPerFace(static_cast<size_t>(faceCount), 0);
    forEachNode(*tree.root, 0, [&](const BspNode& node, int depth) {
        EXPECT_LE(depth, tree.maxDepth);
        if (!node.isLeaf()) {
            EXPECT_EQ(node.faceCount, 0);
            // The children split the box at the split position and nowhere else.
            const int a = node.splitAxis;
            EXPECT_EQ(node.child[0]->boxMax[a], node.splitPosition);
            EXPECT_EQ(node.child[1]->boxMin[a], node.splitPosition);
            EXPECT_EQ(node.child[0]->boxMin[a], node.boxMin[a]);
            EXPECT_EQ(node.child[1]->boxMax[a], node.boxMax[a]);
            return;
        }
        if (node.faceCount > 10) {
            EXPECT_EQ(depth, tree.maxDepth);
        }
        std::vector<bool> listed(static_cast<size_t>(faceCount), false);
        for (int32_t f : faceListOf(node)) {
            listed[size_t(f)] = true;
            ++leavesPerFace[size_t(f)];
            // The face's node box meets the leaf's (closed) box.
            for (int a = 0; a < axes; ++a) {
                double lo = std::numeric_limits<double>::max(), hi = -lo;
                for (const Vec3& p : corners[size_t(f)])
                    lo = std::min(lo, p[a]), hi = std::max(hi, p[a]);
                EXPECT_LE(lo, node.boxMax[a]);
                EXPECT_GE(hi, node.boxMin[a]);
            }
        }
        // Every face with a node inside the leaf's open box is listed in it.
        for (int32_t f = 0; f < faceCount; ++f)
            for (const Vec3& p : corners[size_t(f)])
                if (inside(p, node, false)) {
                    EXPECT_TRUE(listed[size_t(f)]) << "face " << f;
                }
    });
    for (int32_t f = 0; f < faceCount; ++f) EXPECT_GE(leavesPerFace[size_t(f)], 1);
}

INSTANTIATE_TEST_SUITE_P(AllModes, BspTreeInvariants,
                         ::testing::Values(Kind::Axisymmetric, Kind::Planar, Kind::Triangles,
                                           Kind::Quads),
                         [](const auto& param) { return meshes::nameOf(param.param); });

TEST(BspTree, NonFiniteCoordinatesStillGiveABoundedTree) {
    // A NaN coordinate never lowers or raises a bound; an infinite one makes the box
    // infinite on its axis, the split there is NaN and sends every face high, and
    // the depth limit ends the chain.
    auto mesh = meshes::ring(200, 40, 5);
    const Tree finite(*mesh);
    const int32_t nanNode = mesh->addNode({std::nan(""), std::nan(""), 0});
    mesh->addFace({0, nanNode});
    computeFaceGeometry(mesh->faces);
    const Tree withNaN(*mesh);
    EXPECT_EQ(withNaN.root->boxMin, finite.root->boxMin);
    EXPECT_EQ(withNaN.root->boxMax, finite.root->boxMax);

    const int32_t infNode = mesh->addNode({HUGE_VAL, 0.5, 0});
    mesh->addFace({0, infNode});
    computeFaceGeometry(mesh->faces);
    const Tree withInf(*mesh);
    EXPECT_EQ(withInf.root->boxMax[0], HUGE_VAL);
    int listed = 0;
    forEachNode(*withInf.root, 0, [&](const BspNode& node, int depth) {
        EXPECT_LE(depth, withInf.maxDepth);
        listed += node.faceCount;
    });
    EXPECT_GE(listed, mesh->faces.faceCount());
}

}  // namespace
}  // namespace hemiray
