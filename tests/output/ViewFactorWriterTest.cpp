// The view-factor file writers, byte for byte, on what the hand-written golden
// files of ResultFileTest do not hold: zone kinds and ranges they lack, rotational
// pairs, a header without text, rows that need rounding, empty and wide rows, and
// rows that must not flush. Expected texts are written by hand from the format.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "output/ViewFactorWriter.h"

namespace hemiray {
namespace {

// Raw bytes, spelled out.
std::string bytes(std::initializer_list<unsigned char> values) {
    return std::string(values.begin(), values.end());
}

// A stream past the parameter header, which leaves scientific with 8 digits on it.
std::ostringstream afterParameterHeader() {
    std::ostringstream out;
    writeParameterHeader(out, RunParameters{});
    out.str("");
    return out;
}

void appendFace(FaceSet& faces, std::initializer_list<int32_t> nodeIndices, int32_t zoneType,
                int32_t zoneIndex) {
    faces.faceId.push_back(faces.faceCount());
    faces.faceNodes.insert(faces.faceNodes.end(), nodeIndices);
    addFace(faces, zoneType, zoneIndex);
}

TEST(ViewFactorWriter, HeaderWithoutTextAndNodeSectionsOfAnyLength) {
    std::ostringstream out = afterParameterHeader();
    writeFileHeader(out, 1, 2, 3, 4, 1, nullptr, false);  // the quotes stay, empty
    // A node holds three coordinates; a larger count from a host block writes those.
    writeNodeSection(out, 7, {Vec3(0.5, -2, 1e-10)});
    writeNodeSection(out, 3, NodeArray{});
    EXPECT_EQ(out.str(),
              "(0 \"\")\n(1 2 3 4 1)\n"
              "(10 (1 1 1 1 3)\n(\n5.00000000e-01 -2.00000000e+00 1.00000000e-10))\n"
              "(10 (1 1 0 1 3)\n())\n");
}

TEST(ViewFactorWriter, SectionsOfEveryZoneKind) {
    // A triangle wall; a mixed mirror with a face that has no nodes; a polygon
    // periodic zone turned about z, with a quadrilateral shadow; an absorbing line
    // zone; and two empty periodic zones whose shadow index names no zone.
    NodeArray nodes(4);
    FaceSet allFaces(3, nodes);
    ZoneTable zones(7);
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
    addZone(zones, 8, 9, 8, zoneTypePeriodic, 2);
    addZone(zones, 9, 9, 8, zoneTypePeriodic, 2);
    allFaces.faceGlob = {0, 1, 2, 2, 2, 3, 3, -1};
    zones.periodicShadow[2] = 3;
    zones.periodicType[2] = 1;
    zones.periodicAngle[2] = 0.5;
    zones.periodicAxisA[2] = Vec3(1, 0, 0);
    zones.periodicAxisB[2] = Vec3(0, 0, 1);
    zones.periodicShadow[5] = 40;

    std::ostringstream out = afterParameterHeader();
    writeFaceSections(out, zones, allFaces);
    writeGlobSections(out, zones, allFaces);
    writePeriodicSections(out, zones);
    EXPECT_EQ(out.str(),
              "(311 (3 1 2 3 3)\n(\n  1 2 3\n  2 3 4))\n"
              "(311 (4 3 5 2007 0)\n(\n 3 1 2 3\n 4 4 3 2 1\n -1))\n"
              "(311 (5 6 6 2012 5)\n(\n 4 1 2 3 4))\n"
              "(311 (6 7 7 2008 4)\n(\n  4 3 2 1))\n"
              "(311 (7 8 8 2003 2)\n(\n  1 2))\n"
              "(311 (8 9 8 2012 2)\n())\n"
              "(311 (9 9 8 2012 2)\n())\n"
              // Mirror and periodic zones have no glob section.
              "(309 (3 1 2 3 3)\n(\n  0\n  1))\n"
              "(309 (7 8 8 2003 2)\n(\n  -1))\n"
              // A rotational pair closes on its axis line; a zone without a known
              // shadow names itself.
              "(18 (5 6)\n1\n5.00000000e-01\n"
              "1.00000000e+00 0.00000000e+00 0.00000000e+00\n"
              "0.00000000e+00 0.00000000e+00 1.00000000e+00)\n"
              "(18 (8 8)\n0\n0.00000000e+00 0.00000000e+00 0.00000000e+00\n)\n"
              "(18 (9 9)\n0\n0.00000000e+00 0.00000000e+00 0.00000000e+00\n)\n");
}

TEST(ViewFactorWriter, ZoneWithReversedRangeWritesOnlyFacesItCovers) {
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
    writeGlobSections(out, zones, allFaces);
    EXPECT_EQ(out.str(),
              "(311 (1 5 1 3 3)\n())\n(311 (2 1 2 3 3)\n())\n"
              "(309 (1 5 1 3 3)\n())\n(309 (2 1 2 3 3)\n())\n");
}

TEST(ViewFactorWriter, TextRowsAreSummedInFirstHitOrderAndRoundedToSixDecimals) {
    std::ostringstream out;
    writeRowSectionHeader(out, false, {0});
    out.str("");
    SparseRowVector row;
    row.resize(4);
    writeRow(out, false, row);
    row.add(3, 0.5);
    row.add(0, 1e-7);  // prints as zero
    row.add(3, 0.25);
    row.add(2, 1.0 / 3.0);
    writeRow(out, false, row);
    EXPECT_EQ(out.str(), "0 \n\n3 3 0 2 \n0.750000 0.000000 0.333333 \n");
}

// Against printf's own rounding: exact ties (multiples of 2^-7 with an odd
// numerator), the edges of the exact path, tiny and huge values, and random bit
// patterns of every exponent from 2^-40 to 2^40.
TEST(ViewFactorWriter, FixedSixIsPrintfsRounding) {
    std::vector<double> values{0.0,       -0.0,    1.0 / 128, 3.0 / 128, 5e-7,   -5e-7,
                               0.9999995, 1.0,     0.1,       1e-320,    0x1p33, 0x1p33 - 1,
                               1e300,     -2.5e-5, 1.0 / 0.0, -1.0 / 0.0};
    uint64_t state = 88172645463325252u;
    for (int i = 0; i < 100000; ++i) {
        state ^= state << 13, state ^= state >> 7, state ^= state << 17;
        const uint64_t exponent = 1023 - 40 + state % 81;
        values.push_back(std::bit_cast<double>(exponent << 52 | state >> 12));
    }
    for (const double value : values) {
        char expected[400], ours[fixedSixRoom + 1];
        std::snprintf(expected, sizeof expected, "%.6f", value);
        ASSERT_EQ(std::string(ours, formatFixedSix(ours, value)), expected) << value;
    }
}

// Binary rows: the count as text, then raw little-endian int32 columns and float
// values. The staging buffers live for the whole process: a row wider than any
// before must regrow them, and a narrower row after it must write only its own
// entries. The wide row is wider than any other row the tests write, so its write
// grows them whatever order the tests run in.
TEST(ViewFactorWriter, BinaryRowsOfAnyWidth) {
    const auto writeOf = [](int width, const std::vector<std::pair<int32_t, double>>& entries) {
        SparseRowVector row;
        row.resize(width);
        for (const auto& [column, value] : entries) row.add(column, value);
        std::ostringstream out;
        writeRow(out, true, row);
        return out.str();
    };
    EXPECT_EQ(writeOf(10, {{5, 0.25}, {9, 0.5}}),
              "2 \n" + bytes({5, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0x80, 0x3e, 0, 0, 0, 0x3f}) + "\n");
    // Values are rounded to the nearest float: 1/3 is 0x3eaaaaab, 0.1 is 0x3dcccccd.
    EXPECT_EQ(writeOf(70001, {{70000, 1.0 / 3.0}, {300, 0.1}}),
              "2 \n" + bytes({0x70, 0x11, 0x01, 0x00, 0x2c, 0x01, 0, 0}) +
                  bytes({0xab, 0xaa, 0xaa, 0x3e, 0xcd, 0xcc, 0xcc, 0x3d}) + "\n");
    EXPECT_EQ(writeOf(3, {}), "0 \n\n");

    const auto binaryRowOf = [](const std::vector<std::pair<int32_t, double>>& entries) {
        std::string s = std::to_string(entries.size()) + " \n";
        const auto append = [&s](uint32_t v) {
            for (int shift = 0; shift < 32; shift += 8) s.push_back(char((v >> shift) & 0xff));
        };
        for (const auto& e : entries) append(static_cast<uint32_t>(e.first));
        for (const auto& e : entries) append(std::bit_cast<uint32_t>(static_cast<float>(e.second)));
        return s + "\n";
    };
    // Every column hit, last first; quarter steps are exact in single precision.
    const int width = 100000;
    std::vector<std::pair<int32_t, double>> full;
    for (int32_t j = width - 1; j >= 0; --j) full.push_back({j, 0.25 * j});
    EXPECT_EQ(writeOf(width, full), binaryRowOf(full));
    const std::vector<std::pair<int32_t, double>> afterWide{{3, 0.75}, {1, 2.0}};
    EXPECT_EQ(writeOf(4, afterWide), binaryRowOf(afterWide));
}

// Counts flushes, to tell "end of line" (newline and flush) from a bare "\n".
struct FlushCountingBuffer : std::stringbuf {
    int flushes = 0;
    int sync() override {
        ++flushes;
        return std::stringbuf::sync();
    }
};

TEST(ViewFactorWriter, RowsDoNotFlushTheStream) {
    FlushCountingBuffer buffer;
    std::ostream out(&buffer);
    writeRowSectionHeader(out, true, {0});
    EXPECT_EQ(buffer.flushes, 1);
    SparseRowVector row;
    row.resize(3);
    row.add(2, 0.5);
    writeRow(out, true, row);
    writeRow(out, false, row);
    EXPECT_EQ(buffer.flushes, 1);
}

TEST(ViewFactorWriterDeathTest, CorruptRowAbortsWithTheRowCheck) {
    SparseRowVector row;
    row.resize(4);
    row.np = 1;  // lists column 0 without having touched it
    std::ostringstream out;
    EXPECT_DEATH(writeRow(out, false, row), "Assertion 'i >= 0 && i < w.size\\(\\) && m\\[i\\]'");
    EXPECT_DEATH(writeRow(out, true, row), "Assertion 'i >= 0 && i < w.size\\(\\) && m\\[i\\]'");
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
