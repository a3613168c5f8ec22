// The BSP tree of a face set, built with its depth line kept off the console: the
// model builders, tests and benchmarks want the tree, not the line.
#pragma once

#include <iostream>
#include <memory>
#include <sstream>

#include "geometry/BspTree.h"

namespace hemiray::models {

inline std::unique_ptr<BspNode> quietTree(const MeshView& view) {
    std::ostringstream quiet;
    auto* previous = std::cout.rdbuf(quiet.rdbuf());
    auto root = std::make_unique<BspNode>(view.faces->dimension, &view, true);
    std::cout.rdbuf(previous);
    return root;
}

}  // namespace hemiray::models
