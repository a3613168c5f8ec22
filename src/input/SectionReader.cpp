// Section framing of the mesh text: every section is "(" id header body ")", with
// parentheses nesting freely. The reader dispatches on the id, lets the section's
// reader consume what it understands and skips the rest up to the closing ")".
#include "input/SectionReader.h"

#include <cstdlib>
#include <iostream>

#include "input/MeshSections.h"

namespace hemiray {

namespace {

constexpr int32_t sectionNodes = 10;
constexpr int32_t sectionFaces = 311;
constexpr int32_t sectionGlobs = 309;
constexpr int32_t sectionPeriodic = 18;
constexpr int32_t sectionSkipped = 308;

}  // namespace

bool skipExpression(std::istream& input) {
    // A depth counter instead of recursion: the text is untrusted and a deep run of
    // "(" must cost neither stack nor heap. depth counts the open parentheses,
    // including the one the caller already consumed.
    std::streambuf* buffer = input.rdbuf();
    if (!input.good() || buffer == nullptr) {
        input.setstate(std::ios_base::failbit);
        return false;
    }
    using Traits = std::istream::traits_type;
    // Reading through the buffer directly is what get() does per character, minus
    // building a sentry for each one; the stream state is kept up to date below.
    int64_t depth = 1;
    for (;;) {
        const Traits::int_type ch = buffer->sbumpc();
        if (Traits::eq_int_type(ch, Traits::eof())) {
            input.setstate(std::ios_base::eofbit | std::ios_base::failbit);
            return false;
        }
        const char c = Traits::to_char_type(ch);
        if (c == '(') {
            ++depth;
        } else if (c == ')') {
            if (--depth == 0) return true;
        }
    }
}

namespace {
thread_local bool inputErrorsThrow = false;
}  // namespace

ScopedInputErrorsThrow::ScopedInputErrorsThrow() : previous_(inputErrorsThrow) {
    inputErrorsThrow = true;
}

ScopedInputErrorsThrow::~ScopedInputErrorsThrow() {
    inputErrorsThrow = previous_;
}

void reportInputError(const char* message) {
    if (inputErrorsThrow) throw InputError(message);
    std::cerr << "file i/o error: " << message << std::endl;
    std::exit(1);
}

void readMeshSections(std::istream& input, int32_t dimension, NodeArray& nodes, FaceSet& allFaces,
                      FaceSet& participatingFaces, ZoneTable& zones) {
    readMeshSections(input, dimension, nodes, allFaces, participatingFaces, zones, {});
}

void readMeshSections(std::istream& input, int32_t dimension, NodeArray& nodes, FaceSet& allFaces,
                      FaceSet& participatingFaces, ZoneTable& zones,
                      const ExtraSectionReader& extra) {
    char c = 0;
    input >> c;
    // A stream that ends, or any character other than "(", where a section could
    // open ends the sequence without a message: trailing text is allowed.
    while (input && c == '(') {
        int32_t sectionId = 0;
        input >> sectionId;
        const bool meshSection = sectionId == sectionNodes || sectionId == sectionFaces ||
                                 sectionId == sectionGlobs || sectionId == sectionPeriodic;
        if (extra && !meshSection && extra(sectionId, input)) sectionId = sectionSkipped;
        switch (sectionId) {
            case sectionNodes:
                readNodeSection(input, dimension, nodes);
                break;
            case sectionFaces:
                readFaceSection(input, allFaces, participatingFaces, zones);
                break;
            case sectionGlobs:
                readGlobSection(input, allFaces, participatingFaces, zones);
                break;
            case sectionPeriodic:
                readPeriodicSection(input, allFaces, zones);
                break;
            case sectionSkipped:
                break;
            default:
                // Also reached when the id does not parse: the failed read leaves 0.
                reportInputError("unknown sectionId");
        }
        // Whatever the section reader left (or the whole section, for 308) is
        // skipped up to the section's own ")"; nested expressions may hold anything.
        if (!skipExpression(input)) reportInputError("couldn't flush expression");
        input >> c;
    }
    copyGlobsToParticipatingFaces(allFaces, participatingFaces);
}

void copyGlobsToParticipatingFaces(const FaceSet& allFaces, FaceSet& participatingFaces) {
    // Glob sections number faces of allFaces only; participatingFaces learns its
    // clusters here, through the allFaces position each of its faces carries. A face
    // number outside allFaces only arises from headers whose ranges disagree with
    // their bodies (a reversed range shifts every later zone); such a face keeps -1,
    // "no cluster", like any cluster id the later stages cannot use.
    const auto allCount = static_cast<int64_t>(allFaces.faceGlob.size());
    const auto participatingCount = static_cast<int64_t>(participatingFaces.faceGlob.size());
    for (int64_t i = 0; i < participatingCount; ++i) {
        const int32_t faceId = participatingFaces.faceId[static_cast<size_t>(i)];
        if (faceId >= 0 && faceId < allCount)
            participatingFaces.faceGlob[static_cast<size_t>(i)] =
                allFaces.faceGlob[static_cast<size_t>(faceId)];
    }
}

}  // namespace hemiray
