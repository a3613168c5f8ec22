// A model held in memory: the size values, the thirteen parameters and the surface
// mesh that the readers fill. Every front end (the C entry point, the tool, Python,
// distributed runs) reads or builds one of these and hands it to computeAndWrite.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>

#include "input/MeshModel.h"
#include "input/ParameterSection.h"
#include "run/InputSource.h"

namespace hemiray {

struct Model {
    SizeSection sizes;
    int32_t nodeCoordinates = 0;  // coordinates per node in the node section
    RunParameters parameters;
    NodeArray nodes;
    FaceSet allFaces;
    FaceSet participatingFaces;
    ZoneTable zones;

    // Empty sets for sizes.dimension; the face sets point at this model's nodes, so
    // a model is never copied or moved.
    Model(const SizeSection& sizes, int32_t nodeCoordinates);
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;
};

// The largest hemisphere resolution a run of this dimension accepts. The bound is
// on directions per face (3 R^2 on the hemicube, 2 R on the planar fan), so planar
// runs may ask for a far higher resolution than the 2048 of the others.
[[nodiscard]] int64_t largestHemisphereResolution(int32_t dimension);

// Reads the parameter section and the mesh sections that follow the size section.
// Null after an "error: " line (a parameter section that does not parse, a
// dimension or resolution outside what a run can do, a model that fails
// checkModel); malformed mesh text goes to reportInputError.
std::unique_ptr<Model> readTextModel(std::istream& input, const SizeSection& sizes);

// The same from an in-memory block (packed, or direct pointers into the host's
// arrays); a damaged block goes to reportInputError.
std::unique_ptr<Model> readBlockModel(const void* meshData, bool directFields);

// The dimension is one a run knows and the hemisphere resolution one it can
// afford. False after an "error: " line.
[[nodiscard]] bool checkDimensionAndResolution(int32_t dimension, const RunParameters& parameters);

// The checks a model passes before any geometry is computed from it: the glob
// count fits the faces, and every participating face names nodes of the node
// array. False after an "error: " line. A wall face whose glob id is at or above
// the glob count is malformed input and goes to reportInputError.
[[nodiscard]] bool checkModel(const Model& model);

}  // namespace hemiray
