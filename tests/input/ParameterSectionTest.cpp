// The thirteen run parameters of the text section; the host's block form is in
// MeshBlockTest.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "MeshFixture.h"

namespace hemiray {
namespace {

using test::fields;
using test::rest;

TEST(ParameterSection, ReadsThirteenValuesAndSkipsWhateverFollows) {
    const auto expected = fields(RunParameters{1, 8, 0, 0.5, 1, 1, 0.25, 2, 3, 1e-3, 4, 5, 6});
    const std::pair<const char*, const char*> cases[] = {
        {"  (1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6) (10 next", " (10 next"},
        {"(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6 (x (y)) z)", ""},
        {"(\n1\t8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6 7 8.5 ((())) )", ""},
    };
    for (const auto& [text, left] : cases) {
        std::istringstream input(text);
        RunParameters parameters;
        EXPECT_TRUE(readParameterSection(input, parameters)) << text;
        EXPECT_EQ(fields(parameters), expected) << text;
        EXPECT_EQ(rest(input), left) << text;
    }
}

TEST(ParameterSection, FailsWithoutItsParenthesesOrValues) {
    // Only the offending character is consumed, and nothing is stored.
    std::istringstream input("x(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)");
    RunParameters parameters;
    EXPECT_FALSE(readParameterSection(input, parameters));
    EXPECT_EQ(rest(input), "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)");
    EXPECT_EQ(fields(parameters), fields(RunParameters{}));
    for (const char* text :
         {"", "   ", "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6", "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6 (x)",
          "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6 ((x)", "(1 8 0 half 1 1 0.25 2 3 1e-3 4 5 6)",
          "(1 8 0 0.5 1 1)"}) {
        std::istringstream bad(text);
        EXPECT_FALSE(readParameterSection(bad, parameters)) << text;
    }
}

}  // namespace
}  // namespace hemiray
