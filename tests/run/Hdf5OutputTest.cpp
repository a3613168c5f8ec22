// Runs with ".h5" names end to end: for the example models the HDF5 result, read
// with the bare HDF5 library, holds the model and the rows of a text run of the
// same model; the console lines of the mode; and failures that leave the input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "ResultFile.h"
#include "models/ExampleModels.h"
#include "support/Hdf5Read.h"
#include "support/RunHelpers.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using testing::Hdf5File;
using testing::readDataset;
using testing::readFile;
using testing::runLibrary;
using testing::ScratchDir;
using testing::writeFile;

std::string modelText(const std::string& name, int n, int resolution) {
    models::Model model;
    EXPECT_TRUE(models::makeExample(name, n, resolution, model)) << name;
    std::ostringstream text;
    models::writeModelText(text, model);
    return text.str();
}

size_t fileCount(const ScratchDir& dir) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir.path()), {}));
}

// The text result writes 9 significant digits of model doubles and 6 decimals of
// view factors.
void expectNear9(double expected, double actual, const std::string& what) {
    EXPECT_LE(std::abs(expected - actual), 1e-8 * std::max(1.0, std::abs(expected))) << what;
}

template <typename T>
std::vector<int64_t> widen(const std::vector<T>& v) {
    return {v.begin(), v.end()};
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
    const std::string text = modelText(example.name, example.n, example.resolution);
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

    cli::ResultFile expected;
    std::string error;
    ASSERT_TRUE(cli::readResultFile(dir.file("m"), expected, error)) << error;
    ASSERT_FALSE(expected.hdf5);
    Hdf5File file(dir.file("m.h5"));
    ASSERT_TRUE(file.ok());

    EXPECT_EQ(testing::intAttribute(file, "/", "size1"), expected.sizes.size1);
    EXPECT_EQ(testing::intAttribute(file, "/", "size2"), expected.sizes.size2);
    EXPECT_EQ(testing::intAttribute(file, "/", "zoneCount"), expected.sizes.zoneCount);
    EXPECT_EQ(testing::intAttribute(file, "/", "globCount"), expected.sizes.globCount);
    EXPECT_EQ(testing::intAttribute(file, "/", "dimension"), expected.sizes.dimension);
    EXPECT_EQ(testing::stringAttribute(file, "/", "headerText"), "test");
    EXPECT_EQ(testing::intAttribute(file, "/", "headerFlag"), 0);

    const RunParameters& p = expected.parameters;
    EXPECT_EQ(testing::intAttribute(file, "/parameters", "param1"), p.param1);
    EXPECT_EQ(testing::intAttribute(file, "/parameters", "hemisphereResolution"),
              p.hemisphereResolution);
    EXPECT_EQ(testing::intAttribute(file, "/parameters", "param13"), p.param13);
    expectNear9(p.param4, testing::doubleAttribute(file, "/parameters", "param4"), "param4");
    expectNear9(p.param10, testing::doubleAttribute(file, "/parameters", "param10"), "param10");

    const size_t coordinates = expected.sizes.dimension == 3 ? 3 : 2;
    const auto nodes = readDataset(file, "nodes");
    ASSERT_EQ(nodes.dims, (std::vector<hsize_t>{expected.nodes.size(), coordinates}));
    for (size_t i = 0; i < expected.nodes.size(); ++i)
        for (size_t k = 0; k < coordinates; ++k)
            expectNear9(expected.nodes[i][int(k)], nodes.real[i * coordinates + k],
                        "node " + std::to_string(i));

    const FaceSet& faces = expected.allFaces;
    EXPECT_EQ(readDataset(file, "faces/nodeStart").integer, widen(faces.faceNodeStart));
    EXPECT_EQ(readDataset(file, "faces/nodes").integer, widen(faces.faceNodes));
    EXPECT_EQ(readDataset(file, "faces/glob").integer, widen(faces.faceGlob));
    EXPECT_EQ(readDataset(file, "faces/id").integer, widen(faces.faceId));
    EXPECT_EQ(readDataset(file, "faces/zone").integer, widen(faces.faceZoneIndex));

    const ZoneTable& zones = expected.zones;
    EXPECT_EQ(readDataset(file, "zones/id").integer, widen(zones.zoneId));
    EXPECT_EQ(readDataset(file, "zones/first").integer, widen(zones.zoneFirst));
    EXPECT_EQ(readDataset(file, "zones/last").integer, widen(zones.zoneLast));
    EXPECT_EQ(readDataset(file, "zones/type").integer, widen(zones.zoneType));
    EXPECT_EQ(readDataset(file, "zones/elementType").integer, widen(zones.zoneElementType));
    EXPECT_EQ(readDataset(file, "zones/faceStart").integer, widen(zones.zoneFaceStart));
    EXPECT_EQ(readDataset(file, "zones/periodicType").integer, widen(zones.periodicType));
    EXPECT_EQ(readDataset(file, "zones/periodicShadow").integer, widen(zones.periodicShadow));
    const auto angle = readDataset(file, "zones/periodicAngle");
    const auto axisA = readDataset(file, "zones/periodicAxisA");
    const auto axisB = readDataset(file, "zones/periodicAxisB");
    const auto shift = readDataset(file, "zones/periodicShift");
    ASSERT_EQ(angle.real.size(), size_t(zones.zoneCount()));
    ASSERT_EQ(shift.dims, (std::vector<hsize_t>{size_t(zones.zoneCount()), 3}));
    for (int32_t z = 0; z < zones.zoneCount(); ++z) {
        expectNear9(zones.periodicAngle[z], angle.real[z], "angle");
        for (int k = 0; k < 3; ++k) {
            expectNear9(zones.periodicAxisA[z][k], axisA.real[3 * z + k], "axis point");
            expectNear9(zones.periodicAxisB[z][k], axisB.real[3 * z + k], "axis direction");
            expectNear9(zones.periodicShift[z][k], shift.real[3 * z + k], "shift");
        }
    }

    EXPECT_EQ(readDataset(file, "viewFactors/activeGlobs").integer, widen(expected.activeGlobs));
    const auto rowStart = readDataset(file, "viewFactors/rowStart").integer;
    const auto columns = readDataset(file, "viewFactors/columns").integer;
    const auto values = readDataset(file, "viewFactors/values").real;
    ASSERT_EQ(rowStart.size(), expected.rows.size() + 1);
    ASSERT_EQ(columns.size(), static_cast<size_t>(rowStart.back()));
    for (size_t r = 0; r < expected.rows.size(); ++r) {
        const cli::SparseRow& row = expected.rows[r];
        ASSERT_EQ(rowStart[r + 1] - rowStart[r], static_cast<int64_t>(row.columns.size()))
            << "row " << r;
        for (size_t k = 0; k < row.columns.size(); ++k) {
            const size_t entry = static_cast<size_t>(rowStart[r]) + k;
            EXPECT_EQ(columns[entry], row.columns[k]) << "row " << r;
            EXPECT_LE(std::abs(values[entry] - row.values[k]), 5.0000001e-7) << "row " << r;
        }
    }
    EXPECT_GT(columns.size(), 0u);

    // `hemiray check` reads the same model and rows from the HDF5 file.
    cli::ResultFile fromHdf5;
    ASSERT_TRUE(cli::readResultFile(dir.file("m.h5"), fromHdf5, error)) << error;
    EXPECT_TRUE(fromHdf5.hdf5);
    EXPECT_EQ(fromHdf5.activeGlobs, expected.activeGlobs);
    EXPECT_EQ(fromHdf5.participatingFaces.faceNodeStart, expected.participatingFaces.faceNodeStart);
    EXPECT_EQ(fromHdf5.participatingFaces.faceNodes, expected.participatingFaces.faceNodes);
    EXPECT_EQ(fromHdf5.participatingFaces.faceGlob, expected.participatingFaces.faceGlob);
    EXPECT_EQ(fromHdf5.participatingFaces.faceZoneType, expected.participatingFaces.faceZoneType);
    ASSERT_EQ(fromHdf5.rows.size(), expected.rows.size());
    for (size_t r = 0; r < expected.rows.size(); ++r)
        EXPECT_EQ(fromHdf5.rows[r].columns, expected.rows[r].columns) << "row " << r;
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

TEST(Hdf5OutputRun, ConsoleHasNoClosingLinesButTheTimings) {
    ScratchDir dir;
    // ".h5" anywhere in the name selects the mode.
    const std::string name = dir.file("m.h5.run");
    writeFile(name, modelText("polygon", 1, 8));
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
    EXPECT_EQ(fileCount(dir), 1u);
}

TEST(Hdf5OutputRun, CompressedInputGivesAnHdf5Result) {
    ScratchDir dir;
    writeFile(dir.file("src"), modelText("polygon", 1, 8));
    ASSERT_EQ(std::system(("gzip -c " + dir.file("src") + " > " + dir.file("m.h5.gz")).c_str()), 0);
    const auto r = runLibrary(dir.file("m.h5.gz"));
    ASSERT_EQ(r.result, 1) << r.err;
    Hdf5File file(dir.file("m.h5.gz"));
    ASSERT_TRUE(file.ok());
    EXPECT_EQ(readDataset(file, "viewFactors/rowStart").integer.size(), 9u);  // 8 globs
}

// Death-test bodies: they run in a child process and exit with the library's result.
[[noreturn]] void runAsUnprivilegedUser(const std::string& name) {
    if (geteuid() == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) std::exit(3);
        // Changing user makes the process undumpable, which would keep the leak
        // checker of sanitizer builds from inspecting it at exit.
        prctl(PR_SET_DUMPABLE, 1);
    }
    std::exit(raytracing_lib(0, name.c_str(), nullptr, 0, 1, 1, nullptr, "t", false, false, 0));
}

[[noreturn]] void runWithFileSizeLimit(const std::string& name, rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit then fails with EFBIG
    const rlimit limit{bytes, bytes};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) std::exit(3);
    std::exit(raytracing_lib(0, name.c_str(), nullptr, 0, 1, 1, nullptr, "t", false, false, 0));
}

// The model is readable, its folder is not writable: the result cannot be
// created beside it. Run as an unprivileged user when the tests run as root,
// for whom permissions do not apply.
TEST(Hdf5OutputRun, UnwritableFolderFailsWithAnErrorLineAndKeepsTheInput) {
    ScratchDir dir;
    const std::string folder = dir.file("readonly");
    const std::string name = folder + "/m.h5";
    const std::string text = modelText("polygon", 1, 8);
    std::filesystem::create_directory(folder);
    writeFile(name, text);
    std::filesystem::permissions(name, std::filesystem::perms(0444));
    std::filesystem::permissions(folder, std::filesystem::perms(0555));
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0711));
    EXPECT_EXIT(runAsUnprivilegedUser(name), ::testing::ExitedWithCode(0),
        "^error: couldn't open output file: .*/readonly/m\\.h5\n"
        "error: couldn't calculate view factors!\n$");
    EXPECT_EQ(readFile(name), text);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
    std::filesystem::permissions(folder, std::filesystem::perms(0755));
}

// A file-size limit below the size of the result makes HDF5's writes fail part
// of the way through; the run reports it and the model stays as it was.
TEST(Hdf5OutputRun, WriteFailureKeepsTheInput) {
    ScratchDir dir;
    const std::string name = dir.file("m.h5");
    const std::string text = modelText("room", 2, 4);
    writeFile(name, text);
    EXPECT_EXIT(runWithFileSizeLimit(name, 8192), ::testing::ExitedWithCode(0),
        "error: couldn't write output file: .*/m\\.h5\n"
        "error: couldn't calculate view factors!\n$");
    EXPECT_EQ(readFile(name), text);
    EXPECT_EQ(fileCount(dir), 1u);
}

}  // namespace
}  // namespace hemiray
