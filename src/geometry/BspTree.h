// Axis-aligned binary space partition over the participating faces: midpoint split
// of the longest box edge, straddling faces stored in both children, depth limited
// to 1.2 log2(N) + 2 and leaves of at most ten faces. In axisymmetric mode axis 1 is
// the radius and a split on it stands for a cylinder about the x axis.
#pragma once

#include <cstdint>
#include <memory>

#include "input/MeshModel.h"

namespace hemiray {

struct MeshView {
    const NodeArray* nodes = nullptr;  // not owned
    const FaceSet* faces = nullptr;    // participating faces with their geometry; not owned
};

struct BspNode {
    int32_t dimension = 0;
    int32_t axisCount = 0;  // 3 in 3D, else 2: only these axes are measured and split
    const MeshView* mesh = nullptr;
    Vec3 boxMin;
    Vec3 boxMax;
    int32_t faceCount = 0;                // entries of faceList; 0 in interior nodes
    std::unique_ptr<int32_t[]> faceList;  // leaf faces, in distribution order
    std::unique_ptr<BspNode> child[2];    // [0] low side, [1] high side; null in leaves
    int32_t splitAxis = 0;
    double splitPosition = 0;  // axisymmetric axis 1: the split radius

    BspNode() = default;
    // Root constructor. With build false only the fields are set (an empty tree);
    // with build true the root box and face list are made, the line
    // "# Maximum tree depth = D" is printed and the tree is built.
    BspNode(int32_t dimension, const MeshView* mesh, bool build);

    bool isLeaf() const { return !child[0] || !child[1]; }
};

// Splits node recursively until depth reaches 0 or it holds ten faces or fewer.
void buildNode(BspNode& node, int32_t depth);

}  // namespace hemiray
