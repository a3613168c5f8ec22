// Section framing: skipping nested expressions, dispatch by section id, the flush
// up to each section's ")", the end of the sequence and the final copy of glob
// numbers; and every fatal message of the mesh readers. Bad input of every kind must
// end in the reader's own two outcomes: a complete model, or one
// "file i/o error: ..." line and exit status 1.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "MeshFixture.h"

namespace hemiray {
namespace {

using test::Mesh;
using test::rest;
using ::testing::ExitedWithCode;
using IntVector = std::vector<int32_t>;

constexpr size_t millionDeep = 1'000'000;

TEST(SkipExpression, StopsAfterTheMatchingParenthesisOrFails) {
    const std::string open(millionDeep, '('), close(millionDeep, ')');
    // The opening "(" has already been read. nullptr: the stream ends first.
    const std::pair<std::string, const char*> cases[] = {
        {")", ""},
        {"a b) c", " c"},
        {"(x (y)) z) tail", " tail"},
        {"(())))x", ")x"},
        {"\n(\t)\n)(", "("},
        {"\"a)\" b", "\" b"},  // no quoting: the ")" inside the quotes closes it
        {"", nullptr},
        {"abc", nullptr},
        {"(x)", nullptr},
        {"((a)", nullptr},
        // A million levels need no stack; one ")" short, the outermost never closes.
        {open + close + ")Z", "Z"},
        {open + close, nullptr},
    };
    for (const auto& [text, left] : cases) {
        SCOPED_TRACE(text.substr(0, 20));
        std::istringstream input(text);
        EXPECT_EQ(skipExpression(input), left != nullptr);
        if (left) {
            EXPECT_EQ(rest(input), left);
        } else {
            EXPECT_TRUE(input.fail());
        }
    }
    // A stream that has already failed stays failed.
    std::istringstream failed("x)");
    failed.setstate(std::ios_base::failbit);
    EXPECT_FALSE(skipExpression(failed));
}

// A small 3D mesh exercising every section: four nodes, a wall of two triangles
// (zone 3), an absorbing zone of one line-less polygon and a quad (zone 4, type
// 2010), a periodic pair of line zones (5 and 6), globs for zones 3, 5 and 4, a
// skipped 308 section, and one rotational periodic section.
const std::vector<std::string> sampleSections = {
    "(10 (0 1 4 1 3)(\n0 0 0\n1 0 0\n0 1 0\n0 0 1\n))",
    "(311 (3 1 2 3 3)(\n1 2 3\n1 3 4\n))",
    "(311 (4 1 2 2010 5)(\n4 1 2 3 4\n0\n))",
    "(308 (label \"wall (inner)\" (((x))) ) body)",
    "(311 (5 1 1 2012 2)(\n1 2\n))",
    "(311 (6 1 1 2008 2)(\n3 4\n))",
    "(309 (3 0 0 0 0)(\n10 11\n))",
    "(309 (5 0 0 0 0)(\n12\n))",
    "(309 (4 0 0 0 0)(\n20 21\n))",
    "(18 (5 6) 1 45 0 0 0 0 0 1 trailing (stuff))",
};

std::string join(const std::vector<std::string>& sections, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += sections[i] + "\n";
    return text;
}

TEST(MeshSections, ReadsEverySectionKindIntoTheModel) {
    Mesh mesh;
    EXPECT_EQ(mesh.read(join(sampleSections, sampleSections.size())), "");
    EXPECT_EQ(mesh.nodes, (NodeArray{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}));
    EXPECT_EQ(mesh.zones.zoneId, (IntVector{3, 4, 5, 6}));
    EXPECT_EQ(mesh.zones.zoneFaceStart, (IntVector{0, 2, 4, 5, 6}));
    EXPECT_EQ(mesh.allFaces.faceId, (IntVector{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(mesh.allFaces.faceNodeStart, (IntVector{0, 3, 6, 10, 10, 12, 14}));
    EXPECT_EQ(mesh.allFaces.faceNodes, (IntVector{0, 1, 2, 0, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3}));
    EXPECT_EQ(mesh.allFaces.faceGlob, (IntVector{10, 11, 20, 21, 12, -1}));
    EXPECT_EQ(mesh.allFaces.faceZoneType, (IntVector{3, 3, 2010, 2010, 2012, 2008}));
    // Zone 4 absorbs: its faces stay out of the participating set, which still
    // finds the glob numbers of the others through their allFaces positions.
    EXPECT_EQ(mesh.participatingFaces.faceId, (IntVector{0, 1, 4, 5}));
    EXPECT_EQ(mesh.participatingFaces.faceGlob, (IntVector{10, 11, 12, -1}));
    EXPECT_EQ(mesh.participatingFaces.faceZoneIndex, (IntVector{0, 0, 2, 3}));
    EXPECT_EQ(mesh.zones.periodicShadow, (IntVector{-1, -1, 3, -1}));
    EXPECT_EQ(mesh.zones.periodicAngle, (std::vector<double>{0, 0, 45, -45}));
    EXPECT_EQ(mesh.zones.periodicAxisB[3], Vec3(0, 0, 1));
}

TEST(MeshSections, SequenceEndsQuietlyWhereNoSectionStarts) {
    // Random text of every kind is the model_text fuzz target's work (fuzz/).
    for (const std::string& text : {std::string(), std::string("   \n\t"), std::string("end"),
                                     std::string(")"), std::string("\x00\xff\x80(10", 6)}) {
        Mesh mesh;
        mesh.read(text);
        EXPECT_TRUE(mesh.nodes.empty() && mesh.allFaces.faceCount() == 0 &&
                    mesh.participatingFaces.faceCount() == 0 && mesh.zones.zoneCount() == 0)
            << text;
    }
    // A stray word ends it after its first character; the face section is not read.
    Mesh mesh;
    EXPECT_EQ(mesh.read(sampleSections[0] + "\nstray " + sampleSections[1]),
              "tray " + sampleSections[1]);
    EXPECT_EQ(mesh.nodes.size(), 4u);
    EXPECT_EQ(mesh.zones.zoneCount(), 0);
}

TEST(MeshSections, SkipsSection308AndExtraTokensInHeadersAndBodies) {
    Mesh mesh;
    mesh.read(
        "(308 (a (b ((c)) d) \")(\" ) more (()))"
        "(10 (1 1 1 0 3)(1 2 3) extra 42 (tokens (nested)) -)"
        "(308 " +
        std::string(millionDeep, '(') + std::string(millionDeep, ')') +
        ")"
        "(311 (1 1 1 3 2 (extra) 99)(1 1 (x (y)) 3) (x) y)");
    EXPECT_EQ(mesh.nodes, NodeArray{Vec3(1, 2, 3)});
    EXPECT_EQ(mesh.allFaces.faceNodes, (IntVector{0, 0}));
}

TEST(MeshSections, GlobCopyGoesThroughTheRecordedFaceNumbers) {
    // A reversed zone lowers the running total by three, so the next zone numbers
    // its faces -1, 0, 1: the first lies outside allFaces and keeps -1, the others
    // pick up the numbers of the first zone's faces, as recorded.
    Mesh mesh;
    mesh.read(
        "(311 (1 1 2 3 2)(1 2 2 3))(309 (1 0 0 0 0)(7 8))"
        "(311 (2 5 1 3 2)())(311 (3 1 3 3 2)(1 2 2 3 3 4))");
    EXPECT_EQ(mesh.zones.zoneFaceStart, (IntVector{0, 2, -1, 2}));
    EXPECT_EQ(mesh.allFaces.faceGlob, (IntVector{7, 8, -1, -1, -1}));
    EXPECT_EQ(mesh.participatingFaces.faceId, (IntVector{0, 1, -1, 0, 1}));
    EXPECT_EQ(mesh.participatingFaces.faceGlob, (IntVector{7, 8, -1, 7, 8}));
}

// Every fatal message, each from a text that reaches it, read as a run reads a
// file. Counts of two billion over short bodies must fail on the body, without
// allocating what they claim (48 GB of nodes).
TEST(MeshSectionsDeathTest, MalformedTextEndsTheProcessWithItsMessage) {
    const std::string node = "(10 ", face = "(311 ";
    const std::string glob = "(311 (1 1 2 3 2)(1 2 2 3))(309 ";
    const std::string pair = "(311 (6 1 1 2012 2)(2 3))(311 (8 1 1 2008 2)(3 4))(18 ";
    const char* unknown = "unknown sectionId";
    const char* flush = "couldn't flush expression";
    const char* badId = "invalid id index";
    const char* nodeHeader = "couldn't read node section header";
    const char* nodeBody = "couldn't read node section body";
    const char* faceHeader = "couldn't read face section header";
    const char* faceBody = "couldn't read face section body";
    const char* globHeader = "couldn't read glob section header";
    const char* globBody = "couldn't read glob section body";
    const std::pair<std::string, const char*> cases[] = {
        {"(12 (...))", unknown},
        {sampleSections[0] + "(0 (x))", unknown},
        {"(x (y))", unknown},
        {"(", unknown},
        {std::string("(\xff\xfe\x00\x01))", 7), unknown},
        {"(10 (1 1 1 0 3)(1 2 3)", flush},
        {"(308 (a) (b", flush},
        {"(308 " + std::string(millionDeep, '('), flush},
        {pair + "(6 8) 0 1 x 3)", flush},  // a value of the pair that does not parse
        {node, nodeHeader},
        {node + "1 1 2 0 3)(0 0 0 1 1 1)", nodeHeader},
        {node + "(1 1 2 0 3", nodeHeader},
        {node + "(1 1 2 0 3 (x)", nodeHeader},
        {node + "(1 1 zz 0 3)(0 0 0 1 1 1)", nodeHeader},
        {node + "(\x01\x02 3)(", nodeHeader},
        {node + "(1 1 2 0 3) 0 0 0 1 1 1)", nodeBody},
        {node + "(1 1 2 0 3)(0 0 0 1 1)", nodeBody},
        {node + "(1 1 2 0 3)(0 0 0 1 1 1", nodeBody},
        {node + "(1 1 2 0 3)(0 0 0 1 x 1)", nodeBody},
        {node + "(1 1 7fffffff 1 3)(1 2 3 4 5 6)", nodeBody},
        {node + "(1 -80000000 7fffffff 1 3)(1 2 3)", nodeBody},  // 2^32 nodes
        {face, faceHeader},
        {face + "1 1 1 3 2)(1 2))", faceHeader},
        {face + "(1 1 1 3 2", faceHeader},
        {face + "(1 one 1 3 2)(1 2))", faceHeader},
        {face + "(1 1 1 3 2) 1 2)", faceBody},
        {face + "(1 1 2 3 2)(1 2 3)", faceBody},
        {face + "(1 1 2 3 2)(1 2 3 4", faceBody},
        {face + "(1 1 1 3 0)(3 1 2)", faceBody},
        {face + "(1 1 1 3 5)(x 1 2)", faceBody},
        {face + std::string("(1 1 2 3 3)(\x7f\x00", 14), faceBody},
        {face + "(1 1 2147483647 3 3)(1 2 3 4 5 6))", faceBody},
        {face + "(1 -2147483648 2147483647 3 3)(1 2 3))", faceBody},
        {face + "(1 1 1 3 5)(2147483647 1 2 3))", faceBody},  // a polygon of 2^31 - 1 nodes
        {glob, globHeader},
        {glob + "1 0 0 0 0)(4 5)", globHeader},
        {glob + "(1 0 0 0 0 (x)", globHeader},
        {glob + "(1 0 0 0 0) 4 5)", globBody},
        {glob + "(1 0 0 0 0)(4)", globBody},
        {glob + "(1 0 0 0 0)(4 five)", globBody},
        {glob + "(1 0 0 0 0)(4 5", globBody},
        {glob + "(8 0 0 0 0)(4 5)", badId},
        {"(309 (3 0 0 0 0)(1 2))(311 (3 1 2 3 2)(1 2 2 3))", badId},  // globs before faces
        // The reversed zone lowers the running total to -3, so the next zone's range
        // is [-3, -1) while allFaces holds its faces at 0 and 1.
        {"(311 (1 5 1 3 2)())(311 (2 1 2 3 2)(1 2 2 3))(309 (2 0 0 0 0)(4 5))", badId},
        {pair + "6 8) 0 1 2 3)", "couldn't read periodic section header"},
        // An unterminated pair header is reported with the body message.
        {pair + "(6 8 0 1 2 3", "couldn't read periodic section body"},
        {pair + "(7 8) 0 1 2 3)", badId},
        {pair + "(6 7) 0 1 2 3)", badId},
    };
    for (const auto& [text, message] : cases) {
        Mesh mesh;
        EXPECT_EXIT(mesh.read(text), ExitedWithCode(1),
                    std::string("^file i/o error: ") + message + "\n$")
            << text.substr(0, 80);
    }
}

// Prints the zone table's size when the process exits, to show that the zone was
// registered before the fatal error and that the exit is a normal one.
const ZoneTable* zonesAtExit = nullptr;
void printZonesAtExit() {
    std::fprintf(stderr, "zones at exit: %d\n", zonesAtExit->zoneCount());
}

TEST(MeshSectionsDeathTest, UnsupportedElementTypeEndsAfterRegisteringTheZone) {
    for (int elementType : {1, 6, -1, 7}) {
        Mesh mesh;
        EXPECT_EXIT(
            {
                zonesAtExit = &mesh.zones;
                std::atexit(printZonesAtExit);
                mesh.read("(311 (1 1 2 3 " + std::to_string(elementType) + ")(1 2 3 4))");
            },
            ExitedWithCode(1), "^file i/o error: element type not supported\nzones at exit: 1\n$");
    }
}

// Every prefix of a good file either ends between two sections, where the reader
// stops cleanly, or inside one, where it must report an error: never anything else.
TEST(MeshSectionsDeathTest, EveryTruncationEndsInAnErrorOrACleanStop) {
    const std::string text = join(sampleSections, sampleSections.size());
    std::vector<size_t> sectionEnds;  // prefix lengths that cut between sections
    for (size_t count = 0; count <= sampleSections.size(); ++count) {
        const size_t length = join(sampleSections, count).size();
        sectionEnds.push_back(length);
        if (length > 0) sectionEnds.push_back(length - 1);  // before the newline
    }
    for (size_t length = 0; length <= text.size(); ++length) {
        const std::string prefix = text.substr(0, length);
        const bool betweenSections =
            std::find(sectionEnds.begin(), sectionEnds.end(), length) != sectionEnds.end();
        Mesh mesh;
        if (betweenSections) {
            EXPECT_EXIT(
                {
                    mesh.read(prefix);
                    std::exit(0);
                },
                ExitedWithCode(0), "^$")
                << "prefix length " << length;
        } else {
            EXPECT_EXIT(mesh.read(prefix), ExitedWithCode(1), "^file i/o error: [a-zA-Z ']+\n$")
                << "prefix length " << length;
        }
    }
}

}  // namespace
}  // namespace hemiray
