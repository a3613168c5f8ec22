// Whole runs against result files written by hand from the format description, a
// model without rows, and the progress file. (A result read again as input and
// thread independence are in EndToEndTest; runs on two threads in fresh processes,
// where 3D rows must repeat, are the hemiray tool's BlockRunsMatchTextRuns.)
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "run/InputSource.h"
#include "run/RunDriver.h"
#include "support/RunHelpers.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using testing::exampleText;
using testing::readFile;
using testing::runLibrary;
using testing::RunOptions;
using testing::ScratchDir;
using testing::writeFile;

// The three golden models are built so that every row is known without running the
// code: in each, the rays of a glob can only end on one other glob (the rest of the
// enclosure is mirror or periodic), so the factor is 1 whatever the directions.
// - box3d: a unit cube, floor and ceiling globs, four mirror walls given as a mixed
//   zone, and an absorbing triangle outside the box (type 2003, no glob).
// - channel2d: a planar unit square, bottom and top globs, the sides a translational
//   periodic pair; written with the -1 header flag.
// - cylinder-axi: axisymmetric, the end disk at x = 0 (glob 0), the mantle (glob 1)
//   and a mirror disk at x = 2 whose glob id 1 makes glob 1 inactive (its last face
//   is not a wall). The cylinder is long enough that no ray from the disk returns to
//   it before meeting the mantle.
struct GoldenCase {
    const char* model;
    const char* expected;
    RunOptions options;
};

class GoldenResult : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(GoldenResult, RunWritesTheHandWrittenFile) {
    const GoldenCase& c = GetParam();
    ScratchDir dir;
    writeFile(dir.file("model"), readFile(testing::goldenPath(c.model)));
    const auto r = runLibrary(dir.file("model"), c.options);
    EXPECT_EQ(r.result, 1) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(readFile(dir.file("model")), readFile(testing::goldenPath(c.expected)));
}

INSTANTIATE_TEST_SUITE_P(
    ThreeModes, GoldenResult,
    ::testing::Values(
        GoldenCase{"box3d.msh", "box3d.expected", {false, false, 1, "golden", false}},
        GoldenCase{"box3d.msh", "box3d-binary.expected", {true, false, 1, "golden", false}},
        GoldenCase{"box3d.msh", "box3d.expected", {false, true, 2, "golden", false}},
        GoldenCase{
            "channel2d.msh", "channel2d.expected", {false, false, 1, "planar channel", true}},
        GoldenCase{"cylinder-axi.msh",
                   "cylinder-axi.expected",
                   {false, false, 1, "axisymmetric cylinder", false}}),
    [](const auto& param) {
        std::string name = param.param.expected;
        for (char& ch : name)
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return name + (param.param.options.threads > 1 ? "_2threads" : "");
    });

TEST(ResultFile, NoActiveGlobStillClosesTheRowSection) {
    ScratchDir dir;
    // One wall face without a glob: no row, yet "))" and the 100 % line.
    const std::string text =
        "(1 0 1 0 2)\n(0 4 0 0 0 0 0 0 0 0 0 0 0)\n(10 (1 1 2 1 2)(0 0\n1 0))\n"
        "(311 (1 1 1 3 2)(1 2))\n";
    writeFile(dir.file("m"), text);
    const auto r = runLibrary(dir.file("m"));
    ASSERT_EQ(r.result, 1) << r.err;
    EXPECT_EQ(testing::withoutTimings(r.out),
              "# Read parameter section...\n# Create BSP tree...\n# Maximum tree depth = 2\n"
              "# Calculate and write view factors...\n#\t100% done!\n");
    const std::string result = readFile(dir.file("m"));
    EXPECT_EQ(result.substr(result.size() - 13), "(308 (0)\n())\n");
}

// Hosts that watch a run read the progress file: "<percent>" and "." on two lines,
// rewritten at each 10 % step and "100" at the end. The entry point has no argument
// for it, so the driver is called directly.
TEST(ResultFile, ProgressFileEndsAtOneHundred) {
    ScratchDir dir;
    writeFile(dir.file("m"), exampleText("polygon", 3, 6));
    auto input = openInputSource(dir.file("m"));
    SizeSection sizes;
    ASSERT_TRUE(readSizeSection(*input, sizes));
    ::testing::internal::CaptureStdout();
    const bool ok =
        calculateViewFactors(std::move(input), dir.file("m"), dir.file("progress"), false, false,
                             sizes.dimension, sizes.size1, sizes.size2, sizes.zoneCount,
                             sizes.globCount, 1, true, nullptr, "p", false, false, 0);
    const std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_TRUE(ok);
    EXPECT_NE(out.find("#\t 90% done..."), std::string::npos);
    EXPECT_EQ(readFile(dir.file("progress")), "100\n.\n");
}

}  // namespace
}  // namespace hemiray
