// Scalable models for the benchmarks, built straight into the library's mesh
// structures (no text round trip, so a 10^6-face model costs seconds, not minutes):
//   sphere    3D: the inside of a unit sphere, triangles from a projected cube
//   room      3D: a 4 x 3 x 2.5 room with four box obstacles, planar quads
//   ring      planar: the ring between radii 1 and 2
//   ring-axi  axisymmetric: the ring-shaped duct 1 <= r <= 2, 0 <= x <= 2, closed
//             by annular end walls
// Every face is a wall and its own glob; nodes are shared between neighbours. The
// geometry a run computes before tracing (face geometry, globs, glob points) is
// done, the tree is not.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Hemisphere"
#include "geometry/FaceGeometry.h"
#include "input/MeshModel.h"
#include "run/Model.h"

namespace hemiray::bench {

struct BenchModel {
    std::string name;
    int32_t dimension = 3;
    NodeArray nodes;
    FaceSet faces{3, nodes};  // the participating faces
    ZoneTable zones{1};
    std::unique_ptr<GlobTable> globs;

    BenchModel() = default;
    BenchModel(const BenchModel&) = delete;  // faces points at nodes
    BenchModel& operator=(const BenchModel&) = delete;
};

// The model names above, in that order.
const std::vector<std::string>& benchModelNames();

// The named model with about `faceCount` faces (within a few per cent); null for an
// unknown name.
std::unique_ptr<BenchModel> makeBenchModel(const std::string& name, int64_t faceCount);

struct BenchRay {
    Vec3 origin;
    Vec3 direction;
    int32_t face = 0;  // the emitting face
};

// The same model as a run reads it (every face a wall and its own glob, allFaces
// = participatingFaces), for timing whole runs through the library's own loop.
std::unique_ptr<Model> runModelOf(const BenchModel& model, int32_t resolution);

// The primary rays of about `count` / (directions) faces spread evenly over the
// model: each face's centroid and its hemisphere directions in the face's frame,
// the 3D frames turned by the thread's generator started at 1, as a run's rows
// shoot them.
std::vector<BenchRay> hemisphereRays(const BenchModel& model, const Hemisphere& hemisphere,
                                     int64_t count);

}  // namespace hemiray::bench
