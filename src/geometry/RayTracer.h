// The tracer of a run: the BSP tree's flat copy, and in 3D runs a BVH that answers
// most rays faster with exactly the flat tree's answer. A ray whose BVH answer
// cannot be certified equal is traced by the flat tree, as is every ray of planar
// and axisymmetric runs and of runs that choose the BSP engine.
#pragma once

#include <cstdint>
#include <memory>

#include "geometry/Bvh.h"
#include "geometry/TraversalTree.h"

namespace hemiray {

enum class TraceEngine { Bsp, Bvh };

// The engine named by the environment variable HEMIRAY_ENGINE: "bsp" or "bvh"; unset
// or empty means bvh. Any other value prints one warning line on the standard error
// stream and means bvh (both engines give the same results).
TraceEngine traceEngineFromEnvironment();

class RayTracer {
public:
    // tree and faces (the participating faces it was built over) must outlive the
    // tracer. With the BVH engine in a 3D run the BVH is built here.
    RayTracer(const TraversalTree& tree, const FaceSet& faces, TraceEngine engine);
    ~RayTracer();

    // One ray as the sampling loop traces it: the result of tree.trace, bit for bit.
    [[nodiscard]] bool trace(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) const;
    // The same, adding 1 to fallbacks where the BVH's answer could not be certified
    // and the flat tree traced the ray.
    [[nodiscard]] bool trace(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
                             uint64_t& fallbacks) const;

    // Two rays at once, each with trace's answer (hit[r] its return value); in 3D
    // runs through the BVH the two walks overlap, which hides much of their waiting
    // on memory.
    void tracePair(const Vec3 O[2], const Vec3 D[2], Vec3 hitPoint[2], int32_t hitFace[2],
                   bool hit[2]) const;

    // The BVH, or null where every ray takes the flat tree.
    const Bvh* bvh() const { return bvh_.get(); }
    const TraversalTree& tree() const { return tree_; }

private:
    template <class Count>
    bool traceWith(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
                   Count& fallbacks) const;
    // Whether the BVH may answer the ray at all.
    bool bvhServes(const Vec3& O, const Vec3& D) const;
    static bool bvhServesDirection(const Vec3& D);
    // The BVH's answer where the certificate holds: true with the hit set.
    bool certified(const NearestHit& nearest, const Vec3& O, const Vec3& D, Vec3& hitPoint,
                   int32_t& hitFace) const;
    // The flat tree's answer for a ray the BVH could not answer.
    template <class Count>
    bool walk(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
              Count& fallbacks) const;
    bool clearOfSplits(const Vec3& p) const;

    const TraversalTree& tree_;
    std::unique_ptr<Bvh> bvh_;
    double margin_ = 0;       // clearance from split planes, in coordinates
    double gridLow_[3] = {};  // the root box
    double gridHigh_[3] = {};
    double gridScale_[3] = {};   // 2^m / (high - low): grid units per coordinate unit
    double gridMargin_[3] = {};  // margin_ in grid units
};

}  // namespace hemiray
