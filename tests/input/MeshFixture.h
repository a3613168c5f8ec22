// A complete surface mesh model as one run holds it, fed from a string, for the
// reader tests.
#pragma once

#include <sstream>
#include <string>

#include "input/MeshModel.h"
#include "input/MeshSections.h"
#include "input/SectionReader.h"

namespace hemiray::test {

struct Mesh {
    NodeArray nodes;
    FaceSet allFaces;
    FaceSet participatingFaces;
    ZoneTable zones;

    explicit Mesh(int32_t dimension = 3)
        : allFaces(dimension, nodes), participatingFaces(dimension, nodes), zones(4) {}
    Mesh(const Mesh&) = delete;  // the face sets point at this object's nodes
    Mesh& operator=(const Mesh&) = delete;

    // Reads a whole section sequence; returns what the reader left unread.
    std::string read(const std::string& text, int32_t dimension = 3) {
        std::istringstream input(text);
        readMeshSections(input, dimension, nodes, allFaces, participatingFaces, zones);
        input.clear();
        return std::string(std::istreambuf_iterator<char>(input), {});
    }
};

// What a reader left in the stream, from the current position on.
inline std::string rest(std::istringstream& input) {
    input.clear();
    return std::string(std::istreambuf_iterator<char>(input), {});
}

}  // namespace hemiray::test
