// Per-face area vectors and centroids, and the glob table that groups the faces of
// each glob (the cluster of faces that receives one view-factor row).
#pragma once

#include <cstdint>
#include <vector>

#include "input/MeshModel.h"

namespace hemiray {

// Sizes faceNormal and faceCentroid to the face count and fills them. Modes 1 and 2:
// the segment of the first two nodes; mode 3: a triangle fan from the first node.
// Degenerate faces get a zero normal (and in mode 3 a 0/0 centroid); nothing is reported.
void computeFaceGeometry(FaceSet& faces);

// The surface area of every glob 0..globCount-1, from faces whose geometry has been
// computed: face areas in 3D, segment lengths in planar runs, and in axisymmetric
// runs the area 2 pi r L that each segment sweeps about the x axis, the area for
// which reciprocity A_i F_ij = A_j F_ji holds. Faces outside every glob are left out.
[[nodiscard]] std::vector<double> globSurfaceAreas(const FaceSet& faces, int32_t globCount);

struct GlobTable {
    const FaceSet* faces = nullptr;  // not owned
    std::vector<int32_t>
        globFaceStart;  // glob g's faces: globFaces[globFaceStart[g] .. globFaceStart[g+1])
    std::vector<int32_t> globFaces;  // face indices grouped by glob, increasing within a glob
    std::vector<Vec3> globNormal;    // sum of the glob's face area vectors
    std::vector<Vec3> globCentroid;  // representative point on the glob's surface
    std::vector<bool> globActive;    // the glob gets a row: decided by its last face's zone type

    // Groups the faces by faceGlob (-1: no glob). Glob ids outside 0..globCount-1
    // are ignored rather than written out of bounds.
    GlobTable(int32_t globCount, const FaceSet& faces);

    int32_t globCount() const { return static_cast<int32_t>(globFaceStart.size()) - 1; }
};

}  // namespace hemiray
