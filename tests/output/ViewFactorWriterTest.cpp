// The view-factor file writers, byte for byte. Every expected text is written out by
// hand from the file format: section ids, field order, the hexadecimal node count,
// the sticky number formats and the raw little-endian bytes of binary rows.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "output/ViewFactorWriter.h"

namespace hemiray {
namespace {

// Raw bytes of a binary row, spelled out.
std::string bytes(std::initializer_list<unsigned char> values) {
    return std::string(values.begin(), values.end());
}

void appendLittleEndian(std::string& s, uint32_t v) {
    for (int shift = 0; shift < 32; shift += 8)
        s.push_back(static_cast<char>((v >> shift) & 0xff));
}

// A stream already past the parameter header: scientific with 8 digits is left on
// it, the text itself is dropped.
std::ostringstream afterParameterHeader() {
    std::ostringstream out;
    writeParameterHeader(out, RunParameters{});
    out.str("");
    return out;
}

// Counts flushes, to tell "end of line" (newline and flush) from a bare "\n".
struct FlushCountingBuffer : std::stringbuf {
    int flushes = 0;
    int sync() override {
        ++flushes;
        return std::stringbuf::sync();
    }
};

void appendFace(FaceSet& faces, std::initializer_list<int32_t> nodeIndices,
                int32_t zoneType, int32_t zoneIndex) {
    faces.faceId.push_back(faces.faceCount());
    faces.faceNodes.insert(faces.faceNodes.end(), nodeIndices);
    addFace(faces, zoneType, zoneIndex);
}

// Five zones, one of each kind the writers tell apart: a triangle wall, a mixed
// mirror with a face that has no nodes, a polygon periodic zone, a quadrilateral
// shadow and an absorbing line zone.
struct SmallModel {
    NodeArray nodes = NodeArray(4);
    FaceSet allFaces{3, nodes};
    ZoneTable zones{5};

    SmallModel() {
        addZone(zones, 3, 1, 2, 3, 3);
        appendFace(allFaces, {0, 1, 2}, 3, 0);
        appendFace(allFaces, {1, 2, 3}, 3, 0);
        addZone(zones, 4, 3, 5, zoneTypeMirror, 0);
        appendFace(allFaces, {0, 1, 2}, zoneTypeMirror, 1);
        appendFace(allFaces, {3, 2, 1, 0}, zoneTypeMirror, 1);
        appendFace(allFaces, {}, zoneTypeMirror, 1);
        addZone(zones, 5, 6, 6, zoneTypePeriodic, 5);
        appendFace(allFaces, {0, 1, 2, 3}, zoneTypePeriodic, 2);
        addZone(zones, 6, 7, 7, zoneTypePeriodicShadow, 4);
        appendFace(allFaces, {3, 2, 1, 0}, zoneTypePeriodicShadow, 3);
        addZone(zones, 7, 8, 8, 2003, 2);
        appendFace(allFaces, {0, 1}, 2003, 4);
        allFaces.faceGlob = {0, 1, 2, 2, 2, 3, 3, -1};
    }
};

TEST(ViewFactorWriterHead, FileHeaderCarriesFlagTextAndSizes) {
    std::ostringstream out;
    writeFileHeader(out, 2, 3, 4, 5, 3, "mesh a", true);
    EXPECT_EQ(out.str(), "(-1 \"mesh a\")\n(2 3 4 5 3)\n");
    out.str("");
    writeFileHeader(out, 0, 0, 1, 12, 2, "mesh a", false);
    EXPECT_EQ(out.str(), "(0 \"mesh a\")\n(0 0 1 12 2)\n");
    // No header text from the host: the quotes stay, empty.
    out.str("");
    writeFileHeader(out, 1, 1, 1, 1, 1, nullptr, false);
    EXPECT_EQ(out.str(), "(0 \"\")\n(1 1 1 1 1)\n");
}

TEST(ViewFactorWriterHead, ParameterHeaderWritesThirteenValuesInFourLines) {
    RunParameters p;
    p.param1 = 1;
    p.hemisphereResolution = 8;
    p.param3 = 0;
    p.param4 = 1e-3;
    p.param5 = 1;
    p.param6 = 1;
    p.param7 = 0.25;
    p.param8 = 2;
    p.param9 = 3;
    p.param10 = -1234.5;
    p.param11 = 4;
    p.param12 = 7;  // 12 and 13 differ so that a swap shows
    p.param13 = 9;
    std::ostringstream out;
    writeParameterHeader(out, p);
    EXPECT_EQ(out.str(),
              "(1 8 0 1.00000000e-03\n"
              "1 1 2.50000000e-01\n"
              "2 3 -1.23450000e+03\n"
              "4 7 9)\n");
}

TEST(ViewFactorWriterNodes, CountIsHexadecimalAndIntegersAfterItDecimal) {
    const NodeArray nodes(26);
    std::ostringstream out = afterParameterHeader();
    writeNodeSection(out, 2, nodes);
    std::string expected = "(10 (1 1 1a 1 3)\n(";
    for (int i = 0; i < 26; ++i) expected += "\n0.00000000e+00 0.00000000e+00";
    expected += "))\n";
    EXPECT_EQ(out.str(), expected);
    // The next section's integers are decimal again.
    ZoneTable zones(1);
    addZone(zones, 26, 10, 9, 3, 3);
    out.str("");
    writeFaceSections(out, zones, FaceSet(3, nodes));
    EXPECT_EQ(out.str(), "(311 (26 10 9 3 3)\n())\n");
}

TEST(ViewFactorWriterNodes, WritesTheFirstCoordinatesOfEachNode) {
    const NodeArray nodes{Vec3(0.5, -2, 1e-10), Vec3(1234.5, 0, -0.125)};
    std::ostringstream out = afterParameterHeader();
    writeNodeSection(out, 2, nodes);
    EXPECT_EQ(out.str(),
              "(10 (1 1 2 1 3)\n(\n5.00000000e-01 -2.00000000e+00\n"
              "1.23450000e+03 0.00000000e+00))\n");
    const std::string threeCoordinates =
        "(10 (1 1 2 1 3)\n(\n5.00000000e-01 -2.00000000e+00 1.00000000e-10\n"
        "1.23450000e+03 0.00000000e+00 -1.25000000e-01))\n";
    out.str("");
    writeNodeSection(out, 3, nodes);
    EXPECT_EQ(out.str(), threeCoordinates);
    // A node holds three coordinates; a larger count from a host block writes those.
    out.str("");
    writeNodeSection(out, 7, nodes);
    EXPECT_EQ(out.str(), threeCoordinates);
    out.str("");
    writeNodeSection(out, 3, NodeArray{});
    EXPECT_EQ(out.str(), "(10 (1 1 0 1 3)\n())\n");
}

TEST(ViewFactorWriterZones, FaceSectionsForEveryZone) {
    const SmallModel model;
    std::ostringstream out;
    writeFaceSections(out, model.zones, model.allFaces);
    EXPECT_EQ(out.str(),
              "(311 (3 1 2 3 3)\n(\n  1 2 3\n  2 3 4))\n"
              "(311 (4 3 5 2007 0)\n(\n 3 1 2 3\n 4 4 3 2 1\n -1))\n"
              "(311 (5 6 6 2012 5)\n(\n 4 1 2 3 4))\n"
              "(311 (6 7 7 2008 4)\n(\n  4 3 2 1))\n"
              "(311 (7 8 8 2003 2)\n(\n  1 2))\n");
}

TEST(ViewFactorWriterZones, GlobSectionsSkipMirrorAndPeriodicZones) {
    const SmallModel model;
    std::ostringstream out;
    writeGlobSections(out, model.zones, model.allFaces);
    EXPECT_EQ(out.str(),
              "(309 (3 1 2 3 3)\n(\n  0\n  1))\n"
              "(309 (7 8 8 2003 2)\n(\n  -1))\n");
}

TEST(ViewFactorWriterZones, ZoneWithReversedRangeWritesOnlyFacesItCovers) {
    // 5..1 lowers the running face total to -3, so the next zone's range [-3, -1)
    // lies before the face set: nothing of it may be read.
    const NodeArray nodes(3);
    FaceSet allFaces(3, nodes);
    ZoneTable zones(2);
    addZone(zones, 1, 5, 1, 3, 3);
    addZone(zones, 2, 1, 2, 3, 3);
    appendFace(allFaces, {0, 1, 2}, 3, 1);
    appendFace(allFaces, {2, 1, 0}, 3, 1);
    ASSERT_EQ(zones.zoneFaceStart, (std::vector<int32_t>{0, -3, -1}));
    std::ostringstream out;
    writeFaceSections(out, zones, allFaces);
    EXPECT_EQ(out.str(), "(311 (1 5 1 3 3)\n())\n(311 (2 1 2 3 3)\n())\n");
    out.str("");
    writeGlobSections(out, zones, allFaces);
    EXPECT_EQ(out.str(), "(309 (1 5 1 3 3)\n())\n(309 (2 1 2 3 3)\n())\n");
}

TEST(ViewFactorWriterZones, RotationalPeriodicClosesOnItsDataLine) {
    SmallModel model;
    model.zones.periodicShadow[2] = 3;
    model.zones.periodicType[2] = 1;
    model.zones.periodicAngle[2] = 0.5;
    model.zones.periodicAxisA[2] = Vec3(1, 0, 0);
    model.zones.periodicAxisB[2] = Vec3(0, 0, 1);
    std::ostringstream out = afterParameterHeader();
    writePeriodicSections(out, model.zones);
    EXPECT_EQ(out.str(),
              "(18 (5 6)\n1\n5.00000000e-01\n"
              "1.00000000e+00 0.00000000e+00 0.00000000e+00\n"
              "0.00000000e+00 0.00000000e+00 1.00000000e+00)\n");
}

TEST(ViewFactorWriterZones, TranslationalPeriodicClosesOnItsOwnLine) {
    ZoneTable zones(4);
    addZone(zones, 11, 1, 1, zoneTypePeriodic, 2);
    addZone(zones, 12, 2, 2, zoneTypePeriodic, 2);  // named only as 11's shadow
    addZone(zones, 13, 3, 3, zoneTypePeriodicShadow, 2);
    addZone(zones, 14, 4, 4, zoneTypePeriodic, 2);  // shadow index that names no zone
    zones.periodicShadow[0] = 1;
    zones.periodicShift[0] = Vec3(1, -0.25, 3);
    zones.periodicShift[1] = Vec3(-1, 0.25, -3);
    zones.periodicShadow[3] = 40;
    std::ostringstream out = afterParameterHeader();
    writePeriodicSections(out, zones);
    // A zone without a known shadow names itself.
    EXPECT_EQ(out.str(),
              "(18 (11 12)\n0\n1.00000000e+00 -2.50000000e-01 3.00000000e+00\n)\n"
              "(18 (12 12)\n0\n-1.00000000e+00 2.50000000e-01 -3.00000000e+00\n)\n"
              "(18 (14 14)\n0\n0.00000000e+00 0.00000000e+00 0.00000000e+00\n)\n");
}

TEST(ViewFactorWriterRows, SectionHeaderListsActiveGlobs) {
    std::ostringstream out;
    writeRowSectionHeader(out, false, {0, 2, 5});
    EXPECT_EQ(out.str(), "(308 (3 0 2 5)\n(");
    out.str("");
    writeRowSectionHeader(out, true, {17});
    EXPECT_EQ(out.str(), "(1308 (1 17)\n(");
    out.str("");
    writeRowSectionHeader(out, true, {});
    EXPECT_EQ(out.str(), "(1308 (0)\n(");
}

TEST(ViewFactorWriterRows, TextRowsListColumnsThenValuesInFirstHitOrder) {
    std::ostringstream out;
    writeRowSectionHeader(out, false, {0});
    SparseRowVector row;
    row.resize(4);
    row.add(1, 0.2);
    out.str("");
    writeRow(out, false, row);
    EXPECT_EQ(out.str(), "1 1 \n0.200000 \n");

    row.clear();
    out.str("");
    writeRow(out, false, row);
    EXPECT_EQ(out.str(), "0 \n\n");

    // Unsorted, summed, and rounded to six digits: 1e-7 prints as zero.
    row.add(3, 0.5);
    row.add(0, 1e-7);
    row.add(3, 0.25);
    row.add(2, 1.0 / 3.0);
    out.str("");
    writeRow(out, false, row);
    EXPECT_EQ(out.str(), "3 3 0 2 \n0.750000 0.000000 0.333333 \n");
}

TEST(ViewFactorWriterRows, BinaryRowIsTextCountThenRawColumnsAndFloats) {
    SparseRowVector row;
    row.resize(10);
    row.add(5, 0.25);
    row.add(9, 0.5);
    std::ostringstream out;
    writeRow(out, true, row);
    EXPECT_EQ(out.str(), "2 \n" + bytes({0x05, 0, 0, 0, 0x09, 0, 0, 0}) +
                             bytes({0, 0, 0x80, 0x3e, 0, 0, 0, 0x3f}) + "\n");

    // Values are rounded to the nearest float: 1/3 is 0x3eaaaaab, 0.1 is 0x3dcccccd.
    SparseRowVector wide;
    wide.resize(70001);
    wide.add(70000, 1.0 / 3.0);
    wide.add(300, 0.1);
    out.str("");
    writeRow(out, true, wide);
    EXPECT_EQ(out.str(), "2 \n" + bytes({0x70, 0x11, 0x01, 0x00, 0x2c, 0x01, 0, 0}) +
                             bytes({0xab, 0xaa, 0xaa, 0x3e, 0xcd, 0xcc, 0xcc, 0x3d}) +
                             "\n");

    row.clear();
    out.str("");
    writeRow(out, true, row);
    EXPECT_EQ(out.str(), "0 \n\n");
}

// The staging buffers live for the whole process. A row wider than any before must
// regrow them, and a narrower row after it must write only its own entries. The
// middle row is wider than any other row these tests write, so its write grows them
// whatever order the tests run in.
TEST(ViewFactorWriterRows, BinaryRowsOfChangingWidthUseBuffersSafely) {
    const auto binaryRowOf = [](const std::vector<std::pair<int32_t, double>>& entries) {
        std::string s = std::to_string(entries.size()) + " \n";
        for (const auto& e : entries)
            appendLittleEndian(s, static_cast<uint32_t>(e.first));
        for (const auto& e : entries)
            appendLittleEndian(s, std::bit_cast<uint32_t>(static_cast<float>(e.second)));
        return s + "\n";
    };
    const auto writeOf = [](int width,
                            const std::vector<std::pair<int32_t, double>>& entries) {
        SparseRowVector row;
        row.resize(width);
        for (const auto& e : entries) row.add(e.first, e.second);
        std::ostringstream out;
        writeRow(out, true, row);
        return out.str();
    };

    const std::vector<std::pair<int32_t, double>> narrow{{2, 1.0}, {0, 0.5}, {1, 0.125}};
    EXPECT_EQ(writeOf(3, narrow), binaryRowOf(narrow));

    // Every column hit, last first; quarter steps are exact in single precision.
    const int width = 100000;
    std::vector<std::pair<int32_t, double>> full;
    for (int32_t j = width - 1; j >= 0; --j) full.push_back({j, 0.25 * j});
    EXPECT_EQ(writeOf(width, full), binaryRowOf(full));

    const std::vector<std::pair<int32_t, double>> afterWide{{3, 0.75}, {1, 2.0}};
    EXPECT_EQ(writeOf(4, afterWide), binaryRowOf(afterWide));
}

TEST(ViewFactorWriterFormat, NumberFormatCarriesOverFromWriterToWriter) {
    const NodeArray nodes{Vec3(0.5, 0.25, 0)};
    SmallModel model;
    model.zones.periodicShift[2] = Vec3(0.5, 0, 2);
    SparseRowVector row;
    row.resize(2);
    row.add(1, 0.2);

    // The mesh writers set no format of their own.
    std::ostringstream fresh;
    writeNodeSection(fresh, 2, nodes);
    EXPECT_EQ(fresh.str(), "(10 (1 1 1 1 3)\n(\n0.5 0.25))\n");

    std::ostringstream out = afterParameterHeader();
    writeNodeSection(out, 2, nodes);
    writeRow(out, false, row);  // a row before its section header keeps the mesh format
    EXPECT_EQ(
        out.str(),
        "(10 (1 1 1 1 3)\n(\n5.00000000e-01 2.50000000e-01))\n1 1 \n2.00000000e-01 \n");

    out.str("");
    writeRowSectionHeader(out, false, {1});
    writePeriodicSections(out, model.zones);
    writeRow(out, false, row);
    EXPECT_EQ(
        out.str(),
        "(308 (1 1)\n((18 (5 5)\n0\n0.500000 0.000000 2.000000\n)\n1 1 \n0.200000 \n");
}

TEST(ViewFactorWriterFormat, EndOfLineFlushesAndRowNewlinesDoNot) {
    FlushCountingBuffer buffer;
    std::ostream out(&buffer);
    writeFileHeader(out, 1, 1, 1, 1, 3, "x", false);
    EXPECT_EQ(buffer.flushes, 2);
    writeParameterHeader(out, RunParameters{});
    EXPECT_EQ(buffer.flushes, 6);
    writeNodeSection(out, 3, NodeArray(2));  // header, one per node, closing
    EXPECT_EQ(buffer.flushes, 10);
    SmallModel model;
    model.zones.periodicType[2] = 1;
    writePeriodicSections(out, model.zones);  // only the closing line
    EXPECT_EQ(buffer.flushes, 11);
    writeRowSectionHeader(out, true, {0});
    EXPECT_EQ(buffer.flushes, 12);
    SparseRowVector row;
    row.resize(3);
    row.add(2, 0.5);
    writeRow(out, true, row);
    writeRow(out, false, row);
    EXPECT_EQ(buffer.flushes, 12);
}

TEST(ViewFactorWriterRowsDeathTest, CorruptRowAbortsWithTheRowCheck) {
    SparseRowVector row;
    row.resize(4);
    row.np = 1;  // lists column 0 without having touched it
    std::ostringstream out;
    EXPECT_DEATH(writeRow(out, false, row),
                 "Assertion 'i >= 0 && i < w.size\\(\\) && m\\[i\\]'");
    EXPECT_DEATH(writeRow(out, true, row),
                 "Assertion 'i >= 0 && i < w.size\\(\\) && m\\[i\\]'");
    // A count beyond the width stops at the column check, before any staging overrun.
    SparseRowVector full;
    full.resize(2);
    full.add(0, 1.0);
    full.add(1, 1.0);
    full.np = 3;
    EXPECT_DEATH(writeRow(out, true, full), "Assertion 'np >= 0 && np < c.size\\(\\)'");
}

}  // namespace
}  // namespace hemiray
