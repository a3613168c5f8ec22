// Whole runs against result files written by hand from the format description,
// and the properties a host relies on: text and binary rows agree, gzip output is
// the plain output compressed, a result reads back as the same model with the same
// rows, and the output does not depend on the number of threads.
#include <gtest/gtest.h>

#include <cmath>
#include <omp.h>
#include <sstream>

#include "ResultFile.h"
#include "models/ExampleModels.h"
#include "support/RunHelpers.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using testing::readFile;
using testing::RunOptions;
using testing::runLibrary;
using testing::ScratchDir;
using testing::writeFile;

std::string goldenPath(const std::string& name) {
    return std::string(HEMIRAY_TEST_DATA_DIR) + "/golden/" + name;
}

// Runs a copy of a model and returns the result file's bytes.
std::string runCopy(const ScratchDir& dir, const std::string& name, const std::string& model,
                    const RunOptions& options = {}) {
    writeFile(dir.file(name), model);
    const auto r = runLibrary(dir.file(name), options);
    EXPECT_EQ(r.result, 1) << r.err;
    EXPECT_EQ(r.err, "");
    return readFile(dir.file(name));
}

std::string exampleText(const std::string& name, int n, int resolution) {
    models::Model model;
    EXPECT_TRUE(models::makeExample(name, n, resolution, model)) << name;
    std::ostringstream text;
    models::writeModelText(text, model);
    return text.str();
}

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
    const std::string result = runCopy(dir, "model", readFile(goldenPath(c.model)), c.options);
    EXPECT_EQ(result, readFile(goldenPath(c.expected)));
}

INSTANTIATE_TEST_SUITE_P(
    ThreeModes, GoldenResult,
    ::testing::Values(GoldenCase{"box3d.msh", "box3d.expected", {false, false, 1, "golden", false}},
                      GoldenCase{"box3d.msh", "box3d-binary.expected", {true, false, 1, "golden", false}},
                      GoldenCase{"box3d.msh", "box3d.expected", {false, true, 2, "golden", false}},
                      GoldenCase{"channel2d.msh", "channel2d.expected", {false, false, 1, "planar channel", true}},
                      GoldenCase{"cylinder-axi.msh", "cylinder-axi.expected", {false, false, 1, "axisymmetric cylinder", false}}),
    [](const auto& param) {
        std::string name = param.param.expected;
        for (char& ch : name)
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return name + (param.param.options.threads > 1 ? "_2threads" : "");
    });

TEST(ResultFile, TextAndBinaryRowsAgree) {
    ScratchDir dir;
    for (const char* name : {"room", "cylinder", "ring-periodic"}) {
        const std::string text = exampleText(name, 2, 8);
        setThreadRandomState(1);
        runCopy(dir, "text", text);
        setThreadRandomState(1);
        runCopy(dir, "binary", text, {true});
        cli::ResultFile textResult, binaryResult;
        std::string error;
        ASSERT_TRUE(cli::readResultFile(dir.file("text"), textResult, error)) << error;
        ASSERT_TRUE(cli::readResultFile(dir.file("binary"), binaryResult, error)) << error;
        EXPECT_FALSE(textResult.binaryRows);
        EXPECT_TRUE(binaryResult.binaryRows);
        ASSERT_EQ(textResult.activeGlobs, binaryResult.activeGlobs);
        ASSERT_EQ(textResult.rows.size(), binaryResult.rows.size());
        for (size_t r = 0; r < textResult.rows.size(); ++r) {
            EXPECT_EQ(textResult.rows[r].columns, binaryResult.rows[r].columns) << name << " row " << r;
            for (size_t k = 0; k < textResult.rows[r].values.size(); ++k)
                // Text keeps 6 decimals, binary a float: both within their rounding.
                EXPECT_NEAR(textResult.rows[r].values[k], binaryResult.rows[r].values[k], 6e-7)
                    << name << " row " << r;
        }
    }
}

TEST(ResultFile, GzipOutputIsThePlainOutputCompressed) {
    ScratchDir dir;
    const std::string text = exampleText("polygon", 2, 8);
    const std::string plain = runCopy(dir, "m", text);
    writeFile(dir.file("src"), text);
    ASSERT_EQ(std::system(("gzip -c " + dir.file("src") + " > " + dir.file("m.gz")).c_str()), 0);
    ASSERT_EQ(runLibrary(dir.file("m.gz")).result, 1);
    ASSERT_EQ(std::system(("gzip -dc < " + dir.file("m.gz") + " > " + dir.file("unzipped")).c_str()), 0);
    EXPECT_EQ(readFile(dir.file("unzipped")), plain);
}

// A result read again as input skips its rows and writes the same file again:
// the same head sections (so the same model) and the same rows.
TEST(ResultFile, ReadAgainGivesTheSameModelAndRows) {
    ScratchDir dir;
    for (const char* name : {"plates", "room-mirror", "plates-periodic", "cylinder", "polygon",
                             "ring-periodic"}) {
        setThreadRandomState(1);
        const std::string first = runCopy(dir, "m", exampleText(name, 2, 6));
        setThreadRandomState(1);
        const std::string second = runCopy(dir, "again", first);
        EXPECT_EQ(second, first) << name;
    }
}

// Rows are computed in blocks of as many globs as slots and written in glob order,
// so planar and axisymmetric results (no random numbers) are the same bytes for
// any thread count.
TEST(ResultFile, PlanarAndAxisymmetricRowsDoNotDependOnThreads) {
    ScratchDir dir;
    const int available = omp_get_max_threads();
    for (const char* name : {"polygon", "ring-periodic", "cylinder"}) {
        const std::string text = exampleText(name, 3, 10);
        omp_set_num_threads(1);
        const std::string one = runCopy(dir, "one", text, {false, true, 1});
        omp_set_num_threads(2);
        const std::string two = runCopy(dir, "two", text, {false, true, 2});
        omp_set_num_threads(3);
        const std::string three = runCopy(dir, "three", text, {false, true, 3});
        EXPECT_EQ(one, two) << name;
        EXPECT_EQ(one, three) << name;
    }
    omp_set_num_threads(available);
}

// 3D frames are turned by each thread's own generator, which starts afresh in a
// new process: two runs on two threads in fresh processes give the same bytes.
TEST(ResultFileDeathTest, ThreeDimensionalRowsRepeatInFreshProcesses) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The child re-runs this test from the start in a new process, so the folder is
    // named after the parent to be the same in both.
    const pid_t parent = ::testing::internal::InDeathTestChild() ? getppid() : getpid();
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("hemiray-fresh-" + std::to_string(parent));
    const std::string text = exampleText("room", 2, 8);
    if (!::testing::internal::InDeathTestChild()) {
        std::filesystem::create_directories(folder);
        writeFile((folder / "a").string(), text);
        writeFile((folder / "b").string(), text);
    }
    auto runInFreshProcess = [&](const std::string& name) {
        const std::string path = (folder / name).string();
        EXPECT_EXIT(
            {
                omp_set_num_threads(2);
                const int ok = raytracing_lib(0, path.c_str(), nullptr, 1, 2, 1, nullptr, "x",
                                              false, false, 0);
                std::exit(ok == 1 ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), "");
    };
    runInFreshProcess("a");
    runInFreshProcess("b");
    const std::string a = readFile((folder / "a").string());
    EXPECT_NE(a, text);  // the runs did write results
    EXPECT_EQ(a, readFile((folder / "b").string()));
    std::filesystem::remove_all(folder);
}

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

}  // namespace
}  // namespace hemiray
