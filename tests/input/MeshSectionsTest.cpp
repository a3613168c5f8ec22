// The node, face, glob and periodic section readers, called as the section reader
// calls them: just after the section id, with the header next in the stream.
// Expected models are written out by hand from the text of each case.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "input/MeshSections.h"
#include "MeshFixture.h"

namespace hemiray {
namespace {

using test::Mesh;
using test::rest;
using ::testing::ExitedWithCode;
using IntVector = std::vector<int32_t>;

void readNodes(Mesh& mesh, const std::string& text, int32_t dimension = 3) {
    std::istringstream input(text);
    readNodeSection(input, dimension, mesh.nodes);
}

std::string readFaces(Mesh& mesh, const std::string& text) {
    std::istringstream input(text);
    readFaceSection(input, mesh.allFaces, mesh.participatingFaces, mesh.zones);
    return rest(input);
}

void readGlobs(Mesh& mesh, const std::string& text) {
    std::istringstream input(text);
    readGlobSection(input, mesh.allFaces, mesh.participatingFaces, mesh.zones);
}

std::string readPeriodic(Mesh& mesh, const std::string& text) {
    std::istringstream input(text);
    readPeriodicSection(input, mesh.allFaces, mesh.zones);
    return rest(input);
}

// ---- node section ----

TEST(NodeSection, HeaderIsHexadecimal) {
    Mesh mesh;
    // "a" is ten nodes; the body holds 1..30 so node i is (3i+1, 3i+2, 3i+3).
    std::string body;
    for (int v = 1; v <= 30; ++v) body += std::to_string(v) + " ";
    readNodes(mesh, "(1 1 a 0 3)(" + body + ")");
    ASSERT_EQ(mesh.nodes.size(), 10u);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(mesh.nodes[i], Vec3(3 * i + 1, 3 * i + 2, 3 * i + 3));

    // "10" is sixteen nodes, not ten; the firstIndex is not an offset either.
    Mesh sixteen;
    std::string zeros;
    for (int v = 0; v < 48; ++v) zeros += "0.5 ";
    readNodes(sixteen, "(1 1 10 0 3)(" + zeros + ")");
    EXPECT_EQ(sixteen.nodes.size(), 16u);
    Mesh offset;
    readNodes(offset, "(2 1f 20 0 3)(1 2 3 4 5 6)");
    ASSERT_EQ(offset.nodes.size(), 2u);
    EXPECT_EQ(offset.nodes[0], Vec3(1, 2, 3));
    EXPECT_EQ(offset.nodes[1], Vec3(4, 5, 6));
}

TEST(NodeSection, RestoresDecimalAndLeavesTheRestOfTheSection) {
    Mesh mesh;
    std::istringstream input("(1 1 1 0 3)(1.5 -2e1 .25) 10 tail)");
    readNodeSection(input, 3, mesh.nodes);
    ASSERT_EQ(mesh.nodes.size(), 1u);
    EXPECT_EQ(mesh.nodes[0], Vec3(1.5, -20, 0.25));
    int32_t next = 0;
    input >> next;
    EXPECT_EQ(next, 10);  // 16 if the stream were still hexadecimal
    EXPECT_EQ(rest(input), " tail)");
}

TEST(NodeSection, PlanarRunReadsTwoCoordinatesWhateverNdSays) {
    Mesh mesh(2);
    readNodes(mesh, "(1 1 3 0 3)(1 2 3 4 5 6)", 2);
    ASSERT_EQ(mesh.nodes.size(), 3u);
    EXPECT_EQ(mesh.nodes[0], Vec3(1, 2, 0));
    EXPECT_EQ(mesh.nodes[1], Vec3(3, 4, 0));
    EXPECT_EQ(mesh.nodes[2], Vec3(5, 6, 0));
}

TEST(NodeSection, LaterSectionReplacesEntriesFromZero) {
    Mesh mesh;
    readNodes(mesh, "(1 1 3 0 3)(1 1 1 2 2 2 3 3 3)");
    readNodes(mesh, "(2 4 5 0 3)(7 7 7 8 8 8)");  // shrinks to two entries
    ASSERT_EQ(mesh.nodes.size(), 2u);
    EXPECT_EQ(mesh.nodes[0], Vec3(7, 7, 7));
    EXPECT_EQ(mesh.nodes[1], Vec3(8, 8, 8));
    readNodes(mesh, "(3 1 3 0 3)(4 4 4 5 5 5 6 6 6)");  // grows again
    ASSERT_EQ(mesh.nodes.size(), 3u);
    EXPECT_EQ(mesh.nodes[0], Vec3(4, 4, 4));
    EXPECT_EQ(mesh.nodes[2], Vec3(6, 6, 6));
    readNodes(mesh, "(4 5 1 0 3)()");  // a reversed range holds no nodes
    EXPECT_TRUE(mesh.nodes.empty());
}

TEST(NodeSectionDeathTest, MalformedSectionsEndTheProcess) {
    const char* header = "file i/o error: couldn't read node section header";
    const char* body = "file i/o error: couldn't read node section body";
    Mesh mesh;
    EXPECT_EXIT(readNodes(mesh, ""), ExitedWithCode(1), header);
    EXPECT_EXIT(readNodes(mesh, "1 1 2 0 3)(0 0 0 1 1 1)"), ExitedWithCode(1), header);
    EXPECT_EXIT(readNodes(mesh, "(1 1 2 0 3"), ExitedWithCode(1), header);
    EXPECT_EXIT(readNodes(mesh, "(1 1 2 0 3 (x)"), ExitedWithCode(1), header);
    EXPECT_EXIT(readNodes(mesh, "(1 1 zz 0 3)(0 0 0 1 1 1)"), ExitedWithCode(1), header);
    EXPECT_EXIT(readNodes(mesh, "(1 1 2 0 3) 0 0 0 1 1 1)"), ExitedWithCode(1), body);
    EXPECT_EXIT(readNodes(mesh, "(1 1 2 0 3)(0 0 0 1 1)"), ExitedWithCode(1), body);
    EXPECT_EXIT(readNodes(mesh, "(1 1 2 0 3)(0 0 0 1 1 1"), ExitedWithCode(1), body);
    EXPECT_EXIT(readNodes(mesh, "(1 1 2 0 3)(0 0 0 1 x 1)"), ExitedWithCode(1), body);
}

TEST(NodeSectionDeathTest, HugeCountOverShortBodyFailsWithoutAllocatingIt) {
    // Two billion nodes of three doubles would be 48 GB; the body holds two.
    Mesh mesh;
    EXPECT_EXIT(readNodes(mesh, "(1 1 7fffffff 1 3)(1 2 3 4 5 6)"), ExitedWithCode(1),
                "file i/o error: couldn't read node section body");
    // 7fffffff - (-80000000) + 1 = 2^32 overflows an int.
    EXPECT_EXIT(readNodes(mesh, "(1 -80000000 7fffffff 1 3)(1 2 3)"), ExitedWithCode(1),
                "file i/o error: couldn't read node section body");
}

TEST(NodeSectionDeathTest, DimensionOutsideOneToThreeIsACallerBug) {
    // The run passes 2 or 3; a wrong code must not turn into out-of-range writes.
    Mesh mesh;
    for (int32_t dimension : {0, 4})
        EXPECT_DEATH(readNodes(mesh, "(1 1 1 0 3)(1 2 3 4)", dimension),
                     "Assertion 'dimension >= 1 && dimension <= 3' failed");
}

// ---- face section ----

TEST(FaceSection, FixedSizeElementTypesReadThatManyNodes) {
    struct Case {
        int elementType;
        std::string body;
        IntVector start, nodes;
    };
    const Case cases[] = {
        {2, "1 2 2 3", {0, 2, 4}, {0, 1, 1, 2}},
        {3, "1 2 3 4 5 6", {0, 3, 6}, {0, 1, 2, 3, 4, 5}},
        {4, "1 2 3 4 5 6 7 8", {0, 4, 8}, {0, 1, 2, 3, 4, 5, 6, 7}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.elementType);
        Mesh mesh;
        const std::string header = "(5 1 2 3 " + std::to_string(c.elementType) + ")";
        EXPECT_EQ(readFaces(mesh, header + "(" + c.body + ") after)"), " after)");
        EXPECT_EQ(mesh.allFaces.faceNodeStart, c.start);
        EXPECT_EQ(mesh.allFaces.faceNodes, c.nodes);
        EXPECT_EQ(mesh.allFaces.faceId, (IntVector{0, 1}));
        EXPECT_EQ(mesh.allFaces.faceGlob, (IntVector{-1, -1}));
        EXPECT_EQ(mesh.allFaces.faceZoneType, (IntVector{3, 3}));
        EXPECT_EQ(mesh.allFaces.faceZoneIndex, (IntVector{0, 0}));
        EXPECT_EQ(mesh.participatingFaces.faceNodeStart, c.start);
        EXPECT_EQ(mesh.participatingFaces.faceNodes, c.nodes);
        EXPECT_EQ(mesh.zones.zoneFaceStart, (IntVector{0, 2}));
        EXPECT_EQ(mesh.zones.zoneElementType, IntVector{c.elementType});
    }
}

TEST(FaceSection, MixedAndPolygonFacesLeadWithTheirCount) {
    for (int elementType : {0, 5}) {
        SCOPED_TRACE(elementType);
        Mesh mesh;
        // A quad, a line, a face without nodes (count 0, then -2), and a triangle
        // whose first node number is 0, stored as -1.
        readFaces(mesh, "(7 10 14 12 " + std::to_string(elementType) +
                            ")(4 1 2 3 4\n 2 5 6\n 0\n -2\n 3 0 7 8))");
        EXPECT_EQ(mesh.allFaces.faceNodeStart, (IntVector{0, 4, 6, 6, 6, 9}));
        EXPECT_EQ(mesh.allFaces.faceNodes, (IntVector{0, 1, 2, 3, 4, 5, -1, 6, 7}));
        EXPECT_EQ(mesh.allFaces.faceId, (IntVector{0, 1, 2, 3, 4}));
        // The empty faces are left out of the participating set, which keeps the
        // allFaces numbers of the others.
        EXPECT_EQ(mesh.participatingFaces.faceId, (IntVector{0, 1, 4}));
        EXPECT_EQ(mesh.participatingFaces.faceNodeStart, (IntVector{0, 4, 6, 9}));
        EXPECT_EQ(mesh.participatingFaces.faceNodes, (IntVector{0, 1, 2, 3, 4, 5, -1, 6, 7}));
        EXPECT_EQ(mesh.participatingFaces.faceZoneType, (IntVector{12, 12, 12}));
        EXPECT_EQ(mesh.zones.zoneFaceStart, (IntVector{0, 5}));
        EXPECT_EQ(mesh.zones.zoneFirst, IntVector{10});
        EXPECT_EQ(mesh.zones.zoneLast, IntVector{14});
    }
}

TEST(FaceSection, ParticipationFollowsZoneType) {
    const int participating[] = {1999, 2007, 2008, 2012, 0, -1, -2000, INT_MIN};
    const int absorbing[] = {2000, 2001, 2006, 2009, 2010, 2011, 2013, INT_MAX};
    for (int zoneType : participating) {
        Mesh mesh;
        readFaces(mesh, "(1 1 2 " + std::to_string(zoneType) + " 2)(1 2 2 3))");
        EXPECT_EQ(mesh.participatingFaces.faceCount(), 2) << zoneType;
        EXPECT_EQ(mesh.participatingFaces.faceZoneType, IntVector(2, zoneType));
    }
    for (int zoneType : absorbing) {
        Mesh mesh;
        readFaces(mesh, "(1 1 2 " + std::to_string(zoneType) + " 2)(1 2 2 3))");
        EXPECT_EQ(mesh.allFaces.faceCount(), 2) << zoneType;
        EXPECT_EQ(mesh.zones.zoneType, IntVector{zoneType});
        EXPECT_EQ(mesh.participatingFaces.faceCount(), 0) << zoneType;
        EXPECT_TRUE(mesh.participatingFaces.faceNodes.empty());
        EXPECT_EQ(mesh.participatingFaces.faceNodeStart, IntVector{0});
    }
}

TEST(FaceSection, FaceNumbersAreGlobalAcrossZones) {
    Mesh mesh;
    readFaces(mesh, "(1 1 3 3 2)(1 2 2 3 3 4))");
    readFaces(mesh, "(2 1 2 2010 2)(4 5 5 6))");  // absorbing: allFaces only
    readFaces(mesh, "(3 1 2 3 2)(6 7 7 8))");
    EXPECT_EQ(mesh.allFaces.faceId, (IntVector{0, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(mesh.allFaces.faceZoneIndex, (IntVector{0, 0, 0, 1, 1, 2, 2}));
    EXPECT_EQ(mesh.participatingFaces.faceId, (IntVector{0, 1, 2, 5, 6}));
    EXPECT_EQ(mesh.participatingFaces.faceZoneIndex, (IntVector{0, 0, 0, 2, 2}));
    EXPECT_EQ(mesh.participatingFaces.faceNodes, (IntVector{0, 1, 1, 2, 2, 3, 5, 6, 6, 7}));
    EXPECT_EQ(mesh.zones.zoneFaceStart, (IntVector{0, 3, 5, 7}));
}

TEST(FaceSection, ReversedRangeAddsNoFacesButLowersTheRunningTotal) {
    Mesh mesh;
    readFaces(mesh, "(1 1 2 3 2)(1 2 2 3))");
    readFaces(mesh, "(2 5 3 3 2)(9 9 9))");  // 3 - 5 + 1 = -1; the body is skipped
    EXPECT_EQ(mesh.allFaces.faceCount(), 2);
    EXPECT_EQ(mesh.zones.zoneFaceStart, (IntVector{0, 2, 1}));
    // The next zone numbers its faces from the header total, not from the count.
    readFaces(mesh, "(3 1 1 3 2)(4 5))");
    EXPECT_EQ(mesh.allFaces.faceId, (IntVector{0, 1, 1}));
    EXPECT_EQ(mesh.participatingFaces.faceId, (IntVector{0, 1, 1}));
}

TEST(FaceSection, RepeatedZoneIdTakesTheFirstZoneIndex) {
    Mesh mesh;
    readFaces(mesh, "(4 1 1 3 2)(1 2))");
    readFaces(mesh, "(9 1 1 3 2)(2 3))");
    readFaces(mesh, "(4 1 1 2012 2)(3 4))");
    EXPECT_EQ(mesh.zones.zoneCount(), 3);
    EXPECT_EQ(mesh.allFaces.faceZoneIndex, (IntVector{0, 1, 0}));
    EXPECT_EQ(mesh.allFaces.faceZoneType, (IntVector{3, 3, 2012}));
}

TEST(FaceSection, SkipsExtraHeaderAndBodyContent) {
    Mesh mesh;
    EXPECT_EQ(readFaces(mesh, "(1 1 1 3 2 (extra) 99)(1 2 (x (y)) 3) next"), " next");
    EXPECT_EQ(mesh.allFaces.faceNodes, (IntVector{0, 1}));
}

// Prints the zone table's size when the process exits, to show what was registered
// before a fatal error.
const ZoneTable* zonesAtExit = nullptr;
void printZonesAtExit() {
    std::fprintf(stderr, "zones at exit: %d\n", zonesAtExit->zoneCount());
}

TEST(FaceSectionDeathTest, UnsupportedElementTypeEndsAfterRegisteringTheZone) {
    for (int elementType : {1, 6, -1, 7}) {
        Mesh mesh;
        EXPECT_EXIT(
            {
                zonesAtExit = &mesh.zones;
                std::atexit(printZonesAtExit);
                readFaces(mesh, "(1 1 2 3 " + std::to_string(elementType) + ")(1 2 3 4))");
            },
            ExitedWithCode(1),
            "^file i/o error: element type not supported\nzones at exit: 1\n$");
    }
}

TEST(FaceSectionDeathTest, MalformedSectionsEndTheProcess) {
    const char* header = "file i/o error: couldn't read face section header";
    const char* body = "file i/o error: couldn't read face section body";
    Mesh mesh;
    EXPECT_EXIT(readFaces(mesh, ""), ExitedWithCode(1), header);
    EXPECT_EXIT(readFaces(mesh, "1 1 1 3 2)(1 2))"), ExitedWithCode(1), header);
    EXPECT_EXIT(readFaces(mesh, "(1 1 1 3 2"), ExitedWithCode(1), header);
    EXPECT_EXIT(readFaces(mesh, "(1 one 1 3 2)(1 2))"), ExitedWithCode(1), header);
    EXPECT_EXIT(readFaces(mesh, "(1 1 1 3 2) 1 2)"), ExitedWithCode(1), body);
    EXPECT_EXIT(readFaces(mesh, "(1 1 2 3 2)(1 2 3)"), ExitedWithCode(1), body);
    EXPECT_EXIT(readFaces(mesh, "(1 1 2 3 2)(1 2 3 4"), ExitedWithCode(1), body);
    EXPECT_EXIT(readFaces(mesh, "(1 1 1 3 0)(3 1 2)"), ExitedWithCode(1), body);
    EXPECT_EXIT(readFaces(mesh, "(1 1 1 3 5)(x 1 2)"), ExitedWithCode(1), body);
}

TEST(FaceSectionDeathTest, HugeCountsOverShortBodiesFailWithoutAllocatingThem) {
    const char* body = "file i/o error: couldn't read face section body";
    Mesh mesh;
    EXPECT_EXIT(readFaces(mesh, "(1 1 2147483647 3 3)(1 2 3 4 5 6))"), ExitedWithCode(1), body);
    EXPECT_EXIT(readFaces(mesh, "(1 -2147483648 2147483647 3 3)(1 2 3))"), ExitedWithCode(1),
                body);
    // One polygon that claims two billion nodes.
    EXPECT_EXIT(readFaces(mesh, "(1 1 1 3 5)(2147483647 1 2 3))"), ExitedWithCode(1), body);
}

// ---- glob section ----

TEST(GlobSection, NumbersTheNamedZonesFacesOnly) {
    Mesh mesh;
    readFaces(mesh, "(1 1 2 3 2)(1 2 2 3))");
    readFaces(mesh, "(2 1 3 3 2)(3 4 4 5 5 6))");
    std::istringstream input("(2 0 0 0 0 (x))(7 -1 12 (y) 5) tail");
    readGlobSection(input, mesh.allFaces, mesh.participatingFaces, mesh.zones);
    EXPECT_EQ(rest(input), " tail");
    EXPECT_EQ(mesh.allFaces.faceGlob, (IntVector{-1, -1, 7, -1, 12}));
    // The participating set learns its numbers only at the end of the sequence.
    EXPECT_EQ(mesh.participatingFaces.faceGlob, IntVector(5, -1));
    // An empty zone reads nothing.
    readFaces(mesh, "(3 2 1 3 2)())");
    readGlobs(mesh, "(3 0 0 0 0)())");
    EXPECT_EQ(mesh.allFaces.faceGlob, (IntVector{-1, -1, 7, -1, 12}));
}

TEST(GlobSectionDeathTest, MalformedSectionsEndTheProcess) {
    const char* header = "file i/o error: couldn't read glob section header";
    const char* body = "file i/o error: couldn't read glob section body";
    const char* badId = "file i/o error: invalid id index";
    Mesh mesh;
    readFaces(mesh, "(1 1 2 3 2)(1 2 2 3))");
    EXPECT_EXIT(readGlobs(mesh, ""), ExitedWithCode(1), header);
    EXPECT_EXIT(readGlobs(mesh, "1 0 0 0 0)(4 5)"), ExitedWithCode(1), header);
    EXPECT_EXIT(readGlobs(mesh, "(1 0 0 0 0 (x)"), ExitedWithCode(1), header);
    EXPECT_EXIT(readGlobs(mesh, "(1 0 0 0 0) 4 5)"), ExitedWithCode(1), body);
    EXPECT_EXIT(readGlobs(mesh, "(1 0 0 0 0)(4)"), ExitedWithCode(1), body);
    EXPECT_EXIT(readGlobs(mesh, "(1 0 0 0 0)(4 five)"), ExitedWithCode(1), body);
    EXPECT_EXIT(readGlobs(mesh, "(1 0 0 0 0)(4 5"), ExitedWithCode(1), body);
    EXPECT_EXIT(readGlobs(mesh, "(8 0 0 0 0)(4 5)"), ExitedWithCode(1), badId);
}

TEST(GlobSectionDeathTest, ZoneRangeOutsideTheFacesIsAnInvalidIndex) {
    // A reversed zone lowers the running total to -3, so the next zone's range is
    // [-3, -1) while allFaces holds its two faces at 0 and 1.
    Mesh mesh;
    readFaces(mesh, "(1 5 1 3 2)())");
    readFaces(mesh, "(2 1 2 3 2)(1 2 2 3))");
    EXPECT_EQ(mesh.zones.zoneFaceStart, (IntVector{0, -3, -1}));
    EXPECT_EXIT(readGlobs(mesh, "(2 0 0 0 0)(4 5))"), ExitedWithCode(1),
                "file i/o error: invalid id index");
    // The reversed zone's own range [0, -3) is empty and reads nothing.
    readGlobs(mesh, "(1 0 0 0 0)())");
    EXPECT_EQ(mesh.allFaces.faceGlob, (IntVector{-1, -1}));
}

// ---- periodic section ----

TEST(PeriodicSection, RotationalPairTurnsTheShadowBack) {
    Mesh mesh;
    readFaces(mesh, "(1 1 1 3 2)(1 2))");
    readFaces(mesh, "(6 1 1 2012 2)(2 3))");
    readFaces(mesh, "(8 1 1 2008 2)(3 4))");
    EXPECT_EQ(readPeriodic(mesh, "(6 8 (x)) 1 30.5 1 2 3 0 0 -1 extra)"), " extra)");
    EXPECT_EQ(mesh.zones.periodicShadow, (IntVector{-1, 2, -1}));
    EXPECT_EQ(mesh.zones.periodicType, (IntVector{0, 1, 1}));
    EXPECT_EQ(mesh.zones.periodicAngle, (std::vector<double>{0, 30.5, -30.5}));
    EXPECT_EQ(mesh.zones.periodicAxisA[1], Vec3(1, 2, 3));
    EXPECT_EQ(mesh.zones.periodicAxisB[1], Vec3(0, 0, -1));
    EXPECT_EQ(mesh.zones.periodicAxisA[2], Vec3(1, 2, 3));
    EXPECT_EQ(mesh.zones.periodicAxisB[2], Vec3(0, 0, -1));
    EXPECT_EQ(mesh.zones.periodicShift[1], Vec3());
    EXPECT_EQ(mesh.zones.periodicShift[2], Vec3());
    EXPECT_EQ(mesh.zones.periodicAxisA[0], Vec3());
    // Any non-zero type is rotational.
    EXPECT_EQ(readPeriodic(mesh, "(1 6) -3 90 0 0 0 1 0 0)"), ")");
    EXPECT_EQ(mesh.zones.periodicType, (IntVector{-3, -3, 1}));
    EXPECT_EQ(mesh.zones.periodicAngle, (std::vector<double>{90, -90, -30.5}));
    EXPECT_EQ(mesh.zones.periodicShadow, (IntVector{1, 2, -1}));
}

TEST(PeriodicSection, TranslationalPairShiftsTheShadowBack) {
    Mesh mesh(2);
    readFaces(mesh, "(6 1 1 2012 2)(2 3))");
    readFaces(mesh, "(8 1 1 2008 2)(3 4))");
    // Three components are read even in a planar run.
    EXPECT_EQ(readPeriodic(mesh, "(6 8) 0 1.5 -2 0.25)"), ")");
    EXPECT_EQ(mesh.zones.periodicShadow, (IntVector{1, -1}));
    EXPECT_EQ(mesh.zones.periodicType, (IntVector{0, 0}));
    EXPECT_EQ(mesh.zones.periodicShift[0], Vec3(1.5, -2, 0.25));
    EXPECT_EQ(mesh.zones.periodicShift[1], Vec3(-1.5, 2, -0.25));
    EXPECT_EQ(mesh.zones.periodicAngle, (std::vector<double>{0, 0}));
    EXPECT_EQ(mesh.zones.periodicAxisA[0], Vec3());
    EXPECT_EQ(mesh.zones.periodicAxisB[1], Vec3());
}

TEST(PeriodicSectionDeathTest, MalformedSectionsEndTheProcess) {
    Mesh mesh;
    readFaces(mesh, "(6 1 1 2012 2)(2 3))");
    readFaces(mesh, "(8 1 1 2008 2)(3 4))");
    EXPECT_EXIT(readPeriodic(mesh, "6 8) 0 1 2 3)"), ExitedWithCode(1),
                "file i/o error: couldn't read periodic section header");
    // An unterminated header is reported with the body message.
    EXPECT_EXIT(readPeriodic(mesh, "(6 8 0 1 2 3"), ExitedWithCode(1),
                "file i/o error: couldn't read periodic section body");
    EXPECT_EXIT(readPeriodic(mesh, "(7 8) 0 1 2 3)"), ExitedWithCode(1),
                "file i/o error: invalid id index");
    EXPECT_EXIT(readPeriodic(mesh, "(6 7) 0 1 2 3)"), ExitedWithCode(1),
                "file i/o error: invalid id index");
}

}  // namespace
}  // namespace hemiray
