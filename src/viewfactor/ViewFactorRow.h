// One glob's row of view factors: every face of the glob shoots the hemisphere
// from its centroid, rays continue through mirror and periodic zones (at most 100
// bounces), and each ray that lands on a wall adds its weight times the emitting
// face's area to the wall's glob. The row is finally divided by the glob's area.
#pragma once

#include <cstdint>

#include "Hemisphere"
#include "SparseRowVector"
#include "geometry/BspTree.h"
#include "geometry/FaceGeometry.h"
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "input/MeshModel.h"

namespace hemiray {

// Rays that cross mirror or periodic zones are abandoned after this many steps.
inline constexpr int maxBounces = 100;

// Fills row (empty on entry, as wide as the glob count) for glob. Reentrant: the
// only per-thread state it touches besides the row is the thread's random state.
void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const BspNode& tree, SparseRowVector& row);
// The same row traced through the tree's flat copy (the run's path): the same bits,
// faster.
void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const TraversalTree& tree, SparseRowVector& row);
// The same row traced by the run's tracer (the BVH where it applies): the same bits.
void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const RayTracer& tracer, SparseRowVector& row);

// Local frame (t1, t2, n) for unit normal n. Modes 1 and 2: the in-plane tangent and
// the z axis; 3D: t2 a random unit tangent drawn from the thread's generator.
void buildTangentFrame(int32_t dimension, const Vec3& n, Vec3& t1, Vec3& t2);

// Row-major 3x3 rotation by angle (radians) about the unit axis.
void rotationMatrix(double angle, const Vec3& axis, double M[9]);

// The thread's linear congruential generator (multiplier 214013, increment
// 2531011, bits 16..30 of the state): 15-bit results, state 1 on a thread's first
// draw, never reseeded by the library, so rows are reproducible per thread count.
int threadRandom();
// For tests: the calling thread's generator state, read and set.
uint32_t threadRandomState();
void setThreadRandomState(uint32_t state);

}  // namespace hemiray
