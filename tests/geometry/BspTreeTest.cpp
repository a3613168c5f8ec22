// Tree construction: the padded root box, the depth line, the split rules checked on
// hand-made nodes, and structural invariants on random meshes of every mode.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iostream>
#include <limits>
#include <sstream>

#include "../support/Meshes.h"
#include "geometry/BspTree.h"

namespace hemiray {
namespace {

using meshes::Kind;
using meshes::Mesh;

constexpr double tiny = std::numeric_limits<double>::min();

// The root of a mesh's tree together with what its construction printed.
struct Tree {
    MeshView view;
    std::unique_ptr<BspNode> root;
    std::string console;

    explicit Tree(const Mesh& mesh) : view{&mesh.nodes, &mesh.faces} {
        std::ostringstream out;
        auto* previous = std::cout.rdbuf(out.rdbuf());
        root = std::make_unique<BspNode>(mesh.faces.dimension, &view, true);
        std::cout.rdbuf(previous);
        console = out.str();
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

// n disjoint short segments spread along x.
std::unique_ptr<Mesh> segments(int n) {
    auto mesh = std::make_unique<Mesh>(Kind::Planar);
    for (int i = 0; i < n; ++i) {
        const int32_t a = mesh->addNode({i * 1.0, 0.1 * (i % 7), 0});
        mesh->addNode({i * 1.0 + 0.5, 0.1 * (i % 7) + 0.2, 0});
        mesh->addFace({a, a + 1});
    }
    computeFaceGeometry(mesh->faces);
    return mesh;
}

TEST(BspTree, DepthLineGrowsWithTheLogarithmOfTheFaceCount) {
    // 1.2 log2(N) truncated, plus 2: 1000 -> 11.96 -> 13, 11 -> 4.15 -> 6,
    // 10 -> 3.99 -> 5, 1 -> 0 -> 2.
    const std::pair<int, const char*> cases[] = {
        {1000, "# Maximum tree depth = 13\n"},
        {11, "# Maximum tree depth = 6\n"},
        {10, "# Maximum tree depth = 5\n"},
        {1, "# Maximum tree depth = 2\n"},
    };
    for (const auto& [count, line] : cases) {
        const auto mesh = segments(count);
        const Tree tree(*mesh);
        EXPECT_EQ(tree.console, line);
        EXPECT_EQ(tree.root->isLeaf(), count <= 10);
    }
}

TEST(BspTree, EmptyFaceSetIsOneEmptyLeaf) {
    const Mesh mesh(Kind::Triangles);
    const Tree tree(mesh);
    // There is no logarithm of 0; the depth is the most negative int plus 2.
    EXPECT_EQ(tree.console, "# Maximum tree depth = -2147483646\n");
    EXPECT_TRUE(tree.root->isLeaf());
    EXPECT_EQ(tree.root->faceCount, 0);
    EXPECT_EQ(tree.root->faceList, nullptr);
}

TEST(BspTree, WithoutBuildOnlyTheFieldsAreSet) {
    const auto mesh = segments(50);
    const MeshView view{&mesh->nodes, &mesh->faces};
    std::ostringstream out;
    auto* previous = std::cout.rdbuf(out.rdbuf());
    const BspNode root(2, &view, false);
    std::cout.rdbuf(previous);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(root.dimension, 2);
    EXPECT_EQ(root.axisCount, 2);
    EXPECT_EQ(root.mesh, &view);
    EXPECT_EQ(root.boxMin, Vec3());
    EXPECT_EQ(root.boxMax, Vec3());
    EXPECT_EQ(root.faceCount, 0);
    EXPECT_TRUE(root.isLeaf());
    EXPECT_EQ(BspNode(3, &view, false).axisCount, 3);
    EXPECT_EQ(BspNode(1, &view, false).axisCount, 2);
}

TEST(BspTree, TenFacesOrFewerStayOneLeafInIndexOrder) {
    const auto mesh = segments(10);
    const Tree tree(*mesh);
    ASSERT_TRUE(tree.root->isLeaf());
    EXPECT_EQ(faceListOf(*tree.root), (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(BspTree, ElevenIdenticalFacesSplitDownToTheDepthLimit) {
    Mesh mesh(Kind::Triangles);
    mesh.addNode({0.1, 0.2, 0.3});
    mesh.addNode({0.9, 0.25, 0.35});
    mesh.addNode({0.3, 0.6, 0.7});
    for (int i = 0; i < 11; ++i) mesh.addFace({0, 1, 2});
    computeFaceGeometry(mesh.faces);
    const Tree tree(mesh);
    ASSERT_EQ(tree.console, "# Maximum tree depth = 6\n");
    int leavesWithFaces = 0;
    forEachNode(*tree.root, 0, [&](const BspNode& node, int depth) {
        if (!node.isLeaf()) {
            EXPECT_EQ(node.faceCount, 0);
            EXPECT_EQ(node.faceList, nullptr);
            return;
        }
        if (node.faceCount == 0) return;
        ++leavesWithFaces;
        // All eleven travel together, and only the depth limit stops them.
        EXPECT_EQ(depth, 6);
        EXPECT_EQ(faceListOf(node), (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    });
    EXPECT_GT(leavesWithFaces, 0);
}

TEST(BspTree, RootBoxIsPaddedAsymmetricallyAndReachesUpToZero) {
    // x in [-2, -1], y in [0.2, 0.6], z in [0.1, 0.3]: the upper corner starts just
    // above 0, so the x range before padding is [-2, 0] and the extent is 2.
    Mesh mesh(Kind::Triangles);
    mesh.addNode({-2, 0.2, 0.1});
    mesh.addNode({-1, 0.6, 0.3});
    mesh.addNode({-1.5, 0.4, 0.2});
    mesh.addFace({0, 1, 2});
    const Tree tree(mesh);
    EXPECT_DOUBLE_EQ(tree.root->boxMin[0], -2.0206);
    EXPECT_DOUBLE_EQ(tree.root->boxMax[0], 0.0214);
    EXPECT_DOUBLE_EQ(tree.root->boxMin[1], 0.2 - 0.0206);
    EXPECT_DOUBLE_EQ(tree.root->boxMax[1], 0.6 + 0.0214);
    EXPECT_DOUBLE_EQ(tree.root->boxMin[2], 0.1 - 0.0206);
    EXPECT_DOUBLE_EQ(tree.root->boxMax[2], 0.3 + 0.0214);
}

TEST(BspTree, PlanarRootLeavesTheThirdAxisUnpadded) {
    Mesh mesh(Kind::Planar);
    mesh.addNode({1, 2, 0});
    mesh.addNode({5, 3, 0});
    mesh.addFace({0, 1});
    const Tree tree(mesh);
    EXPECT_DOUBLE_EQ(tree.root->boxMin[0], 1 - 0.0103 * 4);
    EXPECT_DOUBLE_EQ(tree.root->boxMax[0], 5 + 0.0107 * 4);
    EXPECT_DOUBLE_EQ(tree.root->boxMin[1], 2 - 0.0103 * 4);
    EXPECT_DOUBLE_EQ(tree.root->boxMax[1], 3 + 0.0107 * 4);
    EXPECT_EQ(tree.root->boxMin[2], 0.0);
    EXPECT_EQ(tree.root->boxMax[2], tiny);
}

TEST(BspTree, AxisymmetricRootNeverReachesBelowTheAxis) {
    const auto vessel = meshes::vessel(40, 8, 1);  // touches the axis at both heads
    const Tree tree(*vessel);
    EXPECT_EQ(tree.root->boxMin[1], 0.0);

    // Away from the axis the radial axis is padded like any other.
    Mesh ring(Kind::Axisymmetric);
    ring.addNode({0, 0.5, 0});
    ring.addNode({3, 1.0, 0});
    ring.addFace({0, 1});
    const Tree ringTree(ring);
    EXPECT_DOUBLE_EQ(ringTree.root->boxMin[1], 0.5 - 0.0103 * 3);
    EXPECT_DOUBLE_EQ(ringTree.root->boxMax[1], 1.0 + 0.0107 * 3);
}

// A hand-made node over the given mesh, box and all of the mesh's faces.
BspNode handMadeNode(const MeshView& view, int32_t dimension, Vec3 boxMin, Vec3 boxMax) {
    BspNode node(dimension, &view, false);
    node.boxMin = boxMin;
    node.boxMax = boxMax;
    node.faceCount = view.faces->faceCount();
    node.faceList = std::make_unique<int32_t[]>(static_cast<size_t>(node.faceCount));
    for (int32_t f = 0; f < node.faceCount; ++f) node.faceList[static_cast<size_t>(f)] = f;
    return node;
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
    const MeshView view{&mesh.nodes, &mesh.faces};
    BspNode node = handMadeNode(view, 2, {0, 0, 0}, {2, 1, 0});
    buildNode(node, 1);
    ASSERT_FALSE(node.isLeaf());
    EXPECT_EQ(node.splitAxis, 0);
    EXPECT_EQ(node.splitPosition, 1.0);
    EXPECT_EQ(node.faceCount, 0);
    EXPECT_EQ(node.faceList, nullptr);
    const BspNode& low = *node.child[0];
    const BspNode& high = *node.child[1];
    EXPECT_TRUE(low.isLeaf());  // depth 0 below
    EXPECT_EQ(faceListOf(low), (std::vector<int32_t>{0, 2, 4, 6, 9, 10}));
    EXPECT_EQ(faceListOf(high), (std::vector<int32_t>{1, 3, 4, 5, 7, 8, 9}));
    EXPECT_EQ(low.boxMin, Vec3(0, 0, 0));
    EXPECT_EQ(low.boxMax, Vec3(1, 1, 0));
    EXPECT_EQ(high.boxMin, Vec3(1, 0, 0));
    EXPECT_EQ(high.boxMax, Vec3(2, 1, 0));
    EXPECT_EQ(low.dimension, 2);
    EXPECT_EQ(high.axisCount, 2);
    EXPECT_EQ(high.mesh, &view);
}

TEST(BspTree, LongestAxisSplitsAndTiesKeepTheLowerAxis) {
    const auto mesh = segments(11);
    const MeshView view{&mesh->nodes, &mesh->faces};
    struct Case {
        int32_t dimension;
        Vec3 boxMax;
        int32_t axis;
    } cases[] = {
        {2, {1, 1, 0}, 0},  {3, {1, 2, 2}, 1}, {3, {1, 1, 1}, 0},
        {3, {1, 2, 3}, 2},  {2, {1, 2, 9}, 1},  // the third axis is not measured in 2D
    };
    for (const Case& c : cases) {
        BspNode node = handMadeNode(view, c.dimension, {0, 0, 0}, c.boxMax);
        buildNode(node, 1);
        EXPECT_EQ(node.splitAxis, c.axis) << c.boxMax;
        EXPECT_EQ(node.splitPosition, 0.5 * c.boxMax[c.axis]);
    }
}

class BspTreeInvariants : public ::testing::TestWithParam<Kind> {};

TEST_P(BspTreeInvariants, LeavesHoldExactlyTheFacesTheirBoxesReach) {
    const auto mesh = meshes::withFaceCount(GetParam(), 3000, 99);
    const Tree tree(*mesh);
    const int32_t faceCount = mesh->faces.faceCount();
    const int maxDepth = std::stoi(tree.console.substr(tree.console.find('=') + 1));
    const int32_t axes = tree.root->axisCount;
    std::vector<int> leavesPerFace(static_cast<size_t>(faceCount), 0);
    std::vector<const BspNode*> leaves;
    forEachNode(*tree.root, 0, [&](const BspNode& node, int depth) {
        EXPECT_LE(depth, maxDepth);
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
        leaves.push_back(&node);
        if (node.faceCount > 10) {
            EXPECT_EQ(depth, maxDepth);
        }
        for (int32_t i = 0; i < node.faceCount; ++i) {
            const int32_t f = node.faceList[static_cast<size_t>(i)];
            ++leavesPerFace[static_cast<size_t>(f)];
            // The face's node box meets the leaf's box (closed).
            for (int a = 0; a < axes; ++a) {
                double lo = std::numeric_limits<double>::max(), hi = -lo;
                for (int32_t k = mesh->faces.faceNodeStart[static_cast<size_t>(f)];
                     k < mesh->faces.faceNodeStart[static_cast<size_t>(f) + 1]; ++k) {
                    const double x = mesh->nodes[static_cast<size_t>(mesh->faces.faceNodes[static_cast<size_t>(k)])][a];
                    lo = std::min(lo, x);
                    hi = std::max(hi, x);
                }
                EXPECT_LE(lo, node.boxMax[a]);
                EXPECT_GE(hi, node.boxMin[a]);
            }
        }
    });
    for (int32_t f = 0; f < faceCount; ++f) EXPECT_GE(leavesPerFace[static_cast<size_t>(f)], 1);

    // Every face is listed in each leaf whose open box holds one of its nodes.
    for (const BspNode* leaf : leaves) {
        std::vector<bool> listed(static_cast<size_t>(faceCount), false);
        for (int32_t i = 0; i < leaf->faceCount; ++i) listed[static_cast<size_t>(leaf->faceList[static_cast<size_t>(i)])] = true;
        for (int32_t f = 0; f < faceCount; ++f) {
            for (int32_t k = mesh->faces.faceNodeStart[static_cast<size_t>(f)];
                 k < mesh->faces.faceNodeStart[static_cast<size_t>(f) + 1]; ++k) {
                const Vec3& p = mesh->nodes[static_cast<size_t>(mesh->faces.faceNodes[static_cast<size_t>(k)])];
                bool inside = true;
                for (int a = 0; a < axes; ++a) inside = inside && leaf->boxMin[a] < p[a] && p[a] < leaf->boxMax[a];
                if (inside) {
                    EXPECT_TRUE(listed[static_cast<size_t>(f)]) << "face " << f;
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllModes, BspTreeInvariants,
                         ::testing::Values(Kind::Axisymmetric, Kind::Planar, Kind::Triangles,
                                           Kind::Quads),
                         [](const ::testing::TestParamInfo<Kind>& param) {
                             return meshes::nameOf(param.param);
                         });

TEST(BspTree, NonFiniteCoordinatesStillGiveABoundedTree) {
    // A NaN coordinate never lowers or raises a bound; an infinite one makes the box
    // infinite on its axis, the split there is NaN and sends every face high, and
    // the depth limit ends the chain.
    auto mesh = meshes::ring(200, 40, 5);
    const Tree finite(*mesh);
    const Vec3 finiteMin = finite.root->boxMin;
    const Vec3 finiteMax = finite.root->boxMax;

    const int32_t nanNode = mesh->addNode({std::nan(""), std::nan(""), 0});
    mesh->addFace({0, nanNode});
    computeFaceGeometry(mesh->faces);
    const Tree withNaN(*mesh);
    EXPECT_EQ(withNaN.root->boxMin, finiteMin);
    EXPECT_EQ(withNaN.root->boxMax, finiteMax);

    const int32_t infNode = mesh->addNode({HUGE_VAL, 0.5, 0});
    mesh->addFace({0, infNode});
    computeFaceGeometry(mesh->faces);
    const Tree withInf(*mesh);
    EXPECT_EQ(withInf.root->boxMax[0], HUGE_VAL);
    const int maxDepth = std::stoi(withInf.console.substr(withInf.console.find('=') + 1));
    int listed = 0;
    forEachNode(*withInf.root, 0, [&](const BspNode& node, int depth) {
        EXPECT_LE(depth, maxDepth);
        listed += node.faceCount;
    });
    EXPECT_GE(listed, mesh->faces.faceCount());
}

TEST(BspTreeDeathTest, NodeIndexOutsideTheNodeArrayAborts) {
    Mesh mesh(Kind::Planar);
    mesh.addNode({0, 0, 0});
    mesh.addFace({0, 1});
    const MeshView view{&mesh.nodes, &mesh.faces};
    EXPECT_DEATH(BspNode(2, &view, true), "face node index inside the node array");
}

}  // namespace
}  // namespace hemiray
