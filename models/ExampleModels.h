// Example models in the three modes, built from a few parameters: plates, a room
// with an obstacle, a closed cylinder (axisymmetric), planar enclosures, a sphere,
// and variants cut by a mirror plane or a periodic pair. Face normals point into
// the enclosed space; every wall face is its own glob unless stated.
#pragma once

#include <string>
#include <vector>

#include "models/ModelText.h"

namespace hemiray::models {

struct ExampleCase {
    const char* name;
    const char* description;
};

// The cases `makeExample` knows, in a fixed order.
const std::vector<ExampleCase>& exampleCases();

// Builds the named case with n subdivisions per edge and the given hemisphere
// resolution. False for an unknown name or n < 1.
[[nodiscard]] bool makeExample(const std::string& name, int n, int resolution, Model& model);

}  // namespace hemiray::models
