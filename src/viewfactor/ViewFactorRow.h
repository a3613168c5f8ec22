// One glob's row of view factors: every face of the glob shoots the hemisphere
// from its centroid, rays continue through mirror and periodic zones (at most 100
// bounces), and each ray that lands on a wall adds its weight times the emitting
// face's area to the wall's glob. The row is finally divided by the glob's area.
#pragma once

#include <climits>
#include <cstdint>

#include "Hemisphere"
#include "SparseRowVector"
#include "geometry/BspTree.h"
#include "geometry/FaceGeometry.h"
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "input/MeshModel.h"

namespace hemiray {

// Rays that cross mirror or periodic zones are abandoned after this many steps.
inline constexpr int maxBounces = 100;

// Fills row (empty on entry, as wide as the glob count) for glob, traced through
// the tree's flat copy. Reentrant: the only per-thread state it touches besides the
// row is the thread's random state.
void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const TraversalTree& tree, SparseRowVector& row);
// The same row traced by the run's tracer (the BVH where it applies): the same bits.
void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const RayTracer& tracer, SparseRowVector& row);

// Local frame (t1, t2, n) for unit normal n. Modes 1 and 2: the in-plane tangent and
// the z axis; 3D: t2 a random unit tangent drawn from the thread's generator.
void buildTangentFrame(int32_t dimension, const Vec3& n, Vec3& t1, Vec3& t2);

// The 3D frame with t2 drawn from `uniform`, numbers in [0, 1): points of the cube
// projected onto the tangent plane, drawn again while shorter than 0.1 (normalising
// them would magnify rounding). The turn angle is not uniform, which is harmless.
// Written as "again while shorter" so that a non-finite normal (a zero-area face)
// ends after one draw.
template <class Uniform>
void drawTangentFrame(const Vec3& n, Vec3& t1, Vec3& t2, Uniform& uniform) {
    Vec3 v;
    double length = 0;
    do {
        const double u1 = uniform();
        const double u2 = uniform();
        const double u3 = uniform();
        v = Vec3(1 - 2 * u1, 1 - 2 * u2, 1 - 2 * u3);
        v = v - dot(v, n) * n;
        length = norm(v);
    } while (length < 0.1);
    t2 = Vec3(v[0] / length, v[1] / length, v[2] / length);
    t1 = cross(t2, n);
}

// The generator of the thread-local state below, as an object: one team member's
// sequence, which any thread may draw on the member's behalf.
struct MemberGenerator {
    uint32_t state = 1;
    int next() {
        state = state * 214013u + 2531011u;
        return static_cast<int>((state >> 16) & 0x7fffu);
    }
    double operator()() { return next() * (1.0 / 32768); }
};

// Per-face sampling: uniform numbers of a stream that depends on (key, face) alone
// (SplitMix64 over a counter that starts at a mix of both), so that a face draws
// the same frame whichever thread, team or process handles it.
class FaceStream {
public:
    FaceStream(uint64_t key, int32_t face)
        : counter_(mix(key ^ mix(static_cast<uint64_t>(static_cast<uint32_t>(face)) + golden))) {}
    double operator()() {
        counter_ += golden;
        return static_cast<double>(mix(counter_) >> 11) * 0x1p-53;
    }

private:
    static constexpr uint64_t golden = 0x9e3779b97f4a7c15ull;
    static uint64_t mix(uint64_t z) {
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    uint64_t counter_;
};

// Where one face shoots its rays from.
struct FaceFrame {
    Vec3 origin;  // the centroid
    Vec3 n, t1, t2;
    double area = 0;  // 0 (or not a number): the face emits nothing, no ray is traced
};

// The frame of a face with the 3D tangent drawn from `uniform` (not called in
// modes 1 and 2). A zero-area face still draws, so that a generator's sequence
// does not depend on which faces are degenerate.
template <class Uniform>
FaceFrame faceFrame(int32_t dimension, const FaceSet& faces, int32_t face, Uniform& uniform) {
    FaceFrame f;
    const Vec3& areaVector = faces.faceNormal[face];
    // In axisymmetric runs this is the segment's length, not the revolved area: the
    // same measure as the rest of the geometry uses.
    f.area = norm(areaVector);
    f.n = Vec3(areaVector[0] / f.area, areaVector[1] / f.area, areaVector[2] / f.area);
    f.origin = faces.faceCentroid[face];
    if (dimension == 1 || dimension == 2)
        buildTangentFrame(dimension, f.n, f.t1, f.t2);
    else
        drawTangentFrame(f.n, f.t1, f.t2, uniform);
    return f;
}

inline bool emits(const FaceFrame& f) {
    return f.area > 0;
}

// Direction k of the hemisphere in a face's frame.
inline Vec3 rayDirection(const FaceFrame& f, const Hemisphere& hemisphere, int k) {
    return f.t1 * hemisphere.dirX(k) + f.t2 * hemisphere.dirY(k) + f.n * hemisphere.dirZ(k);
}

// Row-major 3x3 rotation by angle (radians) about the unit axis.
void rotationMatrix(double angle, const Vec3& axis, double M[9]);

// The column a ray scores in, or none: lost, absorbed by a special zone, trapped.
inline constexpr int32_t noColumn = INT32_MIN;

// The rotation of the last rotational zone a ray crossed, rebuilt only when a ray
// crosses a different one: most rays never meet a periodic face at all.
struct RotationCache {
    int32_t zone = -1;
    double M[9] = {};
};

// Per face, where a ray that meets it ends: the face's glob (a wall), noColumn (a
// zone that absorbs), or rayGoesOn (a mirror or periodic face, and a wall whose
// glob has that value). One entry per ray to read instead of the zone type and the
// glob, which are two cache misses per ray in a large model.
inline constexpr int32_t rayGoesOn = INT32_MIN + 1;
std::vector<int32_t> faceRayEnds(const FaceSet& faces);

// Follows one ray from O along D through mirror and periodic zones, with
// `nearestHit(O, D, hitPoint, hitFace)` answering each straight piece, and returns
// the glob of the wall where it ends (its weight scores there), or noColumn.
// rayEnds, when given, is faceRayEnds(faces).
template <class NearestHit>
int32_t followRay(Vec3 O, Vec3 D, const FaceSet& faces, const ZoneTable& zones,
                  const NearestHit& nearestHit, RotationCache& rotation,
                  const int32_t* rayEnds = nullptr) {
    for (int bounces = 0;;) {
        Vec3 hitPoint;
        int32_t hitFace = -1;
        if (!nearestHit(O, D, hitPoint, hitFace)) return noColumn;  // left the domain: lost
        if (rayEnds && rayEnds[hitFace] != rayGoesOn) return rayEnds[hitFace];

        const int32_t type = faces.faceZoneType[hitFace];
        if (type == zoneTypeMirror) {
            // Reflection about the face plane; dividing by N.N instead of
            // normalising N keeps it exact up to rounding.
            const Vec3& N = faces.faceNormal[hitFace];
            O = hitPoint;
            D = D - (2 * dot(N, D) / dot(N, N)) * N;
        } else if (type == zoneTypePeriodic || type == zoneTypePeriodicShadow) {
            // Each zone of a pair carries the transform to its partner.
            const int32_t zone = faces.faceZoneIndex[hitFace];
            if (zones.periodicType[zone] == 0) {
                O = hitPoint + zones.periodicShift[zone];
            } else {
                if (zone != rotation.zone) {
                    rotationMatrix(zones.periodicAngle[zone], zones.periodicAxisB[zone],
                                   rotation.M);
                    rotation.zone = zone;
                }
                const double* M = rotation.M;
                const Vec3& axisPoint = zones.periodicAxisA[zone];
                const Vec3 r = hitPoint - axisPoint;
                O = Vec3(M[0] * r[0] + M[1] * r[1] + M[2] * r[2],
                         M[3] * r[0] + M[4] * r[1] + M[5] * r[2],
                         M[6] * r[0] + M[7] * r[1] + M[8] * r[2]) +
                    axisPoint;
                D = Vec3(M[0] * D[0] + M[1] * D[1] + M[2] * D[2],
                         M[3] * D[0] + M[4] * D[1] + M[5] * D[2],
                         M[6] * D[0] + M[7] * D[1] + M[8] * D[2]);
            }
        } else {
            // Walls score; other special zones absorb the ray.
            return type < zoneTypeSpecial ? faces.faceGlob[hitFace] : noColumn;
        }
        // A ray trapped between mirrors or periodic pairs would never end; after
        // maxBounces steps it is dropped without scoring.
        if (++bounces == maxBounces) return noColumn;
    }
}

// Divides the row by its glob's area, the sum of its faces' areas in face order.
void normaliseRow(SparseRowVector& row, double globArea);

// Adds the rays of one face, whose columns are given in direction order, to row:
// each scoring ray adds its weight times the face's area.
inline void addFaceRays(SparseRowVector& row, const Hemisphere& hemisphere, double area,
                        const int32_t* columns) {
    for (int k = 0; k < hemisphere.size_; ++k)
        if (columns[k] != noColumn) row.add(columns[k], hemisphere.weight(k) * area);
}

// The thread's linear congruential generator (multiplier 214013, increment
// 2531011, bits 16..30 of the state): 15-bit results, state 1 on a thread's first
// draw, never reseeded by the library, so rows are reproducible per thread count.
int threadRandom();
// For tests: the calling thread's generator state, read and set.
uint32_t threadRandomState();
void setThreadRandomState(uint32_t state);

// The row of one glob with `trace(O, D, hitPoint, hitFace)` answering the nearest
// hit of each ray.
template <class Trace>
void computeRowWith(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                    const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                    const Trace& trace, SparseRowVector& row) {
    RotationCache rotation;
    auto uniform = [] { return threadRandom() * (1.0 / 32768); };
    double globArea = 0;
    for (int32_t p = globs.globFaceStart[glob]; p < globs.globFaceStart[glob + 1]; ++p) {
        const FaceFrame frame = faceFrame(dimension, faces, globs.globFaces[p], uniform);
        globArea += frame.area;
        // A zero-area face emits nothing: every ray would score weight x 0. Its
        // normal and centroid are 0/0, so its rays are not traced at all.
        if (!emits(frame)) continue;
        for (int k = 0; k < hemisphere.size_; ++k) {
            const int32_t column = followRay(frame.origin, rayDirection(frame, hemisphere, k),
                                             faces, zones, trace, rotation);
            if (column != noColumn) row.add(column, hemisphere.weight(k) * frame.area);
        }
    }
    normaliseRow(row, globArea);
}

}  // namespace hemiray
