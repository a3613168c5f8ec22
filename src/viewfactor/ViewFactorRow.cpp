// Per-glob sampling: the face frames, the thread's random generator that turns the
// hemicube about each face normal, and the ray loop that follows mirror and
// periodic zones and scores on walls.
#include "viewfactor/ViewFactorRow.h"

#include <algorithm>
#include <cmath>

#include "geometry/TraversalTree.h"

namespace hemiray {

namespace {

// One generator per thread: the runtime's rand() is a single locked state, which
// would serialise the sampling loop and make each row depend on thread timing.
// Starting at 1 and never reseeded, a thread draws the same sequence in every run,
// so rows are reproducible for a given thread count.
thread_local uint32_t randomState = 1;

}  // namespace

int threadRandom() {
    randomState = randomState * 214013u + 2531011u;
    return static_cast<int>((randomState >> 16) & 0x7fffu);
}

uint32_t threadRandomState() {
    return randomState;
}

void normaliseRow(SparseRowVector& row, double globArea) {
    for (int k = 0; k < row.np; ++k) {
        const int32_t column = row.columnAt(k);
        row.w[column] /= globArea;
    }
}

void setThreadRandomState(uint32_t state) {
    randomState = state;
}

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
    auto uniform = [] { return threadRandom() * (1.0 / 32768); };
    drawTangentFrame(n, t1, t2, uniform);
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

// The row through anything that traces one ray as the sampling loop needs it.
template <class Tracer>
void computeRowThrough(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                       const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                       const Tracer& tracer, SparseRowVector& row) {
    const auto trace = [&](const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) {
        return tracer.trace(O, D, hitPoint, hitFace);
    };
    computeRowWith(glob, dimension, hemisphere, faces, globs, zones, trace, row);
}

}  // namespace

void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const TraversalTree& tree, SparseRowVector& row) {
    computeRowThrough(glob, dimension, hemisphere, faces, globs, zones, tree, row);
}

void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const RayTracer& tracer, SparseRowVector& row) {
    computeRowThrough(glob, dimension, hemisphere, faces, globs, zones, tracer, row);
}

std::vector<int32_t> faceRayEnds(const FaceSet& faces) {
    std::vector<int32_t> ends(static_cast<size_t>(std::max(faces.faceCount(), 0)));
    for (size_t f = 0; f < ends.size(); ++f) {
        const int32_t type = faces.faceZoneType[f];
        if (type < zoneTypeSpecial)
            ends[f] = faces.faceGlob[f];
        else if (type == zoneTypeMirror || type == zoneTypePeriodic ||
                 type == zoneTypePeriodicShadow)
            ends[f] = rayGoesOn;
        else
            ends[f] = noColumn;
    }
    return ends;
}

}  // namespace hemiray
