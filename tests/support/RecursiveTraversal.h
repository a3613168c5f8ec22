// The recursive walk of the node tree: the literal reading of the traversal rules,
// kept as the oracle that the flat tracing tree (the run's path) is checked
// against. Not part of the library.
#pragma once

#include <cstdint>

#include "geometry/BspTree.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {

// Parameter interval of the ray inside the root box; false when it certainly misses.
bool clipToRootBox(const BspNode& root, const Vec3& O, const Vec3& D, double& tEnter,
                   double& tExit);

// Nearest hit in [tmin, tmax]; hitPoint and hitFace are written only on a hit.
bool traversePlanar(const BspNode& node, const Vec3& O, const Vec3& D, Vec3& hitPoint,
                    int32_t& hitFace, double tmin, double tmax);
bool traverseAxisymmetric(const BspNode& node, const Vec3& O, const Vec3& D, Vec3& hitPoint,
                          int32_t& hitFace, double tmin, double tmax);

// The row of glob traced through the recursive walk.
void computeViewFactorRow(int32_t glob, int32_t dimension, const Hemisphere& hemisphere,
                          const FaceSet& faces, const GlobTable& globs, const ZoneTable& zones,
                          const BspNode& tree, SparseRowVector& row);

}  // namespace hemiray
