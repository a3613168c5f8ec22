// Readers of the node, face, glob and periodic sections. Header counts come from
// untrusted text: containers grow as values are actually read and every loop stops
// at the first failed read, so a header that announces billions of entries over a
// short body costs no more than the body itself before its error is reported.
#include "input/MeshSections.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

#include "Check.h"
#include "input/SectionReader.h"

namespace hemiray {

namespace {

// Reads one formatted character and reports `message` unless it is "(".
void expectOpening(std::istream& input, const char* message) {
    char c = 0;
    input >> c;
    if (!input || c != '(') reportInputError(message);
}

// Face and node numbers are 32-bit fields; arithmetic on them wraps like the field
// instead of overflowing a signed int.
int32_t wrapToInt32(int64_t value) {
    return static_cast<int32_t>(static_cast<uint32_t>(value));
}

// Upper bound on what a header may make us reserve up front; larger sections grow
// while their bodies are read.
constexpr int64_t reserveLimit = int64_t{1} << 16;

// `input >> value` for the node coordinates, most of the reading time of a large
// model, without the stream's number parser. It takes from the buffer exactly the
// characters that the extraction takes (white space, an optional sign, digits with
// at most one decimal point, an exponent with an optional sign after a digit) and
// converts them with std::from_chars, which rounds as the extraction's strtod
// does. What from_chars refuses (out of range, "1e", "-") goes through the stream's
// parser as text, so failures and values are the extraction's own. Only for a
// stream that parses plain numbers (see below).
bool readCoordinate(std::istream& input, double& value) {
    const std::istream::sentry skipped(input);  // skips white space, as >> does
    if (!skipped) return false;
    std::streambuf& buffer = *input.rdbuf();
    using Traits = std::char_traits<char>;
    static thread_local std::string text;
    text.clear();
    bool digits = false, point = false, exponent = false;
    int c = buffer.sgetc();
    if (c == '+' || c == '-') {
        text.push_back(static_cast<char>(c));
        c = buffer.snextc();
    }
    while (!Traits::eq_int_type(c, Traits::eof())) {
        if (c >= '0' && c <= '9') {
            digits = true;
        } else if (c == '.' && !point && !exponent) {
            point = true;
        } else if ((c == 'e' || c == 'E') && digits && !exponent) {
            exponent = true;
            text.push_back('e');
            // The exponent's sign is taken with it; any other character is
            // looked at again.
            c = buffer.snextc();
            if (c != '+' && c != '-') continue;
        } else {
            break;
        }
        text.push_back(static_cast<char>(c));
        c = buffer.snextc();
    }
    if (Traits::eq_int_type(c, Traits::eof())) input.setstate(std::ios::eofbit);
    const char* first = text.data() + (!text.empty() && text[0] == '+');
    const char* last = text.data() + text.size();
    const auto [end, error] = std::from_chars(first, last, value);
    if (error == std::errc{} && end == last) return true;
    std::istringstream again(text);
    again.imbue(std::locale::classic());
    if (again >> value) return true;
    input.setstate(std::ios::failbit);
    return false;
}

// Whether the stream reads numbers as readCoordinate does: the classic locale
// (decimal point '.', no grouping) and default flags.
bool parsesPlainNumbers(const std::istream& input) {
    return input.flags() == (std::ios::skipws | std::ios::dec) &&
           input.getloc() == std::locale::classic();
}

}  // namespace

void readNodeSection(std::istream& input, int32_t dimension, NodeArray& nodes) {
    // The run maps its dimension code to the coordinates per node (2 or 3) before
    // calling; anything else is a caller bug, not bad text.
    HEMIRAY_CHECK(dimension >= 1 && dimension <= 3, "dimension >= 1 && dimension <= 3");

    expectOpening(input, "couldn't read node section header");
    int32_t zoneId = 0, firstIndex = 0, lastIndex = 0, type = 0, nd = 0;
    input >> std::hex >> zoneId >> firstIndex >> lastIndex >> type >> nd >> std::dec;
    // zoneId, type and nd are not used: the run's dimension, not nd, decides how many
    // coordinates each node carries.
    if (!skipExpression(input)) reportInputError("couldn't read node section header");

    expectOpening(input, "couldn't read node section body");
    // 64-bit: 7fffffff - (-80000000) + 1 does not fit an int. A reversed range
    // holds no nodes.
    const int64_t count = std::max<int64_t>(int64_t{lastIndex} - firstIndex + 1, 0);
    // The section replaces entries from 0 whatever its firstIndex: entries that
    // already exist are overwritten in place (keeping components beyond `dimension`),
    // new ones start at zero.
    if (static_cast<int64_t>(nodes.capacity()) < std::min(count, reserveLimit))
        nodes.reserve(static_cast<size_t>(std::min(count, reserveLimit)));
    const bool plainNumbers = parsesPlainNumbers(input);
    for (int64_t nodeIndex = 0; nodeIndex < count && input; ++nodeIndex) {
        Vec3 point;
        const bool existing = nodeIndex < static_cast<int64_t>(nodes.size());
        if (existing) point = nodes[static_cast<size_t>(nodeIndex)];
        bool read = true;
        for (int k = 0; k < dimension && read; ++k)
            read = plainNumbers ? readCoordinate(input, point[k])
                                : static_cast<bool>(input >> point[k]);
        if (!read) break;
        if (existing)
            nodes[static_cast<size_t>(nodeIndex)] = point;
        else
            nodes.push_back(point);
    }
    if (!input) reportInputError("couldn't read node section body");
    nodes.resize(static_cast<size_t>(count));

    if (!skipExpression(input)) reportInputError("couldn't read node section body");
}

void readFaceSection(std::istream& input, FaceSet& allFaces, FaceSet& participatingFaces,
                     ZoneTable& zones) {
    expectOpening(input, "couldn't read face section header");
    int32_t zoneId = 0, firstIndex = 0, lastIndex = 0, zoneType = 0, elementType = 0;
    input >> zoneId >> firstIndex >> lastIndex >> zoneType >> elementType;

    // Face numbers continue the running total of the headers read so far.
    const int32_t firstFaceNumber = zones.zoneFaceStart.back();
    // The zone is registered before the rest of its header is checked.
    addZone(zones, zoneId, firstIndex, lastIndex, zoneType, elementType);
    if (!skipExpression(input)) reportInputError("couldn't read face section header");

    expectOpening(input, "couldn't read face section body");
    switch (elementType) {
        case 0:
        case 2:
        case 3:
        case 4:
        case 5:
            break;
        default:
            reportInputError("element type not supported");
    }
    // The first zone with this id wins, so a repeated id gives the faces of the
    // later section the index of the earlier one.
    const int32_t zoneIndex = findZone(zones, zoneId);
    if (zoneIndex < 0) reportInputError("invalid id index");

    // Mixed (0) and polygon (5) faces lead with their node count; the others have
    // as many nodes as the element type says.
    const bool countedFaces = elementType == 0 || elementType == 5;
    const int32_t firstAllFace = allFaces.faceCount();
    int64_t faceNumber = firstFaceNumber;
    // 64-bit loop: lastIndex may be INT32_MAX. Nothing happens when lastIndex <
    // firstIndex.
    for (int64_t face = firstIndex; face <= lastIndex && input; ++face, ++faceNumber) {
        allFaces.faceId.push_back(wrapToInt32(faceNumber));
        int32_t n = elementType;
        if (countedFaces) input >> n;
        for (int32_t k = 0; k < n && input; ++k) {
            int32_t nodeNumber = 0;
            input >> nodeNumber;
            if (!input) break;
            allFaces.faceNodes.push_back(wrapToInt32(int64_t{nodeNumber} - 1));
        }
        // A face without nodes still exists in allFaces.
        addFace(allFaces, zoneType, zoneIndex);
    }
    // A failed read leaves the stream failed; closing the body would fail on it.
    if (!input) reportInputError("couldn't read face section body");

    // Participating zones copy their faces that have nodes, in order; the copy
    // remembers each face's number in allFaces.
    if (isParticipatingZoneType(zoneType)) {
        for (int32_t f = firstAllFace; f < allFaces.faceCount(); ++f) {
            const auto begin =
                allFaces.faceNodes.begin() + allFaces.faceNodeStart[static_cast<size_t>(f)];
            const auto end =
                allFaces.faceNodes.begin() + allFaces.faceNodeStart[static_cast<size_t>(f) + 1];
            if (begin == end) continue;
            participatingFaces.faceId.push_back(allFaces.faceId[static_cast<size_t>(f)]);
            participatingFaces.faceNodes.insert(participatingFaces.faceNodes.end(), begin, end);
            addFace(participatingFaces, zoneType, zoneIndex);
        }
    }

    if (!skipExpression(input)) reportInputError("couldn't read face section body");
}

void readGlobSection(std::istream& input, FaceSet& allFaces, FaceSet& /*participatingFaces*/,
                     ZoneTable& zones) {
    expectOpening(input, "couldn't read glob section header");
    int32_t zoneId = 0, unused1 = 0, unused2 = 0, unused3 = 0, unused4 = 0;
    input >> zoneId >> unused1 >> unused2 >> unused3 >> unused4;
    if (!skipExpression(input)) reportInputError("couldn't read glob section header");

    expectOpening(input, "couldn't read glob section body");
    const int32_t zoneIndex = findZone(zones, zoneId);
    if (zoneIndex < 0) reportInputError("invalid id index");

    const int64_t begin = zones.zoneFaceStart[static_cast<size_t>(zoneIndex)];
    const int64_t end = zones.zoneFaceStart[static_cast<size_t>(zoneIndex) + 1];
    // The zone's face range comes from the face headers, which the table trusts; after
    // a reversed range it no longer matches allFaces and may start below 0. That is
    // a bad face index rather than an unreadable body, so it is reported as such,
    // before any value is stored. An empty range needs no check.
    if (begin < end && (begin < 0 || end > static_cast<int64_t>(allFaces.faceGlob.size())))
        reportInputError("invalid id index");
    for (int64_t f = begin; f < end && input; ++f)
        input >> allFaces.faceGlob[static_cast<size_t>(f)];

    if (!skipExpression(input)) reportInputError("couldn't read glob section body");
}

void readPeriodicSection(std::istream& input, FaceSet& /*allFaces*/, ZoneTable& zones) {
    expectOpening(input, "couldn't read periodic section header");
    int32_t zoneId = 0, shadowZoneId = 0;
    input >> zoneId >> shadowZoneId;
    if (!skipExpression(input)) reportInputError("couldn't read periodic section body");

    const int32_t k = findZone(zones, zoneId);
    const int32_t s = findZone(zones, shadowZoneId);
    if (k < 0 || s < 0) reportInputError("invalid id index");
    const auto zone = static_cast<size_t>(k);
    const auto shadow = static_cast<size_t>(s);

    // Only the named zone points to its shadow; the shadow keeps -1.
    zones.periodicShadow[zone] = s;
    input >> zones.periodicType[zone];
    zones.periodicType[shadow] = zones.periodicType[zone];
    if (zones.periodicType[zone] != 0) {
        // Rotational: the shadow turns the other way about the same axis.
        input >> zones.periodicAngle[zone];
        for (int i = 0; i < 3; ++i) input >> zones.periodicAxisA[zone][i];
        for (int i = 0; i < 3; ++i) input >> zones.periodicAxisB[zone][i];
        zones.periodicAngle[shadow] = -zones.periodicAngle[zone];
        zones.periodicAxisA[shadow] = zones.periodicAxisA[zone];
        zones.periodicAxisB[shadow] = zones.periodicAxisB[zone];
    } else {
        // Translational: the shadow shifts back.
        for (int i = 0; i < 3; ++i) input >> zones.periodicShift[zone][i];
        zones.periodicShift[shadow] = -zones.periodicShift[zone];
    }
    // The rest of the section, up to its ")", is skipped by the section reader; a
    // value that did not parse makes that skip fail.
}

}  // namespace hemiray
