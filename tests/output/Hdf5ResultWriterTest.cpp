// The HDF5 result writer against the documented layout, as h5dump prints it: the
// names, stored types, shapes and values of a hand-built model and of an empty one
// (tests/data/golden/hdf5-*.expected, checked by hand against docs/hdf5-results.md);
// rows appended through several buffer flushes; the row count against the announced
// globs; and a disk that fills up. Whole ".h5" runs are in Hdf5OutputTest.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "output/Hdf5ResultWriter.h"
#include "support/Hdf5Read.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using testing::readFile;
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
        writer.writeParameters(RunParameters{1, 2, 3, 0.25, 5, 6, 1e-3, 8, 9, -1234.5, 11, 12, 13});
        writer.writeNodes(2, nodes);  // two of the three coordinates
        writer.writeZones(zones);
        writer.writeFaces(allFaces);
        writer.beginRows({}, 3);
        ASSERT_TRUE(writer.close());
    }
    EXPECT_EQ(testing::h5dump(path), readFile(testing::goldenPath("hdf5-model.expected")));
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
    const auto values = [&](const char* name) {
        return testing::h5values(path, std::string("-d ") + name);
    };
    EXPECT_EQ(values("/viewFactors/activeGlobs"),
              std::vector<double>(active.begin(), active.end()));
    EXPECT_EQ(values("/viewFactors/rowStart"),
              std::vector<double>(expectedStart.begin(), expectedStart.end()));
    EXPECT_EQ(values("/viewFactors/columns"),
              std::vector<double>(expectedColumns.begin(), expectedColumns.end()));
    EXPECT_EQ(values("/viewFactors/values"), expectedValues);
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
    EXPECT_EQ(testing::h5dump(path), readFile(testing::goldenPath("hdf5-empty.expected")));
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
