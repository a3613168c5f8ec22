// The thirteen run parameters from the text section and from the host's packed
// block; both must give the same values field by field.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

#include "MeshFixture.h"
#include "input/ParameterSection.h"

namespace hemiray {
namespace {

// Field-by-field comparison so that a failure names the parameter.
void expectSameParameters(const RunParameters& a, const RunParameters& b) {
    EXPECT_EQ(a.param1, b.param1);
    EXPECT_EQ(a.hemisphereResolution, b.hemisphereResolution);
    EXPECT_EQ(a.param3, b.param3);
    EXPECT_EQ(a.param4, b.param4);
    EXPECT_EQ(a.param5, b.param5);
    EXPECT_EQ(a.param6, b.param6);
    EXPECT_EQ(a.param7, b.param7);
    EXPECT_EQ(a.param8, b.param8);
    EXPECT_EQ(a.param9, b.param9);
    EXPECT_EQ(a.param10, b.param10);
    EXPECT_EQ(a.param11, b.param11);
    EXPECT_EQ(a.param12, b.param12);
    EXPECT_EQ(a.param13, b.param13);
}

using test::rest;

// The values of "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)", written out by field.
RunParameters sampleParameters() {
    RunParameters p;
    p.param1 = 1;
    p.hemisphereResolution = 8;
    p.param3 = 0;
    p.param4 = 0.5;
    p.param5 = 1;
    p.param6 = 1;
    p.param7 = 0.25;
    p.param8 = 2;
    p.param9 = 3;
    p.param10 = 1e-3;
    p.param11 = 4;
    p.param12 = 5;
    p.param13 = 6;
    return p;
}

TEST(ParameterSection, ReadsThirteenValuesInOrder) {
    std::istringstream input("  (1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6) (10 next");
    RunParameters parameters;
    EXPECT_TRUE(readParameterSection(input, parameters));
    expectSameParameters(parameters, sampleParameters());
    EXPECT_EQ(rest(input), " (10 next");
}

TEST(ParameterSection, SkipsWhateverFollowsTheThirteenthValue) {
    for (const char* text : {"(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6 (x (y)) z)",
                             "(\n1\t8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6 7 8.5 ((())) )"}) {
        std::istringstream input(text);
        RunParameters parameters;
        EXPECT_TRUE(readParameterSection(input, parameters)) << text;
        expectSameParameters(parameters, sampleParameters());
        EXPECT_EQ(rest(input), "") << text;
    }
}

TEST(ParameterSection, FailsWithoutOpeningOrClosingParenthesis) {
    {
        // Only the offending character is consumed.
        std::istringstream input("x(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)");
        RunParameters parameters;
        EXPECT_FALSE(readParameterSection(input, parameters));
        EXPECT_EQ(rest(input), "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)");
        expectSameParameters(parameters, RunParameters{});
    }
    for (const char* text : {"", "   ", "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6",
                             "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6 (x)",
                             "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6 ((x)",
                             "(1 8 0 half 1 1 0.25 2 3 1e-3 4 5 6)",
                             "(1 8 0 0.5 1 1)"}) {
        std::istringstream input(text);
        RunParameters parameters;
        EXPECT_FALSE(readParameterSection(input, parameters)) << text;
    }
}

TEST(ParameterBlock, CopiesFieldsByNameNotPosition) {
    // The host block written by hand: three doubles, then ten int32 with param13
    // before param12, at an odd address because the host promises no alignment.
    const double doubles[3] = {0.5, 0.25, 1e-3};
    const int32_t ints[10] = {1, 8, 0, 1, 1, 2, 3, 4, /*param13*/ 9, /*param12*/ 7};
    unsigned char bytes[1 + sizeof doubles + sizeof ints];
    std::memcpy(bytes + 1, doubles, sizeof doubles);
    std::memcpy(bytes + 1 + sizeof doubles, ints, sizeof ints);
    RunParameters fromBlock;
    copyParameterBlock(bytes + 1, fromBlock);

    // The same run as text: the twelfth value is 7, the thirteenth 9.
    std::istringstream input("(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 7 9)");
    RunParameters fromText;
    ASSERT_TRUE(readParameterSection(input, fromText));
    expectSameParameters(fromBlock, fromText);
    EXPECT_EQ(fromBlock.param12, 7);
    EXPECT_EQ(fromBlock.param13, 9);
}

}  // namespace
}  // namespace hemiray
