// The pieces of the sampling around the ray loop: the per-thread generator, the
// face frames and the rotation matrix of rotational periodic zones.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <thread>

#include "models/CodeMesh.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using models::RandomStateGuard;

// The classic runtime sequence (multiplier 214013, increment 2531011, bits 16..30)
// from its unseeded state 1, as published for that runtime's rand().
constexpr int unseededSequence[] = {41,    18467, 6334,  26500, 19169,
                                    15724, 11478, 29358, 26962, 24464};

TEST(ThreadRandom, FreshThreadStartsAtOneAndDrawsTheClassicSequence) {
    std::thread([] {
        EXPECT_EQ(threadRandomState(), 1u);
        for (int expected : unseededSequence) EXPECT_EQ(threadRandom(), expected);
    }).join();
}

TEST(ThreadRandom, EachThreadOwnsItsStateAndAStateReplays) {
    RandomStateGuard guard;
    setThreadRandomState(0xdeadbeefu);
    int first[50];
    for (int& r : first) {
        r = threadRandom();
        EXPECT_GE(r, 0);
        EXPECT_LT(r, 32768);
    }
    setThreadRandomState(0xdeadbeefu);
    std::thread([] {
        for (int k = 0; k < 100; ++k) (void)threadRandom();
    }).join();
    // Another thread's draws change nothing here, and a second fresh thread starts
    // over, unaffected by the first.
    for (int r : first) EXPECT_EQ(threadRandom(), r);
    std::thread([] { EXPECT_EQ(threadRandom(), unseededSequence[0]); }).join();
}

void expectNear(const Vec3& a, const Vec3& b, double tolerance) {
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(a[i], b[i], tolerance) << a << " vs " << b;
}

TEST(TangentFrame, PlanarAndAxisymmetricFramesAreFixedAndDrawNothing) {
    RandomStateGuard guard;
    setThreadRandomState(777);
    const double s = std::sqrt(0.5);
    for (int dimension : {1, 2}) {
        Vec3 t1, t2;
        buildTangentFrame(dimension, Vec3(s, -s, 0), t1, t2);
        EXPECT_EQ(t1, Vec3(-s, -s, 0));
        EXPECT_EQ(t2, Vec3(0, 0, 1));
        buildTangentFrame(dimension, Vec3(0, 1, 0), t1, t2);
        EXPECT_EQ(t1, Vec3(1, 0, 0));
    }
    EXPECT_EQ(threadRandomState(), 777u);
}

TEST(TangentFrame, ThreeDimensionalFrameIsRightHandedOrthonormal) {
    RandomStateGuard guard;
    setThreadRandomState(1);
    const Vec3 normals[] = {Vec3(0, 0, 1), Vec3(0, 0, -1), Vec3(1, 0, 0), Vec3(0.48, 0.6, 0.64),
                            Vec3(-0.6, 0, -0.8)};
    for (const Vec3& n : normals) {
        for (int repeat = 0; repeat < 20; ++repeat) {
            Vec3 t1, t2;
            buildTangentFrame(3, n, t1, t2);
            EXPECT_NEAR(norm(t1), 1.0, 1e-15);
            EXPECT_NEAR(norm(t2), 1.0, 1e-15);
            EXPECT_NEAR(dot(t1, n), 0.0, 1e-15);
            EXPECT_NEAR(dot(t2, n), 0.0, 1e-15);
            EXPECT_NEAR(dot(t1, t2), 0.0, 1e-15);
            expectNear(cross(t1, t2), n, 1e-15);
        }
    }
}

// A 3D frame takes the projection of a random point of the cube [-1, 1]^3 onto the
// face's plane, drawn again while it is shorter than 0.1. The draws come from the
// generator pinned above.
double draw() {
    return 1 - 2 * (threadRandom() / 32768.0);
}

TEST(TangentFrame, ShortProjectionsAreDrawnAgain) {
    RandomStateGuard guard;
    // A state whose first triple projects shorter than 0.1 (about 1 state in 130)
    // and whose second does not; for the normal (0, 0, 1) the plane is z = 0.
    uint32_t start = 0, after = 0;
    double x = 0, y = 0;
    for (uint32_t s = 1; s < 100000 && start == 0; ++s) {
        setThreadRandomState(s);
        const double x1 = draw(), y1 = draw();
        draw();
        const double x2 = draw(), y2 = draw();
        draw();
        if (std::hypot(x1, y1) < 0.1 && std::hypot(x2, y2) >= 0.1)
            start = s, x = x2, y = y2, after = threadRandomState();
    }
    ASSERT_NE(start, 0u);
    setThreadRandomState(start);
    Vec3 t1, t2;
    buildTangentFrame(3, Vec3(0, 0, 1), t1, t2);
    const double length = std::hypot(x, y);
    expectNear(t2, Vec3(x / length, y / length, 0), 1e-15);
    expectNear(t1, Vec3(y / length, -x / length, 0), 1e-15);  // t2 x n
    EXPECT_EQ(threadRandomState(), after);                    // exactly two triples drawn

    // A non-finite normal ends after one triple.
    setThreadRandomState(5);
    for (int k = 0; k < 3; ++k) (void)threadRandom();
    after = threadRandomState();
    setThreadRandomState(5);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    buildTangentFrame(3, Vec3(nan, nan, nan), t1, t2);
    EXPECT_EQ(threadRandomState(), after);
}

Vec3 multiply(const double M[9], const Vec3& v) {
    return {M[0] * v[0] + M[1] * v[1] + M[2] * v[2], M[3] * v[0] + M[4] * v[1] + M[5] * v[2],
            M[6] * v[0] + M[7] * v[1] + M[8] * v[2]};
}

TEST(RotationMatrix, AgreesWithTheVectorFormOfRodrigues) {
    double M[9];
    rotationMatrix(std::numbers::pi / 2, Vec3(0, 0, 1), M);
    expectNear(multiply(M, Vec3(1, 0, 0)), Vec3(0, 1, 0), 1e-16);  // counter-clockwise
    const Vec3 k(2.0 / 7, -3.0 / 7, 6.0 / 7);
    const Vec3 v(0.3, 1.7, -2.2);
    for (double angle : {0.0, 0.4, -1.3, std::numbers::pi, 5.0}) {
        rotationMatrix(angle, k, M);
        // v cos + (k x v) sin + k (k . v)(1 - cos)
        const Vec3 expected = v * std::cos(angle) + cross(k, v) * std::sin(angle) +
                              k * (dot(k, v) * (1 - std::cos(angle)));
        expectNear(multiply(M, v), expected, 1e-15);
        expectNear(multiply(M, k), k, 1e-15);
        // Orthogonal: rows are orthonormal.
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                const double rowDot =
                    M[3 * r] * M[3 * c] + M[3 * r + 1] * M[3 * c + 1] + M[3 * r + 2] * M[3 * c + 2];
                EXPECT_NEAR(rowDot, r == c ? 1.0 : 0.0, 1e-15);
            }
    }
}

}  // namespace
}  // namespace hemiray
