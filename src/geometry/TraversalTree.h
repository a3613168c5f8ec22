// A flat, read-only copy of a built BSP tree for tracing. The BspNode tree is the
// construction result; tracing walks this copy instead: 16-byte nodes in one array
// with the two children of a node side by side, the leaves' face lists in one array,
// and per face a record of everything its ray test reads (area vector, minimum
// distance, node coordinates), stored in the order in which the leaves first list
// the faces so that neighbouring leaves read neighbouring records. The traversal
// is a loop over an explicit stack instead of a recursion.
//
// Every result is bit for bit that of the literal recursive walk of the BspNode
// tree (clipToRootBox, then traversePlanar or traverseAxisymmetric on the root),
// which the tests keep as their oracle: the same nodes are visited in the same order
// with the same intervals, the same faces are tested in the same order, and every
// test evaluates the same floating-point expressions in the same order. Quantities
// that depend only on the face (the minimum distance 0.001 sqrt|n|, products of the
// segment's extents) are computed once, by the same expressions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "geometry/BspTree.h"

namespace hemiray {

// What the ray test of one face reads, computed once per face by the expressions
// the face-set tests use. Polygons of three or four nodes (a triangle leaves the
// last entry of `others` unused); 128 bytes, two cache lines.
struct alignas(64) PolygonRecord {
    double normal[3];     // the area vector
    double minDistance;   // 0.001 sqrt|normal|: nearer hits are the ray's own face
    double last[3];       // the last node, where the edge loop starts
    double others[3][3];  // the other nodes from the first on
};

// Planar segments: the first node twice for a face of one node.
struct SegmentRecord {
    double normal[3];
    double minDistance;  // 0.001 |normal|
    double first[3];
    double second[3];
};

// Axisymmetric segments, revolved about the x axis into cones, cylinders or annuli.
struct ConeRecord {
    // Which form of the cone test applies: the quadratic with the position along the
    // segment measured by x (axial) or by the radius (radial, steep cones), or the
    // plane x = x0 of an annulus.
    enum class Kind : int64_t { Axial, Radial, Annulus };

    double x0, r0;  // the first node
    double ex, er;  // the second node minus the first
    double normal[3];
    double minDistance;     // 0.001 |normal|
    double ex2, er2, exR0;  // ex ex, er er, ex r0
    Kind kind;
};

// Where a ray is inside the box [boxMin, boxMax] over its first axisCount axes, in
// axisymmetric runs (dimension 1) with the box's outer cylinder about x as the second
// axis: [tEnter, tExit], false when it misses the box. The cylinder clips only a ray
// that crosses it twice and rejects none.
[[nodiscard]] bool clipToBox(int32_t dimension, int32_t axisCount, const Vec3& boxMin,
                             const Vec3& boxMax, const Vec3& O, const Vec3& D, double& tEnter,
                             double& tExit);

class TraversalTree {
public:
    // Copies the tree below root and the faces its leaves list. The face set that
    // root's mesh view points to must outlive this copy (faces whose ray test has
    // no record, such as polygons of more than four nodes, are tested from it).
    explicit TraversalTree(const BspNode& root);
    // The same copy from a tree that is no longer needed: each node's face list and
    // children are released as soon as they are copied, so that the node tree and
    // its copy are not held in full at the same time.
    explicit TraversalTree(BspNode&& root);

    int32_t dimension() const { return dimension_; }
    // The root box, as clip uses it.
    const Vec3& boxMin() const { return boxMin_; }
    const Vec3& boxMax() const { return boxMax_; }
    // Per axis, the most splits on that axis along any path from the root to a leaf.
    void splitsPerAxis(int32_t splits[3]) const;

    // clipToBox on the copied root box.
    [[nodiscard]] bool clip(const Vec3& O, const Vec3& D, double& tEnter, double& tExit) const;
    // The nearest hit in [tmin, tmax] from the root, as traversePlanar (modes 2 and
    // 3) or traverseAxisymmetric (mode 1); hitPoint and hitFace written only on a hit.
    [[nodiscard]] bool traverse(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
                                double tmin, double tmax) const;
    // clip, then traverse over the clipped interval: one ray as the sampling loop
    // traces it.
    [[nodiscard]] bool trace(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) const;

    // Bytes held by the copy (nodes, face lists, face records).
    size_t bytes() const;
    size_t nodeCount() const { return nodes_.size(); }
    size_t leafEntryCount() const { return leafEntries_.size(); }

    struct Node {
        double split;    // interior: the split position (axisymmetric axis 1: a radius)
        uint32_t index;  // interior: the low child, the high child follows; leaf: first entry
        uint32_t info;   // interior: the split axis; leaf: leafBit | face count
    };
    static constexpr uint32_t leafBit = 0x80000000u;

    // How the faces' ray tests read their data: from records of one shape for every
    // face, or per face, falling back to the face set where a face has no record.
    enum class Shape {
        Triangles,
        Quads,
        MixedPolygons,
        Segments,
        MixedSegments,
        Cones,
        MixedCones
    };

private:
    template <class Test>
    bool traverseWith(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace, double tmin,
                      double tmax) const;
    void copyTree(BspNode& root, bool release);
    void flatten(BspNode& node, uint32_t slot, int32_t depth, std::vector<int32_t>& recordOf,
                 bool release);
    void buildRecords();

    int32_t dimension_ = 0;
    int32_t axisCount_ = 0;
    Vec3 boxMin_;
    Vec3 boxMax_;
    const FaceSet* faces_ = nullptr;  // not owned
    Shape shape_ = Shape::MixedPolygons;

    std::vector<Node> nodes_;             // [0] is the root
    std::vector<uint32_t> leafEntries_;   // record indices, leaf after leaf, in list order
    std::vector<int32_t> recordFace_;     // face index of each record
    std::vector<uint8_t> recordHasData_;  // mixed shapes: 0 where the face set is read instead
    // The records of the one shape family the faces belong to, in record order.
    std::vector<PolygonRecord> polygons_;
    std::vector<SegmentRecord> segments_;
    std::vector<ConeRecord> cones_;
};

}  // namespace hemiray
