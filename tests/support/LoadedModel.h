// A model text read into memory the way a run reads it (size, parameter and mesh
// sections through the library's readers), with the geometry a run computes before
// tracing: glob table, face geometry, glob points, direction set and BSP tree.
// Lets tests and benchmarks compute rows in full double precision, which the result
// file's six decimals would hide.
#pragma once

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include "Hemisphere"
#include "geometry/FaceGeometry.h"
#include "geometry/GlobCentroids.h"
#include "input/MeshModel.h"
#include "input/ParameterSection.h"
#include "input/SectionReader.h"
#include "models/QuietTree.h"
#include "run/InputSource.h"

namespace hemiray::testing {

struct LoadedModel {
    SizeSection sizes;
    RunParameters parameters;
    NodeArray nodes;
    FaceSet allFaces{0, nodes};
    FaceSet faces{0, nodes};  // participating faces with their geometry
    ZoneTable zones{0};
    std::unique_ptr<GlobTable> globs;
    std::unique_ptr<Hemisphere> hemisphere;
    MeshView view;
    std::unique_ptr<BspNode> tree;

    LoadedModel() = default;
    LoadedModel(const LoadedModel&) = delete;  // the face sets point at nodes
    LoadedModel& operator=(const LoadedModel&) = delete;
};

// Reads the text and prepares everything a run prepares before its block loop.
// False when the size or parameter section cannot be read. The tree's depth line is
// kept off the console.
inline bool loadModel(const std::string& text, LoadedModel& model) {
    std::istringstream in(text);
    if (!readSizeSection(in, model.sizes)) return false;
    if (!readParameterSection(in, model.parameters)) return false;
    const int32_t dimension = model.sizes.dimension;
    model.allFaces = FaceSet(dimension, model.nodes);
    model.faces = FaceSet(dimension, model.nodes);
    model.zones = ZoneTable(model.sizes.zoneCount);
    readMeshSections(in, nodeCoordinateCount(dimension), model.nodes, model.allFaces, model.faces,
                     model.zones);
    model.globs = std::make_unique<GlobTable>(model.sizes.globCount, model.faces);
    computeFaceGeometry(model.faces);
    placeGlobCentroids(*model.globs);
    model.hemisphere = std::make_unique<Hemisphere>(hemisphereMode(dimension),
                                                    model.parameters.hemisphereResolution);
    model.view = MeshView{&model.nodes, &model.faces};
    model.tree = models::quietTree(model.view);
    return true;
}

}  // namespace hemiray::testing
