// The physical area of every glob, the weight that reciprocity A_i F_ij = A_j F_ji
// is stated in: face areas in 3D, segment lengths in planar runs, and the revolved
// areas 2 pi r L in axisymmetric runs.
#pragma once

#include <cstdint>
#include <vector>

#include "input/MeshModel.h"

namespace hemiray::repair {

// Computes the face geometry of `faces` (the participating faces of a model) and
// sums each glob's face areas; faces outside 0..globCount-1 are skipped.
std::vector<double> globAreas(FaceSet& faces, int32_t globCount);

}  // namespace hemiray::repair
