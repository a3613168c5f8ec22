// Construction of the BSP tree: the padded root box over all face nodes, then
// recursive midpoint splits of the longest box edge. Faces are sorted into the
// children by their nodes, so a face crossing a split plane lands in both.
#include "geometry/BspTree.h"

#include <cmath>
#include <iostream>
#include <limits>
#include <vector>

#include "Check.h"

namespace hemiray {

namespace {

constexpr int32_t leafFaceLimit = 10;  // nodes with this many faces or fewer never split

// The root box is padded by a share of its largest extent, slightly more above than
// below, on every measured axis.
constexpr double rootPaddingBelow = 0.0103;
constexpr double rootPaddingAbove = 0.0107;

// 1.2 log2(N) truncated, plus 2. An empty face set has no logarithm; a truncating
// conversion of -infinity yields the most negative int on x86-64, so the empty tree
// reports that value plus 2 (-2147483646) and, being negative, is never split.
int32_t depthLimit(int32_t faceCount) {
    if (faceCount <= 0) return std::numeric_limits<int32_t>::min() + 2;
    return static_cast<int32_t>(1.2 * std::log(static_cast<double>(faceCount)) / std::log(2.0)) + 2;
}

void initChild(BspNode& child, const BspNode& parent) {
    child.dimension = parent.dimension;
    child.axisCount = parent.axisCount;
    child.mesh = parent.mesh;
}

// Side flags of one face against the split plane.
constexpr uint8_t sideLow = 1;   // some node strictly below the plane
constexpr uint8_t sideHigh = 2;  // some node strictly above the plane

// buildNode with a scratch array for the side flags of the node's faces. A child
// never holds more faces than its parent, and the parent's flags are dead once its
// children's lists are filled, so one array serves the whole recursion.
void buildNodeWith(BspNode& node, int32_t depth, std::vector<uint8_t>& sides) {
    if (depth <= 0 || node.faceCount <= leafFaceLimit) return;

    node.child[0] = std::make_unique<BspNode>();
    node.child[1] = std::make_unique<BspNode>();
    BspNode& low = *node.child[0];
    BspNode& high = *node.child[1];
    initChild(low, node);
    initChild(high, node);

    // Longest edge; a tie keeps the lower axis.
    int32_t axis = node.splitAxis;
    for (int32_t i = 0; i < node.axisCount; ++i)
        if (node.boxMax[i] - node.boxMin[i] > node.boxMax[axis] - node.boxMin[axis]) axis = i;
    node.splitAxis = axis;
    const double split = (node.boxMax[axis] + node.boxMin[axis]) * 0.5;
    node.splitPosition = split;

    const FaceSet& faces = *node.mesh->faces;
    const NodeArray& nodes = *node.mesh->nodes;
    const auto faceCount = static_cast<size_t>(node.faceCount);
    if (sides.size() < faceCount) sides.resize(faceCount);
    int32_t lowCount = 0;
    int32_t highCount = 0;
    for (size_t i = 0; i < faceCount; ++i) {
        const auto f = static_cast<size_t>(node.faceList[i]);
        uint8_t side = 0;
        for (int32_t k = faces.faceNodeStart[f]; k < faces.faceNodeStart[f + 1]; ++k) {
            const double x =
                nodes[static_cast<size_t>(faces.faceNodes[static_cast<size_t>(k)])].v[axis];
            if (x < split) side |= sideLow;
            if (x > split) side |= sideHigh;
        }
        // A face with every node on the plane (or none at all) goes high.
        if (!(side & sideLow)) side |= sideHigh;
        sides[i] = side;
        lowCount += (side & sideLow) ? 1 : 0;
        highCount += (side & sideHigh) ? 1 : 0;
    }

    low.faceCount = lowCount;
    high.faceCount = highCount;
    if (lowCount > 0)
        low.faceList = std::make_unique_for_overwrite<int32_t[]>(static_cast<size_t>(lowCount));
    if (highCount > 0)
        high.faceList = std::make_unique_for_overwrite<int32_t[]>(static_cast<size_t>(highCount));
    int32_t lowNext = 0;
    int32_t highNext = 0;
    for (size_t i = 0; i < faceCount; ++i) {
        if (sides[i] & sideLow) low.faceList[static_cast<size_t>(lowNext++)] = node.faceList[i];
        if (sides[i] & sideHigh) high.faceList[static_cast<size_t>(highNext++)] = node.faceList[i];
    }

    for (int32_t i = 0; i < node.axisCount; ++i) {
        low.boxMin[i] = high.boxMin[i] = node.boxMin[i];
        low.boxMax[i] = high.boxMax[i] = node.boxMax[i];
    }
    low.boxMax[axis] = split;
    high.boxMin[axis] = split;

    node.faceList.reset();
    node.faceCount = 0;

    buildNodeWith(low, depth - 1, sides);
    buildNodeWith(high, depth - 1, sides);
}

}  // namespace

BspNode::BspNode(int32_t dimension_, const MeshView* mesh_, bool build)
    : dimension(dimension_), axisCount(dimension_ == 3 ? 3 : 2), mesh(mesh_) {
    if (!build) return;
    HEMIRAY_CHECK(mesh != nullptr && mesh->nodes != nullptr && mesh->faces != nullptr,
                  "mesh view with nodes and faces");
    const FaceSet& faces = *mesh->faces;
    const NodeArray& nodes = *mesh->nodes;

    // The upper corner starts just above zero, not at the most negative double, so a
    // mesh lying wholly below zero on an axis gets a box that reaches up to zero.
    constexpr double largest = std::numeric_limits<double>::max();
    constexpr double tinyPositive = std::numeric_limits<double>::min();
    boxMin = Vec3(largest, largest, largest);
    boxMax = Vec3(tinyPositive, tinyPositive, tinyPositive);
    const int32_t faceCountInSet = faces.faceCount();
    const auto entryEnd =
        static_cast<size_t>(faces.faceNodeStart[static_cast<size_t>(faceCountInSet)]);
    for (auto entry = static_cast<size_t>(faces.faceNodeStart[0]); entry < entryEnd; ++entry) {
        const int32_t node = faces.faceNodes[entry];
        // The readers store node numbers unchecked; the traversal trusts them after this.
        HEMIRAY_CHECK(node >= 0 && static_cast<size_t>(node) < nodes.size(),
                      "face node index inside the node array");
        const Vec3& p = nodes[static_cast<size_t>(node)];
        for (int i = 0; i < 3; ++i) {
            if (p[i] < boxMin[i]) boxMin[i] = p[i];
            if (p[i] > boxMax[i]) boxMax[i] = p[i];
        }
    }

    double extent = 0.0;
    for (int32_t i = 0; i < axisCount; ++i)
        if (boxMax[i] - boxMin[i] > extent) extent = boxMax[i] - boxMin[i];
    for (int32_t i = 0; i < axisCount; ++i) {
        boxMin[i] -= rootPaddingBelow * extent;
        boxMax[i] += rootPaddingAbove * extent;
    }
    // Axisymmetric axis 1 is a radius: the box never reaches below the axis.
    if (dimension == 1 && boxMin[1] < 0.0) boxMin[1] = 0.0;

    faceCount = faceCountInSet;
    if (faceCount > 0) {
        faceList = std::make_unique_for_overwrite<int32_t[]>(static_cast<size_t>(faceCount));
        for (int32_t f = 0; f < faceCount; ++f) faceList[static_cast<size_t>(f)] = f;
    }

    const int32_t maxDepth = depthLimit(faceCount);
    std::cout << "# Maximum tree depth = " << maxDepth << "\n";
    buildNode(*this, maxDepth);
}

void buildNode(BspNode& node, int32_t depth) {
    std::vector<uint8_t> sides;
    buildNodeWith(node, depth, sides);
}

}  // namespace hemiray
