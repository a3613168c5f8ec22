// The ray/face tests of the three modes against hand-computed hits, the numeric
// helpers, root-box clipping, and the order rules of the traversal that brute force
// cannot see. That the traversal finds the nearest of all faces is
// TraversalTreeTest's job; its reference is intersectFace, checked here.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

#include "geometry/RayTraversal.h"
#include "geometry/TraversalTree.h"
#include "models/QuietTree.h"
#include "models/RandomMeshes.h"
#include "support/RecursiveTraversal.h"

namespace hemiray {
namespace {

using meshes::Kind;
using meshes::Mesh;

constexpr double dblMax = std::numeric_limits<double>::max();
constexpr double miss = -1;

// intersectFace from O along D: the hit's parameter, or `miss`.
double hitAt(const Mesh& mesh, int32_t face, const Vec3& O, const Vec3& D, double tmax = dblMax,
             double tmin = 0) {
    double t = miss;
    return intersectFace(mesh.faces, face, O, D, tmin, tmax, t) ? t : miss;
}

// The traversal of the node tree and of its flat tracing copy, which must agree,
// outputs left alone on a miss included.
bool traverseBoth(const BspNode& root, const Vec3& O, const Vec3& D, Vec3& point, int32_t& face,
                  double tmin, double tmax) {
    Vec3 flatPoint = point;
    int32_t flatFace = face;
    const bool flatHit = TraversalTree(root).traverse(O, D, flatPoint, flatFace, tmin, tmax);
    const bool hit = traversePlanar(root, O, D, point, face, tmin, tmax);
    EXPECT_EQ(std::tuple(flatHit, flatFace, flatPoint), std::tuple(hit, face, point));
    return hit;
}

TEST(SafeDivide, DividesOrSaturatesWithTheSignOfTheQuotient) {
    EXPECT_EQ(safeDivide(1, 0), dblMax);
    EXPECT_EQ(safeDivide(-1, 0), -dblMax);
    EXPECT_EQ(safeDivide(0, 0), dblMax);     // sgn(0) is +1
    EXPECT_EQ(safeDivide(1, -0.0), dblMax);  // so is sgn(-0)
    EXPECT_EQ(safeDivide(-6, 3), -2.0);
    EXPECT_EQ(safeDivide(1e308, 1e-10), dblMax);
    EXPECT_EQ(safeDivide(-1e308, 1e-10), -dblMax);
    EXPECT_EQ(safeDivide(1e308, -1e-10), -dblMax);
    EXPECT_EQ(safeDivide(1e-300, 1e300), 1e-300 / 1e300);
}

TEST(SolveQuadratic, RealRootsInAscendingOrder) {
    struct Case {
        double a, b, c;
        int count;
        double r0, r1;
    };
    const Case cases[] = {
        {1, -4, 3, 2, 1, 3},   // (t-1)(t-3)
        {-2, 8, -6, 2, 1, 3},  // -2(t-1)(t-3)
        {1, 2, -8, 2, -4, 2},  // (t+4)(t-2)
        {1, -2, 0, 2, 0, 2},   // t(t-2)
        {1, 0, 1, 0, 0, 0},
        {1, -4, 4, 2, 2, 2},  // touching: a double root
        // b^2 - 4ac = -8e-6 is inside the tolerance 1e-6 b^2 = 1.6e-5; -1.6e-4 is not.
        {1, -4, 4 * (1 + 5e-7), 2, 2, 2},
        {1, -4, 4 * (1 + 1e-5), 0, 0, 0},
        {0, 2, -4, 1, 2, 0},  // 2t - 4
        {0, 0, 1, 0, 0, 0},
        {0, 0, 0, 0, 0, 0},
        {std::nan(""), 1, 1, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.a << " t^2 + " << c.b << " t + " << c.c);
        double r[2] = {0, 0};
        ASSERT_EQ(solveQuadratic(c.a, c.b, c.c, r), c.count);
        EXPECT_NEAR(r[0], c.count > 0 ? c.r0 : 0, 1e-12);
        EXPECT_NEAR(r[1], c.count > 1 ? c.r1 : 0, 1e-5);
    }
}

// Squares facing down at z = 1: side 1 (twice) and side 2.
std::unique_ptr<Mesh> squaresAtHeightOne() {
    auto mesh = std::make_unique<Mesh>(Kind::Quads);
    for (double h : {0.5, 1.0}) {
        const int32_t a = mesh->addNode({-h, -h, 1});
        for (const Vec3& p : {Vec3(-h, h, 1), Vec3(h, h, 1), Vec3(h, -h, 1)}) mesh->addNode(p);
        mesh->addFace({a, a + 1, a + 2, a + 3});
        if (h == 0.5) mesh->addFace({a, a + 1, a + 2, a + 3});
    }
    computeFaceGeometry(mesh->faces);
    return mesh;
}

TEST(IntersectFace, PolygonIsHitFromTheSideItsAreaVectorPointsTo) {
    const auto mesh = squaresAtHeightOne();
    ASSERT_EQ(mesh->faces.faceNormal[0], Vec3(0, 0, -1));
    EXPECT_EQ(hitAt(*mesh, 0, {0, 0, 0}, {0, 0, 1}), 1.0);
    EXPECT_EQ(hitAt(*mesh, 0, {0, 0, 2}, {0, 0, -1}), miss);
    EXPECT_EQ(hitAt(*mesh, 0, {0.1, 0.2, 0}, {0, 0, 4}), 0.25);  // t in D's own units
    // Inside up to and including the edges; outside beyond them.
    EXPECT_EQ(hitAt(*mesh, 0, {0.5, 0.5, 0}, {0, 0, 1}), 1.0);
    EXPECT_EQ(hitAt(*mesh, 0, {-0.5, 0.1, 0}, {0, 0, 1}), 1.0);
    EXPECT_EQ(hitAt(*mesh, 0, {0.5000001, 0, 0}, {0, 0, 1}), miss);
    EXPECT_EQ(hitAt(*mesh, 0, {0, -0.5000001, 0}, {0, 0, 1}), miss);
    EXPECT_EQ(hitAt(*mesh, 0, {0, 0, 0}, {0.4, 0.4, 1}), 1.0);
    EXPECT_EQ(hitAt(*mesh, 0, {0, 0, 0}, {0.6, 0, 1}), miss);
    // The limit is inclusive; the lower limit is not used.
    EXPECT_EQ(hitAt(*mesh, 0, {0, 0, 0}, {0, 0, 1}, 1.0), 1.0);
    EXPECT_EQ(hitAt(*mesh, 0, {0, 0, 0}, {0, 0, 1}, std::nextafter(1.0, 0.0)), miss);
    EXPECT_EQ(hitAt(*mesh, 0, {0, 0, 0}, {0, 0, 1}, 10.0, 5.0), 1.0);
    // Hits closer than a thousandth of the face's length scale do not count: 0.002
    // for the square of area 4.
    EXPECT_EQ(hitAt(*mesh, 2, {0, 0, 0.999}, {0, 0, 1}), miss);
    EXPECT_NEAR(hitAt(*mesh, 2, {0, 0, 0.99}, {0, 0, 1}), 0.01, 1e-12);
}

TEST(IntersectFace, SegmentIsHitFromTheSideItsAreaVectorPointsTo) {
    Mesh mesh(Kind::Planar);
    mesh.addNode({1, -1, 0});
    mesh.addNode({1, 1, 0});
    mesh.addFace({0, 1});
    mesh.addFace({1, 0});
    computeFaceGeometry(mesh.faces);
    ASSERT_EQ(mesh.faces.faceNormal[0], Vec3(2, 0, 0));
    EXPECT_EQ(hitAt(mesh, 0, {0, 0, 0}, {1, 0, 0}), miss);
    EXPECT_EQ(hitAt(mesh, 1, {0, 0, 0}, {1, 0, 0}), 1.0);
    EXPECT_EQ(hitAt(mesh, 0, {2, 0.5, 0}, {-2, 0, 0}), 0.5);
    // Both end points belong to the segment.
    EXPECT_EQ(hitAt(mesh, 1, {0, 0, 0}, {1, 1, 0}), 1.0);
    EXPECT_EQ(hitAt(mesh, 1, {0, 0, 0}, {1, -1, 0}), 1.0);
    EXPECT_EQ(hitAt(mesh, 1, {0, 0, 0}, {1, 1.0001, 0}), miss);
    EXPECT_EQ(hitAt(mesh, 1, {0, 0, 0}, {1, -1.0001, 0}), miss);
    // Minimum distance 0.001 * length = 0.002; the limit is inclusive.
    EXPECT_EQ(hitAt(mesh, 1, {0.999, 0, 0}, {1, 0, 0}), miss);
    EXPECT_NEAR(hitAt(mesh, 1, {0.99, 0, 0}, {1, 0, 0}), 0.01, 1e-12);
    EXPECT_EQ(hitAt(mesh, 1, {0, 0, 0}, {1, 0, 0}, 1.0), 1.0);
    EXPECT_EQ(hitAt(mesh, 1, {0, 0, 0}, {1, 0, 0}, 0.999), miss);
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

TEST(IntersectFace, ConesAreHitOnTheirFacingSide) {
    // Face 0: the cylinder of radius 1 from x = 0 to 2, facing the axis; 1: the same
    // facing outwards; 2: a steep cone (0, 1) -> (0.5, 2), r = 1 + 2x, facing (1,
    // -0.5); 3: the annulus x = 1, r from 0.5 to 1, facing +x; 4: a disc through the
    // axis at x = 0.
    const auto m =
        profile({{0, 1, 2, 1}, {2, 1, 0, 1}, {0, 1, 0.5, 2}, {1, 0.5, 1, 1}, {0, 0, 0, 1}});
    EXPECT_DOUBLE_EQ(hitAt(*m, 0, {1, 0, 0}, {0, 1, 0}), 1);
    EXPECT_DOUBLE_EQ(hitAt(*m, 0, {1, 0, 0}, {0, -0.6, 0.8}), 1);
    EXPECT_DOUBLE_EQ(hitAt(*m, 0, {1, 0, 0}, {0, 1, 1}), std::sqrt(0.5));
    EXPECT_DOUBLE_EQ(hitAt(*m, 0, {0.5, 0.3, 0.4}, {1, 0.3, 0.4}), 1);  // r = 0.5 + 0.5 t
    EXPECT_DOUBLE_EQ(hitAt(*m, 0, {0, 0, 0}, {0, 1, 0}), 1);            // both ends belong to it
    EXPECT_DOUBLE_EQ(hitAt(*m, 0, {2, 0, 0}, {0, 0, 1}), 1);
    EXPECT_EQ(hitAt(*m, 0, {2.000001, 0, 0}, {0, 0, 1}), miss);
    EXPECT_EQ(hitAt(*m, 0, {1.5, 0.3, 0.4}, {1.5, 0.3, 0.4}), miss);  // at x = 3
    EXPECT_EQ(hitAt(*m, 0, {1, 0.2, 0}, {1, 0, 0}), miss);            // along the axis: no crossing
    // From outside at (1, 3, 0) towards the axis the ray crosses at t = 2 (y = 1) and
    // t = 4 (y = -1). The larger root is tried first: facing the axis the far crossing
    // is the hit; with it cut off, the near one faces away. Facing outwards, the near
    // one is the hit.
    EXPECT_DOUBLE_EQ(hitAt(*m, 0, {1, 3, 0}, {0, -1, 0}), 4);
    EXPECT_EQ(hitAt(*m, 0, {1, 3, 0}, {0, -1, 0}, 3.0), miss);
    EXPECT_DOUBLE_EQ(hitAt(*m, 1, {1, 3, 0}, {0, -1, 0}), 2);
    // A cone's minimum distance is absolute.
    EXPECT_NEAR(hitAt(*m, 0, {1, 1 - 1e-9, 0}, {0, 1, 0}), 1e-9, 1e-15);
    EXPECT_EQ(hitAt(*m, 0, {1, 1 - 1e-11, 0}, {0, 1, 0}), miss);

    // The steep cone measures its position by the radius, on the double cone: at
    // x = -1.25 the mirror nappe r = -(1 + 2x) = 1.5 counts too, and of the crossings
    // at t = 0.75 and 2.25 the larger wins unless the limit cuts it off.
    EXPECT_DOUBLE_EQ(hitAt(*m, 2, {0.25, 0, 0}, {0, 1, 0}), 1.5);
    EXPECT_DOUBLE_EQ(hitAt(*m, 2, {0.25, 0, 0}, {0, 0, -1}), 1.5);
    EXPECT_DOUBLE_EQ(hitAt(*m, 2, {-1.25, 0, 0}, {0, 1, 0}), 1.5);
    EXPECT_DOUBLE_EQ(hitAt(*m, 2, {1, 1.5, 0}, {-1, 0, 0}), 2.25);
    EXPECT_DOUBLE_EQ(hitAt(*m, 2, {1, 1.5, 0}, {-1, 0, 0}, 2.0), 0.75);
    EXPECT_EQ(hitAt(*m, 2, {0.75, 0, 0}, {0, 1, 0}), miss);  // radius 2.5

    // The annulus is hit from both sides, from its inner to its outer edge.
    EXPECT_EQ(hitAt(*m, 3, {0, 0.75, 0}, {1, 0, 0}), 1.0);
    EXPECT_EQ(hitAt(*m, 3, {3, 0, -0.6}, {-1, 0, 0}), 2.0);
    EXPECT_EQ(hitAt(*m, 3, {0, 0.3, 0.3}, {2, 0.3, 0.3}), 0.5);
    EXPECT_EQ(hitAt(*m, 3, {0, 0.5, 0}, {1, 0, 0}), 1.0);
    EXPECT_EQ(hitAt(*m, 3, {0, 0, -1}, {1, 0, 0}), 1.0);
    EXPECT_EQ(hitAt(*m, 3, {0, 0.3, 0}, {1, 0, 0}), miss);  // the hole
    EXPECT_EQ(hitAt(*m, 3, {0, 0, 1.1}, {1, 0, 0}), miss);
    EXPECT_EQ(hitAt(*m, 3, {0, 0.75, 0}, {0, 1, 0}), miss);  // parallel
    EXPECT_EQ(hitAt(*m, 3, {0, 0.75, 0}, {1, 0, 0}, 0.5), miss);
    // Its minimum distance is 0.001 * length = 0.0005, not the cone's.
    EXPECT_EQ(hitAt(*m, 3, {0.9996, 0.75, 0}, {1, 0, 0}), miss);
    EXPECT_NEAR(hitAt(*m, 3, {0.999, 0.75, 0}, {1, 0, 0}), 0.001, 1e-12);
    // On the axis itself the radius is 0, the disc's own start.
    EXPECT_EQ(hitAt(*m, 4, {-1, 0, 0}, {1, 0, 0}), 1.0);
    EXPECT_EQ(hitAt(*m, 4, {1, 0, 0.5}, {-2, 0, 0}), 0.5);
}

TEST(IntersectFace, RayNeverHitsTheFaceItStartsOn) {
    const auto mesh = meshes::enclosure(Kind::Triangles, 3, 1, 17);
    const FaceSet& faces = mesh->faces;
    for (int32_t f = 0; f < faces.faceCount(); ++f) {
        const Vec3& c = faces.faceCentroid[size_t(f)];
        const Vec3& n = faces.faceNormal[size_t(f)];
        // Along its own area vector the face is behind the ray; against it, at t = 0
        // up to rounding, below the minimum distance.
        EXPECT_EQ(hitAt(*mesh, f, c, n), miss);
        EXPECT_EQ(hitAt(*mesh, f, c, -n), miss);
    }
}

TEST(ClipToRootBox, SlabsAndTheAxisymmetricCylinderGiveTheEntryAndExit) {
    struct Case {
        Kind kind;
        Vec3 O, D;
        bool ok;
        double tEnter, tExit;
    };
    // 3D box [-1,1]x[-2,2]x[-3,3]; axisymmetric x in [0, 4], radius 1 (the lower
    // radius is never used).
    const Case cases[] = {
        {Kind::Quads, {0, 0, 0}, {1, 0, 0}, true, -1, 1},
        {Kind::Quads, {-5, 0, 0}, {2, 0.5, 0}, true, 2, 3},
        {Kind::Quads, {0, 0, 0}, {0, 0, -0.5}, true, -6, 6},
        {Kind::Quads, {5, 0, 0}, {1, 0, 0}, false, 0, 0},             // behind
        {Kind::Quads, {0, 2.5, 0}, {1, 0, 1}, false, 0, 0},           // parallel, outside
        {Kind::Quads, {-5, 0, 0}, {1, 1, 0}, false, 0, 0},            // passes by
        {Kind::Axisymmetric, {1, 0.1, 0.2}, {1, 0, 0}, true, -1, 3},  // the x slab only
        {Kind::Axisymmetric, {1, 0, 0}, {0, 0.6, 0.8}, true, -1, 1},  // the cylinder
        // Parallel to the axis outside the radius: the cylinder neither clips nor
        // rejects; crossing it only outside the x range leaves an empty interval.
        {Kind::Axisymmetric, {1, 2, 0}, {1, 0, 0}, true, -1, 3},
        {Kind::Axisymmetric, {1, 5, 0}, {1, -1, 0}, true, 4, 3},
    };
    BspNode root3d(3, nullptr, false), rootAxi(1, nullptr, false);
    root3d.boxMin = Vec3(-1, -2, -3);
    root3d.boxMax = Vec3(1, 2, 3);
    rootAxi.boxMin = Vec3(0, 0.25, 0);
    rootAxi.boxMax = Vec3(4, 1, 0);
    const TraversalTree flat3d(root3d), flatAxi(rootAxi);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.O << " along " << c.D);
        double tEnter = 0, tExit = 0;
        ASSERT_EQ((c.kind == Kind::Quads ? flat3d : flatAxi).clip(c.O, c.D, tEnter, tExit), c.ok);
        if (!c.ok) continue;
        EXPECT_DOUBLE_EQ(tEnter, c.tEnter);
        EXPECT_DOUBLE_EQ(tExit, c.tExit);
    }
}

TEST(Traversal, LaterFaceAtTheSameParameterWinsAndOutputsChangeOnlyOnAHit) {
    // Two copies of the unit square share a leaf.
    const auto mesh = squaresAtHeightOne();
    Mesh two(Kind::Quads);
    two.nodes = mesh->nodes;
    two.addFace({0, 1, 2, 3});
    two.addFace({0, 1, 2, 3});
    computeFaceGeometry(two.faces);
    const MeshView view{&two.nodes, &two.faces};
    const auto root = models::quietTree(view);
    Vec3 point(7, 7, 7);
    int32_t face = 42;
    EXPECT_FALSE(traverseBoth(*root, {0, 0, 0}, {0, 0, -1}, point, face, -10, 10));
    EXPECT_FALSE(traverseBoth(*root, {0, 0, 0}, {0, 0, 1}, point, face, -10, 0.5));
    EXPECT_EQ(point, Vec3(7, 7, 7));
    EXPECT_EQ(face, 42);
    ASSERT_TRUE(traverseBoth(*root, {0, 0, 0}, {0, 0, 1}, point, face, -1, 10));
    EXPECT_EQ(face, 1);
    EXPECT_EQ(point, Vec3(0, 0, 1));
    // The order of the list decides, not the face index.
    std::swap(root->faceList[0], root->faceList[1]);
    ASSERT_TRUE(traverseBoth(*root, {0, 0, 0}, {0, 0, 1}, point, face, -1, 10));
    EXPECT_EQ(face, 0);
}

TEST(Traversal, OriginOnTheSplitPlaneWithNegativeDirectionSearchesHighFirst) {
    // Two leaves under a split at x = 0, hand-made so that which child holds which
    // face is chosen freely: child 0 holds face 0 and child 1 face 1, squares across
    // the x axis at x = a and x = b facing the origin.
    const auto twoLeaves = [](double a, double b, Mesh& mesh, MeshView& view, BspNode& root) {
        for (double x : {a, b}) {
            const double s = x < 0 ? 1 : -1;  // node order that faces the origin
            const int32_t first = mesh.addNode({x, -1, -1});
            for (const Vec3& p : {Vec3(x, s, -s), Vec3(x, 1, 1), Vec3(x, -s, s)}) mesh.addNode(p);
            mesh.addFace({first, first + 1, first + 2, first + 3});
        }
        computeFaceGeometry(mesh.faces);
        view = {&mesh.nodes, &mesh.faces};
        root = BspNode(3, &view, false);
        root.boxMin = Vec3(-5, -5, -5);
        root.boxMax = Vec3(5, 5, 5);
        for (int c = 0; c < 2; ++c) {
            root.child[c] = std::make_unique<BspNode>(3, &view, false);
            root.child[c]->faceCount = 1;
            root.child[c]->faceList = std::make_unique<int32_t[]>(1);
            root.child[c]->faceList[0] = c;
        }
    };
    // Both squares on the low side, at x = -1 (face 0, low child) and x = -2 (face 1,
    // filed high). Going towards -x from the plane the nearer face 0 would be the
    // true answer, but the high child is searched first over the whole interval.
    Mesh low(Kind::Quads), high(Kind::Quads);
    MeshView lowView, highView;
    BspNode lowRoot, highRoot;
    twoLeaves(-1, -2, low, lowView, lowRoot);
    ASSERT_EQ(low.faces.faceNormal[0], Vec3(4, 0, 0));
    Vec3 point;
    int32_t face = -1;
    const auto traverse = [&](const BspNode& root, const Vec3& O, const Vec3& D) {
        return traverseBoth(root, O, D, point, face, -5, 5);
    };
    ASSERT_TRUE(traverse(lowRoot, {0, 0.1, 0.2}, {-1, 0, 0}));
    EXPECT_EQ(face, 1);
    EXPECT_EQ(point, Vec3(-2, 0.1, 0.2));
    // Off the plane the near side comes first and stops the search at the plane.
    ASSERT_TRUE(traverse(lowRoot, {1e-9, 0.1, 0.2}, {-1, 0, 0}));
    EXPECT_EQ(face, 0);
    // A positive direction on the plane searches the low child first.
    twoLeaves(1, 2, high, highView, highRoot);
    ASSERT_TRUE(traverse(highRoot, {0, 0.1, 0.2}, {1, 0, 0}));
    EXPECT_EQ(face, 0);
    EXPECT_EQ(point, Vec3(1, 0.1, 0.2));
}

}  // namespace
}  // namespace hemiray
