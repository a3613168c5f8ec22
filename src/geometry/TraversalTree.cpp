// The flat tracing copy of the BSP tree and its traversal. Each ray test below is
// the corresponding test of RayTraversal.cpp with the face's data read from its
// record instead of the face set; the expressions, their operand order and every
// threshold are the same, so the results are the same bits.
#include "geometry/TraversalTree.h"

#include <algorithm>
#include <cmath>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <type_traits>

#include "Check.h"
#include "Compiler.h"
#include "geometry/RayMath.h"
#include "geometry/RayTraversal.h"

namespace hemiray {

namespace {

using raymath::dblMax;

// Pending subtrees of one ray. A planar node defers at most one child and a radial
// node at most two, so twice the tree depth bounds the stack.
constexpr int stackSize = 128;
constexpr int32_t maxDepth = stackSize / 2 - 1;

// One ray's data as every test reads it.
struct RayData {
    Vec3 O;
    Vec3 D;
    // Axisymmetric terms that do not depend on the face or the node.
    double dyz = 0;  // D.y D.y + D.z D.z
    double doy = 0;  // D.y O.y + D.z O.z
    double oy2 = 0;  // O.y O.y
    double oz2 = 0;  // O.z O.z
    double oyz = 0;  // O.y O.y + O.z O.z

    RayData(const Vec3& origin, const Vec3& direction, bool axisymmetric)
        : O(origin), D(direction) {
        if (!axisymmetric) return;
        dyz = D.v[1] * D.v[1] + D.v[2] * D.v[2];
        doy = D.v[1] * O.v[1] + D.v[2] * O.v[2];
        oy2 = O.v[1] * O.v[1];
        oz2 = O.v[2] * O.v[2];
        oyz = O.v[1] * O.v[1] + O.v[2] * O.v[2];
    }

    // Where the ray crosses the cylinder of this radius about the x axis, ascending;
    // how many times (0, 1 or 2). The root box's outer wall and the radial splits.
    int crossCylinder(double radius, double roots[2]) const {
        return raymath::solveQuadratic(dyz, 2.0 * doy, oy2 - radius * radius + oz2, roots);
    }
};

// intersectPolygon on a record of `Corners` nodes.
template <int Corners>
inline bool hitPolygon(const PolygonRecord& r, const RayData& ray, double tmax, double& t) {
    const double* O = ray.O.v;
    const double* D = ray.D.v;
    const double* n = r.normal;
    const double den = D[0] * n[0] + D[1] * n[1] + D[2] * n[2];
    if (den >= 0) return false;
    const double l0 = r.last[0] - O[0], l1 = r.last[1] - O[1], l2 = r.last[2] - O[2];
    t = (l0 * n[0] + l1 * n[1] + l2 * n[2]) / den;
    if (t <= r.minDistance) return false;
    if (t > tmax) return false;
    // Edges last->first, first->second, ..., the one before last->last.
    double p0 = l0, p1 = l1, p2 = l2;
    for (int k = 0; k < Corners - 1; ++k) {
        const double* p = r.others[k];
        const double c0 = p[0] - O[0], c1 = p[1] - O[1], c2 = p[2] - O[2];
        if ((p1 * c2 - p2 * c1) * D[0] + (p2 * c0 - p0 * c2) * D[1] + (p0 * c1 - p1 * c0) * D[2] >
            0)
            return false;
        p0 = c0;
        p1 = c1;
        p2 = c2;
    }
    return !((p1 * l2 - p2 * l1) * D[0] + (p2 * l0 - p0 * l2) * D[1] + (p0 * l1 - p1 * l0) * D[2] >
             0);
}

// intersectSegment on a record.
inline bool hitSegment(const SegmentRecord& r, const RayData& ray, double tmax, double& t) {
    const double* O = ray.O.v;
    const double* D = ray.D.v;
    const double* n = r.normal;
    const double den = D[0] * n[0] + D[1] * n[1] + D[2] * n[2];
    if (den >= 0) return false;
    const double a0 = r.first[0] - O[0], a1 = r.first[1] - O[1], a2 = r.first[2] - O[2];
    t = (a0 * n[0] + a1 * n[1] + a2 * n[2]) / den;
    if (t <= r.minDistance) return false;
    if (t > tmax) return false;
    if (a1 * D[0] - a0 * D[1] < 0) return false;
    const double b0 = r.second[0] - O[0], b1 = r.second[1] - O[1];
    return D[1] * b0 - D[0] * b1 >= 0;
}

// True when the point (y, z) lies so far off the radii r0 .. r0 + er that the
// position s = (radius - r0) / er of the cone test is certainly outside [0, 1].
// The cone test measures the radius through atan, cos and sin; sqrt(y^2 + z^2)
// differs from it by a few units in the last place, far inside the slack of 10^-9
// relative, so this never settles a point that the test would accept. It lets
// most candidate points skip the three transcendental calls.
inline bool radiusCertainlyOff(double y, double z, double r0, double er) {
    const double radius = std::sqrt(y * y + z * z);
    if (!(radius > 0x1p-400 && radius < 0x1p400)) return false;
    const double r1 = r0 + er;
    const double slack = 1e-9 * (radius + std::abs(r0) + std::abs(er));
    return radius + slack < std::min(r0, r1) || radius - slack > std::max(r0, r1);
}

// intersectCone on a record. The position along the segment is checked before the
// facing test, which needs the azimuth; both must pass and neither has a side
// effect, so the order does not change the answer.
inline bool hitCone(const ConeRecord& r, const RayData& ray, double tmax, double& t) {
    const double* O = ray.O.v;
    const double* D = ray.D.v;
    const double x0 = r.x0, r0 = r.r0, ex = r.ex, er = r.er;
    const double* n = r.normal;
    if (r.kind != ConeRecord::Kind::Annulus) {
        const double g = r.exR0 + (O[0] - x0) * er;
        const double a = r.er2 * D[0] * D[0] - ray.dyz * r.ex2;
        const double b = 2.0 * (er * g * D[0] - ray.doy * r.ex2);
        const double c = g * g - r.ex2 * ray.oyz;
        double roots[2] = {0.0, 0.0};
        const int count = raymath::solveQuadratic(a, b, c, roots);
        // The larger root first, as in intersectCone.
        for (int i = count - 1; i >= 0; --i) {
            t = roots[i];
            if (!(minimumConeHitDistance <= t && t <= tmax)) continue;
            const double P0 = O[0] + D[0] * t, P1 = O[1] + D[1] * t, P2 = O[2] + D[2] * t;
            if (r.kind == ConeRecord::Kind::Axial) {
                const double s = (P0 - x0) / ex;
                if (!(0 <= s && s <= 1)) continue;
                const raymath::Azimuth az = raymath::azimuthOf(P1, P2);
                if ((D[2] * az.sz + D[1] * az.cy) * n[1] + n[0] * D[0] < 0) return true;
                continue;
            }
            if (radiusCertainlyOff(P1, P2, r0, er)) continue;
            const raymath::Azimuth az = raymath::azimuthOf(P1, P2);
            if (!((D[2] * az.sz + D[1] * az.cy) * n[1] + n[0] * D[0] < 0)) continue;
            const double s = (az.radius - r0) / er;
            if (0 <= s && s <= 1) return true;
        }
        return false;
    }
    t = raymath::safeDivide(x0 - O[0], D[0]);
    if (t <= r.minDistance) return false;
    if (t > tmax) return false;
    const double P1 = O[1] + D[1] * t, P2 = O[2] + D[2] * t;
    if (radiusCertainlyOff(P1, P2, r0, er)) return false;
    const double s = (raymath::azimuthOf(P1, P2).radius - r0) / er;
    return 0 <= s && s <= 1;
}

// The face tests by shape. Uniform shapes read every face from its record; mixed
// ones first check whether the face has one and otherwise run the face-set test.
struct TestData {
    const PolygonRecord* polygons;
    const SegmentRecord* segments;
    const ConeRecord* cones;
    const int32_t* recordFace;
    const uint8_t* hasData;
    const FaceSet* faces;
};

template <int Corners>
struct PolygonTest {
    static const void* record(const TestData& d, uint32_t e) { return d.polygons + e; }
    static bool hit(const TestData& d, uint32_t e, const RayData& ray, double, double tmax,
                    double& t) {
        return hitPolygon<Corners>(d.polygons[e], ray, tmax, t);
    }
};

struct MixedPolygonTest {
    static const void* record(const TestData& d, uint32_t e) { return d.polygons + e; }
    static bool hit(const TestData& d, uint32_t e, const RayData& ray, double tmin, double tmax,
                    double& t) {
        switch (d.hasData[e]) {
            case 3:
                return hitPolygon<3>(d.polygons[e], ray, tmax, t);
            case 4:
                return hitPolygon<4>(d.polygons[e], ray, tmax, t);
            default:
                return intersectPolygon(*d.faces, d.recordFace[e], ray.O, ray.D, tmin, tmax, t);
        }
    }
};

struct SegmentTest {
    static const void* record(const TestData& d, uint32_t e) { return d.segments + e; }
    static bool hit(const TestData& d, uint32_t e, const RayData& ray, double, double tmax,
                    double& t) {
        return hitSegment(d.segments[e], ray, tmax, t);
    }
};

struct MixedSegmentTest {
    static const void* record(const TestData& d, uint32_t e) { return d.segments + e; }
    static bool hit(const TestData& d, uint32_t e, const RayData& ray, double tmin, double tmax,
                    double& t) {
        if (d.hasData[e]) return hitSegment(d.segments[e], ray, tmax, t);
        return intersectSegment(*d.faces, d.recordFace[e], ray.O, ray.D, tmin, tmax, t);
    }
};

struct ConeTest {
    static const void* record(const TestData& d, uint32_t e) { return d.cones + e; }
    static bool hit(const TestData& d, uint32_t e, const RayData& ray, double, double tmax,
                    double& t) {
        return hitCone(d.cones[e], ray, tmax, t);
    }
};

struct MixedConeTest {
    static const void* record(const TestData& d, uint32_t e) { return d.cones + e; }
    static bool hit(const TestData& d, uint32_t e, const RayData& ray, double tmin, double tmax,
                    double& t) {
        if (d.hasData[e]) return hitCone(d.cones[e], ray, tmax, t);
        return intersectCone(*d.faces, d.recordFace[e], ray.O, ray.D, tmin, tmax, t);
    }
};

struct Pending {
    uint32_t node;
    double tmin;
    double tmax;
};

// The steps down from an interior node with children low and low + 1 (the high
// side). Each returns the child to search now, narrows [tmin, tmax] to it, and
// pushes what is to be searched after it, in the order the recursive walk would
// search: the nearer side first, the farther side only if the nearer finds nothing.

// The origin on the split plane searches both sides over the whole interval; with
// d < 0 the high side still comes first.
template <class Push>
inline uint32_t descendFromPlane(uint32_t low, double d, double tmin, double tmax, Push& push) {
    push(Pending{d < 0 ? low : low + 1, tmin, tmax});
    return d < 0 ? low + 1 : low;
}

// A plane at s on an axis where the ray has origin o and direction d.
template <class Push>
inline uint32_t descendPlane(uint32_t low, double s, double o, double d, double tmin, double& tmax,
                             Push& push) {
    const uint32_t near = s <= o ? low + 1 : low;
    const uint32_t far = s <= o ? low : low + 1;
    const double tSplit = raymath::safeDivide(s - o, d);
    if (!(0 <= tSplit && tSplit <= tmax)) return near;
    if (tSplit < tmin) return far;
    push(Pending{far, tSplit, tmax});
    tmax = tSplit;
    return near;
}

// The cylinder of radius s about the x axis: the side the ray is on at tmin first,
// then each side again as the ray crosses the cylinder within the interval.
template <class Push>
inline uint32_t descendCylinder(uint32_t low, double s, const RayData& ray, double& tmin,
                                double& tmax, Push& push) {
    const double yIn = ray.O.v[1] + tmin * ray.D.v[1];
    const double zIn = ray.O.v[2] + tmin * ray.D.v[2];
    const double rIn = std::sqrt(yIn * yIn + zIn * zIn);
    const uint32_t near = s <= rIn ? low + 1 : low;
    const uint32_t far = s <= rIn ? low : low + 1;
    double roots[2] = {0.0, 0.0};
    const int count = ray.crossCylinder(s, roots);
    int inside = 0;
    for (int i = 0; i < count; ++i) inside += (tmin <= roots[i] && roots[i] <= tmax) ? 1 : 0;
    if (inside == 0) return near;
    if (inside == 1) {
        const double tc = (tmin <= roots[0] && roots[0] <= tmax) ? roots[0] : roots[1];
        if (tc < 0) {
            tmin = tc;
            return far;
        }
        push(Pending{far, tc, tmax});
        tmax = tc;
        return near;
    }
    const double t0 = roots[0];
    const double t1 = roots[1];
    if (t1 < 0) {
        tmin = t1;
        return near;
    }
    if (t0 < 0) {
        push(Pending{near, t1, tmax});
        tmin = t0;
        tmax = t1;
        return far;
    }
    push(Pending{near, t1, tmax});
    push(Pending{far, t0, t1});
    tmax = t0;
    return near;
}

}  // namespace

TraversalTree::TraversalTree(const BspNode& root)
    : dimension_(root.dimension),
      axisCount_(root.axisCount),
      boxMin_(root.boxMin),
      boxMax_(root.boxMax),
      faces_(root.mesh ? root.mesh->faces : nullptr) {
    // Only a tree given up by its owner is released while it is copied.
    copyTree(const_cast<BspNode&>(root), false);
}

TraversalTree::TraversalTree(BspNode&& root)
    : dimension_(root.dimension),
      axisCount_(root.axisCount),
      boxMin_(root.boxMin),
      boxMax_(root.boxMax),
      faces_(root.mesh ? root.mesh->faces : nullptr) {
    copyTree(root, true);
}

void TraversalTree::copyTree(BspNode& root, bool release) {
    const int32_t faceCount = faces_ ? faces_->faceCount() : 0;
    std::vector<int32_t> recordOf(static_cast<size_t>(std::max(faceCount, 0)), -1);
    nodes_.push_back(Node{0.0, 0, leafBit});
    flatten(root, 0, 0, recordOf, release);
#ifdef __GLIBC__
    // The released nodes were many small blocks; hand their pages back before the
    // records, one large block, are allocated, so that the two never add up.
    if (release) malloc_trim(0);
#endif
    buildRecords();
}

// Depth first, the low child first; a node's children take two adjacent slots. A
// face gets its record index when a leaf lists it for the first time.
void TraversalTree::flatten(BspNode& node, uint32_t slot, int32_t depth,
                            std::vector<int32_t>& recordOf, bool release) {
    HEMIRAY_CHECK(depth <= maxDepth, "tree depth within the traversal stack");
    if (node.isLeaf()) {
        HEMIRAY_CHECK(leafEntries_.size() + static_cast<size_t>(node.faceCount) < leafBit,
                      "leaf entries fit the traversal tree's 31-bit indices");
        nodes_[slot] = Node{0.0, static_cast<uint32_t>(leafEntries_.size()),
                            leafBit | static_cast<uint32_t>(node.faceCount)};
        for (int32_t i = 0; i < node.faceCount; ++i) {
            const int32_t face = node.faceList[static_cast<size_t>(i)];
            HEMIRAY_CHECK(face >= 0 && static_cast<size_t>(face) < recordOf.size(),
                          "leaf face inside the face set");
            int32_t& record = recordOf[static_cast<size_t>(face)];
            if (record < 0) {
                record = static_cast<int32_t>(recordFace_.size());
                recordFace_.push_back(face);
            }
            leafEntries_.push_back(static_cast<uint32_t>(record));
        }
        if (release) {
            node.faceList.reset();
            node.faceCount = 0;
        }
        return;
    }
    HEMIRAY_CHECK(nodes_.size() + 2 < leafBit, "nodes fit the traversal tree's 31-bit indices");
    const auto children = static_cast<uint32_t>(nodes_.size());
    nodes_[slot] = Node{node.splitPosition, children, static_cast<uint32_t>(node.splitAxis)};
    nodes_.push_back(Node{});
    nodes_.push_back(Node{});
    flatten(*node.child[0], children, depth + 1, recordOf, release);
    if (release) node.child[0].reset();
    flatten(*node.child[1], children + 1, depth + 1, recordOf, release);
    if (release) node.child[1].reset();
}

void TraversalTree::buildRecords() {
    const size_t count = recordFace_.size();
    if (count == 0) {
        shape_ = faces_ && faces_->dimension == 1   ? Shape::Cones
                 : faces_ && faces_->dimension == 2 ? Shape::Segments
                                                    : Shape::Triangles;
        return;
    }
    const FaceSet& faces = *faces_;
    const NodeArray& nodes = *faces.nodes;
    const auto nodeCountOf = [&](int32_t face) {
        return faces.faceNodeStart[static_cast<size_t>(face) + 1] -
               faces.faceNodeStart[static_cast<size_t>(face)];
    };
    const auto node = [&](int32_t face, int32_t k) -> const Vec3& {
        const auto entry = static_cast<size_t>(faces.faceNodeStart[static_cast<size_t>(face)] + k);
        return nodes[static_cast<size_t>(faces.faceNodes[entry])];
    };

    const bool polygons = faces.dimension != 1 && faces.dimension != 2;
    if (polygons)
        polygons_.resize(count);
    else if (faces.dimension == 2)
        segments_.resize(count);
    else
        cones_.resize(count);
    recordHasData_.assign(count, 0);

    bool uniform = true;
    int32_t firstCorners = -1;
    for (size_t e = 0; e < count; ++e) {
        const int32_t face = recordFace_[e];
        const int32_t corners = nodeCountOf(face);
        const Vec3& n = faces.faceNormal[static_cast<size_t>(face)];
        if (polygons) {
            // Polygons of three or four nodes; others are tested from the face set.
            if (corners != 3 && corners != 4) {
                uniform = false;
                continue;
            }
            if (firstCorners < 0) firstCorners = corners;
            uniform = uniform && corners == firstCorners;
            recordHasData_[e] = static_cast<uint8_t>(corners);
            PolygonRecord& r = polygons_[e];
            for (int i = 0; i < 3; ++i) r.normal[i] = n.v[i];
            r.minDistance = 0.001 * std::sqrt(norm(n));
            const Vec3& last = node(face, corners - 1);
            for (int i = 0; i < 3; ++i) r.last[i] = last.v[i];
            for (int32_t k = 0; k + 1 < corners; ++k)
                for (int i = 0; i < 3; ++i) r.others[k][i] = node(face, k).v[i];
            continue;
        }
        // Segments and cones read the first two nodes (the first twice for a
        // one-node face); a face without nodes is tested from the face set.
        if (corners < 1) {
            uniform = false;
            continue;
        }
        recordHasData_[e] = 1;
        const Vec3& p0 = node(face, 0);
        const Vec3& p1 = node(face, corners >= 2 ? 1 : 0);
        if (faces.dimension == 2) {
            SegmentRecord& r = segments_[e];
            for (int i = 0; i < 3; ++i) r.normal[i] = n.v[i];
            r.minDistance = 0.001 * norm(n);
            for (int i = 0; i < 3; ++i) r.first[i] = p0.v[i];
            for (int i = 0; i < 3; ++i) r.second[i] = p1.v[i];
            continue;
        }
        ConeRecord& r = cones_[e];
        r.x0 = p0.v[0];
        r.r0 = p0.v[1];
        r.ex = p1.v[0] - r.x0;
        r.er = p1.v[1] - r.r0;
        for (int i = 0; i < 3; ++i) r.normal[i] = n.v[i];
        r.minDistance = 0.001 * norm(n);
        r.ex2 = r.ex * r.ex;
        r.er2 = r.er * r.er;
        r.exR0 = r.ex * r.r0;
        r.kind = std::abs(r.er) * 0.001 <= std::abs(r.ex)
                     ? (std::abs(r.ex) <= std::abs(r.er) ? ConeRecord::Kind::Radial
                                                         : ConeRecord::Kind::Axial)
                     : ConeRecord::Kind::Annulus;
    }

    if (faces.dimension == 1)
        shape_ = uniform ? Shape::Cones : Shape::MixedCones;
    else if (faces.dimension == 2)
        shape_ = uniform ? Shape::Segments : Shape::MixedSegments;
    else if (!uniform)
        shape_ = Shape::MixedPolygons;
    else
        shape_ = firstCorners == 3 ? Shape::Triangles : Shape::Quads;
}

size_t TraversalTree::bytes() const {
    return sizeof(*this) + nodes_.capacity() * sizeof(Node) +
           leafEntries_.capacity() * sizeof(uint32_t) + recordFace_.capacity() * sizeof(int32_t) +
           recordHasData_.capacity() + polygons_.capacity() * sizeof(PolygonRecord) +
           segments_.capacity() * sizeof(SegmentRecord) + cones_.capacity() * sizeof(ConeRecord);
}

void TraversalTree::splitsPerAxis(int32_t splits[3]) const {
    splits[0] = splits[1] = splits[2] = 0;
    struct Visit {
        uint32_t node;
        int32_t count[3];
    };
    std::vector<Visit> pending{Visit{0, {0, 0, 0}}};
    while (!pending.empty()) {
        const Visit visit = pending.back();
        pending.pop_back();
        const Node& node = nodes_[visit.node];
        if (node.info & leafBit) continue;
        Visit child = visit;
        ++child.count[node.info];
        splits[node.info] = std::max(splits[node.info], child.count[node.info]);
        child.node = node.index;
        pending.push_back(child);
        child.node = node.index + 1;
        pending.push_back(child);
    }
}

bool clipToBox(int32_t dimension, int32_t axisCount, const Vec3& boxMin, const Vec3& boxMax,
               const Vec3& O, const Vec3& D, double& tEnter, double& tExit) {
    tEnter = -dblMax;
    tExit = dblMax;
    for (int32_t i = 0; i < axisCount; ++i) {
        if (dimension == 1 && i == 1) {
            // The radial axis is the cylinder of the box's outer radius; it clips
            // only a ray that crosses it twice and rejects none.
            double roots[2];
            if (RayData(O, D, true).crossCylinder(boxMax.v[1], roots) == 2) {
                tEnter = std::max(tEnter, roots[0]);
                tExit = std::min(tExit, roots[1]);
            }
            continue;
        }
        const double o = O.v[i];
        const double d = D.v[i];
        if (d == 0) {
            if (o < boxMin.v[i] || o > boxMax.v[i]) return false;
        } else {
            const double t1 = raymath::safeDivide(boxMin.v[i] - o, d);
            const double t2 = raymath::safeDivide(boxMax.v[i] - o, d);
            if (d > 0) {
                tEnter = std::max(tEnter, t1);
                tExit = std::min(tExit, t2);
            } else if (d < 0) {
                tEnter = std::max(tEnter, t2);
                tExit = std::min(tExit, t1);
            }
        }
        if (tExit < 0 || tExit < tEnter) return false;
    }
    return true;
}

bool TraversalTree::clip(const Vec3& O, const Vec3& D, double& tEnter, double& tExit) const {
    return clipToBox(dimension_, axisCount_, boxMin_, boxMax_, O, D, tEnter, tExit);
}

// The recursion of traversePlanar / traverseAxisymmetric as a loop: where the
// recursion searches A, then (if A finds nothing) B, this descends into A and keeps
// B on the stack; a leaf that finds a hit ends the search, as the chained searches
// do, and a leaf that finds none resumes with the most recently deferred subtree.
template <class Test>
bool TraversalTree::traverseWith(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
                                 double tmin, double tmax) const {
    constexpr bool axisymmetricTest =
        std::is_same_v<Test, ConeTest> || std::is_same_v<Test, MixedConeTest>;
    const bool axisymmetric = dimension_ == 1;
    const RayData ray(O, D, axisymmetric || axisymmetricTest);
    const TestData data{polygons_.data(),   segments_.data(),      cones_.data(),
                        recordFace_.data(), recordHasData_.data(), faces_};
    const Node* nodes = nodes_.data();
    const uint32_t* entries = leafEntries_.data();

    Pending stack[stackSize];
    int top = 0;
    // A deferred subtree is searched only if the nearer side finds nothing, which
    // is the common case; fetching its node now overlaps that miss with the work
    // on the nearer side.
    const auto push = [&](const Pending& pending) {
        prefetch(nodes + pending.node);
        stack[top++] = pending;
    };
    uint32_t index = 0;
    for (;;) {
        const Node* node = nodes + index;
        while (!(node->info & leafBit)) {
            const uint32_t axis = node->info;
            const double s = node->split;
            const double o = O.v[axis];
            const double d = D.v[axis];
            if (o == s)
                index = descendFromPlane(node->index, d, tmin, tmax, push);
            else if (axisymmetric && axis == 1)
                index = descendCylinder(node->index, s, ray, tmin, tmax, push);
            else
                index = descendPlane(node->index, s, o, d, tmin, tmax, push);
            node = nodes + index;
        }

        // A leaf: its nearest hit up to tmax; a hit at exactly the current limit is
        // accepted, so of two faces at the same t the later one in the list wins.
        const uint32_t* entry = entries + node->index;
        const uint32_t count = node->info & ~leafBit;
        // The leaf's records lie apart: ask for all of them before testing the
        // first, so that their cache misses overlap instead of queueing.
        for (uint32_t k = 0; k < count; ++k) {
            const char* record = static_cast<const char*>(Test::record(data, entry[k]));
            prefetch(record);
            prefetch(record + 64);
        }
        double limit = tmax;
        int64_t best = -1;
        double t = 0;
        for (uint32_t k = 0; k < count; ++k) {
            if (Test::hit(data, entry[k], ray, tmin, limit, t)) {
                limit = t;
                best = entry[k];
            }
        }
        if (best >= 0) {
            hitPoint = O + D * limit;
            hitFace = recordFace_[static_cast<size_t>(best)];
            return true;
        }
        if (top == 0) return false;
        --top;
        index = stack[top].node;
        tmin = stack[top].tmin;
        tmax = stack[top].tmax;
    }
}

bool TraversalTree::traverse(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace,
                             double tmin, double tmax) const {
    switch (shape_) {
        case Shape::Triangles:
            return traverseWith<PolygonTest<3>>(O, D, hitPoint, hitFace, tmin, tmax);
        case Shape::Quads:
            return traverseWith<PolygonTest<4>>(O, D, hitPoint, hitFace, tmin, tmax);
        case Shape::MixedPolygons:
            return traverseWith<MixedPolygonTest>(O, D, hitPoint, hitFace, tmin, tmax);
        case Shape::Segments:
            return traverseWith<SegmentTest>(O, D, hitPoint, hitFace, tmin, tmax);
        case Shape::MixedSegments:
            return traverseWith<MixedSegmentTest>(O, D, hitPoint, hitFace, tmin, tmax);
        case Shape::Cones:
            return traverseWith<ConeTest>(O, D, hitPoint, hitFace, tmin, tmax);
        case Shape::MixedCones:
            return traverseWith<MixedConeTest>(O, D, hitPoint, hitFace, tmin, tmax);
    }
    return false;
}

bool TraversalTree::trace(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) const {
    double tEnter = 0, tExit = 0;
    if (!clip(O, D, tEnter, tExit)) return false;
    return traverse(O, D, hitPoint, hitFace, tEnter, tExit);
}

}  // namespace hemiray
