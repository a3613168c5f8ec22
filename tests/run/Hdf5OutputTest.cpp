// Runs with ".h5" names end to end: the HDF5 result, read back by the result reader
// of `hemiray check`, holds the model and the rows of a text run of the same model
// (the layout itself is checked with the bare HDF5 library in Hdf5ResultWriterTest);
// the console lines of the mode; and failures that leave the input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "ResultFile.h"
#include "input/MeshFixture.h"
#include "support/Hdf5Read.h"
#include "support/RunHelpers.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using testing::exampleText;
using testing::fileCount;
using testing::Hdf5File;
using testing::readDataset;
using testing::readFile;
using testing::runLibrary;
using testing::ScratchDir;
using testing::writeFile;

// The text result writes 9 significant digits of model doubles.
void expectNear9(const std::vector<Vec3>& expected, const std::vector<Vec3>& actual,
                 const char* what) {
    ASSERT_EQ(expected.size(), actual.size()) << what;
    for (size_t i = 0; i < expected.size(); ++i)
        for (int k = 0; k < 3; ++k)
            EXPECT_LE(std::abs(expected[i][k] - actual[i][k]),
                      1e-8 * std::max(1.0, std::abs(expected[i][k])))
                << what << " " << i;
}

struct ExampleRun {
    const char* name;
    int n;
    int resolution;
};

class Hdf5Output : public ::testing::TestWithParam<ExampleRun> {};

// Both runs start from the same random state, so their rows are the same rows.
TEST_P(Hdf5Output, HoldsTheModelAndRowsOfTheTextRun) {
    const ExampleRun example = GetParam();
    ScratchDir dir;
    const std::string text = exampleText(example.name, example.n, example.resolution);
    writeFile(dir.file("m"), text);
    writeFile(dir.file("m.h5"), text);
    const uint32_t randomState = threadRandomState();
    setThreadRandomState(1);
    const auto textRun = runLibrary(dir.file("m"));
    setThreadRandomState(1);
    const auto hdf5Run = runLibrary(dir.file("m.h5"));
    setThreadRandomState(randomState);
    ASSERT_EQ(textRun.result, 1) << textRun.err;
    ASSERT_EQ(hdf5Run.result, 1) << hdf5Run.err;
    EXPECT_EQ(hdf5Run.err, "");

    cli::ResultFile expected, actual;
    std::string error;
    ASSERT_TRUE(cli::readResultFile(dir.file("m"), expected, error)) << error;
    ASSERT_TRUE(cli::readResultFile(dir.file("m.h5"), actual, error)) << error;
    ASSERT_FALSE(expected.hdf5);
    ASSERT_TRUE(actual.hdf5);
    const SizeSection &x = expected.sizes, &y = actual.sizes;
    EXPECT_EQ(std::tie(x.size1, x.size2, x.zoneCount, x.globCount, x.dimension),
              std::tie(y.size1, y.size2, y.zoneCount, y.globCount, y.dimension));
    // Parameter values are short decimals, exact after 9 digits.
    EXPECT_EQ(test::fields(actual.parameters), test::fields(expected.parameters));
    expectNear9(expected.nodes, actual.nodes, "nodes");
    test::expectSameFaces(actual.allFaces, expected.allFaces);
    test::expectSameFaces(actual.participatingFaces, expected.participatingFaces);
    const ZoneTable &a = actual.zones, &e = expected.zones;
    EXPECT_EQ(std::tie(a.zoneFaceStart, a.zoneId, a.zoneType, a.zoneElementType, a.zoneFirst,
                       a.zoneLast, a.periodicType, a.periodicShadow),
              std::tie(e.zoneFaceStart, e.zoneId, e.zoneType, e.zoneElementType, e.zoneFirst,
                       e.zoneLast, e.periodicType, e.periodicShadow));
    std::vector<Vec3> expectedAngles, actualAngles;
    for (double angle : e.periodicAngle) expectedAngles.push_back({angle, 0, 0});
    for (double angle : a.periodicAngle) actualAngles.push_back({angle, 0, 0});
    expectNear9(expectedAngles, actualAngles, "angles");
    expectNear9(e.periodicAxisA, a.periodicAxisA, "axis points");
    expectNear9(e.periodicAxisB, a.periodicAxisB, "axis directions");
    expectNear9(e.periodicShift, a.periodicShift, "shifts");

    // Text rows keep 6 decimals.
    EXPECT_EQ(actual.activeGlobs, expected.activeGlobs);
    ASSERT_EQ(actual.rows.size(), expected.rows.size());
    size_t entries = 0;
    for (size_t r = 0; r < expected.rows.size(); ++r) {
        const cli::SparseRow &row = actual.rows[r], &truth = expected.rows[r];
        EXPECT_EQ(row.columns, truth.columns) << "row " << r;
        ASSERT_EQ(row.values.size(), truth.values.size());
        for (size_t k = 0; k < row.values.size(); ++k)
            EXPECT_LE(std::abs(row.values[k] - truth.values[k]), 5.0000001e-7) << "row " << r;
        entries += row.columns.size();
    }
    EXPECT_GT(entries, 0u);
}

INSTANTIATE_TEST_SUITE_P(ExampleModels, Hdf5Output,
                         ::testing::Values(ExampleRun{"plates", 2, 6},
                                           ExampleRun{"plates-mirror", 2, 6},
                                           ExampleRun{"plates-periodic", 2, 6},
                                           ExampleRun{"room", 1, 6},
                                           ExampleRun{"sphere", 2, 4},
                                           ExampleRun{"cylinder", 3, 8},
                                           ExampleRun{"polygon", 1, 8},
                                           ExampleRun{"ring-periodic", 3, 8}),
                         [](const ::testing::TestParamInfo<ExampleRun>& run) {
                             std::string name = run.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(Hdf5OutputRun, CompressedInputGivesAnHdf5ResultAndNoClosingLine) {
    ScratchDir dir;
    // ".h5" anywhere in the name selects the mode; ".gz" the decompressor.
    const std::string name = dir.file("m.h5.gz");
    writeFile(dir.file("src"), exampleText("polygon", 1, 8));
    ASSERT_EQ(std::system(("gzip -c " + dir.file("src") + " > " + name).c_str()), 0);
    testing::RunOptions options;
    options.header = "a header";
    options.headerFlag = true;
    const auto r = runLibrary(name, options);
    ASSERT_EQ(r.result, 1) << r.err;
    EXPECT_EQ(r.err, "");
    // The lines of the text run of this model, without "#\t100% done!".
    EXPECT_EQ(testing::withoutTimings(r.out),
              "# Read parameter section...\n"
              "# Create BSP tree...\n"
              "# Maximum tree depth = 5\n"
              "# Calculate and write view factors...\n"
              "#\t 20% done...\n#\t 30% done...\n#\t 40% done...\n"
              "#\t 50% done...\n#\t 60% done...\n#\t 70% done...\n#\t 80% done...\n"
              "#\t 90% done...\n");
    EXPECT_NE(r.out.find("\n# CPU  time: "), std::string::npos);
    EXPECT_NE(r.out.find(" (s)\n# Wall time: "), std::string::npos);

    Hdf5File file(name);
    ASSERT_TRUE(file.ok());
    EXPECT_EQ(testing::stringAttribute(file, "/", "headerText"), "a header");
    EXPECT_EQ(testing::intAttribute(file, "/", "headerFlag"), 1);
    EXPECT_EQ(readDataset(file, "viewFactors/rowStart").integer.size(), 9u);  // 8 globs
    EXPECT_EQ(fileCount(dir.path()), 2u);
}

// Death-test body: runs the library in the child process as an unprivileged user
// (when the tests run as root, for whom permissions do not apply) or under a limit
// on the size of files, and exits with its result.
[[noreturn]] void runRestricted(const std::string& name, bool unprivileged, rlim_t fileSize) {
    if (unprivileged && geteuid() == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) std::exit(3);
        // Changing user makes the process undumpable, which would keep the leak
        // checker of sanitizer builds from inspecting it at exit.
        prctl(PR_SET_DUMPABLE, 1);
    }
    if (fileSize != RLIM_INFINITY) {
        std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit then fails with EFBIG
        const rlimit limit{fileSize, fileSize};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) std::exit(3);
    }
    std::exit(raytracing_lib(0, name.c_str(), nullptr, 0, 1, 1, nullptr, "t", false, false, 0));
}

// The model is readable, its folder is not writable: the result cannot be
// created beside it.
TEST(Hdf5OutputRun, UnwritableFolderFailsWithAnErrorLineAndKeepsTheInput) {
    ScratchDir dir;
    const std::string folder = dir.file("readonly");
    const std::string name = folder + "/m.h5";
    const std::string text = exampleText("polygon", 1, 8);
    std::filesystem::create_directory(folder);
    writeFile(name, text);
    std::filesystem::permissions(name, std::filesystem::perms(0444));
    std::filesystem::permissions(folder, std::filesystem::perms(0555));
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0711));
    EXPECT_EXIT(runRestricted(name, true, RLIM_INFINITY), ::testing::ExitedWithCode(0),
        "^error: couldn't open output file: .*/readonly/m\\.h5\n"
        "error: couldn't calculate view factors!\n$");
    EXPECT_EQ(readFile(name), text);
    EXPECT_EQ(fileCount(folder), 1u);
    std::filesystem::permissions(folder, std::filesystem::perms(0755));
}

// A file-size limit below the size of the result makes HDF5's writes fail part
// of the way through; the run reports it and the model stays as it was.
TEST(Hdf5OutputRun, WriteFailureKeepsTheInput) {
    ScratchDir dir;
    const std::string name = dir.file("m.h5");
    const std::string text = exampleText("room", 2, 4);
    writeFile(name, text);
    EXPECT_EXIT(runRestricted(name, false, 8192), ::testing::ExitedWithCode(0),
        "error: couldn't write output file: .*/m\\.h5\n"
        "error: couldn't calculate view factors!\n$");
    EXPECT_EQ(readFile(name), text);
    EXPECT_EQ(fileCount(dir.path()), 1u);
}

}  // namespace
}  // namespace hemiray
