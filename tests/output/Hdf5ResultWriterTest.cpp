// The HDF5 result writer against the documented layout, read back with the bare
// HDF5 library: names, stored types, shapes and every value of a hand-built model;
// rows appended through several buffer flushes; an empty model; the row count
// against the announced globs; and a disk that fills up. Whole ".h5" runs are in
// Hdf5OutputTest.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <sys/resource.h>
#include <string>
#include <vector>

#include "output/Hdf5ResultWriter.h"
#include "support/Hdf5Read.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using testing::Hdf5Array;
using testing::Hdf5File;
using testing::readDataset;
using testing::ScratchDir;

void appendFace(FaceSet& faces, int32_t faceNumber, std::initializer_list<int32_t> nodeIndices,
                int32_t zoneType, int32_t zoneIndex) {
    faces.faceId.push_back(faceNumber);
    faces.faceNodes.insert(faces.faceNodes.end(), nodeIndices);
    addFace(faces, zoneType, zoneIndex);
}

TEST(Hdf5ResultWriter, ModelIsStoredUnderTheDocumentedNamesAndTypes) {
    // Three zones: a quad wall, a periodic zone with a face without nodes, and its
    // shadow. Face numbers start at 5 so that they differ from positions.
    const NodeArray nodes{
        {0.5, -1.25, 3.0}, {1e-9, 2.0, -7.5}, {4.0, 4.5, 5.0}, {-0.0, 6.25, 1e12}};
    FaceSet allFaces(3, nodes);
    ZoneTable zones(3);
    addZone(zones, 11, 5, 6, 3, 4);
    appendFace(allFaces, 5, {0, 1, 2, 3}, 3, 0);
    appendFace(allFaces, 6, {3, 2, 1, 0}, 3, 0);
    addZone(zones, 12, 7, 8, zoneTypePeriodic, 0);
    appendFace(allFaces, 7, {0, 1, 2}, zoneTypePeriodic, 1);
    appendFace(allFaces, 8, {}, zoneTypePeriodic, 1);
    addZone(zones, 13, 9, 9, zoneTypePeriodicShadow, 3);
    appendFace(allFaces, 9, {1, 2, 3}, zoneTypePeriodicShadow, 2);
    allFaces.faceGlob = {0, 1, -1, -1, 2};
    zones.periodicShadow[1] = 2;
    zones.periodicType = {0, 1, 1};
    zones.periodicAngle = {0, 0.5, -0.5};
    zones.periodicAxisA[1] = {1, 2, 3};
    zones.periodicAxisB[1] = {0, 0, 1};
    zones.periodicShift[2] = {-4, 0.125, 8};

    ScratchDir dir;
    const std::string path = dir.file("r.h5");
    {
        Hdf5ResultWriter writer(path);
        ASSERT_TRUE(writer.ok());
        writer.writeSizes(7, 8, 3, 3, 3, "mesh \"a\"", true);
        writer.writeParameters(
            RunParameters{1, 2, 3, 0.25, 5, 6, 1e-3, 8, 9, -1234.5, 11, 12, 13});
        writer.writeNodes(2, nodes);  // two of the three coordinates
        writer.writeZones(zones);
        writer.writeFaces(allFaces);
        writer.beginRows({}, 3);
        ASSERT_TRUE(writer.close());
    }
    Hdf5File file(path);
    ASSERT_TRUE(file.ok());
    EXPECT_EQ(testing::stringAttribute(file, "/", "format"), "hemiray view factors");
    EXPECT_EQ(testing::stringAttribute(file, "/", "headerText"), "mesh \"a\"");
    const std::pair<const char*, int> rootIntegers[] = {
        {"size1", 7},     {"size2", 8},         {"zoneCount", 3}, {"globCount", 3},
        {"dimension", 3}, {"formatVersion", 1}, {"headerFlag", 1}};
    for (const auto& [name, v] : rootIntegers)
        EXPECT_EQ(testing::intAttribute(file, "/", name), v) << name;
    const std::pair<const char*, int> parameterIntegers[] = {
        {"param1", 1}, {"hemisphereResolution", 2}, {"param3", 3}, {"param5", 5},
        {"param6", 6}, {"param8", 8}, {"param9", 9}, {"param11", 11}, {"param12", 12},
        {"param13", 13}};
    for (const auto& [name, v] : parameterIntegers)
        EXPECT_EQ(testing::intAttribute(file, "/parameters", name), v) << name;
    EXPECT_EQ(testing::doubleAttribute(file, "/parameters", "param4"), 0.25);
    EXPECT_EQ(testing::doubleAttribute(file, "/parameters", "param7"), 1e-3);
    EXPECT_EQ(testing::doubleAttribute(file, "/parameters", "param10"), -1234.5);

    const auto float64 = [&](const char* name, std::vector<hsize_t> dims,
                             const std::vector<double>& expected) {
        const Hdf5Array a = readDataset(file, name);
        testing::expectFloat64(a, dims, name);
        // Equal, and with the same sign: -0 stays -0.
        const auto same = [](double x, double y) {
            return x == y && std::signbit(x) == std::signbit(y);
        };
        EXPECT_TRUE(
            std::equal(a.real.begin(), a.real.end(), expected.begin(), expected.end(), same))
            << name;
    };
    float64("nodes", {4, 2}, {0.5, -1.25, 1e-9, 2.0, 4.0, 4.5, -0.0, 6.25});
    float64("zones/periodicAngle", {3}, {0, 0.5, -0.5});
    float64("zones/periodicAxisA", {3, 3}, {0, 0, 0, 1, 2, 3, 0, 0, 0});
    float64("zones/periodicAxisB", {3, 3}, {0, 0, 0, 0, 0, 1, 0, 0, 0});
    float64("zones/periodicShift", {3, 3}, {0, 0, 0, 0, 0, 0, -4, 0.125, 8});
    const std::pair<const char*, std::vector<int64_t>> integers[] = {
        {"faces/nodeStart", {0, 4, 8, 11, 11, 14}},
        {"faces/nodes", {0, 1, 2, 3, 3, 2, 1, 0, 0, 1, 2, 1, 2, 3}},
        {"faces/glob", {0, 1, -1, -1, 2}},
        {"faces/id", {5, 6, 7, 8, 9}},
        {"faces/zone", {0, 0, 1, 1, 2}},
        {"zones/id", {11, 12, 13}},
        {"zones/first", {5, 7, 9}},
        {"zones/last", {6, 8, 9}},
        {"zones/type", {3, 2012, 2008}},
        {"zones/elementType", {4, 0, 3}},
        {"zones/faceStart", {0, 2, 4, 5}},
        {"zones/periodicType", {0, 1, 1}},
        {"zones/periodicShadow", {-1, 2, -1}},
    };
    for (const auto& [name, expected] : integers)
        testing::expectInt32(readDataset(file, name), expected, name);
}

// Row i has i % 13 entries, in columns (i + 7k) % 50, which are distinct for
// k < 13, with value i + k / 16 (exact in binary). 20000 rows and about 120000
// entries: both the row-offset and the entry buffers are written out several
// times before the end.
TEST(Hdf5ResultWriter, RowsAreCompressedSparseRowsInAppendOrder) {
    ScratchDir dir;
    const std::string path = dir.file("rows.h5");
    constexpr int32_t width = 50;
    constexpr int32_t rowCount = 20000;
    std::vector<int32_t> active(rowCount);
    for (int32_t i = 0; i < rowCount; ++i) active[i] = (i * 31) % width;

    std::vector<int64_t> expectedStart{0};
    std::vector<int64_t> expectedColumns;
    std::vector<double> expectedValues;
    {
        Hdf5ResultWriter writer(path);
        ASSERT_TRUE(writer.ok());
        writer.beginRows(active, width);
        SparseRowVector row;
        row.resize(width);
        for (int32_t i = 0; i < rowCount; ++i) {
            for (int32_t k = 0; k < i % 13; ++k) {
                const int32_t column = (i + 7 * k) % width;
                row.add(column, i + k / 16.0);
                expectedColumns.push_back(column);
                expectedValues.push_back(i + k / 16.0);
            }
            expectedStart.push_back(static_cast<int64_t>(expectedColumns.size()));
            writer.appendRow(row);
            row.clear();
        }
        ASSERT_TRUE(writer.ok());
        ASSERT_TRUE(writer.close());
    }
    Hdf5File file(path);
    ASSERT_TRUE(file.ok());
    EXPECT_EQ(testing::intAttribute(file, "/viewFactors", "globCount"), width);
    testing::expectInt32(readDataset(file, "viewFactors/activeGlobs"),
                         std::vector<int64_t>(active.begin(), active.end()), "activeGlobs");
    const Hdf5Array start = readDataset(file, "viewFactors/rowStart");
    EXPECT_EQ(start.typeClass, H5T_INTEGER);
    EXPECT_EQ(start.typeSize, 8u);
    EXPECT_EQ(start.integer, expectedStart);
    const Hdf5Array columns = readDataset(file, "viewFactors/columns");
    testing::expectInt32(columns, expectedColumns, "columns");
    const Hdf5Array values = readDataset(file, "viewFactors/values");
    testing::expectFloat64(values, {expectedValues.size()}, "values");
    EXPECT_EQ(values.real, expectedValues);
    // Extendible along their one dimension, as rows are appended.
    for (const Hdf5Array* a : {&start, &columns, &values}) {
        EXPECT_TRUE(a->chunked);
        EXPECT_EQ(a->maxDims, std::vector<hsize_t>{H5S_UNLIMITED});
    }
}

TEST(Hdf5ResultWriter, EmptyModelWithoutRowsIsAValidFile) {
    ScratchDir dir;
    const std::string path = dir.file("empty.h5");
    NodeArray nodes;
    {
        Hdf5ResultWriter writer(path);
        writer.writeSizes(0, 0, 0, 0, 2, nullptr, false);
        writer.writeParameters(RunParameters{});
        writer.writeNodes(2, nodes);
        writer.writeZones(ZoneTable(0));
        writer.writeFaces(FaceSet(2, nodes));
        writer.beginRows({}, 0);
        ASSERT_TRUE(writer.close());
    }
    Hdf5File file(path);
    ASSERT_TRUE(file.ok());
    EXPECT_EQ(testing::stringAttribute(file, "/", "headerText"), "");
    EXPECT_EQ(readDataset(file, "nodes").dims, (std::vector<hsize_t>{0, 2}));
    EXPECT_EQ(readDataset(file, "faces/nodeStart").integer, std::vector<int64_t>{0});
    EXPECT_EQ(readDataset(file, "zones/faceStart").integer, std::vector<int64_t>{0});
    EXPECT_EQ(readDataset(file, "zones/periodicShift").dims, (std::vector<hsize_t>{0, 3}));
    EXPECT_EQ(readDataset(file, "viewFactors/rowStart").integer, std::vector<int64_t>{0});
    EXPECT_EQ(readDataset(file, "viewFactors/columns").dims, std::vector<hsize_t>{0});
}

TEST(Hdf5ResultWriter, RowCountMustMatchTheActiveGlobs) {
    ScratchDir dir;
    SparseRowVector row;
    row.resize(4);
    row.add(2, 0.5);
    Hdf5ResultWriter missing(dir.file("missing.h5"));
    missing.beginRows({0, 1, 2}, 4);
    missing.appendRow(row);
    missing.appendRow(row);
    EXPECT_TRUE(missing.ok());
    EXPECT_FALSE(missing.close());  // the third row never came
    Hdf5ResultWriter extra(dir.file("extra.h5"));
    extra.beginRows({3}, 4);
    extra.appendRow(row);
    EXPECT_TRUE(extra.ok());
    extra.appendRow(row);
    EXPECT_FALSE(extra.ok());
    EXPECT_FALSE(extra.close());
    Hdf5ResultWriter unbegun(dir.file("unbegun.h5"));
    unbegun.appendRow(row);
    EXPECT_FALSE(unbegun.ok());
}

// Death-test body: writes rows through the safe-write driver under a file-size
// limit that the rows cross. Exits 0 when the failure showed while rows were
// still being appended, close() reported it, and the process then ends normally
// (HDF5 itself crashes at exit after a failed close).
[[noreturn]] void writeRowsPastAFileSizeLimit(const std::string& path) {
    std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails with EFBIG instead
    const rlimit limit{1 << 20, 1 << 20};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) std::exit(10);
    const Hdf5ErrorsSilenced quiet;
    const hid_t driver = registerSafeWriteDriver();
    if (driver < 0) std::exit(11);
    Hdf5ResultWriter writer(path, driver);
    constexpr int32_t width = 4000;
    writer.beginRows(std::vector<int32_t>(2000, 0), width);
    SparseRowVector row;
    row.resize(width);
    uint64_t state = 1;  // values that do not compress
    int32_t appended = 0;
    for (; appended < 2000 && writer.ok(); ++appended) {
        for (int32_t j = 0; j < width; ++j) {
            state = state * 6364136223846793005u + 1442695040888963407u;
            row.add(j, static_cast<double>(state >> 11));
        }
        writer.appendRow(row);
        row.clear();
    }
    // 2000 rows of 4000 entries are 96 MB; the limit stops them after about 1 MB.
    std::exit(appended == 2000 ? 12 : writer.close() ? 13 : 0);
}

TEST(Hdf5ResultWriter, DiskFailureStopsTheRowsAndTheFileStillCloses) {
    ScratchDir dir;
    EXPECT_EXIT(writeRowsPastAFileSizeLimit(dir.file("r.h5")), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace hemiray
