// The run's tracer: the BVH's nearest hit where it certainly equals the BSP walk's
// answer, the flat BSP tree otherwise. Compiled with -ffp-contract=off, so the hit
// point O + t D rounds as the flat tree computes it.
//
// Why the certificate below suffices. A face's ray test gives the same (hit, t)
// wherever it is called from; only "t > limit" depends on the caller, and a face
// that passes with one limit passes with every larger one. Let t* be the smallest t
// of any face passing with limit tExit (the root box's exit, which the walk starts
// with), f* that face and P* = O + t* D, computed as the walk computes it.
//
// The walk visits leaves in ray order and returns the first one holding a face that
// passes with the leaf's limit (its exit parameter, or a split's tsplit); within the
// leaf the smallest t wins and, at equal t, the later face in its list. Suppose
//   (a) O lies clear of every split plane: then no node takes the "origin on the
//       plane" branch, which searches the high child first even for a ray leaving
//       towards the low side, and every node orders its children by the ray;
//   (b) P* lies clear of every split plane and inside the root box: then at every
//       node on the way to the leaf L* whose cell holds P*, a computed tsplit lies
//       on the same side of t* as the exact crossing, so the walk reaches L* with an
//       interval containing t*, and every leaf visited before it has a limit below
//       t*, where no face passes (t* is the smallest t of all);
//   (c) P* lies in the box of f*'s nodes: on each split on the way to L*, P* is
//       clear on one side, so f* has a node strictly on that side and is listed
//       there; a face straddling a split is listed on both sides. So f* is in L*.
//       (That t* is the smallest t of all rests on the BVH's boxes holding every
//       point a face's test can accept: true for triangles and flat polygons up to
//       rounding far below the boxes' padding; warped polygons, whose hits can lie
//       far outside their nodes' box, are tested outside the hierarchy for every
//       ray, and a model with many of them does not use the BVH);
//   (d) no other face passes with t exactly t*: otherwise the later of the two in
//       L*'s list would win there.
// Then L* returns f* with limit t*, and the walk's hit point O + t* D is P*. With no
// face passing at all the walk finds none either: every limit it uses is at most tExit.
// An origin clear inside the root box always passes the clip, and on every axis the
// clip's exit lies beyond a P* that is clear inside the box, so the BVH may search
// with no upper limit (DBL_MAX) and skip the clip: a face it finds beyond the exit
// would have P* outside the box, which the certificate refuses.
//
// "Clear" is tested against a grid instead of the splits themselves: every split is
// the midpoint of its node's box, so on each axis all of them lie on the dyadic grid
// low + k (high - low) / 2^m of the root box, m being the most splits on that axis
// along any path, up to a rounding of a few units in the last place per level. The
// margin, 1e-9 of the scene's magnitude (largest coordinate plus extent), is over
// 10^6 times those roundings and the roundings of tsplit and of P*, and (c) allows
// half of it, so that P* rounded off a face's node box by a few ulps (a ray hitting
// an axis-aligned face) still passes. Non-finite coordinates or area vectors anywhere,
// or a scene beyond 1e30, turn the BVH off for the run; a ray whose direction is not
// finite or beyond 1e30, or whose origin lies outside the root box, goes to the walk. Mirror and
// periodic steps start new rays, whose origins are checked the same way.
#include "geometry/RayTracer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "geometry/RayMath.h"

namespace hemiray {

namespace {

constexpr double clearance = 1e-9;
constexpr double roundingShift = 0x1.8p52;

bool finite(const Vec3& v) {
    return std::isfinite(v.v[0]) && std::isfinite(v.v[1]) && std::isfinite(v.v[2]);
}

// The BVH serves a run whose every face node and area vector is finite.
bool finiteModel(const FaceSet& faces) {
    for (const Vec3& n : faces.faceNormal)
        if (!finite(n)) return false;
    for (const int32_t node : faces.faceNodes)
        if (!finite((*faces.nodes)[static_cast<size_t>(node)])) return false;
    return true;
}

struct NoCount {
    void operator++() {}
};

}  // namespace

TraceEngine traceEngineFromEnvironment() {
    const char* value = std::getenv("HEMIRAY_ENGINE");
    if (value == nullptr || *value == '\0' || std::string(value) == "bvh") return TraceEngine::Bvh;
    if (std::string(value) == "bsp") return TraceEngine::Bsp;
    std::cerr << "warning: HEMIRAY_ENGINE=" << value << " is neither bsp nor bvh; using bvh"
              << std::endl;
    return TraceEngine::Bvh;
}

RayTracer::RayTracer(const TraversalTree& tree, const FaceSet& faces, TraceEngine engine)
    : tree_(tree) {
    if (engine != TraceEngine::Bvh || tree.dimension() != 3 || faces.faceCount() <= 0) return;
    if (!finite(tree.boxMin()) || !finite(tree.boxMax()) || !finiteModel(faces)) return;
    double magnitude = 0, extent = 0;
    for (int i = 0; i < 3; ++i) {
        magnitude =
            std::max({magnitude, std::abs(tree.boxMin().v[i]), std::abs(tree.boxMax().v[i])});
        extent = std::max(extent, tree.boxMax().v[i] - tree.boxMin().v[i]);
    }
    // The BVH's float boxes hold coordinates relative to the box's lower corner, and
    // its box test must meet no NaN: both need the scene well inside float range.
    if (!(extent > 0) || !(magnitude + extent < 1e30)) return;
    margin_ = clearance * (magnitude + extent);
    int32_t splits[3];
    tree.splitsPerAxis(splits);
    for (int i = 0; i < 3; ++i) {
        gridLow_[i] = tree.boxMin().v[i];
        gridHigh_[i] = tree.boxMax().v[i];
        const double width = gridHigh_[i] - gridLow_[i];
        if (!(width > 0) || splits[i] > 40) return;
        gridScale_[i] = std::ldexp(1.0, splits[i]) / width;
        gridMargin_[i] = margin_ * gridScale_[i];
        // Grid lines so dense that hardly any point is clear: the walk serves better.
        if (!(gridMargin_[i] < 0.25)) return;
    }
    bvh_ = std::make_unique<Bvh>(faces, tree.boxMin(), extent);
    if (!bvh_->usable()) bvh_.reset();
}

RayTracer::~RayTracer() = default;

bool RayTracer::clearOfSplits(const Vec3& p) const {
    for (int i = 0; i < 3; ++i) {
        const double x = p.v[i];
        if (!(x > gridLow_[i] + margin_ && x < gridHigh_[i] - margin_)) return false;
        // u lies in (0, 2^40]: adding and subtracting 1.5 * 2^52 rounds it to its
        // nearest integer (ties to even, where |u - nearest| is 0.5 either way), far
        // faster than a round trip through an integer.
        const double u = (x - gridLow_[i]) * gridScale_[i];
        const double nearest = (u + roundingShift) - roundingShift;
        if (!(std::abs(u - nearest) > gridMargin_[i])) return false;
    }
    return true;
}

bool RayTracer::bvhServesDirection(const Vec3& D) {
    // A direction whose components round to float infinity would leave the BVH's box
    // test with 0 * infinity; such rays (never a sampling direction) take the walk.
    const auto inFloatRange = [](double x) { return std::abs(x) < 1e30; };
    return inFloatRange(D.v[0]) && inFloatRange(D.v[1]) && inFloatRange(D.v[2]);
}

bool RayTracer::bvhServes(const Vec3& O, const Vec3& D) const {
    return bvhServesDirection(D) && clearOfSplits(O);
}

[[gnu::always_inline]] inline bool RayTracer::certified(const NearestHit& nearest, const Vec3& O,
                                                        const Vec3& D, Vec3& hitPoint,
                                                        int32_t& hitFace) const {
    const Vec3 P = O + D * nearest.t;
    if (nearest.tie || !clearOfSplits(P) || !bvh_->insideFaceBox(nearest, P, 0.5 * margin_))
        return false;
    hitPoint = P;
    hitFace = nearest.face;
    return true;
}

template <class Count>
bool RayTracer::walk(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
                     Count& fallbacks) const {
    // A ray that misses the root box is no fallback: the walk would not start either.
    double tEnter = 0, tExit = 0;
    if (!tree_.clip(O, D, tEnter, tExit)) return false;
    ++fallbacks;
    return tree_.traverse(O, D, hitPoint, hitFace, tEnter, tExit);
}

template <class Count>
bool RayTracer::traceWith(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
                          Count& fallbacks) const {
    if (!bvh_) return tree_.trace(O, D, hitPoint, hitFace);
    if (bvhServes(O, D)) {
        // No clip: it accepts every origin inside the root box, and its exit lies
        // beyond any P* that is clear inside the box.
        const NearestHit nearest = bvh_->nearest(O, D, raymath::dblMax);
        if (!nearest.found) return false;
        if (certified(nearest, O, D, hitPoint, hitFace)) return true;
    }
    return walk(O, D, hitPoint, hitFace, fallbacks);
}

void RayTracer::tracePair(const Vec3 O[2], const Vec3 D[2], Vec3 hitPoint[2], int32_t hitFace[2],
                          bool hit[2]) const {
    // A face's directions share their origin: its check is done once.
    const bool sameOrigin = std::memcmp(O[0].v, O[1].v, sizeof O[0].v) == 0;
    if (!bvh_ || !bvhServes(O[0], D[0]) ||
        !(sameOrigin ? bvhServesDirection(D[1]) : bvhServes(O[1], D[1]))) {
        for (int r = 0; r < 2; ++r) hit[r] = trace(O[r], D[r], hitPoint[r], hitFace[r]);
        return;
    }
    NearestHit nearest[2];
    bvh_->nearestPair(O, D, raymath::dblMax, nearest);
    NoCount none;
    for (int r = 0; r < 2; ++r)
        hit[r] = nearest[r].found && (certified(nearest[r], O[r], D[r], hitPoint[r], hitFace[r]) ||
                                      walk(O[r], D[r], hitPoint[r], hitFace[r], none));
}

bool RayTracer::trace(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) const {
    NoCount none;
    return traceWith(O, D, hitPoint, hitFace, none);
}

bool RayTracer::trace(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
                      uint64_t& fallbacks) const {
    return traceWith(O, D, hitPoint, hitFace, fallbacks);
}

}  // namespace hemiray
