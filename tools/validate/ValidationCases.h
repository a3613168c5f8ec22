// Validation cases: configurations of the three modes whose view factors are known
// in closed form, built as in-code meshes, and models cut by a mirror or a periodic
// pair next to the full models they stand for. The fast regression tests and the
// accuracy study (tools/validate) build the same cases, at different mesh sizes.
//
// A case compares surfaces, not globs: a surface is a set of globs whose rows are
// combined by physical area (in axisymmetric runs the revolved area 2 pi r L) and
// whose columns are summed. That lets an axisymmetric disc be cut into one glob per
// ring, the only way to get its disc-to-disc factor from rows that weight a glob's
// faces by segment length.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "models/CodeMesh.h"

namespace hemiray::validation {

struct Surface {
    std::string name;
    std::vector<int32_t> globs;
};

// The view factor from surface `from` to surface `to` and its closed form for the
// ideal geometry (true discs and spheres, infinitely long channels).
struct Comparison {
    int from = 0;
    int to = 0;
    double analytic = 0;
};

struct Case {
    std::string mode;  // "planar", "axisymmetric" or "3d"
    std::string name;
    std::unique_ptr<models::CodeMesh> mesh;
    std::vector<Surface> surfaces;
    std::vector<Comparison> comparisons;
    bool closed = false;  // every ray lands on a wall: rows sum to 1
    // Exact view factor from the centroid of face (with its normal) to surface `to`,
    // for the mesh as built (flat facets, finite images): what the rows converge to.
    std::function<double(int32_t face, int to)> pointFactor;
};

struct ComparisonResult {
    double computed = 0;   // from the rows
    double analytic = 0;   // closed form of the ideal geometry
    double reference = 0;  // mean of the exact point factors over the emitting face centroids
};

struct CaseResult {
    std::vector<ComparisonResult> comparisons;
    double worstClosure = -1;      // largest |row sum - 1| over the rows; -1 when not closed
    double worstReciprocity = -1;  // largest |A_S F_ST - A_T F_TS| / mean; -1 without pairs
    long long rays = 0;            // emitted rays (faces x directions), reflections not counted
    double seconds = 0;            // CPU time of the rows (calling thread)

    double maxError() const;          // largest |computed - analytic|
    double maxRelativeError() const;  // largest |computed - analytic| / analytic (analytic > 0)
    double maxSamplingError() const;  // largest |computed - reference|
    double maxMeshError() const;      // largest |reference - analytic|
};

// Computes every row the comparisons need (all rows of a closed case) at the given
// hemisphere resolution, starting the thread's generator at randomState.
[[nodiscard]] CaseResult evaluate(const Case& c, int resolution, uint32_t randomState = 1);

// Physical area of a face: its area in 3D, its length in the plane, 2 pi r L in
// axisymmetric runs.
double physicalArea(const FaceSet& faces, int32_t face);

// Planar, n faces per strip or side.
Case parallelStrips(int n);
Case perpendicularStrips(int n);
Case closedPolygon(int n);
// A cell of an infinite channel, periodic in x: 10 n faces per plate.
Case planarChannel(int n);

// Axisymmetric, one glob per disc ring.
Case coaxialDiscs(int rings);
Case coaxialDiscsOneGlob(int rings);  // each disc one glob: shows the length weighting
Case discToCylinder(int rings, int mantleFaces);
Case closedCylinder(int rings, int mantleFaces);
// A cell of an infinite pipe, periodic in x: 10 n faces along the wall.
Case pipeCell(int n);

// Three-dimensional, n x n faces per rectangle.
Case parallelRectangles(int n);
Case perpendicularRectangles(int n);
Case coaxialDiscs3d(int rings, int sectors);
Case sphere(int bands, int sectors);
Case cube(int n);
Case channel3d(int n);

// A model cut by a mirror or a rotational periodic pair, and the full model. Row
// `reducedGlobs[k]` of the reduced model must equal row `fullGlobs[k]` of the full
// model with the columns of each reduced glob's images summed.
struct Equivalence {
    std::string mode;
    std::string name;
    std::unique_ptr<models::CodeMesh> full;
    std::unique_ptr<models::CodeMesh> reduced;
    std::vector<int32_t> reducedGlobs;
    std::vector<int32_t> fullGlobs;
    std::vector<std::vector<int32_t>> images;  // per reduced glob: its full globs
};

struct EquivalenceResult {
    double maxDifference = 0;  // largest |reduced - sum of full images| over all entries
    double fullClosure = 0;    // largest |row sum - 1|: both models are closed enclosures
    double reducedClosure = 0;
    double fullSeconds = 0;
    double reducedSeconds = 0;
    long long fullRays = 0;
    long long reducedRays = 0;
};

// Both models' rows; in 3D each pair of rows starts from the same generator state,
// so the reduced model's rays are the full model's.
[[nodiscard]] EquivalenceResult compare(const Equivalence& e, int resolution);

Equivalence planarMirror(int n);                             // a symmetric pentagon halved
Equivalence planarRotational(int n);                         // a ring of 12-gons, one third
Equivalence axisymmetricMirror(int rings, int mantleFaces);  // closed cylinder halved
Equivalence cubeMirror(int n);                               // the cube halved, n even

}  // namespace hemiray::validation
