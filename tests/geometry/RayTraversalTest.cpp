// Ray/face tests against hand-computed hits, the numeric helpers, root-box clipping
// and the order rules of the traversal on hand-made trees.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <iostream>
#include <limits>
#include <sstream>

#include "../support/Meshes.h"
#include "geometry/RayTraversal.h"

namespace hemiray {
namespace {

using meshes::Kind;
using meshes::Mesh;

constexpr double dblMax = std::numeric_limits<double>::max();

TEST(SafeDivide, DividesOrSaturatesWithTheSignOfTheQuotient) {
    EXPECT_EQ(safeDivide(1, 0), dblMax);
    EXPECT_EQ(safeDivide(-1, 0), -dblMax);
    EXPECT_EQ(safeDivide(0, 0), dblMax);     // sgn(0) is +1
    EXPECT_EQ(safeDivide(1, -0.0), dblMax);  // so is sgn(-0)
    EXPECT_EQ(safeDivide(6, 3), 2.0);
    EXPECT_EQ(safeDivide(-6, 3), -2.0);
    EXPECT_EQ(safeDivide(1e308, 1e-10), dblMax);
    EXPECT_EQ(safeDivide(-1e308, 1e-10), -dblMax);
    EXPECT_EQ(safeDivide(1e308, -1e-10), -dblMax);
    EXPECT_EQ(safeDivide(1e-300, 1e300), 1e-300 / 1e300);
}

TEST(SolveQuadratic, RealRootsInAscendingOrder) {
    double r[2] = {0, 0};
    ASSERT_EQ(solveQuadratic(1, -4, 3, r), 2);  // (t-1)(t-3)
    EXPECT_DOUBLE_EQ(r[0], 1);
    EXPECT_DOUBLE_EQ(r[1], 3);
    ASSERT_EQ(solveQuadratic(-2, 8, -6, r), 2);  // -2(t-1)(t-3)
    EXPECT_DOUBLE_EQ(r[0], 1);
    EXPECT_DOUBLE_EQ(r[1], 3);
    ASSERT_EQ(solveQuadratic(1, 2, -8, r), 2);  // (t+4)(t-2)
    EXPECT_DOUBLE_EQ(r[0], -4);
    EXPECT_DOUBLE_EQ(r[1], 2);
    ASSERT_EQ(solveQuadratic(1, -2, 0, r), 2);  // t(t-2)
    EXPECT_EQ(r[0], 0);
    EXPECT_DOUBLE_EQ(r[1], 2);
    EXPECT_EQ(solveQuadratic(1, 0, 1, r), 0);
    ASSERT_EQ(solveQuadratic(1, -4, 4, r), 2);  // touching: a double root
    EXPECT_EQ(r[0], 2);
    EXPECT_EQ(r[1], 2);
}

TEST(SolveQuadratic, SlightlyNegativeDiscriminantStillTouches) {
    double r[2] = {0, 0};
    // b^2 - 4ac = 16 - 16(1 + 5e-7) = -8e-6, inside the tolerance 1e-6 b^2 = 1.6e-5.
    ASSERT_EQ(solveQuadratic(1, -4, 4 * (1 + 5e-7), r), 2);
    EXPECT_DOUBLE_EQ(r[0], 2);
    EXPECT_NEAR(r[1], 2, 1e-5);
    // -1.6e-4 is outside it.
    EXPECT_EQ(solveQuadratic(1, -4, 4 * (1 + 1e-5), r), 0);
}

TEST(SolveQuadratic, DegenerateLeadingCoefficient) {
    double r[2] = {0, 0};
    ASSERT_EQ(solveQuadratic(0, 2, -4, r), 1);  // 2t - 4
    EXPECT_EQ(r[0], 2);
    EXPECT_EQ(solveQuadratic(0, 0, 1, r), 0);
    EXPECT_EQ(solveQuadratic(0, 0, 0, r), 0);
    EXPECT_EQ(solveQuadratic(std::nan(""), 1, 1, r), 0);
}

// The square at z = 1 whose area vector points down to the origin, once or twice.
std::unique_ptr<Mesh> squareAtHeightOne(int copies) {
    auto mesh = std::make_unique<Mesh>(Kind::Quads);
    mesh->addNode({-0.5, -0.5, 1});
    mesh->addNode({-0.5, 0.5, 1});
    mesh->addNode({0.5, 0.5, 1});
    mesh->addNode({0.5, -0.5, 1});
    for (int i = 0; i < copies; ++i) mesh->addFace({0, 1, 2, 3});
    computeFaceGeometry(mesh->faces);
    return mesh;
}

// A tree without printing its depth line.
std::unique_ptr<BspNode> quietTree(const MeshView& view) {
    std::ostringstream out;
    auto* previous = std::cout.rdbuf(out.rdbuf());
    auto root = std::make_unique<BspNode>(view.faces->dimension, &view, true);
    std::cout.rdbuf(previous);
    return root;
}

TEST(IntersectPolygon, SquareAboveTheOriginIsHitFromBelowOnly) {
    const auto mesh = squareAtHeightOne(1);
    EXPECT_EQ(mesh->faces.faceNormal[0], Vec3(0, 0, -1));
    double t = -1;
    EXPECT_TRUE(intersectPolygon(mesh->faces, 0, {0, 0, 0}, {0, 0, 1}, 0, dblMax, t));
    EXPECT_EQ(t, 1.0);
    EXPECT_FALSE(intersectPolygon(mesh->faces, 0, {0, 0, 0}, {0, 0, -1}, 0, dblMax, t));
    // Unnormalised directions measure t in their own units.
    EXPECT_TRUE(intersectFace(mesh->faces, 0, {0.1, 0.2, 0}, {0, 0, 4}, 0, dblMax, t));
    EXPECT_EQ(t, 0.25);
    // Inside up to and including the edges; outside beyond them.
    EXPECT_TRUE(intersectPolygon(mesh->faces, 0, {0.5, 0.5, 0}, {0, 0, 1}, 0, dblMax, t));
    EXPECT_TRUE(intersectPolygon(mesh->faces, 0, {-0.5, 0.1, 0}, {0, 0, 1}, 0, dblMax, t));
    EXPECT_FALSE(intersectPolygon(mesh->faces, 0, {0.5000001, 0, 0}, {0, 0, 1}, 0, dblMax, t));
    EXPECT_FALSE(intersectPolygon(mesh->faces, 0, {0, -0.5000001, 0}, {0, 0, 1}, 0, dblMax, t));
    // A slanted ray through (0.4, 0.4, 1).
    EXPECT_TRUE(intersectPolygon(mesh->faces, 0, {0, 0, 0}, {0.4, 0.4, 1}, 0, dblMax, t));
    EXPECT_EQ(t, 1.0);
    EXPECT_FALSE(intersectPolygon(mesh->faces, 0, {0, 0, 0}, {0.6, 0, 1}, 0, dblMax, t));

    const MeshView view{&mesh->nodes, &mesh->faces};
    const auto root = quietTree(view);
    double tEnter = 0, tExit = 0;
    ASSERT_TRUE(clipToRootBox(*root, {0, 0, 0}, {0, 0, 1}, tEnter, tExit));
    Vec3 point;
    int32_t face = -1;
    ASSERT_TRUE(traversePlanar(*root, {0, 0, 0}, {0, 0, 1}, point, face, tEnter, tExit));
    EXPECT_EQ(point, Vec3(0, 0, 1));
    EXPECT_EQ(face, 0);
}

TEST(IntersectPolygon, HitExactlyAtTheLimitCountsAndJustBeyondDoesNot) {
    const auto mesh = squareAtHeightOne(1);
    double t = 0;
    EXPECT_TRUE(intersectPolygon(mesh->faces, 0, {0, 0, 0}, {0, 0, 1}, 0, 1.0, t));
    EXPECT_FALSE(intersectPolygon(mesh->faces, 0, {0, 0, 0}, {0, 0, 1}, 0,
                                  std::nextafter(1.0, 0.0), t));
    EXPECT_EQ(t, 1.0);  // written before the range checks
    // tmin is not used: a hit before it still counts.
    EXPECT_TRUE(intersectPolygon(mesh->faces, 0, {0, 0, 0}, {0, 0, 1}, 5.0, 10.0, t));
}

TEST(IntersectPolygon, RayNeverHitsTheFaceItStartsOn) {
    const auto mesh = meshes::enclosure(Kind::Triangles, 3, 1, 17);
    const FaceSet& faces = mesh->faces;
    for (int32_t f = 0; f < faces.faceCount(); ++f) {
        const Vec3& c = faces.faceCentroid[static_cast<size_t>(f)];
        const Vec3& n = faces.faceNormal[static_cast<size_t>(f)];
        double t = -1;
        // Along its own area vector the face is behind the ray.
        EXPECT_FALSE(intersectPolygon(faces, f, c, n, 0, dblMax, t));
        // Against it the face is at t = 0 (up to rounding), below the minimum distance.
        t = -1;
        EXPECT_FALSE(intersectPolygon(faces, f, c, -n, 0, dblMax, t));
        EXPECT_NEAR(t, 0.0, 1e-12);
    }
}

TEST(IntersectPolygon, MinimumDistanceIsAThousandthOfTheLengthScale) {
    // Area 4 (side 2): the threshold is 0.001 * sqrt(4) = 0.002.
    Mesh mesh(Kind::Quads);
    mesh.addNode({-1, -1, 1});
    mesh.addNode({-1, 1, 1});
    mesh.addNode({1, 1, 1});
    mesh.addNode({1, -1, 1});
    mesh.addFace({0, 1, 2, 3});
    computeFaceGeometry(mesh.faces);
    double t = 0;
    EXPECT_FALSE(intersectPolygon(mesh.faces, 0, {0, 0, 0.999}, {0, 0, 1}, 0, dblMax, t));
    EXPECT_TRUE(intersectPolygon(mesh.faces, 0, {0, 0, 0.99}, {0, 0, 1}, 0, dblMax, t));
}

TEST(Traversal, LaterFaceAtTheSameParameterWinsInALeaf) {
    const auto mesh = squareAtHeightOne(2);
    const MeshView view{&mesh->nodes, &mesh->faces};
    const auto root = quietTree(view);
    Vec3 point;
    int32_t face = -1;
    ASSERT_TRUE(traversePlanar(*root, {0, 0, 0}, {0, 0, 1}, point, face, -1, 10));
    EXPECT_EQ(face, 1);
    // The order of the list decides, not the face index.
    root->faceList[0] = 1;
    root->faceList[1] = 0;
    ASSERT_TRUE(traversePlanar(*root, {0, 0, 0}, {0, 0, 1}, point, face, -1, 10));
    EXPECT_EQ(face, 0);
}

TEST(Traversal, OutputsAreWrittenOnlyOnAHit) {
    const auto mesh = squareAtHeightOne(1);
    const MeshView view{&mesh->nodes, &mesh->faces};
    const auto root = quietTree(view);
    Vec3 point(7, 7, 7);
    int32_t face = 42;
    EXPECT_FALSE(traversePlanar(*root, {0, 0, 0}, {0, 0, -1}, point, face, -10, 10));
    EXPECT_FALSE(traversePlanar(*root, {0, 0, 0}, {0, 0, 1}, point, face, -10, 0.5));
    EXPECT_EQ(point, Vec3(7, 7, 7));
    EXPECT_EQ(face, 42);
}

// Two leaves under a split at x = 0 (hand-made, so that which child holds which
// face is chosen freely): child 0 holds face 0 and child 1 face 1.
struct TwoLeafTree {
    Mesh mesh{Kind::Quads};
    MeshView view{&mesh.nodes, &mesh.faces};
    BspNode root{3, &view, false};

    // Two squares across the x axis at x = a and x = b, facing the origin.
    TwoLeafTree(double a, double b) {
        for (double x : {a, b}) {
            const double s = x < 0 ? 1 : -1;  // node order that faces the origin
            const int32_t first = mesh.addNode({x, -1, -1});
            mesh.addNode({x, s * 1, s * -1});
            mesh.addNode({x, 1, 1});
            mesh.addNode({x, s * -1, s * 1});
            mesh.addFace({first, first + 1, first + 2, first + 3});
        }
        computeFaceGeometry(mesh.faces);
        root.boxMin = Vec3(-5, -5, -5);
        root.boxMax = Vec3(5, 5, 5);
        root.splitAxis = 0;
        root.splitPosition = 0;
        for (int c = 0; c < 2; ++c) {
            root.child[c] = std::make_unique<BspNode>(3, &view, false);
            root.child[c]->faceCount = 1;
            root.child[c]->faceList = std::make_unique<int32_t[]>(1);
            root.child[c]->faceList[0] = c;
        }
    }
};

TEST(Traversal, OriginOnTheSplitPlaneWithNegativeDirectionSearchesHighFirst) {
    // Both squares lie on the low side, at x = -1 (face 0, low child) and x = -2
    // (face 1, filed in the high child). Going towards -x from the plane, the
    // nearer face 0 would be the true answer, but the high child is searched first
    // over the whole interval and its face 1 is reported.
    TwoLeafTree tree(-1, -2);
    EXPECT_EQ(tree.mesh.faces.faceNormal[0], Vec3(4, 0, 0));
    Vec3 point;
    int32_t face = -1;
    ASSERT_TRUE(traversePlanar(tree.root, {0, 0.1, 0.2}, {-1, 0, 0}, point, face, -5, 5));
    EXPECT_EQ(face, 1);
    EXPECT_EQ(point, Vec3(-2, 0.1, 0.2));

    // Positive (or zero) direction on the plane: low child first.
    TwoLeafTree mirrored(1, 2);
    ASSERT_TRUE(traversePlanar(mirrored.root, {0, 0.1, 0.2}, {1, 0, 0}, point, face, -5, 5));
    EXPECT_EQ(face, 0);
    EXPECT_EQ(point, Vec3(1, 0.1, 0.2));

    // Off the plane the near side comes first and stops the search at the plane.
    ASSERT_TRUE(traversePlanar(tree.root, {1e-9, 0.1, 0.2}, {-1, 0, 0}, point, face, -5, 5));
    EXPECT_EQ(face, 0);
}

TEST(IntersectSegment, FacesTheSideItsAreaVectorPointsTo) {
    Mesh mesh(Kind::Planar);
    mesh.addNode({1, -1, 0});
    mesh.addNode({1, 1, 0});
    mesh.addFace({0, 1});
    mesh.addFace({1, 0});
    computeFaceGeometry(mesh.faces);
    EXPECT_EQ(mesh.faces.faceNormal[0], Vec3(2, 0, 0));
    double t = 0;
    EXPECT_FALSE(intersectSegment(mesh.faces, 0, {0, 0, 0}, {1, 0, 0}, 0, dblMax, t));
    EXPECT_TRUE(intersectSegment(mesh.faces, 1, {0, 0, 0}, {1, 0, 0}, 0, dblMax, t));
    EXPECT_EQ(t, 1.0);
    EXPECT_TRUE(intersectFace(mesh.faces, 0, {2, 0.5, 0}, {-2, 0, 0}, 0, dblMax, t));
    EXPECT_EQ(t, 0.5);
    // Both end points belong to the segment.
    EXPECT_TRUE(intersectSegment(mesh.faces, 1, {0, 0, 0}, {1, 1, 0}, 0, dblMax, t));
    EXPECT_TRUE(intersectSegment(mesh.faces, 1, {0, 0, 0}, {1, -1, 0}, 0, dblMax, t));
    EXPECT_FALSE(intersectSegment(mesh.faces, 1, {0, 0, 0}, {1, 1.0001, 0}, 0, dblMax, t));
    EXPECT_FALSE(intersectSegment(mesh.faces, 1, {0, 0, 0}, {1, -1.0001, 0}, 0, dblMax, t));
    // Minimum distance 0.001 * length = 0.002; the limit is inclusive.
    EXPECT_FALSE(intersectSegment(mesh.faces, 1, {0.999, 0, 0}, {1, 0, 0}, 0, dblMax, t));
    EXPECT_TRUE(intersectSegment(mesh.faces, 1, {0.99, 0, 0}, {1, 0, 0}, 0, dblMax, t));
    EXPECT_TRUE(intersectSegment(mesh.faces, 1, {0, 0, 0}, {1, 0, 0}, 0, 1.0, t));
    EXPECT_FALSE(intersectSegment(mesh.faces, 1, {0, 0, 0}, {1, 0, 0}, 0, 0.999, t));
}

// Axisymmetric faces: (x0, r0) -> (x1, r1) in the (x, r) half-plane.
std::unique_ptr<Mesh> profile(std::initializer_list<std::array<double, 4>> segments) {
    auto mesh = std::make_unique<Mesh>(Kind::Axisymmetric);
    for (const auto& s : segments) {
        const int32_t a = mesh->addNode({s[0], s[1], 0});
        mesh->addNode({s[2], s[3], 0});
        mesh->addFace({a, a + 1});
    }
    computeFaceGeometry(mesh->faces);
    return mesh;
}

TEST(IntersectCone, CylinderFacingTheAxisIsHitFromInside) {
    // Radius 1 from x = 0 to 2; area vector (0, -2): towards the axis.
    const auto mesh = profile({{0, 1, 2, 1}});
    const FaceSet& faces = mesh->faces;
    double t = 0;
    EXPECT_TRUE(intersectCone(faces, 0, {1, 0, 0}, {0, 1, 0}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 1);
    EXPECT_TRUE(intersectCone(faces, 0, {1, 0, 0}, {0, -0.6, 0.8}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 1);
    EXPECT_TRUE(intersectFace(faces, 0, {1, 0, 0}, {0, 1, 1}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, std::sqrt(0.5));
    // From (0.5, 0.3, 0.4) towards +x and out: the radius grows as 0.5 + 0.5 t.
    EXPECT_TRUE(intersectCone(faces, 0, {0.5, 0.3, 0.4}, {1, 0.3, 0.4}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 1);
    // Both ends of the segment belong to it.
    EXPECT_TRUE(intersectCone(faces, 0, {0, 0, 0}, {0, 1, 0}, 0, dblMax, t));
    EXPECT_TRUE(intersectCone(faces, 0, {2, 0, 0}, {0, 0, 1}, 0, dblMax, t));
    EXPECT_FALSE(intersectCone(faces, 0, {2.000001, 0, 0}, {0, 0, 1}, 0, dblMax, t));
    // Beyond the end of the segment (x = 3 at radius 1).
    EXPECT_FALSE(intersectCone(faces, 0, {1.5, 0.3, 0.4}, {1.5, 0.3, 0.4}, 0, dblMax, t));
    // Along the axis there is no crossing at all.
    EXPECT_FALSE(intersectCone(faces, 0, {1, 0.2, 0}, {1, 0, 0}, 0, dblMax, t));
}

TEST(IntersectCone, LargerRootIsTriedFirst) {
    // From outside at (1, 3, 0) towards the axis the ray crosses the cylinder at
    // t = 2 (y = 1) and t = 4 (y = -1). The face looks towards the axis, so the near
    // crossing fails the facing test and the far one, tried first, is the hit.
    const auto mesh = profile({{0, 1, 2, 1}});
    double t = 0;
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {1, 3, 0}, {0, -1, 0}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 4);
    // With the far crossing cut off only the near one is left, and it faces away.
    EXPECT_FALSE(intersectCone(mesh->faces, 0, {1, 3, 0}, {0, -1, 0}, 0, 3.0, t));
    // Facing outwards instead, the near crossing is the hit.
    const auto outward = profile({{2, 1, 0, 1}});
    EXPECT_TRUE(intersectCone(outward->faces, 0, {1, 3, 0}, {0, -1, 0}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 2);
}

TEST(IntersectCone, SteepConeMeasuresItsPositionByTheRadius) {
    // (0, 1) -> (0.5, 2): |ex| <= |er|, r(x) = 1 + 2x, area vector (1, -0.5).
    const auto mesh = profile({{0, 1, 0.5, 2}});
    double t = 0;
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {0.25, 0, 0}, {0, 1, 0}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 1.5);
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {0.25, 0, 0}, {0, 0, -1}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 1.5);
    // The equation is that of the double cone, and the radius alone places the point
    // on the segment: at x = -1.25 the mirror nappe r = -(1 + 2x) = 1.5 counts too.
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {-1.25, 0, 0}, {0, 1, 0}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 1.5);
    // Parallel to the axis at radius 1.5 towards -x, the ray crosses the cone at
    // x = 0.25 (t = 0.75) and its mirror at x = -1.25 (t = 2.25); both pass the
    // facing and position tests, and the larger root, tried first, wins unless the
    // limit cuts it off.
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {1, 1.5, 0}, {-1, 0, 0}, 0, dblMax, t));
    EXPECT_DOUBLE_EQ(t, 2.25);
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {1, 1.5, 0}, {-1, 0, 0}, 0, 2.0, t));
    EXPECT_DOUBLE_EQ(t, 0.75);
    // Radius 2.5 is beyond the segment's end.
    EXPECT_FALSE(intersectCone(mesh->faces, 0, {0.75, 0, 0}, {0, 1, 0}, 0, dblMax, t));
}

TEST(IntersectCone, MinimumDistanceOfAConeIsAbsolute) {
    const auto mesh = profile({{0, 1, 2, 1}});
    double t = 0;
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {1, 1 - 1e-9, 0}, {0, 1, 0}, 0, dblMax, t));
    EXPECT_NEAR(t, 1e-9, 1e-15);
    EXPECT_FALSE(intersectCone(mesh->faces, 0, {1, 1 - 1e-11, 0}, {0, 1, 0}, 0, dblMax, t));
}

TEST(IntersectCone, AnnulusIsHitFromBothSides) {
    // x = 1, radius 0.5 to 1: |ex| < 0.001 |er|; area vector (0.5, 0).
    const auto mesh = profile({{1, 0.5, 1, 1}});
    const FaceSet& faces = mesh->faces;
    double t = 0;
    EXPECT_TRUE(intersectCone(faces, 0, {0, 0.75, 0}, {1, 0, 0}, 0, dblMax, t));
    EXPECT_EQ(t, 1.0);
    EXPECT_TRUE(intersectCone(faces, 0, {3, 0, -0.6}, {-1, 0, 0}, 0, dblMax, t));
    EXPECT_EQ(t, 2.0);
    EXPECT_TRUE(intersectCone(faces, 0, {0, 0.3, 0.3}, {2, 0.3, 0.3}, 0, dblMax, t));
    EXPECT_EQ(t, 0.5);
    EXPECT_TRUE(intersectCone(faces, 0, {0, 0.5, 0}, {1, 0, 0}, 0, dblMax, t));  // inner edge
    EXPECT_TRUE(intersectCone(faces, 0, {0, 0, -1}, {1, 0, 0}, 0, dblMax, t));   // outer edge
    EXPECT_FALSE(intersectCone(faces, 0, {0, 0.3, 0}, {1, 0, 0}, 0, dblMax, t));  // the hole
    EXPECT_FALSE(intersectCone(faces, 0, {0, 0, 1.1}, {1, 0, 0}, 0, dblMax, t));  // outside
    EXPECT_FALSE(intersectCone(faces, 0, {0, 0.75, 0}, {0, 1, 0}, 0, dblMax, t));  // parallel
    // Its minimum distance is 0.001 * length = 0.0005, not the cone's 1e-10.
    EXPECT_FALSE(intersectCone(faces, 0, {0.9996, 0.75, 0}, {1, 0, 0}, 0, dblMax, t));
    EXPECT_TRUE(intersectCone(faces, 0, {0.999, 0.75, 0}, {1, 0, 0}, 0, dblMax, t));
    EXPECT_FALSE(intersectCone(faces, 0, {0, 0.75, 0}, {1, 0, 0}, 0, 0.5, t));
}

TEST(IntersectCone, DiscThroughTheAxis) {
    const auto mesh = profile({{0, 0, 0, 1}});
    double t = 0;
    // On the axis itself the radius is 0, the disc's own start.
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {-1, 0, 0}, {1, 0, 0}, 0, dblMax, t));
    EXPECT_EQ(t, 1.0);
    EXPECT_TRUE(intersectCone(mesh->faces, 0, {1, 0, 0.5}, {-2, 0, 0}, 0, dblMax, t));
    EXPECT_EQ(t, 0.5);
}

TEST(ClipToRootBox, SlabsGiveTheEntryAndExitOfTheBox) {
    const auto mesh = squareAtHeightOne(1);
    const MeshView view{&mesh->nodes, &mesh->faces};
    auto root = quietTree(view);
    root->boxMin = Vec3(-1, -2, -3);
    root->boxMax = Vec3(1, 2, 3);
    double tEnter = 0, tExit = 0;
    ASSERT_TRUE(clipToRootBox(*root, {0, 0, 0}, {1, 0, 0}, tEnter, tExit));
    EXPECT_EQ(tEnter, -1);
    EXPECT_EQ(tExit, 1);
    ASSERT_TRUE(clipToRootBox(*root, {-5, 0, 0}, {2, 0.5, 0}, tEnter, tExit));
    EXPECT_EQ(tEnter, 2);
    EXPECT_EQ(tExit, 3);
    ASSERT_TRUE(clipToRootBox(*root, {0, 0, 0}, {0, 0, -0.5}, tEnter, tExit));
    EXPECT_EQ(tEnter, -6);
    EXPECT_EQ(tExit, 6);
    EXPECT_FALSE(clipToRootBox(*root, {5, 0, 0}, {1, 0, 0}, tEnter, tExit));  // behind
    EXPECT_FALSE(clipToRootBox(*root, {0, 2.5, 0}, {1, 0, 1}, tEnter, tExit));  // parallel, outside
    EXPECT_FALSE(clipToRootBox(*root, {-5, 0, 0}, {1, 1, 0}, tEnter, tExit));  // passes by
}

TEST(ClipToRootBox, AxisymmetricRadialAxisIsACylinder) {
    const auto mesh = profile({{0, 0.5, 2, 0.5}});
    const MeshView view{&mesh->nodes, &mesh->faces};
    auto root = quietTree(view);
    root->boxMin = Vec3(0, 0.25, 0);  // the lower radius is never used
    root->boxMax = Vec3(4, 1, 0);
    double tEnter = 0, tExit = 0;
    // Parallel to the axis inside the radius: only the x slab clips.
    ASSERT_TRUE(clipToRootBox(*root, {1, 0.1, 0.2}, {1, 0, 0}, tEnter, tExit));
    EXPECT_EQ(tEnter, -1);
    EXPECT_EQ(tExit, 3);
    // Across: the cylinder of radius 1 bounds it at t = -1 and 1.
    ASSERT_TRUE(clipToRootBox(*root, {1, 0, 0}, {0, 0.6, 0.8}, tEnter, tExit));
    EXPECT_DOUBLE_EQ(tEnter, -1);
    EXPECT_DOUBLE_EQ(tExit, 1);
    // Parallel to the axis outside the radius: the cylinder neither clips nor rejects.
    ASSERT_TRUE(clipToRootBox(*root, {1, 2, 0}, {1, 0, 0}, tEnter, tExit));
    EXPECT_EQ(tEnter, -1);
    EXPECT_EQ(tExit, 3);
    // Crossing the cylinder only outside the x range: the interval comes back empty.
    ASSERT_TRUE(clipToRootBox(*root, {1, 5, 0}, {1, -1, 0}, tEnter, tExit));
    EXPECT_EQ(tEnter, 4);
    EXPECT_EQ(tExit, 3);
    EXPECT_GT(tEnter, tExit);
}

TEST(Traversal, AxisymmetricRadialSplitsAreCylinders) {
    // Cylinders of radius 0.5 and 1 over x in [0, 0.6], twelve faces each, all
    // facing the axis. The box is about as high as long, so the tree splits once in
    // x and then radially between the two.
    auto mesh = std::make_unique<Mesh>(Kind::Axisymmetric);
    const int n = 12;
    for (double r : {0.5, 1.0})
        for (int i = 0; i < n; ++i) {
            const int32_t a = mesh->addNode({0.05 * i, r, 0});
            mesh->addNode({0.05 * (i + 1), r, 0});
            mesh->addFace({a, a + 1});
        }
    computeFaceGeometry(mesh->faces);
    const MeshView view{&mesh->nodes, &mesh->faces};
    const auto root = quietTree(view);
    bool radialSplit = false;
    const std::function<void(const BspNode&)> find = [&](const BspNode& node) {
        if (node.isLeaf()) return;
        radialSplit = radialSplit || node.splitAxis == 1;
        find(*node.child[0]);
        find(*node.child[1]);
    };
    find(*root);
    ASSERT_TRUE(radialSplit);

    const auto trace = [&](Vec3 O, Vec3 D, Vec3& point, int32_t& face) {
        double tEnter = 0, tExit = 0;
        return clipToRootBox(*root, O, D, tEnter, tExit) &&
               traverseAxisymmetric(*root, O, D, point, face, tEnter, tExit);
    };
    Vec3 point;
    int32_t face = -1;
    // From the axis outwards: the inner cylinder from inside, x in [0.2, 0.25].
    ASSERT_TRUE(trace({0.22, 0, 0}, {0, 0.6, 0.8}, point, face));
    EXPECT_EQ(face, 4);
    EXPECT_NEAR(point[1], 0.3, 1e-12);
    EXPECT_NEAR(point[2], 0.4, 1e-12);
    // From between the cylinders straight down through the axis: the inner one is
    // crossed twice; its near side faces away, its far side (y = -0.5) is hit.
    ASSERT_TRUE(trace({0.42, 0.75, 0}, {0, -1, 0}, point, face));
    EXPECT_EQ(face, 8);
    EXPECT_NEAR(point[1], -0.5, 1e-12);
    // Outwards from between them: the outer cylinder at x = 0.125.
    ASSERT_TRUE(trace({0.1, 0, 0.75}, {0.1, 0, 1}, point, face));
    EXPECT_EQ(face, n + 2);
    EXPECT_NEAR(point[2], 1.0, 1e-12);
}

}  // namespace
}  // namespace hemiray
