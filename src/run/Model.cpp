// Reading a model from text or from a block, and the checks every model passes.
#include "run/Model.h"

#include <iostream>

#include "input/MeshBlock.h"
#include "input/SectionReader.h"
#include "run/RunError.h"

namespace hemiray {

namespace {

// The cost of a run is its directions per face: 3 R^2 for the hemicube, 2 R for
// the planar fan. Resolution 2048 on the hemicube (12.6 million directions, 400 MB
// of direction set) is the most a run may ask for; a planar run may use the
// resolution that gives as many directions.
constexpr int64_t maxDirections = int64_t{3} * 2048 * 2048;

// Rows are as wide as the glob count and one is allocated per worker slot, so an
// absurd count from a damaged size section would allocate gigabytes before the
// first ray. A count beyond both the face count and a million is refused.
constexpr int32_t globCountAllowance = 1 << 20;

// Node numbers are stored as read; one outside the node array (a 0 in the text
// becomes -1) would send the geometry past the array. Only participating faces
// are ever measured or traced, so only they are checked.
bool checkFaceNodes(const FaceSet& faces, size_t nodeCount) {
    for (int32_t f = 0; f < faces.faceCount(); ++f)
        for (int32_t k = faces.faceNodeStart[f]; k < faces.faceNodeStart[f + 1]; ++k) {
            const int32_t node = faces.faceNodes[k];
            if (node >= 0 && static_cast<size_t>(node) < nodeCount) continue;
            reportRunError("face " + std::to_string(faces.faceId[f] + 1) + " refers to node " +
                           std::to_string(static_cast<int64_t>(node) + 1) + ", outside the " +
                           std::to_string(nodeCount) + " nodes of the mesh");
            return false;
        }
    return true;
}

// A ray that ends on a wall scores into the column of the wall's glob, so a glob
// id at or above the row width cannot be scored. It is a fault of the model text
// (or block), found as soon as the glob count and the faces are both known, and
// reported like any other malformed input rather than midway through the rows.
// Mirror and periodic faces never score; their ids are not used.
void checkScoringGlobs(const FaceSet& faces, int32_t globCount) {
    for (int32_t f = 0; f < faces.faceCount(); ++f)
        if (faces.faceZoneType[f] < zoneTypeSpecial && faces.faceGlob[f] >= globCount)
            reportInputError("glob id at or above the glob count");
}

}  // namespace

int64_t largestHemisphereResolution(int32_t dimension) {
    return dimension == 2 ? maxDirections / 2 : 2048;
}

bool checkDimensionAndResolution(int32_t dimension, const RunParameters& parameters) {
    if (dimension < 1 || dimension > 3) {
        reportRunError("dimension " + std::to_string(dimension) +
                       " in the size section is not 1 (axisymmetric), 2 (planar) or 3");
        return false;
    }
    const int32_t resolution = parameters.hemisphereResolution;
    const int64_t largest = largestHemisphereResolution(dimension);
    if (resolution < 0 || resolution > largest) {
        reportRunError("hemisphere resolution " + std::to_string(resolution) + " is outside 0 to " +
                       std::to_string(largest));
        return false;
    }
    return true;
}

Model::Model(const SizeSection& s, int32_t coordinates)
    : sizes(s),
      nodeCoordinates(coordinates),
      allFaces(s.dimension, nodes),
      participatingFaces(s.dimension, nodes),
      zones(s.zoneCount) {}

std::unique_ptr<Model> readTextModel(std::istream& input, const SizeSection& sizes) {
    RunParameters parameters;
    if (!readParameterSection(input, parameters)) return nullptr;
    if (!checkDimensionAndResolution(sizes.dimension, parameters)) return nullptr;
    auto model = std::make_unique<Model>(sizes, nodeCoordinateCount(sizes.dimension));
    model->parameters = parameters;
    readMeshSections(input, model->nodeCoordinates, model->nodes, model->allFaces,
                     model->participatingFaces, model->zones);
    return model;
}

std::unique_ptr<Model> readBlockModel(const void* meshData, bool directFields) {
    if (meshData == nullptr) {
        reportRunError("no mesh data given");
        return nullptr;
    }
    // The head is checked against the block's length before anything else is read
    // from it; a bad block ends the process like bad mesh text.
    const MeshBlockView block =
        directFields ? openDirectBlock(meshData) : openPackedBlock(meshData);
    RunParameters parameters;
    // Both families carry the host's 64-byte parameter block at the same place.
    copyParameterBlock(block.parameters, parameters);
    if (!checkDimensionAndResolution(block.dimension, parameters)) return nullptr;
    const SizeSection sizes{block.size1, block.size2, block.zoneCount, block.globCount,
                            block.dimension};
    auto model = std::make_unique<Model>(sizes, block.dimension);
    model->parameters = parameters;
    readBlockMesh(block, block.dimension, model->nodes, model->allFaces, model->participatingFaces,
                  model->zones);
    return model;
}

bool checkModel(const Model& model) {
    const int32_t globCount = model.sizes.globCount;
    const int32_t faceCount = model.allFaces.faceCount();
    if (globCount < 0 || (globCount > faceCount && globCount > globCountAllowance)) {
        reportRunError("glob count " + std::to_string(globCount) +
                       " in the size section does not fit " + std::to_string(faceCount) + " faces");
        return false;
    }
    checkScoringGlobs(model.participatingFaces, globCount);
    return checkFaceNodes(model.participatingFaces, model.nodes.size());
}

}  // namespace hemiray
