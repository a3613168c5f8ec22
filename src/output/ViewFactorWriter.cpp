// Writers of the view-factor file. The head sections repeat the mesh in the same
// parenthesised syntax the input readers take, so the host gets its model back with
// one sparse row per active glob appended. Floating-point format is left on the
// stream on purpose: the parameter header sets it for the mesh sections that follow,
// the row section header sets it for the rows; no other writer touches it.
#include "output/ViewFactorWriter.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstddef>
#include <iomanip>
#include <limits>
#include <locale>
#include <string>

namespace hemiray {
namespace {

// Binary rows are raw little-endian int32 and IEEE float32; the arrays are copied
// out of the staging buffers byte for byte.
static_assert(std::endian::native == std::endian::little,
              "binary rows are written from little-endian memory");
static_assert(std::numeric_limits<float>::is_iec559 && sizeof(float) == 4,
              "binary row values are IEEE single precision");

// Staging buffers of the binary rows, so that each array leaves in one write.
// Process-wide and never shrunk: sized by the first binary row to its width, grown
// when a later row (a later run with more globs) is wider. Rows are written only
// from the driver's thread, so they need no lock. Function-local statics are
// destroyed at exit, so leak checkers stay quiet.
struct BinaryRowStaging {
    std::vector<int32_t> columns;
    std::vector<float> values;
};

BinaryRowStaging& binaryRowStaging(size_t entriesNeeded) {
    static BinaryRowStaging staging;
    if (staging.columns.size() < entriesNeeded) {
        staging.columns.resize(entriesNeeded);
        staging.values.resize(entriesNeeded);
    }
    return staging;
}

bool writesGlobSection(int32_t zoneType) {
    return zoneType != zoneTypeMirror && zoneType != zoneTypePeriodic &&
           zoneType != zoneTypePeriodicShadow;
}

// Faces [first, last) of zone z in allFaces, cut to the faces that exist. The zone
// table trusts its headers: a face section with lastIndex below firstIndex lowers
// the running total, so a later zone's range can start below 0 or run past the
// face set. Such a zone writes only the faces it really covers.
struct FaceRange {
    int32_t first;
    int32_t last;
};

FaceRange zoneFaces(const ZoneTable& zones, int32_t z, int32_t faceCount) {
    const int32_t first = std::clamp(zones.zoneFaceStart[z], 0, faceCount);
    const int32_t last = std::clamp(zones.zoneFaceStart[z + 1], first, faceCount);
    return {first, last};
}

// Whether the stream formats numbers in this notation and precision and nothing
// else (decimal integers, no width, the classic locale): then std::to_chars gives
// the same characters as the stream, which writes printf's "%.<precision>e" or
// "%.<precision>f".
bool formatsAs(const std::ostream& out, std::ios::fmtflags notation, int precision) {
    return out.flags() == (std::ios::skipws | std::ios::dec | notation) &&
           out.precision() == precision && out.width() == 0 &&
           out.getloc() == std::locale::classic();
}

// The node lines in the parameter header's notation, formatted by std::to_chars and
// written in pieces of about 64 KiB: the stream's printf per coordinate was most of
// the time of a large model's head.
void writeScientificNodeLines(std::ostream& out, const NodeArray& nodes, int coordinates) {
    constexpr size_t piece = size_t{1} << 16;
    std::string text;
    text.reserve(piece + 64);
    char number[64];
    for (const Vec3& node : nodes) {
        text.push_back('\n');
        for (int i = 0; i < coordinates; ++i) {
            if (i > 0) text.push_back(' ');
            const auto end = std::to_chars(number, number + sizeof number, node[i],
                                           std::chars_format::scientific, 8);
            text.append(number, end.ptr);
        }
        if (text.size() >= piece) {
            out.write(text.data(), static_cast<std::streamsize>(text.size()));
            text.clear();
        }
    }
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void writeZoneHeader(std::ostream& out, int32_t sectionId, const ZoneTable& zones, int32_t z) {
    out << '(' << sectionId << " (" << zones.zoneId[z] << ' ' << zones.zoneFirst[z] << ' '
        << zones.zoneLast[z] << ' ' << zones.zoneType[z] << ' ' << zones.zoneElementType[z] << ')'
        << std::endl
        << '(';
}

void writeComponents(std::ostream& out, const Vec3& v) {
    out << v[0] << ' ' << v[1] << ' ' << v[2];
}

}  // namespace

void writeFileHeader(std::ostream& out, int32_t size1, int32_t size2, int32_t size3, int32_t size4,
                     int32_t dimension, const char* headerData, bool headerFlag) {
    // A host that hands its mesh over in memory may have no header text at all;
    // the comment section is then written empty rather than read through null.
    out << '(' << (headerFlag ? "-1" : "0") << " \"" << (headerData ? headerData : "") << "\")"
        << std::endl;
    out << '(' << size1 << ' ' << size2 << ' ' << size3 << ' ' << size4 << ' ' << dimension << ')'
        << std::endl;
}

void writeParameterHeader(std::ostream& out, const RunParameters& p) {
    // Stays set for the node coordinates and the periodic data written next.
    out << std::scientific << std::setprecision(8);
    out << '(' << p.param1 << ' ' << p.hemisphereResolution << ' ' << p.param3 << ' ' << p.param4
        << std::endl;
    out << p.param5 << ' ' << p.param6 << ' ' << p.param7 << std::endl;
    out << p.param8 << ' ' << p.param9 << ' ' << p.param10 << std::endl;
    out << p.param11 << ' ' << p.param12 << ' ' << p.param13 << ')' << std::endl;
}

void writeNodeSection(std::ostream& out, int32_t coordinateCount, const NodeArray& nodes) {
    // The node header is hexadecimal in the input syntax; its last field stays 3
    // whatever the coordinate count, as the host expects.
    out << '(' << 10 << " (1 1 " << std::hex << nodes.size() << std::dec << " 1 "
        << "3" << ')' << std::endl;
    // A node holds three coordinates; a larger count from a host block writes those
    // three rather than reading past them.
    const int d = std::clamp(coordinateCount, 0, 3);
    out << '(';
    if (formatsAs(out, std::ios::scientific, 8)) {
        writeScientificNodeLines(out, nodes, d);
    } else {
        for (const Vec3& node : nodes) {
            out << std::endl;
            for (int i = 0; i < d; ++i) {
                if (i > 0) out << ' ';
                out << node[i];
            }
        }
    }
    out << "))" << std::endl;
}

void writeFaceSections(std::ostream& out, const ZoneTable& zones, const FaceSet& allFaces) {
    const int32_t faceCount = std::max(allFaces.faceCount(), 0);
    for (int32_t z = 0; z < zones.zoneCount(); ++z) {
        writeZoneHeader(out, 311, zones, z);
        const bool countedFaces = zones.zoneElementType[z] == 0 || zones.zoneElementType[z] == 5;
        const auto [first, last] = zoneFaces(zones, z, faceCount);
        for (int32_t f = first; f < last; ++f) {
            const int32_t begin = allFaces.faceNodeStart[f];
            const int32_t end = allFaces.faceNodeStart[f + 1];
            out << std::endl << ' ';
            // A face without nodes keeps its place in a counted zone as "-1".
            if (countedFaces) out << (end - begin > 0 ? end - begin : -1);
            for (int32_t k = begin; k < end; ++k)
                out << ' ' << static_cast<int64_t>(allFaces.faceNodes[k]) + 1;
        }
        out << "))" << std::endl;
    }
}

void writeGlobSections(std::ostream& out, const ZoneTable& zones, const FaceSet& allFaces) {
    const auto faceCount = static_cast<int32_t>(
        std::min<size_t>(allFaces.faceGlob.size(), static_cast<size_t>(allFaces.faceCount())));
    for (int32_t z = 0; z < zones.zoneCount(); ++z) {
        if (!writesGlobSection(zones.zoneType[z])) continue;
        writeZoneHeader(out, 309, zones, z);
        const auto [first, last] = zoneFaces(zones, z, faceCount);
        for (int32_t f = first; f < last; ++f) out << std::endl << "  " << allFaces.faceGlob[f];
        out << "))" << std::endl;
    }
}

void writePeriodicSections(std::ostream& out, const ZoneTable& zones) {
    for (int32_t z = 0; z < zones.zoneCount(); ++z) {
        if (zones.zoneType[z] != zoneTypePeriodic) continue;
        // Only the zone named first in a periodic section knows its shadow. A 2012
        // zone that was only ever named as a shadow, or never paired, has none; it
        // names itself, an identifier that exists, so the file still reads back.
        const int32_t shadow = zones.periodicShadow[z];
        const int32_t shadowId =
            shadow >= 0 && shadow < zones.zoneCount() ? zones.zoneId[shadow] : zones.zoneId[z];
        out << '(' << 18 << " (" << zones.zoneId[z] << ' ' << shadowId << ")\n"
            << zones.periodicType[z] << '\n';
        if (zones.periodicType[z] != 0) {
            // Rotational: the closing ")" follows on the same line.
            out << zones.periodicAngle[z] << '\n';
            writeComponents(out, zones.periodicAxisA[z]);
            out << '\n';
            writeComponents(out, zones.periodicAxisB[z]);
        } else {
            writeComponents(out, zones.periodicShift[z]);
            out << '\n';
        }
        out << ')' << std::endl;
    }
}

void writeRowSectionHeader(std::ostream& out, bool binaryOutput,
                           const std::vector<int32_t>& activeGlobs) {
    // Stays set for every row value that follows.
    out << std::fixed << std::setprecision(6);
    out << '(' << (binaryOutput ? "1308" : "308") << " (" << activeGlobs.size();
    for (const int32_t glob : activeGlobs) out << ' ' << glob;
    out << ')' << std::endl << '(';
}

namespace {

// A text row formatted into one buffer and written at once: the stream's number
// formatting (a locale lookup and a printf per value) was most of a run's time
// outside tracing. The buffer keeps its capacity from row to row.
void writeTextRow(std::ostream& out, const SparseRowVector& row) {
    static thread_local std::string text;
    text.clear();
    char number[fixedSixRoom + 1];
    const auto append = [&](auto value, auto... format) {
        const std::to_chars_result end =
            std::to_chars(number, number + sizeof number, value, format...);
        text.append(number, end.ptr);
        text.push_back(' ');
    };
    append(row.np);
    for (int32_t k = 0; k < row.np; ++k) append(row.columnAt(k));
    text.push_back('\n');
    for (int32_t k = 0; k < row.np; ++k) {
        char* const end = formatFixedSix(number, row.valueAt(row.columnAt(k)));
        *end = ' ';
        text.append(number, end + 1);
    }
    text.push_back('\n');
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace

char* formatFixedSix(char* out, double value) {
    // |value| = mantissa * 2^-drop. Below 2^33 (every row value lies in [0, 1]),
    // drop is at least 20 and |value| * 10^6 = mantissa * 10^6 * 2^-drop, whose
    // numerator fits 73 bits: the integer part and the remainder below one unit of
    // the sixth decimal are exact, so is the rounding. Larger values, infinities
    // and NaN take std::to_chars, which rounds the same way but costs more.
    const auto bits = std::bit_cast<uint64_t>(value);
    const int exponent = static_cast<int>(bits >> 52 & 0x7ff);
    if (exponent >= 1023 + 33)
        return std::to_chars(out, out + fixedSixRoom, value, std::chars_format::fixed, 6).ptr;
    if (bits >> 63) *out++ = '-';
    uint64_t mantissa = bits & ((uint64_t{1} << 52) - 1);
    int drop = 1074;
    if (exponent > 0) {
        mantissa |= uint64_t{1} << 52;
        drop = 1075 - exponent;
    }
    uint64_t units = 0;  // |value| in millionths, rounded
    if (drop < 128) {
        __extension__ using Wide = unsigned __int128;
        const Wide scaled = Wide{mantissa} * 1000000;
        units = static_cast<uint64_t>(scaled >> drop);
        const Wide rest = scaled - (Wide{units} << drop);
        const Wide half = Wide{1} << (drop - 1);
        if (rest > half || (rest == half && (units & 1) != 0)) ++units;
    }
    out = std::to_chars(out, out + 20, units / 1000000).ptr;
    *out++ = '.';
    uint64_t fraction = units % 1000000;
    for (int digit = 5; digit >= 0; --digit) {
        out[digit] = static_cast<char>('0' + fraction % 10);
        fraction /= 10;
    }
    return out + 6;
}

void writeRow(std::ostream& out, bool binaryOutput, const SparseRowVector& row) {
    if (!binaryOutput && formatsAs(out, std::ios::fixed, 6)) {
        writeTextRow(out, row);
        return;
    }
    const int32_t np = row.np;
    out << np << ' ';
    if (!binaryOutput) {
        for (int32_t k = 0; k < np; ++k) out << row.columnAt(k) << ' ';
        out << '\n';
        for (int32_t k = 0; k < np; ++k) out << row.valueAt(row.columnAt(k)) << ' ';
        out << '\n';
        return;
    }
    out << '\n';
    // np never exceeds the width on a sound row; a corrupt one must not overrun
    // the buffers before columnAt's check stops it.
    const size_t entries = np > 0 ? static_cast<size_t>(np) : 0;
    BinaryRowStaging& staging = binaryRowStaging(std::max(row.w.size(), entries));
    for (int32_t k = 0; k < np; ++k) {
        const int32_t column = row.columnAt(k);
        staging.columns[k] = column;
        staging.values[k] = static_cast<float>(row.valueAt(column));
    }
    const auto bytes = static_cast<std::streamsize>(entries * 4);
    out.write(reinterpret_cast<const char*>(staging.columns.data()), bytes);
    out.write(reinterpret_cast<const char*>(staging.values.data()), bytes);
    out << '\n';
}

}  // namespace hemiray
