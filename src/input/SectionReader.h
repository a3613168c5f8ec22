// Reader of the parenthesised section sequence of the mesh text: dispatches each
// section to its reader by identifier and consumes the rest up to its ")".
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <stdexcept>

#include "input/MeshModel.h"

namespace hemiray {

// Called after an opening "(" was consumed: consumes characters up to and including
// the matching ")". False when the stream fails first. Iterative, so nesting depth
// costs no stack.
[[nodiscard]] bool skipExpression(std::istream& input);

// The one handler of malformed input, text or block. Under the default policy it
// prints "file i/o error: " + message on standard error and exits with status 1, as
// hosts of the C entry point expect. While a ScopedInputErrorsThrow lives on the
// calling thread it throws InputError(message) instead, for front ends (the tool,
// Python) whose process must survive bad input.
[[noreturn]] void reportInputError(const char* message);

class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class ScopedInputErrorsThrow {
public:
    ScopedInputErrorsThrow();
    ~ScopedInputErrorsThrow();
    ScopedInputErrorsThrow(const ScopedInputErrorsThrow&) = delete;
    ScopedInputErrorsThrow& operator=(const ScopedInputErrorsThrow&) = delete;

private:
    bool previous_;
};

// The last step of reading a mesh, from text or from a block: gives each face of
// participatingFaces the glob of the allFaces face it copies.
void copyGlobsToParticipatingFaces(const FaceSet& allFaces, FaceSet& participatingFaces);

// Reads sections until the input ends or a character other than "(" stands where a
// section would open, then copies glob ids from allFaces into participatingFaces.
// Malformed sections end the process through reportInputError.
void readMeshSections(std::istream& input, int32_t dimension, NodeArray& nodes, FaceSet& allFaces,
                      FaceSet& participatingFaces, ZoneTable& zones);

// For readers of files that carry more than a model (results): a section whose id
// is not a mesh section is first offered to `extra`, with the stream just after
// the id. When it returns true the section counts as read (whatever it left up to
// the section's ")" is skipped); false lets the id take its usual course.
using ExtraSectionReader = std::function<bool(int32_t sectionId, std::istream& input)>;
void readMeshSections(std::istream& input, int32_t dimension, NodeArray& nodes, FaceSet& allFaces,
                      FaceSet& participatingFaces, ZoneTable& zones,
                      const ExtraSectionReader& extra);

}  // namespace hemiray
