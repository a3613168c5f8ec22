// A bounding-volume hierarchy over the faces of a 3D run, for finding a ray's
// nearest face hit fast: a binned surface-area-heuristic build, collapsed to nodes
// of eight children with float boxes rounded outward and a normal cone per child
// (a ray that faces away from every face below a child skips it), and leaves of at
// most eight faces stored as groups of four polygons in structure-of-arrays doubles
// that are tested four at a time. Every face lies in exactly one leaf. Two rays'
// walks can run interleaved, so that one's waits on memory overlap the other's work.
//
// The group test evaluates, lane by lane, exactly the operations of
// intersectPolygon in the same order (this file's translation unit is compiled
// without contraction, and neither path enables FMA), so each lane's hit and t
// are the bits the scalar test gives. Faces of other than three or four nodes are
// tested by intersectPolygon itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Compiler.h"
#include "input/MeshModel.h"

namespace hemiray {

// Four doubles, one per lane of a group.
struct alignas(32) Lanes4 {
    double v[4];
};

// Polygon groups: four polygons of `corners` (3 or 4) nodes, lane by lane: the
// area vector (3 entries), the last node (3), then the other nodes from the first
// on (3 each). Empty lanes never hit.
constexpr size_t polygonGroupEntries(int corners) {
    return 6 + 3 * static_cast<size_t>(corners - 1);
}

// Packs up to four faces (all of `corners` nodes) into a group of
// polygonGroupEntries(corners) entries. Returns the float at or above every
// lane's minimum distance 0.001 sqrt|n|, which the group test takes.
float packPolygonGroup(const FaceSet& faces, const int32_t* faceIndex, int count, int corners,
                       Lanes4* group);

// Tests the ray against the four lanes of a group with the upper limit tmax, as
// intersectPolygon would: bit k of the result is set when lane k is hit, and t[k]
// then holds its parameter. minDistanceBound is packPolygonGroup's result. The
// AVX2 form may be called only where the processor has AVX2 (cpuHasAvx2).
unsigned testPolygonGroupSse2(const Lanes4* group, int corners, float minDistanceBound,
                              const Vec3& O, const Vec3& D, double tmax, double t[4]);
unsigned testPolygonGroupAvx2(const Lanes4* group, int corners, float minDistanceBound,
                              const Vec3& O, const Vec3& D, double tmax, double t[4]);

// The nearest hit over all faces of a query, with whether another face is hit at
// exactly the same parameter.
struct NearestHit {
    bool found = false;
    bool tie = false;  // some other face passes its test with the same t
    int32_t face = -1;
    double t = 0;
    const Lanes4* group = nullptr;  // the face's polygon group, null for a face tested alone
    int lane = 0;
    int corners = 0;
};

class Bvh {
public:
    // Builds over every face of `faces` (3D) except warped polygons, which every
    // query tests directly; the face set must outlive the tree.
    // base and extent place the float boxes: coordinates are stored relative to base,
    // and every box is padded by a small share of extent.
    Bvh(const FaceSet& faces, const Vec3& base, double extent);

    // The face with the smallest t that passes its ray test with the upper limit
    // tmax (t equal to tmax accepted), over all faces; not found when none passes.
    [[nodiscard]] NearestHit nearest(const Vec3& O, const Vec3& D, double tmax) const;

    // nearest for two rays at once: the same answers, with the two walks
    // interleaved so that each one's memory waits overlap the other's work.
    void nearestPair(const Vec3 O[2], const Vec3 D[2], double tmax, NearestHit hits[2]) const;

    // Whether p lies in the box of the nodes of the hit's face, widened by slack: from
    // the face's group, which the query has just read, or from the face set.
    [[nodiscard]] bool insideFaceBox(const NearestHit& hit, const Vec3& p, double slack) const {
        if (!hit.group) return insideNodeBox(hit.face, p, slack);
        return hit.corners == 3 ? insideGroupBox<3>(hit.group, hit.lane, p, slack)
                                : insideGroupBox<4>(hit.group, hit.lane, p, slack);
    }

    // False when so many faces are warped polygons (tested for every ray, outside
    // the hierarchy) that the BVH should not be used.
    bool usable() const { return usable_; }

    // Bytes held by the tree (nodes and leaves).
    size_t bytes() const;
    size_t nodeCount() const { return nodes_.size(); }

    static constexpr int width = 8;  // children per node
    // The children's boxes: bound[0][axis] holds their lower corners, bound[1][axis]
    // the upper ones. A slot without a child has the inverted box lower = +inf,
    // upper = -inf, which every ray misses.
    struct alignas(32) Node {
        float bound[2][3][width];
        // >= 0: a node's byte offset in nodes_; < 0: ~(first entry of a leaf in leaves_)
        int32_t child[width];
        // Each child's normal cone: an axis of small integers (rows 0 to 2) and a
        // bound (row 3); a ray whose scaled direction reaches the bound along the
        // axis faces away from every face below the child, which it then skips.
        int8_t cone[4][width];
    };
    // A leaf is a run of groups in leaves_, each a header entry followed by its
    // polygon entries (none for faces tested alone by intersectPolygon).
    struct GroupHeader {
        int32_t face[4];         // -1 in empty lanes
        int32_t corners;         // 3 or 4; 0: faces tested alone
        int32_t last;            // 1 in the leaf's last group
        float minDistanceBound;  // packPolygonGroup's result
        int32_t unused;
    };

private:
    friend struct BvhQuery;

    // The box of lane `lane` of a group of `Corners` nodes (the last node at entry 3,
    // the others from entry 6 on).
    template <int Corners>
    static bool insideGroupBox(const Lanes4* group, int lane, const Vec3& p, double slack) {
        for (int axis = 0; axis < 3; ++axis) {
            double lo = group[3 + axis].v[lane], hi = lo;
            for (int k = 0; k + 1 < Corners; ++k) {
                const double x = group[6 + 3 * k + axis].v[lane];
                lo = x < lo ? x : lo;
                hi = x > hi ? x : hi;
            }
            if (!(lo - slack <= p.v[axis] && p.v[axis] <= hi + slack)) return false;
        }
        return true;
    }
    bool insideNodeBox(int32_t face, const Vec3& p, double slack) const;

    const FaceSet* faces_;  // not owned
    Vec3 base_;
    bool avx2_ = false;
    int32_t rootCode_ = 0;  // a node's byte offset, or ~(leaf entry) when the root is a leaf
    bool empty_ = true;     // no face in the hierarchy
    bool usable_ = true;
    std::vector<Node> nodes_;
    std::vector<Lanes4> leaves_;
    std::vector<int32_t> alwaysTested_;  // warped polygons, outside the hierarchy
};

}  // namespace hemiray
