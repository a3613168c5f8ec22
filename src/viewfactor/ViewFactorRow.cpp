// Per-glob sampling: the face frames, the thread's random generator that turns the
// hemicube about each face normal, and the ray loop that follows mirror and
// periodic zones and scores on walls.
#include "viewfactor/ViewFactorRow.h"

#include <cmath>

#include "geometry/RayTraversal.h"
#include "geometry/TraversalTree.h"

namespace hemiray {

namespace {

// One generator per thread: the runtime's rand() is a single locked state, which
// would serialise the sampling loop and make each row depend on thread timing.
// Starting at 1 and never reseeded, a thread draws the same sequence in every run,
// so rows are reproducible for a given thread count.
thread_local uint32_t randomState = 1;

// M v for a row-major 3x3 M; v is taken by value so the result may overwrite it.
Vec3 multiply(const double M[9], Vec3 v) {
    return {M[0] * v[0] + M[1] * v[1] + M[2] * v[2],
            M[3] * v[0] + M[4] * v[1] + M[5] * v[2],
            M[6] * v[0] + M[7] * v[1] + M[8] * v[2]};
}

}  // namespace

int threadRandom() {
    randomState = randomState * 214013u + 2531011u;
    return static_cast<int>((randomState >> 16) & 0x7fffu);
}

uint32_t threadRandomState() { return randomState; }

void setThreadRandomState(uint32_t state) { randomState = state; }

void buildTangentFrame(int32_t dimension, const Vec3& n, Vec3& t1, Vec3& t2) {
    if (dimension == 1 || dimension == 2) {
        // The in-plane tangent; the z axis is the second tangent, along which the
        // axisymmetric hemicube leaves the (x, r) plane.
        t1 = Vec3(n[1], -n[0], 0);
        t2 = Vec3(0, 0, 1);
        return;
    }
    // A random tangent turns the hemicube about the normal for every face, which
    // breaks the aliasing between the regular direction set and regular meshes.
    // Points of the cube projected onto the tangent plane; short projections are
    // drawn again since normalising them would magnify rounding. The turn angle is
    // not uniform, which is harmless. Written as "again while shorter than 0.1" so
    // that a non-finite normal (a zero-area face) ends after one draw.
    constexpr double toUnit = 1.0 / 32768;
    Vec3 v;
    double length = 0;
    do {
        const double u1 = threadRandom() * toUnit;
        const double u2 = threadRandom() * toUnit;
        const double u3 = threadRandom() * toUnit;
        v = Vec3(1 - 2 * u1, 1 - 2 * u2, 1 - 2 * u3);
        v = v - dot(v, n) * n;
        length = norm(v);
    } while (length < 0.1);
    t2 = Vec3(v[0] / length, v[1] / length, v[2] / length);
    t1 = cross(t2, n);
}

void rotationMatrix(double angle, const Vec3& axis, double M[9]) {
    // Rodrigues' formula, row-major.
    const double c = std::cos(angle), s = std::sin(angle), C = 1 - c;
    const double x = axis[0], y = axis[1], z = axis[2];
    M[0] = x * x * C + c;
    M[1] = x * y * C - z * s;
    M[2] = x * z * C + y * s;
    M[3] = y * x * C + z * s;
    M[4] = y * y * C + c;
    M[5] = y * z * C - x * s;
    M[6] = z * x * C - y * s;
    M[7] = z * y * C + x * s;
    M[8] = z * z * C + c;
}

namespace {

// The row of one glob with `trace(O, D, hitPoint, hitFace)` answering the nearest
// hit of each ray: the BSP tree itself or its flat tracing copy.
template <class Trace>
void computeRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                const Trace& trace, SparseRowVector& row) {
    // The rotation of the last rotational zone crossed, rebuilt only when a ray
    // crosses a different one: most rays never meet a periodic face at all.
    int32_t rotationZone = -1;
    double M[9] = {};

    double globArea = 0;
    for (int32_t p = globs.globFaceStart[glob]; p < globs.globFaceStart[glob + 1]; ++p) {
        const int32_t face = globs.globFaces[p];
        const Vec3& areaVector = faces.faceNormal[face];
        // In axisymmetric runs this is the segment's length, not the revolved area:
        // the same measure as the rest of the geometry uses.
        const double area = norm(areaVector);
        globArea += area;
        const Vec3 n(areaVector[0] / area, areaVector[1] / area, areaVector[2] / area);
        const Vec3& origin = faces.faceCentroid[face];
        Vec3 t1, t2;
        buildTangentFrame(dimension, n, t1, t2);
        // A zero-area face emits nothing: every ray would score weight x 0. Its
        // normal and centroid are 0/0, so its rays are not traced at all. The frame
        // is still drawn above, keeping the thread's random sequence independent of
        // which faces are degenerate.
        if (!(area > 0)) continue;

        for (int k = 0; k < hemisphere.size_; ++k) {
            Vec3 D = t1 * hemisphere.dirX(k) + t2 * hemisphere.dirY(k) +
                     n * hemisphere.dirZ(k);
            Vec3 O = origin;
            uint8_t bounces = 0;
            for (;;) {
                Vec3 hitPoint;
                int32_t hitFace = -1;
                if (!trace(O, D, hitPoint, hitFace)) break;  // left the domain: lost

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
                        if (zone != rotationZone) {
                            rotationMatrix(zones.periodicAngle[zone],
                                           zones.periodicAxisB[zone], M);
                            rotationZone = zone;
                        }
                        const Vec3& axisPoint = zones.periodicAxisA[zone];
                        O = multiply(M, hitPoint - axisPoint) + axisPoint;
                        D = multiply(M, D);
                    }
                } else {
                    // Walls score; other special zones absorb the ray.
                    if (type < zoneTypeSpecial)
                        row.add(faces.faceGlob[hitFace], hemisphere.weight(k) * area);
                    break;
                }
                // A ray trapped between mirrors or periodic pairs would never end;
                // after maxBounces steps it is dropped without scoring.
                if (++bounces == maxBounces) break;
            }
        }
    }

    for (int k = 0; k < row.np; ++k) {
        const int32_t column = row.columnAt(k);
        row.w[column] /= globArea;
    }
}

}  // namespace

void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs,
                          const ZoneTable& zones, const BspNode& tree,
                          SparseRowVector& row) {
    const bool axisymmetric = tree.dimension == 1;
    const auto trace = [&](const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) {
        double tEnter = 0, tExit = 0;
        if (!clipToRootBox(tree, O, D, tEnter, tExit)) return false;
        return axisymmetric ? traverseAxisymmetric(tree, O, D, hitPoint, hitFace, tEnter, tExit)
                            : traversePlanar(tree, O, D, hitPoint, hitFace, tEnter, tExit);
    };
    computeRow(glob, dimension, hemisphere, faces, globs, zones, trace, row);
}

namespace {

// The row through anything that traces one ray as the sampling loop needs it.
template <class Tracer>
void computeRowThrough(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                       const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                       const Tracer& tracer, SparseRowVector& row) {
    const auto trace = [&](const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) {
        return tracer.trace(O, D, hitPoint, hitFace);
    };
    computeRow(glob, dimension, hemisphere, faces, globs, zones, trace, row);
}

}  // namespace

void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs,
                          const ZoneTable& zones, const TraversalTree& tree,
                          SparseRowVector& row) {
    computeRowThrough(glob, dimension, hemisphere, faces, globs, zones, tree, row);
}

void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs,
                          const ZoneTable& zones, const RayTracer& tracer,
                          SparseRowVector& row) {
    computeRowThrough(glob, dimension, hemisphere, faces, globs, zones, tracer, row);
}

}  // namespace hemiray
