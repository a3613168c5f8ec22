// Section framing: skipping nested expressions, dispatch by section id, the flush
// up to each section's ")", the end of the sequence, and the final copy of glob
// numbers. Bad input of every kind must end in the reader's own two outcomes:
// a complete model, or "file i/o error: ..." and exit status 1.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
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

// ---- skipExpression ----

TEST(SkipExpression, StopsAfterTheMatchingParenthesis) {
    struct Case {
        const char* text;
        const char* left;
    };
    // The opening "(" has already been read in every case.
    const Case cases[] = {
        {")", ""},
        {"a b) c", " c"},
        {"(x (y)) z) tail", " tail"},
        {"(())))x", ")x"},
        {"\n(\t)\n)(", "("},
        {"\"a)\" b", "\" b"},  // no quoting: the ")" inside the quotes closes it
    };
    for (const Case& c : cases) {
        std::istringstream input(c.text);
        EXPECT_TRUE(skipExpression(input)) << c.text;
        EXPECT_EQ(rest(input), c.left) << c.text;
    }
}

TEST(SkipExpression, FailsWhenTheStreamEndsFirst) {
    for (const char* text : {"", "abc", "(x)", "((a)", "(()"}) {
        std::istringstream input(text);
        EXPECT_FALSE(skipExpression(input)) << text;
        EXPECT_TRUE(input.fail()) << text;
    }
    // A stream that has already failed stays failed.
    std::istringstream failed("x)");
    failed.setstate(std::ios_base::failbit);
    EXPECT_FALSE(skipExpression(failed));
}

TEST(SkipExpression, MillionDeepNestingNeedsNoStack) {
    const std::string open(millionDeep, '(');
    const std::string close(millionDeep, ')');
    std::istringstream balanced(open + close + ")Z");
    EXPECT_TRUE(skipExpression(balanced));
    EXPECT_EQ(rest(balanced), "Z");
    // One ")" short: the outermost expression never closes.
    std::istringstream unbalanced(open + close);
    EXPECT_FALSE(skipExpression(unbalanced));
    std::istringstream onlyOpen(open);
    EXPECT_FALSE(skipExpression(onlyOpen));
}

// ---- reportInputError ----

const char* atExitText = nullptr;
void printAtExit() { std::fputs(atExitText, stderr); }

TEST(ReportInputErrorDeathTest, PrintsOneLineAndExitsNormally) {
    EXPECT_EXIT(reportInputError("some message"), ExitedWithCode(1),
                "^file i/o error: some message\n$");
    // A normal exit: handlers registered with atexit still run afterwards.
    EXPECT_EXIT(
        {
            atExitText = "handler ran\n";
            std::atexit(printAtExit);
            reportInputError("x");
        },
        ExitedWithCode(1), "^file i/o error: x\nhandler ran\n$");
}

// ---- readMeshSections ----

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
    // Zone 4 absorbs: its faces stay out of the participating set, which still
    // finds the glob numbers of the others through their allFaces positions.
    EXPECT_EQ(mesh.participatingFaces.faceId, (IntVector{0, 1, 4, 5}));
    EXPECT_EQ(mesh.participatingFaces.faceGlob, (IntVector{10, 11, 12, -1}));
    EXPECT_EQ(mesh.participatingFaces.faceZoneIndex, (IntVector{0, 0, 2, 3}));
    EXPECT_EQ(mesh.zones.periodicShadow, (IntVector{-1, -1, 3, -1}));
    EXPECT_EQ(mesh.zones.periodicAngle, (std::vector<double>{0, 0, 45, -45}));
    EXPECT_EQ(mesh.zones.periodicAxisB[3], Vec3(0, 0, 1));
}

TEST(MeshSections, EmptyOrSectionlessInputGivesAnEmptyModel) {
    for (const char* text : {"", "   \n\t", "end", ")"}) {
        Mesh mesh;
        mesh.read(text);
        EXPECT_TRUE(mesh.nodes.empty()) << text;
        EXPECT_EQ(mesh.allFaces.faceCount(), 0) << text;
        EXPECT_EQ(mesh.participatingFaces.faceCount(), 0) << text;
        EXPECT_EQ(mesh.zones.zoneCount(), 0) << text;
    }
}

TEST(MeshSections, StrayWordEndsTheSequenceSilently) {
    Mesh mesh;
    const std::string left =
        mesh.read(sampleSections[0] + "\nstray " + sampleSections[1] + " (12 (x))");
    EXPECT_EQ(mesh.nodes.size(), 4u);
    EXPECT_EQ(mesh.zones.zoneCount(), 0);  // the face section after the word is not read
    EXPECT_EQ(left, "tray " + sampleSections[1] + " (12 (x))");
}

TEST(MeshSections, SkipsSection308AndExtraTokensAfterBodies) {
    Mesh mesh;
    mesh.read(
        "(308 (a (b ((c)) d) \")(\" ) more (()))"
        "(10 (1 1 1 0 3)(1 2 3) extra 42 (tokens (nested)) -)"
        "(308)"
        "(311 (1 1 1 3 2)(1 1) (x) y)");
    EXPECT_EQ(mesh.nodes, NodeArray{Vec3(1, 2, 3)});
    EXPECT_EQ(mesh.allFaces.faceNodes, (IntVector{0, 0}));
}

TEST(MeshSections, MillionDeepNestingInsideA308Section) {
    Mesh mesh;
    mesh.read("(308 " + std::string(millionDeep, '(') + std::string(millionDeep, ')') +
              ")(10 (1 1 1 0 3)(4 5 6))");
    EXPECT_EQ(mesh.nodes, NodeArray{Vec3(4, 5, 6)});
}

TEST(MeshSections, PlanarRunReadsTwoCoordinatesPerNode) {
    Mesh mesh(2);
    mesh.read("(10 (1 1 2 1 3)(1 2 3 4))(311 (1 1 1 3 2)(1 2))", 2);
    EXPECT_EQ(mesh.nodes, (NodeArray{{1, 2, 0}, {3, 4, 0}}));
    EXPECT_EQ(mesh.allFaces.faceCount(), 1);
}

TEST(MeshSections, GlobCopyGoesThroughTheRecordedFaceNumbers) {
    // A reversed zone lowers the running total by three, so the next zone numbers
    // its faces -1, 0, 1: the first lies outside allFaces and keeps -1, the others
    // pick up the numbers of the first zone's faces, as recorded.
    Mesh mesh;
    mesh.read("(311 (1 1 2 3 2)(1 2 2 3))(309 (1 0 0 0 0)(7 8))"
              "(311 (2 5 1 3 2)())(311 (3 1 3 3 2)(1 2 2 3 3 4))");
    EXPECT_EQ(mesh.zones.zoneFaceStart, (IntVector{0, 2, -1, 2}));
    EXPECT_EQ(mesh.allFaces.faceGlob, (IntVector{7, 8, -1, -1, -1}));
    EXPECT_EQ(mesh.participatingFaces.faceId, (IntVector{0, 1, -1, 0, 1}));
    EXPECT_EQ(mesh.participatingFaces.faceGlob, (IntVector{7, 8, -1, 7, 8}));
}

TEST(MeshSectionsDeathTest, FramingErrorsEndTheProcess) {
    const char* unknown = "file i/o error: unknown sectionId";
    const char* flush = "file i/o error: couldn't flush expression";
    Mesh mesh;
    EXPECT_EXIT(mesh.read("(12 (...))"), ExitedWithCode(1), unknown);
    EXPECT_EXIT(mesh.read(sampleSections[0] + "(0 (x))"), ExitedWithCode(1), unknown);
    EXPECT_EXIT(mesh.read("(x (y))"), ExitedWithCode(1), unknown);
    EXPECT_EXIT(mesh.read("("), ExitedWithCode(1), unknown);
    EXPECT_EXIT(mesh.read("(10 (1 1 1 0 3)(1 2 3)"), ExitedWithCode(1), flush);
    EXPECT_EXIT(mesh.read("(308 (a) (b"), ExitedWithCode(1), flush);
    EXPECT_EXIT(mesh.read("(308 " + std::string(millionDeep, '(')), ExitedWithCode(1), flush);
    // A value that does not parse in the periodic data fails the flush.
    EXPECT_EXIT(mesh.read("(311 (1 1 1 3 2)(1 2))(311 (2 1 1 3 2)(1 2))(18 (1 2) 0 1 x 3)"),
                ExitedWithCode(1), flush);
}

TEST(MeshSectionsDeathTest, GlobSectionBeforeItsFaceSection) {
    Mesh mesh;
    EXPECT_EXIT(mesh.read("(309 (3 0 0 0 0)(1 2))(311 (3 1 2 3 2)(1 2 2 3))"),
                ExitedWithCode(1), "file i/o error: invalid id index");
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
            EXPECT_EXIT({ mesh.read(prefix); std::exit(0); }, ExitedWithCode(0), "^$")
                << "prefix length " << length;
        } else {
            EXPECT_EXIT(mesh.read(prefix), ExitedWithCode(1), "^file i/o error: [a-zA-Z ']+\n$")
                << "prefix length " << length;
        }
    }
}

TEST(MeshSectionsDeathTest, BinaryGarbageEndsInADefinedWay) {
    // Fixed cases whose outcome is known.
    Mesh mesh;
    mesh.read(std::string("\x00\xff\x80(10", 6));
    EXPECT_TRUE(mesh.nodes.empty());
    EXPECT_EXIT(mesh.read(std::string("(\xff\xfe\x00\x01))", 7)), ExitedWithCode(1),
                "file i/o error: unknown sectionId");
    EXPECT_EXIT(mesh.read(std::string("(10 (\x01\x02 3)(", 11)), ExitedWithCode(1),
                "file i/o error: couldn't read node section header");
    EXPECT_EXIT(mesh.read(std::string("(311 (1 1 2 3 3)(\x7f\x00", 19)), ExitedWithCode(1),
                "file i/o error: couldn't read face section body");

    // Seeded random text: section openings and number-like tokens mixed with raw
    // bytes, so that the readers get past their headers. Each run must end either
    // cleanly with nothing printed or with exactly one input error line.
    const auto cleanOrInputError = [](int status) {
        return WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 1);
    };
    const char* tokens[] = {"(", ")", "(10 ", "(311 ", "(309 ", "(18 ", "(308 ", " ",
                            "1", "2", "3", "-1", "a", "7fffffff", "0.5", "\n", "2012"};
    std::mt19937 random(20240611);
    for (int trial = 0; trial < 200; ++trial) {
        std::string text;
        const int pieces = 1 + static_cast<int>(random() % 60);
        for (int p = 0; p < pieces; ++p) {
            if (random() % 4 == 0)
                text += static_cast<char>(random() % 256);
            else
                text += tokens[random() % std::size(tokens)];
        }
        Mesh fresh;
        EXPECT_EXIT({ fresh.read(text); std::exit(0); }, cleanOrInputError,
                    "^(file i/o error: [a-zA-Z ']+\n)?$")
            << "trial " << trial;
    }
}

}  // namespace
}  // namespace hemiray
