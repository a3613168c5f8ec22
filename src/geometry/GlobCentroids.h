// Representative point of each glob: the area-weighted centroid of its faces, moved
// onto the glob's own surface along the summed area vector when the glob is curved.
#pragma once

#include "geometry/FaceGeometry.h"

namespace hemiray {

// Fills globNormal and globCentroid; needs computeFaceGeometry on the glob table's faces.
void placeGlobCentroids(GlobTable& globs);

}  // namespace hemiray
