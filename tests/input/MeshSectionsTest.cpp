// What the node, face, glob and periodic sections put into the model, and the zone
// table's trust in headers. Expected models are written out by hand from the text
// of each case; the fatal messages are in SectionReaderTest.
#include <gtest/gtest.h>

#include <bit>
#include <climits>
#include <sstream>
#include <string>
#include <vector>

#include "MeshFixture.h"

namespace hemiray {
namespace {

using test::Mesh;
using test::rest;
using IntVector = std::vector<int32_t>;

TEST(NodeSection, HexadecimalHeaderThenDecimalAgain) {
    // "a" is ten nodes, the first index no offset; node i holds 3i+1 .. 3i+3.
    std::string body;
    for (int v = 1; v <= 30; ++v) body += std::to_string(v) + " ";
    std::istringstream input("(1 1 a 0 3)(" + body + ") 10 tail)");
    Mesh mesh;
    readNodeSection(input, 3, mesh.nodes);
    ASSERT_EQ(mesh.nodes.size(), 10u);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(mesh.nodes[i], Vec3(3 * i + 1, 3 * i + 2, 3 * i + 3));
    int32_t next = 0;
    input >> next;
    EXPECT_EQ(next, 10);  // 16 if the stream were still hexadecimal
    EXPECT_EQ(rest(input), " tail)");
    // A later section replaces the entries from zero: "1f" to "20" is two nodes, and
    // a reversed range none.
    mesh.read("(10 (2 1f 20 0 3)(1.5 -2e1 .25 4 5 6))");
    EXPECT_EQ(mesh.nodes, (NodeArray{{1.5, -20, 0.25}, {4, 5, 6}}));
    mesh.read("(10 (4 5 1 0 3)())");
    EXPECT_TRUE(mesh.nodes.empty());
}

// Coordinates are read as the stream's own extraction reads them: the same bits,
// the same refusals. A number that ends early ("1.2.3", "0x1p3") leaves the rest
// to the next coordinate, as the extraction does.
TEST(NodeSection, CoordinatesAreTheStreamExtractionsNumbers) {
    for (const std::string text :
         {"0", "-0", "+.5", "007.5", "1.5e+3", "1E5", "2e-3", "5.", "1e-400", "4.9e-324",
          "1.7976931348623157e308", "0.1000000000000000055511151231257827", "1e400", "1e", "1e+",
          "-", ".", ".e1", "1.2.3", "0x1p3", "inf", "3.14159265358979323846264338327950288"}) {
        const std::string body = text + "\t2\n3 ";
        std::istringstream oracle(body);
        Vec3 expected;
        const bool valid = static_cast<bool>(oracle >> expected[0] >> expected[1] >> expected[2]);
        const ScopedInputErrorsThrow errorsThrow;
        Mesh mesh;
        const std::string section = "(10 (1 1 1 0 3)(" + body + "))";
        if (!valid) {
            EXPECT_THROW(mesh.read(section), InputError) << text;
            continue;
        }
        mesh.read(section);
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(std::bit_cast<uint64_t>(mesh.nodes.at(0)[k]),
                      std::bit_cast<uint64_t>(expected[k]))
                << text;
    }
}

TEST(NodeSection, PlanarRunReadsTwoCoordinatesWhateverNdSays) {
    Mesh mesh(2);
    mesh.read("(10 (1 1 3 0 3)(1 2 3 4 5 6))", 2);
    EXPECT_EQ(mesh.nodes, (NodeArray{{1, 2, 0}, {3, 4, 0}, {5, 6, 0}}));
}

TEST(NodeSectionDeathTest, DimensionOutsideOneToThreeIsACallerBug) {
    // The run passes 2 or 3; a wrong code must not turn into out-of-range writes.
    for (int32_t dimension : {0, 4}) {
        std::istringstream input("(1 1 1 0 3)(1 2 3 4)");
        NodeArray nodes;
        EXPECT_DEATH(readNodeSection(input, dimension, nodes),
                     "Assertion 'dimension >= 1 && dimension <= 3' failed");
    }
}

TEST(FaceSection, ElementTypeFixesTheNodeCountOrEachFaceLeadsWithIt) {
    struct Case {
        int elementType;
        std::string body;
        IntVector start, nodes, participating;
    };
    // Mixed and polygon zones: a quad, a line, a face without nodes (count 0, then
    // -2) and a triangle whose node number 0 is stored as -1.
    const std::string counted = "4 1 2 3 4\n 2 5 6\n 0\n -2\n 3 0 7 8";
    const IntVector countedStart{0, 4, 6, 6, 6, 9}, countedNodes{0, 1, 2, 3, 4, 5, -1, 6, 7};
    const Case cases[] = {
        {2, "1 2 2 3", {0, 2, 4}, {0, 1, 1, 2}, {0, 1}},
        {3, "1 2 3 4 5 6", {0, 3, 6}, {0, 1, 2, 3, 4, 5}, {0, 1}},
        {4, "1 2 3 4 5 6 7 8", {0, 4, 8}, {0, 1, 2, 3, 4, 5, 6, 7}, {0, 1}},
        {0, counted, countedStart, countedNodes, {0, 1, 4}},
        {5, counted, countedStart, countedNodes, {0, 1, 4}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.elementType);
        Mesh mesh;
        mesh.read("(311 (5 1 " + std::to_string(c.start.size() - 1) + " 3 " +
                  std::to_string(c.elementType) + ")(" + c.body + "))");
        EXPECT_EQ(mesh.allFaces.faceNodeStart, c.start);
        EXPECT_EQ(mesh.allFaces.faceNodes, c.nodes);
        EXPECT_EQ(mesh.zones.zoneElementType, IntVector{c.elementType});
        // Faces without nodes stay out of the participating set, which keeps the
        // allFaces numbers of the others.
        EXPECT_EQ(mesh.participatingFaces.faceId, c.participating);
        EXPECT_EQ(mesh.participatingFaces.faceNodes, c.nodes);
    }
}

TEST(FaceSection, OnlyWallsMirrorsAndPeriodicZonesTakePart) {
    const auto expectParticipating = [](int zoneType, int32_t count) {
        Mesh mesh;
        mesh.read("(311 (1 1 2 " + std::to_string(zoneType) + " 2)(1 2 2 3))");
        EXPECT_EQ(mesh.allFaces.faceCount(), 2) << zoneType;
        EXPECT_EQ(mesh.participatingFaces.faceCount(), count) << zoneType;
        EXPECT_EQ(mesh.participatingFaces.faceNodes.size(), 2u * count) << zoneType;
        EXPECT_EQ(mesh.participatingFaces.faceZoneType, IntVector(count, zoneType));
    };
    for (int zoneType : {1999, 2007, 2008, 2012, 0, -1, -2000, INT_MIN})
        expectParticipating(zoneType, 2);
    for (int zoneType : {2000, 2001, 2006, 2009, 2010, 2011, 2013, INT_MAX})
        expectParticipating(zoneType, 0);
}

TEST(FaceSection, RepeatedZoneIdTakesTheFirstZoneIndex) {
    Mesh mesh;
    mesh.read("(311 (4 1 1 3 2)(1 2))(311 (9 1 1 3 2)(2 3))(311 (4 1 1 2012 2)(3 4))");
    EXPECT_EQ(mesh.zones.zoneCount(), 3);
    EXPECT_EQ(mesh.allFaces.faceZoneIndex, (IntVector{0, 1, 0}));
    EXPECT_EQ(mesh.allFaces.faceZoneType, (IntVector{3, 3, 2012}));
}

TEST(GlobSection, NumbersOnlyTheNamedZonesFaces) {
    Mesh mesh;
    mesh.read(
        "(311 (1 1 2 3 2)(1 2 2 3))(311 (2 1 3 3 2)(3 4 4 5 5 6))(311 (3 2 1 3 2)())"
        "(309 (2 0 0 0 0 (x))(7 -1 12 (y) 5) tail)(309 (3 0 0 0 0)())");
    EXPECT_EQ(mesh.allFaces.faceGlob, (IntVector{-1, -1, 7, -1, 12}));
    // A reversed zone's own range, [0, -3), is empty and reads nothing.
    Mesh reversed;
    reversed.read("(311 (1 5 1 3 2)())(311 (2 1 2 3 2)(1 2 2 3))(309 (1 0 0 0 0)())");
    EXPECT_EQ(reversed.zones.zoneFaceStart, (IntVector{0, -3, -1}));
    EXPECT_EQ(reversed.allFaces.faceGlob, (IntVector{-1, -1}));
}

TEST(PeriodicSection, PairsTurnOrShiftTheShadowBack) {
    Mesh mesh;
    mesh.read(
        "(311 (1 1 1 3 2)(1 2))(311 (6 1 1 2012 2)(2 3))(311 (8 1 1 2008 2)(3 4))"
        "(18 (6 8 (x)) 1 30.5 1 2 3 0 0 -1 extra)");
    const ZoneTable& z = mesh.zones;
    EXPECT_EQ(z.periodicShadow, (IntVector{-1, 2, -1}));
    EXPECT_EQ(z.periodicType, (IntVector{0, 1, 1}));
    EXPECT_EQ(z.periodicAngle, (std::vector<double>{0, 30.5, -30.5}));
    EXPECT_EQ(z.periodicAxisA, (std::vector<Vec3>{{}, {1, 2, 3}, {1, 2, 3}}));
    EXPECT_EQ(z.periodicAxisB, (std::vector<Vec3>{{}, {0, 0, -1}, {0, 0, -1}}));
    EXPECT_EQ(z.periodicShift, std::vector<Vec3>(3));
    // Any non-zero type is rotational.
    mesh.read("(18 (1 6) -3 90 0 0 0 1 0 0)");
    EXPECT_EQ(z.periodicType, (IntVector{-3, -3, 1}));
    EXPECT_EQ(z.periodicAngle, (std::vector<double>{90, -90, -30.5}));
    EXPECT_EQ(z.periodicShadow, (IntVector{1, 2, -1}));

    // Translational: three components, even in a planar run.
    Mesh planar(2);
    planar.read("(311 (6 1 1 2012 2)(2 3))(311 (8 1 1 2008 2)(3 4))(18 (6 8) 0 1.5 -2 0.25)", 2);
    EXPECT_EQ(planar.zones.periodicShadow, (IntVector{1, -1}));
    EXPECT_EQ(planar.zones.periodicType, (IntVector{0, 0}));
    EXPECT_EQ(planar.zones.periodicShift, (std::vector<Vec3>{{1.5, -2, 0.25}, {-1.5, 2, -0.25}}));
    EXPECT_EQ(planar.zones.periodicAngle, (std::vector<double>{0, 0}));
    EXPECT_EQ(planar.zones.periodicAxisA, std::vector<Vec3>(2));
    EXPECT_EQ(planar.zones.periodicAxisB, std::vector<Vec3>(2));
}

// Zone headers are trusted as they stand: the expected zone count reserves nothing,
// and the running face total is a 32-bit field that wraps.
TEST(ZoneTable, WildHeadersCostNoReservationAndWrapLikeTheField) {
    for (int32_t count : {INT_MAX, -5})
        EXPECT_LE(ZoneTable(count).zoneId.capacity(), size_t{1} << 17) << count;
    ZoneTable zones(0);
    addZone(zones, 1, INT_MIN, INT_MAX, 3, 3);  // 2^32 faces: back to 0
    EXPECT_EQ(zones.zoneFaceStart.back(), 0);
    addZone(zones, 2, 0, INT_MAX, 3, 3);  // 2^31 faces: one past INT_MAX
    EXPECT_EQ(zones.zoneFaceStart.back(), INT_MIN);
}

}  // namespace
}  // namespace hemiray
