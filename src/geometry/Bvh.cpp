// The BVH of Bvh.h: build (binned SAH, collapse to eight-wide nodes, normal cones,
// leaf packing) and the nearest-hit query, compiled twice: for AVX2, chosen at run
// time where the processor has it, and for the baseline (SSE2). Both forms run the
// same source; the group test is written with generic vectors of four doubles,
// which the baseline form splits into pairs. Compiled with -ffp-contract=off: no
// multiply and add may be fused, so every lane rounds as intersectPolygon does.
#include "geometry/Bvh.h"

#include "Compiler.h"

#if HEMIRAY_X86
#include <emmintrin.h>
#endif

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <numbers>

#include "Check.h"
#include "geometry/RayTraversal.h"

namespace hemiray {

namespace {

typedef double V4d __attribute__((vector_size(32)));
typedef long long V4l __attribute__((vector_size(32)));
typedef float V8f __attribute__((vector_size(32)));
typedef int V8i __attribute__((vector_size(32)));

// Bit k set where lane k of a comparison result is true (all bits set).
inline unsigned laneMask(const V8i& lanes) {
#if HEMIRAY_X86
    __m128 halves[2];
    std::memcpy(halves, &lanes, sizeof halves);
    return static_cast<unsigned>(_mm_movemask_ps(halves[0]) | _mm_movemask_ps(halves[1]) << 4);
#else
    unsigned mask = 0;
    for (int k = 0; k < 8; ++k) mask |= (lanes[k] != 0 ? 1u : 0u) << k;
    return mask;
#endif
}

// Boxes are padded by this share of the scene's extent on every side: far more
// than the float rounding of box corners, ray origin, direction and entry
// parameter (about 1e-7 of the extent each), so a box never drops a point that
// lies in its face's node box.
constexpr double boxPadding = 1e-5;
constexpr uint32_t leafFaceLimit = 8;
// Warped polygons are tested for every ray; with more than this many the BVH would
// be no faster than the walk.
constexpr size_t maxAlwaysTested = 64;
constexpr int binCount = 32;
// Below this depth the build splits at the median, which bounds the depth and with
// it the query's stack.
constexpr int sahDepthLimit = 48;
// The query defers at most seven children per level; the depth stays below
// sahDepthLimit + 32 (median splits halve the faces).
constexpr int stackSize = 1024;
constexpr int maxTreeDepth = stackSize / 7 - 1;

float roundDown(double x) {
    float f = static_cast<float>(x);
    if (static_cast<double>(f) > x) f = std::nextafter(f, -std::numeric_limits<float>::infinity());
    return f;
}
// The float at or above x; inline, since the query calls it after every better hit.
float roundUp(double x) {
    float f = static_cast<float>(x);
    if (static_cast<double>(f) < x) {
        if (f == 0.0f) return std::numeric_limits<float>::denorm_min();
        uint32_t bits = 0;
        std::memcpy(&bits, &f, sizeof bits);
        bits = f > 0 ? bits + 1 : bits - 1;  // the next float up, the largest one going to infinity
        std::memcpy(&f, &bits, sizeof f);
    }
    return f;
}

struct Box {
    float lo[3] = {std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
                   std::numeric_limits<float>::max()};
    float hi[3] = {-std::numeric_limits<float>::max(), -std::numeric_limits<float>::max(),
                   -std::numeric_limits<float>::max()};
    void grow(const Box& b) {
        for (int i = 0; i < 3; ++i) {
            lo[i] = std::min(lo[i], b.lo[i]);
            hi[i] = std::max(hi[i], b.hi[i]);
        }
    }
    void grow(const float p[3]) {
        for (int i = 0; i < 3; ++i) {
            lo[i] = std::min(lo[i], p[i]);
            hi[i] = std::max(hi[i], p[i]);
        }
    }
    // Half the surface area; 0 for an empty box.
    double area() const {
        if (lo[0] > hi[0]) return 0;
        const double dx = hi[0] - lo[0], dy = hi[1] - lo[1], dz = hi[2] - lo[2];
        return dx * dy + dy * dz + dz * dx;
    }
};

struct Ref {
    Box box;
    float centre[3];
    int32_t face;
};

struct BuildNode {
    Box box;
    int32_t child[2] = {-1, -1};  // both -1 in a leaf
    uint32_t begin = 0;
    uint32_t end = 0;
};

// Whether every point the polygon test can accept lies in the face's node box, up
// to rounding: true for triangles and for polygons whose nodes lie in one plane
// (within 1e-9 of the face's size). A warped polygon is hit on the plane through its
// last node, inside the cone from O over its edges, which for a ray nearly in that
// plane reaches far beyond the nodes. Faces with a zero area vector never pass.
bool flatFace(const FaceSet& faces, int32_t f) {
    const int32_t begin = faces.faceNodeStart[static_cast<size_t>(f)];
    const int32_t end = faces.faceNodeStart[static_cast<size_t>(f) + 1];
    const Vec3& n = faces.faceNormal[static_cast<size_t>(f)];
    const double area = norm(n);
    if (end - begin <= 3 || !(area > 0)) return true;
    const NodeArray& nodes = *faces.nodes;
    const auto node = [&](int32_t k) -> const Vec3& {
        return nodes[static_cast<size_t>(faces.faceNodes[static_cast<size_t>(k)])];
    };
    const Vec3& last = node(end - 1);
    double size = 0, offPlane = 0;
    for (int32_t k = begin; k < end; ++k) {
        size = std::max(size, norm(node(k) - last));
        offPlane = std::max(offPlane, std::abs(dot(node(k) - last, n)) / area);
    }
    return offPlane <= 1e-9 * size;
}

// Normal cones, which let a query skip a child all of whose faces face away from
// the ray: intersectPolygon rejects a face at once when dot(D, n) >= 0.
//
// A child's cone is an axis q of integers in [-127, 127] and an angle theta such
// that every face's area vector lies within theta of q. The query holds the ray's
// unit direction u as integers d = trunc(64 u) and culls the child when the exact
// integer q.d reaches the bound T = 128 T8, T8 a byte, with
//   T >= 64 |q| sin(theta + coneMargin) + coneRayError |q|_1.
// Since |d - 64 u| < coneRayError per component, q.d >= T gives u.q / |q| >=
// sin(theta + coneMargin): the angle between D and q is at most
// pi/2 - theta - coneMargin, so D makes an angle of at most pi/2 - coneMargin with
// every area vector and dot(D, n) >= |D| |n| sin(coneMargin), which no double
// rounding of the dot product (about 1e-15 of |D| |n|) brings down to 0. A culled
// face is one the test would reject: the nearest hit and its ties are unchanged.
// The sums stay within 3 * 127 * 64 and the bounds within 127 * 128, in 16 bits.
// Faces with a zero area vector always fail the test and bound nothing: a child of
// only such faces has q = 0 and T = 0 (always culled); a child that can never be
// culled has q = 0 and T8 = 1.
constexpr double coneMargin = 1e-3;
constexpr int coneAxisScale = 127;  // the axis's largest component
constexpr int coneRayScale = 64;    // the direction's scale
constexpr int coneBoundShift = 7;   // T = T8 * 2^7
// |d - 64 u| per component: below 1 from the truncation to an integer, and far
// less from the rounding of 64 D / |D| in double.
constexpr double coneRayError = 1 + 1e-9;

struct Cone {
    int8_t axis[3] = {0, 0, 0};
    Vec3 unit{};         // axis normalised
    double theta = 0;    // every area vector lies within this angle of unit
    bool empty = true;   // no face with an area vector: nothing below can pass
    bool never = false;  // no direction is certain to face away from every face
};

// v / |v| without underflow or overflow in |v|; false for a zero vector.
// (Dividing by m, not multiplying by 1 / m, which overflows for subnormal m.)
bool unitOf(const Vec3& v, Vec3& unit) {
    const double m = std::max({std::abs(v.v[0]), std::abs(v.v[1]), std::abs(v.v[2])});
    if (!(m > 0) || !std::isfinite(m)) return false;
    const Vec3 scaled(v.v[0] / m, v.v[1] / m, v.v[2] / m);
    unit = scaled * (1.0 / norm(scaled));
    return true;
}

double angleBetween(const Vec3& a, const Vec3& b) {
    return std::atan2(norm(cross(a, b)), dot(a, b));
}

// The cone around `sum` (a sum of member axes) that holds every member, each
// given as a unit vector with its own angle.
template <class Members>
Cone coneAround(const Vec3& sum, const Members& members) {
    Cone cone;
    cone.empty = false;
    Vec3 direction;
    if (!unitOf(sum, direction)) {
        cone.never = true;  // opposite normals
        return cone;
    }
    const double m =
        std::max({std::abs(direction.v[0]), std::abs(direction.v[1]), std::abs(direction.v[2])});
    Vec3 q;
    for (int i = 0; i < 3; ++i) {
        q.v[i] = std::round(direction.v[i] / m * coneAxisScale);
        cone.axis[i] = static_cast<int8_t>(q.v[i]);
    }
    unitOf(q, cone.unit);  // the largest component is coneAxisScale
    members([&](const Vec3& unit, double theta) {
        // 1e-9 covers the rounding of the angle itself.
        cone.theta = std::max(cone.theta, angleBetween(cone.unit, unit) + theta + 1e-9);
    });
    return cone;
}

// A child's cone as the query reads it: the axis, then T8.
void storeCone(const Cone& cone, int8_t out[4]) {
    out[0] = out[1] = out[2] = 0;
    out[3] = cone.empty ? 0 : 1;
    if (cone.empty || cone.never || !(cone.theta + coneMargin < 0.5 * std::numbers::pi)) return;
    const Vec3 q{static_cast<double>(cone.axis[0]), static_cast<double>(cone.axis[1]),
                 static_cast<double>(cone.axis[2])};
    const double l1 = std::abs(q.v[0]) + std::abs(q.v[1]) + std::abs(q.v[2]);
    // 1e-6 covers the rounding of this bound.
    const double bound =
        coneRayScale * norm(q) * std::sin(cone.theta + coneMargin) + coneRayError * l1 + 1e-6;
    const double bound8 = std::ceil(bound / (1 << coneBoundShift));
    if (!(bound8 <= 127)) return;
    for (int i = 0; i < 3; ++i) out[i] = cone.axis[i];
    out[3] = static_cast<int8_t>(bound8);
}

// The ray's d for the cone test: on x86 each component in all eight 16-bit lanes
// of a vector, elsewhere as a plain integer.
#if HEMIRAY_X86
using ConeRay = __m128i;
inline ConeRay coneRayOf(int16_t d) {
    return _mm_set1_epi16(d);
}
#else
using ConeRay = int;
inline ConeRay coneRayOf(int16_t d) {
    return d;
}
#endif

// Bit k set where child k's cone does not rule the ray out: q.d < T. `cone` is a
// node's four rows of eight bytes (16-byte aligned).
[[gnu::always_inline]] inline unsigned coneKeepMask(const int8_t* cone, const ConeRay dir[3]) {
#if HEMIRAY_X86
    const __m128i xy = _mm_load_si128(reinterpret_cast<const __m128i*>(cone));
    const __m128i zt = _mm_load_si128(reinterpret_cast<const __m128i*>(cone + 16));
    // Bytes to 16 bits with their sign: each byte in the high half, shifted down.
    const __m128i qx = _mm_srai_epi16(_mm_unpacklo_epi8(xy, xy), 8);
    const __m128i qy = _mm_srai_epi16(_mm_unpackhi_epi8(xy, xy), 8);
    const __m128i qz = _mm_srai_epi16(_mm_unpacklo_epi8(zt, zt), 8);
    const __m128i bound =
        _mm_slli_epi16(_mm_srai_epi16(_mm_unpackhi_epi8(zt, zt), 8), coneBoundShift);
    const __m128i dot =
        _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(qx, dir[0]), _mm_mullo_epi16(qy, dir[1])),
                      _mm_mullo_epi16(qz, dir[2]));
    const __m128i keep = _mm_cmpgt_epi16(bound, dot);
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(keep, keep))) & 0xffu;
#else
    unsigned keep = 0;
    for (int k = 0; k < 8; ++k) {
        const int dot = cone[k] * dir[0] + cone[8 + k] * dir[1] + cone[16 + k] * dir[2];
        keep |= (dot < cone[24 + k] * (1 << coneBoundShift) ? 1u : 0u) << k;
    }
    return keep;
#endif
}

// Groups of four are what a leaf pays for.
double groupCost(uint32_t count) {
    return static_cast<double>((count + 3) / 4);
}

class Builder {
public:
    Builder(std::vector<Ref>& refs) : refs_(refs) {}

    int32_t build(uint32_t begin, uint32_t end, int depth) {
        HEMIRAY_CHECK(depth <= maxTreeDepth, "BVH depth within the query's stack");
        const auto index = static_cast<int32_t>(nodes_.size());
        nodes_.push_back(BuildNode{});
        Box box, centres;
        for (uint32_t i = begin; i < end; ++i) {
            box.grow(refs_[i].box);
            centres.grow(refs_[i].centre);
        }
        nodes_[static_cast<size_t>(index)].box = box;
        nodes_[static_cast<size_t>(index)].begin = begin;
        nodes_[static_cast<size_t>(index)].end = end;
        const uint32_t count = end - begin;
        if (count <= 4) return index;

        int axis = 0;  // the median split's axis: the centres' widest
        for (int i = 1; i < 3; ++i)
            if (centres.hi[i] - centres.lo[i] > centres.hi[axis] - centres.lo[axis]) axis = i;
        uint32_t middle = begin;
        if (depth < sahDepthLimit) {
            // The centre's bin on an axis; binning on all three axes and taking the
            // cheapest split.
            const auto binOf = [&](const Ref& r, int a) {
                const double lo = centres.lo[a];
                const double width = static_cast<double>(centres.hi[a]) - lo;
                const int bin = static_cast<int>((r.centre[a] - lo) * (binCount / width));
                return std::clamp(bin, 0, binCount - 1);
            };
            double bestCost = std::numeric_limits<double>::max();
            int bestSplit = -1, bestAxis = axis;
            for (int a = 0; a < 3; ++a) {
                if (!(centres.hi[a] > centres.lo[a])) continue;
                Box bins[binCount];
                uint32_t counts[binCount] = {};
                for (uint32_t i = begin; i < end; ++i) {
                    const int b = binOf(refs_[i], a);
                    bins[b].grow(refs_[i].box);
                    ++counts[b];
                }
                double rightArea[binCount];
                uint32_t rightCount[binCount];
                Box right;
                uint32_t rc = 0;
                for (int b = binCount - 1; b > 0; --b) {
                    right.grow(bins[b]);
                    rc += counts[b];
                    rightArea[b] = right.area();
                    rightCount[b] = rc;
                }
                Box left;
                uint32_t lc = 0;
                for (int b = 1; b < binCount; ++b) {
                    left.grow(bins[b - 1]);
                    lc += counts[b - 1];
                    if (lc == 0 || rightCount[b] == 0) continue;
                    const double cost =
                        left.area() * groupCost(lc) + rightArea[b] * groupCost(rightCount[b]);
                    if (cost < bestCost) {
                        bestCost = cost;
                        bestSplit = b;
                        bestAxis = a;
                    }
                }
            }
            // A node visit costs about half a group test.
            const double area = box.area();
            if (count <= leafFaceLimit &&
                (bestSplit < 0 || area * groupCost(count) <= 0.5 * area + bestCost))
                return index;
            if (bestSplit > 0) {
                axis = bestAxis;
                middle = static_cast<uint32_t>(
                    std::partition(refs_.begin() + begin, refs_.begin() + end,
                                   [&](const Ref& r) { return binOf(r, axis) < bestSplit; }) -
                    refs_.begin());
            }
        } else if (count <= leafFaceLimit) {
            return index;
        }
        // The SAH split as it falls: rounding split counts to whole groups of four
        // fills the groups' lanes but moves faces across the best split, which
        // costs more in the query than the partly used groups do.
        if (middle == begin || middle == end) {
            middle = begin + std::max<uint32_t>(count / 8 * 4, 1);
            std::nth_element(
                refs_.begin() + begin, refs_.begin() + middle, refs_.begin() + end,
                [&](const Ref& a, const Ref& b) { return a.centre[axis] < b.centre[axis]; });
        }
        const int32_t low = build(begin, middle, depth + 1);
        const int32_t high = build(middle, end, depth + 1);
        nodes_[static_cast<size_t>(index)].child[0] = low;
        nodes_[static_cast<size_t>(index)].child[1] = high;
        return index;
    }

    const std::vector<BuildNode>& nodes() const { return nodes_; }

private:
    std::vector<Ref>& refs_;
    std::vector<BuildNode> nodes_;
};

struct Ray4 {
    V4d O[3];
    V4d D[3];
};

V4d broadcast(double x) {
    return V4d{x, x, x, x};
}

// Lane by lane the correctly rounded square root, as std::sqrt.
[[gnu::always_inline]] inline V4d sqrt4(const V4d& x) {
#if HEMIRAY_X86
    V4d r;
    __m128d halves[2];
    std::memcpy(halves, &x, sizeof halves);
    halves[0] = _mm_sqrt_pd(halves[0]);
    halves[1] = _mm_sqrt_pd(halves[1]);
    std::memcpy(&r, halves, sizeof r);
    return r;
#else
    return V4d{std::sqrt(x[0]), std::sqrt(x[1]), std::sqrt(x[2]), std::sqrt(x[3])};
#endif
}

// intersectPolygon on four lanes: the same expressions in the same order, and the
// same comparisons (written as their negations where a lane must pass, so that a
// NaN decides as it does there).
template <int Corners>
[[gnu::always_inline]] inline unsigned testGroup(const Lanes4* g, float minDistanceBound,
                                                 const Ray4& r, double tmax, double* tOut) {
    const auto at = [g](int k) { return *reinterpret_cast<const V4d*>(g[k].v); };
    const V4d n0 = at(0), n1 = at(1), n2 = at(2);
    const V4d den = r.D[0] * n0 + r.D[1] * n1 + r.D[2] * n2;
    V4l miss = den >= 0;
    // Lanes facing away need no more; nor do lanes out of range, whose t matters
    // only on a hit. The minimum distance 0.001 sqrt|n| is at least 0 for any n
    // that is not NaN (and a NaN n gives a NaN t, which passes no early test), so
    // t <= 0 already decides "t <= minimum distance" here; the distance itself
    // (two square roots) is left for lanes that pass everything else.
    if ((miss[0] & miss[1] & miss[2] & miss[3]) != 0) return 0;
    const V4d l0 = at(3) - r.O[0], l1 = at(4) - r.O[1], l2 = at(5) - r.O[2];
    const V4d t = (l0 * n0 + l1 * n1 + l2 * n2) / den;
    miss |= (t <= 0) | (t > broadcast(tmax));
    if ((miss[0] & miss[1] & miss[2] & miss[3]) != 0) return 0;
    V4d p0 = l0, p1 = l1, p2 = l2;
    for (int k = 0; k < Corners - 1; ++k) {
        const V4d c0 = at(6 + 3 * k) - r.O[0], c1 = at(7 + 3 * k) - r.O[1],
                  c2 = at(8 + 3 * k) - r.O[2];
        miss |= (p1 * c2 - p2 * c1) * r.D[0] + (p2 * c0 - p0 * c2) * r.D[1] +
                    (p0 * c1 - p1 * c0) * r.D[2] >
                0;
        p0 = c0;
        p1 = c1;
        p2 = c2;
    }
    miss |=
        (p1 * l2 - p2 * l1) * r.D[0] + (p2 * l0 - p0 * l2) * r.D[1] + (p0 * l1 - p1 * l0) * r.D[2] >
        0;
    if ((miss[0] & miss[1] & miss[2] & miss[3]) != 0) return 0;
    // A lane beyond the bound, which is at or above every lane's minimum distance,
    // passes "t > minimum distance"; otherwise (a hit near the origin, or a NaN
    // distance, for which the bound decides nothing) the distances are computed:
    // 0.001 * sqrt(norm(n)), norm(n) = sqrt(dot(n, n)), with correctly rounded
    // square roots and the same products and sums in the same order.
    const V4l unsure = ~miss & (t <= broadcast(static_cast<double>(minDistanceBound)));
    if ((unsure[0] | unsure[1] | unsure[2] | unsure[3]) != 0)
        miss |= t <= broadcast(0.001) * sqrt4(sqrt4(n0 * n0 + n1 * n1 + n2 * n2));
    std::memcpy(tOut, &t, sizeof t);
    unsigned bits = 0;
    for (int k = 0; k < 4; ++k) bits |= miss[k] ? 0u : 1u << k;
    return bits;
}

[[gnu::always_inline]] inline Ray4 rayLanes(const Vec3& O, const Vec3& D) {
    Ray4 r;
    for (int i = 0; i < 3; ++i) {
        r.O[i] = broadcast(O.v[i]);
        r.D[i] = broadcast(D.v[i]);
    }
    return r;
}

[[gnu::always_inline]] inline unsigned testGroupOf(const Lanes4* group, int corners,
                                                   float minDistanceBound, const Vec3& O,
                                                   const Vec3& D, double tmax, double t[4]) {
    const Ray4 r = rayLanes(O, D);
    return corners == 3 ? testGroup<3>(group, minDistanceBound, r, tmax, t)
                        : testGroup<4>(group, minDistanceBound, r, tmax, t);
}

}  // namespace

float packPolygonGroup(const FaceSet& faces, const int32_t* faceIndex, int count, int corners,
                       Lanes4* group) {
    double minDistance = 0;
    const size_t entries = polygonGroupEntries(corners);
    for (size_t e = 0; e < entries; ++e)
        for (double& x : group[e].v) x = 0.0;
    const NodeArray& nodes = *faces.nodes;
    for (int lane = 0; lane < count; ++lane) {
        const auto f = static_cast<size_t>(faceIndex[lane]);
        const Vec3& n = faces.faceNormal[f];
        const int32_t begin = faces.faceNodeStart[f];
        HEMIRAY_CHECK(faces.faceNodeStart[f + 1] - begin == corners,
                      "group faces of one node count");
        const auto node = [&](int32_t k) -> const Vec3& {
            return nodes[static_cast<size_t>(faces.faceNodes[static_cast<size_t>(begin + k)])];
        };
        for (int i = 0; i < 3; ++i) group[i].v[lane] = n.v[i];
        for (int i = 0; i < 3; ++i) group[3 + i].v[lane] = node(corners - 1).v[i];
        for (int k = 0; k + 1 < corners; ++k)
            for (int i = 0; i < 3; ++i) group[6 + 3 * k + i].v[lane] = node(k).v[i];
        // As intersectPolygon computes it; a NaN is passed over, as it never rejects.
        minDistance = std::max(minDistance, 0.001 * std::sqrt(norm(n)));
    }
    return roundUp(minDistance);
}

unsigned testPolygonGroupSse2(const Lanes4* group, int corners, float minDistanceBound,
                              const Vec3& O, const Vec3& D, double tmax, double t[4]) {
    return testGroupOf(group, corners, minDistanceBound, O, D, tmax, t);
}

HEMIRAY_TARGET_AVX2 unsigned testPolygonGroupAvx2(const Lanes4* group, int corners,
                                                  float minDistanceBound, const Vec3& O,
                                                  const Vec3& D, double tmax, double t[4]) {
    return testGroupOf(group, corners, minDistanceBound, O, D, tmax, t);
}

Bvh::Bvh(const FaceSet& faces, const Vec3& base, double extent) : faces_(&faces), base_(base) {
    avx2_ = cpuHasAvx2();
    const int32_t faceCount = faces.faceCount();
    const NodeArray& nodes = *faces.nodes;
    const double pad = boxPadding * extent;

    std::vector<Ref> refs;
    refs.reserve(static_cast<size_t>(faceCount));
    for (int32_t f = 0; f < faceCount; ++f) {
        if (!flatFace(faces, f)) {
            alwaysTested_.push_back(f);
            continue;
        }
        double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
        const int32_t begin = faces.faceNodeStart[static_cast<size_t>(f)];
        const int32_t end = faces.faceNodeStart[static_cast<size_t>(f) + 1];
        for (int32_t k = begin; k < end; ++k) {
            const Vec3 p =
                nodes[static_cast<size_t>(faces.faceNodes[static_cast<size_t>(k)])] - base;
            for (int i = 0; i < 3; ++i) {
                lo[i] = k == begin ? p.v[i] : std::min(lo[i], p.v[i]);
                hi[i] = k == begin ? p.v[i] : std::max(hi[i], p.v[i]);
            }
        }
        Ref& r = refs.emplace_back();
        r.face = f;
        for (int i = 0; i < 3; ++i) {
            r.box.lo[i] = roundDown(lo[i] - pad);
            r.box.hi[i] = roundUp(hi[i] + pad);
            r.centre[i] = 0.5f * (r.box.lo[i] + r.box.hi[i]);
        }
    }

    usable_ = alwaysTested_.size() <= maxAlwaysTested;
    if (!usable_ || refs.empty()) return;
    empty_ = false;
    Builder builder(refs);
    builder.build(0, static_cast<uint32_t>(refs.size()), 0);
    const std::vector<BuildNode>& bnodes = builder.nodes();

    // Normal cones bottom-up: a node's children come after it in the build order.
    std::vector<Cone> cones(bnodes.size());
    for (size_t b = bnodes.size(); b-- > 0;) {
        const BuildNode& bn = bnodes[b];
        Vec3 sum{};
        if (bn.child[0] < 0) {
            bool any = false;
            for (uint32_t i = bn.begin; i < bn.end; ++i) {
                Vec3 unit;
                if (!unitOf(faces.faceNormal[static_cast<size_t>(refs[i].face)], unit)) continue;
                sum = sum + unit;
                any = true;
            }
            if (!any) continue;  // empty: only faces without area
            cones[b] = coneAround(sum, [&](const auto& visit) {
                for (uint32_t i = bn.begin; i < bn.end; ++i) {
                    Vec3 unit;
                    if (unitOf(faces.faceNormal[static_cast<size_t>(refs[i].face)], unit))
                        visit(unit, 0.0);
                }
            });
            continue;
        }
        // The children's axes weighted by their face counts.
        const Cone* kids[2] = {&cones[static_cast<size_t>(bn.child[0])],
                               &cones[static_cast<size_t>(bn.child[1])]};
        if (kids[0]->empty && kids[1]->empty) continue;
        if (kids[0]->never || kids[1]->never) {  // a child's faces may face any way
            cones[b].empty = false;
            cones[b].never = true;
            continue;
        }
        for (int side = 0; side < 2; ++side) {
            const BuildNode& c = bnodes[static_cast<size_t>(bn.child[side])];
            if (!kids[side]->empty)
                sum = sum + kids[side]->unit * static_cast<double>(c.end - c.begin);
        }
        cones[b] = coneAround(sum, [&](const auto& visit) {
            for (const Cone* c : kids)
                if (!c->empty) visit(c->unit, c->theta);
        });
    }

    const auto cornersOf = [&](int32_t f) {
        return faces.faceNodeStart[static_cast<size_t>(f) + 1] -
               faces.faceNodeStart[static_cast<size_t>(f)];
    };
    // A leaf's faces by node count: triangle groups, quad groups, then the rest.
    const auto makeLeaf = [&](const BuildNode& b) {
        const auto first = static_cast<int32_t>(leaves_.size());
        HEMIRAY_CHECK(leaves_.size() < static_cast<size_t>(INT32_MAX), "leaf entries fit 31 bits");
        std::vector<int32_t> byCorners[3];
        for (uint32_t i = b.begin; i < b.end; ++i) {
            const int32_t f = refs[i].face;
            const int32_t corners = cornersOf(f);
            byCorners[corners == 3 ? 0 : corners == 4 ? 1 : 2].push_back(f);
        }
        size_t lastHeader = 0;
        for (int kind = 0; kind < 3; ++kind) {
            const std::vector<int32_t>& list = byCorners[kind];
            const int corners = kind == 2 ? 0 : kind + 3;
            for (size_t i = 0; i < list.size(); i += 4) {
                const int count = static_cast<int>(std::min<size_t>(4, list.size() - i));
                lastHeader = leaves_.size();
                GroupHeader header{{-1, -1, -1, -1}, corners, 0, 0.0f, 0};
                for (int lane = 0; lane < count; ++lane)
                    header.face[lane] = list[i + static_cast<size_t>(lane)];
                leaves_.emplace_back();
                if (corners != 0) {
                    leaves_.resize(leaves_.size() + polygonGroupEntries(corners));
                    header.minDistanceBound = packPolygonGroup(
                        faces, list.data() + i, count, corners, leaves_.data() + lastHeader + 1);
                }
                std::memcpy(leaves_[lastHeader].v, &header, sizeof header);
            }
        }
        GroupHeader header;
        std::memcpy(&header, leaves_[lastHeader].v, sizeof header);
        header.last = 1;
        std::memcpy(leaves_[lastHeader].v, &header, sizeof header);
        return ~first;
    };

    // Collapse: a node takes its two children and keeps opening the interior child
    // of largest area until it has eight.
    const auto collapse = [&](auto& self, int32_t b) -> int32_t {
        const BuildNode& bn = bnodes[static_cast<size_t>(b)];
        if (bn.child[0] < 0) return makeLeaf(bn);
        int32_t kids[Bvh::width] = {bn.child[0], bn.child[1]};
        int used = 2;
        while (used < Bvh::width) {
            int pick = -1;
            double pickArea = -1;
            for (int k = 0; k < used; ++k) {
                const BuildNode& c = bnodes[static_cast<size_t>(kids[k])];
                if (c.child[0] >= 0 && c.box.area() > pickArea) {
                    pick = k;
                    pickArea = c.box.area();
                }
            }
            if (pick < 0) break;
            const BuildNode& c = bnodes[static_cast<size_t>(kids[pick])];
            kids[pick] = c.child[0];
            kids[used++] = c.child[1];
        }
        HEMIRAY_CHECK(nodes_.size() < static_cast<size_t>(INT32_MAX) / sizeof(Node),
                      "node byte offsets fit 31 bits");
        const auto index = static_cast<int32_t>(nodes_.size());
        nodes_.push_back(Node{});
        for (int k = 0; k < Bvh::width; ++k) {
            Node& node = nodes_[static_cast<size_t>(index)];
            const auto kid = static_cast<size_t>(kids[k < used ? k : 0]);
            for (int i = 0; i < 3; ++i) {
                const Box& box = bnodes[kid].box;
                node.bound[0][i][k] = k < used ? box.lo[i] : std::numeric_limits<float>::infinity();
                node.bound[1][i][k] =
                    k < used ? box.hi[i] : -std::numeric_limits<float>::infinity();
            }
            // An empty slot is never culled (nor hit); nor is a child of the root,
            // whose test would wait for the ray's direction to be scaled.
            int8_t cone[4] = {0, 0, 0, 1};
            if (k < used && b != 0) storeCone(cones[kid], cone);
            for (int i = 0; i < 4; ++i) node.cone[i][k] = cone[i];
        }
        for (int k = 0; k < used; ++k) {
            const int32_t code = self(self, kids[k]);
            nodes_[static_cast<size_t>(index)].child[k] = code;
        }
        return static_cast<int32_t>(static_cast<size_t>(index) * sizeof(Node));
    };
    // The leaves' exact size first, so that they are allocated once: growing them
    // would hold up to twice their size at the peak of the build.
    size_t leafEntries = 0;
    for (const BuildNode& b : bnodes) {
        if (b.child[0] >= 0) continue;
        size_t count[3] = {0, 0, 0};
        for (uint32_t i = b.begin; i < b.end; ++i) {
            const int32_t corners = cornersOf(refs[i].face);
            ++count[corners == 3 ? 0 : corners == 4 ? 1 : 2];
        }
        for (int kind = 0; kind < 3; ++kind)
            leafEntries +=
                (count[kind] + 3) / 4 * (1 + (kind == 2 ? 0 : polygonGroupEntries(kind + 3)));
    }
    leaves_.reserve(leafEntries);
    rootCode_ = collapse(collapse, 0);
    nodes_.shrink_to_fit();
}

size_t Bvh::bytes() const {
    return sizeof(*this) + nodes_.capacity() * sizeof(Node) + leaves_.capacity() * sizeof(Lanes4);
}

bool Bvh::insideNodeBox(int32_t face, const Vec3& p, double slack) const {
    const auto begin = static_cast<size_t>(faces_->faceNodeStart[static_cast<size_t>(face)]);
    const auto end = static_cast<size_t>(faces_->faceNodeStart[static_cast<size_t>(face) + 1]);
    const auto node = [&](size_t k) -> const Vec3& {
        return (*faces_->nodes)[static_cast<size_t>(faces_->faceNodes[k])];
    };
    for (int axis = 0; axis < 3; ++axis) {
        double lo = node(begin).v[axis], hi = lo;
        for (size_t k = begin + 1; k < end; ++k) {
            lo = std::min(lo, node(k).v[axis]);
            hi = std::max(hi, node(k).v[axis]);
        }
        if (!(lo - slack <= p.v[axis] && p.v[axis] <= hi + slack)) return false;
    }
    return true;
}

// One ray's walk, resumable one step (a node or a leaf) at a time, so that a
// caller can interleave the walks of several rays: while one waits for a node to
// arrive from memory, the others compute. Each walk's steps, and with them its
// answer, are those of the walk alone.
//
// Children are visited nearest first; a subtree whose box starts beyond the best
// hit so far is skipped. The box test runs in float on the ray relative to the
// base; a zero direction component is replaced by a tiny one of the same sign,
// which moves the ray by far less than the boxes' padding over the scene and keeps
// 0 * infinity out. On each axis the plane the ray enters by is the lower one where
// the inverse direction is positive, the upper one otherwise: (x - o) * inv is
// monotone in x, so these are exactly the smaller and the larger of the two plane
// parameters, and an empty slot's inverted box (+inf, -inf) enters at +inf and
// leaves at -inf.
struct BvhWalk {
    struct Entry {
        int32_t code;
        float tNear;
    };
    static constexpr int32_t pop = INT32_MAX;  // code: take the next entry from the stack

    NearestHit best;
    Ray4 lanes;
    V8f org[3], inv[3];
    ConeRay dir[3];  // the unit direction for the normal cones: d = trunc(64 u)
    // Per axis, the byte offsets in a node of the planes the ray enters and leaves by.
    size_t enterAt[3], leaveAt[3];
    double limit;
    float limitF;
    int32_t code;
    int top;
    Entry stack[stackSize];
};

struct BvhQuery {
    template <bool Wide>
    static void start(const Bvh& bvh, const Vec3& O, const Vec3& D, double tmax, BvhWalk& w);
    // One node or one leaf; false once the walk is over.
    template <bool Wide>
    static bool step(const Bvh& bvh, const Vec3& O, const Vec3& D, BvhWalk& w);
};

[[gnu::always_inline]] inline void tryFace(NearestHit& best, int32_t face, double t,
                                           const Lanes4* group, int lane, int corners) {
    if (!best.found || t < best.t) {
        best.found = true;
        best.tie = false;
        best.face = face;
        best.t = t;
        best.group = group;
        best.lane = lane;
        best.corners = corners;
    } else if (t == best.t) {
        best.tie = true;
    }
}

template <bool Wide>
[[gnu::always_inline]] inline void BvhQuery::start(const Bvh& bvh, const Vec3& O, const Vec3& D,
                                                   double tmax, BvhWalk& w) {
    w.best = NearestHit{};
    w.lanes = rayLanes(O, D);
    for (int i = 0; i < 3; ++i) {
        const float o = static_cast<float>(O.v[i] - bvh.base_.v[i]);
        float d = static_cast<float>(D.v[i]);
        if (!(std::abs(d) >= 1e-30f)) d = std::signbit(d) ? -1e-30f : 1e-30f;
        w.org[i] = V8f{o, o, o, o, o, o, o, o};
        const float id = 1.0f / d;
        w.inv[i] = V8f{id, id, id, id, id, id, id, id};
        const int enter = id < 0 ? 1 : 0;  // the upper plane where the ray runs downwards
        w.enterAt[i] = offsetof(Bvh::Node, bound) + sizeof(float) * Bvh::width * (3 * enter + i);
        w.leaveAt[i] =
            offsetof(Bvh::Node, bound) + sizeof(float) * Bvh::width * (3 * (1 - enter) + i);
    }
    {
        // The root's children are never culled, so that this division need not hold
        // up the first step. A direction too short or too long to square (never a
        // sampling direction) culls only children without a face that can be hit.
        const double length2 = dot(D, D);
        const bool usable = length2 > 1e-300 && length2 < 1e300;
        const double scale = coneRayScale / std::sqrt(usable ? length2 : 1.0);
        for (int i = 0; i < 3; ++i)
            w.dir[i] = coneRayOf(usable ? static_cast<int16_t>(D.v[i] * scale) : int16_t{0});
    }
    w.limit = tmax;
    for (const int32_t face : bvh.alwaysTested_) {
        double tf = 0;
        if (intersectPolygon(*bvh.faces_, face, O, D, 0.0, w.best.found ? w.best.t : tmax, tf))
            tryFace(w.best, face, tf, nullptr, 0, 0);
    }
    if (w.best.found) w.limit = w.best.t;
    w.limitF = roundUp(w.limit);
    w.top = 0;
    w.code = bvh.empty_ ? BvhWalk::pop : bvh.rootCode_;
}

template <bool Wide>
[[gnu::always_inline]] inline bool BvhQuery::step(const Bvh& bvh, const Vec3& O, const Vec3& D,
                                                  BvhWalk& w) {
    using Entry = BvhWalk::Entry;
    int32_t code = w.code;
    if (code == BvhWalk::pop) {
        for (;;) {
            if (w.top == 0) return false;
            const Entry entry = w.stack[--w.top];
            if (entry.tNear <= w.limitF) {
                code = entry.code;
                break;
            }
        }
    }
    if (code >= 0) {
        // Node codes are byte offsets: no multiplication on the way down.
        const char* nodeAt = reinterpret_cast<const char*>(bvh.nodes_.data()) + code;
        const auto& node = *reinterpret_cast<const Bvh::Node*>(nodeAt);
        const float limitF = w.limitF;
        V8f tNear = V8f{},
            tFar = V8f{limitF, limitF, limitF, limitF, limitF, limitF, limitF, limitF};
        for (int i = 0; i < 3; ++i) {
            const V8f tLow =
                (*reinterpret_cast<const V8f*>(nodeAt + w.enterAt[i]) - w.org[i]) * w.inv[i];
            const V8f tHigh =
                (*reinterpret_cast<const V8f*>(nodeAt + w.leaveAt[i]) - w.org[i]) * w.inv[i];
            tNear = tNear < tLow ? tLow : tNear;
            tFar = tHigh < tFar ? tHigh : tFar;
        }
        const V8i hit = tNear <= tFar;
        unsigned mask = laneMask(hit) & coneKeepMask(&node.cone[0][0], w.dir);
        if (mask == 0) {  // nothing here: take the next entry
            w.code = BvhWalk::pop;
            return true;
        }
        if ((mask & (mask - 1)) == 0) {  // one child: no order to settle
            w.code = node.child[std::countr_zero(mask)];
            return true;
        }
        // Most of a query's time is waiting for memory: ask for every child that
        // will be visited before the first is needed.
        const auto prefetchChild = [&bvh, &node, code](int32_t child) {
            if (child >= 0) {
                const char* at = reinterpret_cast<const char*>(&node) - code + child;
                for (int line = 0; line < 4; ++line) prefetch(at + 64 * line);
            } else {  // a leaf's first group, edges included
                const char* at = reinterpret_cast<const char*>(bvh.leaves_.data() + ~child);
                for (int line = 0; line < 8; ++line) prefetch(at + 64 * line);
            }
        };
        const int first = std::countr_zero(mask);
        mask &= mask - 1;
        if ((mask & (mask - 1)) == 0) {  // two children, the commonest case
            const int second = std::countr_zero(mask);
            const bool swap = tNear[second] < tNear[first];
            const int nearK = swap ? second : first, farK = swap ? first : second;
            prefetchChild(node.child[farK]);
            prefetchChild(node.child[nearK]);
            w.stack[w.top++] = Entry{node.child[farK], tNear[farK]};
            w.code = node.child[nearK];
            return true;
        }
        // The hit children by entry, nearest first.
        Entry hits[Bvh::width];
        int hitCount = 1;
        hits[0] = Entry{node.child[first], tNear[first]};
        prefetchChild(hits[0].code);
        for (; mask != 0; mask &= mask - 1) {
            const int k = std::countr_zero(mask);
            const Entry e{node.child[k], tNear[k]};
            prefetchChild(e.code);
            int j = hitCount++;
            while (j > 0 && hits[j - 1].tNear > e.tNear) {
                hits[j] = hits[j - 1];
                --j;
            }
            hits[j] = e;
        }
        for (int k = hitCount - 1; k > 0; --k) w.stack[w.top++] = hits[k];
        w.code = hits[0].code;
        return true;
    }

    NearestHit& best = w.best;
    const Lanes4* item = bvh.leaves_.data() + ~code;
    alignas(32) double t[4];
    for (;;) {
        Bvh::GroupHeader header;
        std::memcpy(&header, item->v, sizeof header);
        const Lanes4* group = item + 1;
        if (header.corners == 0) {
            for (int lane = 0; lane < 4 && header.face[lane] >= 0; ++lane) {
                double tf = 0;
                if (intersectPolygon(*bvh.faces_, header.face[lane], O, D, 0.0, w.limit, tf))
                    tryFace(best, header.face[lane], tf, nullptr, lane, 0);
            }
            item = group;
        } else {
            const bool triangles = header.corners == 3;
            unsigned bits = triangles
                                ? testGroup<3>(group, header.minDistanceBound, w.lanes, w.limit, t)
                                : testGroup<4>(group, header.minDistanceBound, w.lanes, w.limit, t);
            for (; bits != 0; bits &= bits - 1) {
                const int lane = std::countr_zero(bits);
                tryFace(best, header.face[lane], t[lane], group, lane, header.corners);
            }
            item = group + polygonGroupEntries(header.corners);
        }
        if (header.last) break;
    }
    if (best.found && best.t < w.limit) {
        w.limit = best.t;
        w.limitF = roundUp(w.limit);
    }
    w.code = BvhWalk::pop;
    return true;
}

// The query for one ray, inlined into one form per instruction set.
template <bool Wide>
[[gnu::always_inline]] inline NearestHit nearestIn(const Bvh& bvh, const Vec3& O, const Vec3& D,
                                                   double tmax) {
    BvhWalk w;
    BvhQuery::start<Wide>(bvh, O, D, tmax, w);
    while (BvhQuery::step<Wide>(bvh, O, D, w)) {
    }
    return w.best;
}

// Two rays' walks interleaved step by step: each step's loads are under way while
// the other walk computes. (Three or four walks were slower at 10^4 faces: their
// state no longer fits the registers.)
template <bool Wide>
[[gnu::always_inline]] inline void nearestPairIn(const Bvh& bvh, const Vec3* O, const Vec3* D,
                                                 double tmax, NearestHit* hits) {
    BvhWalk w[2];
    BvhQuery::start<Wide>(bvh, O[0], D[0], tmax, w[0]);
    BvhQuery::start<Wide>(bvh, O[1], D[1], tmax, w[1]);
    bool more0 = true, more1 = true;
    while (more0 && more1) {
        more0 = BvhQuery::step<Wide>(bvh, O[0], D[0], w[0]);
        more1 = BvhQuery::step<Wide>(bvh, O[1], D[1], w[1]);
    }
    while (more0) more0 = BvhQuery::step<Wide>(bvh, O[0], D[0], w[0]);
    while (more1) more1 = BvhQuery::step<Wide>(bvh, O[1], D[1], w[1]);
    hits[0] = w[0].best;
    hits[1] = w[1].best;
}

namespace {

HEMIRAY_TARGET_AVX2 NearestHit nearestAvx2(const Bvh& bvh, const Vec3& O, const Vec3& D,
                                           double tmax) {
    return nearestIn<true>(bvh, O, D, tmax);
}

NearestHit nearestSse2(const Bvh& bvh, const Vec3& O, const Vec3& D, double tmax) {
    return nearestIn<false>(bvh, O, D, tmax);
}

HEMIRAY_TARGET_AVX2 void nearestPairAvx2(const Bvh& bvh, const Vec3* O, const Vec3* D, double tmax,
                                         NearestHit* hits) {
    nearestPairIn<true>(bvh, O, D, tmax, hits);
}

void nearestPairSse2(const Bvh& bvh, const Vec3* O, const Vec3* D, double tmax, NearestHit* hits) {
    nearestPairIn<false>(bvh, O, D, tmax, hits);
}

}  // namespace

void Bvh::nearestPair(const Vec3 O[2], const Vec3 D[2], double tmax, NearestHit hits[2]) const {
    if (avx2_)
        nearestPairAvx2(*this, O, D, tmax, hits);
    else
        nearestPairSse2(*this, O, D, tmax, hits);
}

NearestHit Bvh::nearest(const Vec3& O, const Vec3& D, double tmax) const {
    return avx2_ ? nearestAvx2(*this, O, D, tmax) : nearestSse2(*this, O, D, tmax);
}

}  // namespace hemiray
