// Per-glob sampling: the face frames, the thread's random generator that turns the
// hemicube about each face normal, and the ray loop that follows mirror and
// periodic zones and scores on walls.
#include "viewfactor/ViewFactorRow.h"

#include <cmath>

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

}  // namespace hemiray
