// A model text read the way a run reads it (the library's Model readers), with the
// geometry a run computes before tracing: glob table, face geometry, glob points,
// direction set and BSP tree. Lets tests compute rows in full double precision,
// which the result file's six decimals would hide.
#pragma once

#include <memory>
#include <sstream>
#include <string>

#include "Hemisphere"
#include "geometry/FaceGeometry.h"
#include "geometry/GlobCentroids.h"
#include "models/QuietTree.h"
#include "run/Model.h"

namespace hemiray::testing {

struct LoadedModel {
    std::unique_ptr<Model> model;
    std::unique_ptr<GlobTable> globs;
    std::unique_ptr<Hemisphere> hemisphere;
    MeshView view;
    std::unique_ptr<BspNode> tree;
};

inline bool loadModel(const std::string& text, LoadedModel& loaded) {
    std::istringstream in(text);
    SizeSection sizes;
    if (!readSizeSection(in, sizes) || !(loaded.model = readTextModel(in, sizes))) return false;
    Model& m = *loaded.model;
    loaded.globs = std::make_unique<GlobTable>(sizes.globCount, m.participatingFaces);
    computeFaceGeometry(m.participatingFaces);
    placeGlobCentroids(*loaded.globs);
    loaded.hemisphere = std::make_unique<Hemisphere>(hemisphereMode(sizes.dimension),
                                                     m.parameters.hemisphereResolution);
    loaded.view = MeshView{&m.nodes, &m.participatingFaces};
    loaded.tree = models::quietTree(loaded.view);
    return true;
}

}  // namespace hemiray::testing
