// Geometry, result head, tree, and the parallel block loop with ordered row output.
#include "run/ComputeAndWrite.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <omp.h>
#include <vector>

#include "Hemisphere"
#include "SparseRowVector"
#include "geometry/BspTree.h"
#include "geometry/FaceGeometry.h"
#include "geometry/GlobCentroids.h"
#include "geometry/TraversalTree.h"
#include "output/RowSink.h"
#include "run/Model.h"
#include "run/RunError.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {

void writeProgressFile(const std::string& name, int percent) {
    std::ofstream progress(name, std::ios::out | std::ios::trunc);
    progress << percent << "\n." << std::endl;
}

namespace {

// Prints the 10 % lines that fall on the block that starts at `start`. The test
// compares the block number with k * count / T / 10 in unsigned integer division,
// so short runs skip some of the lines.
void reportProgress(const RunOptions& run, uint64_t start, uint64_t count) {
    const uint64_t slots = static_cast<uint64_t>(run.slotCount);
    for (int k = 1; k <= 9; ++k) {
        if (start / slots + 1 != (k * count / slots) / 10) continue;
        std::cout << "#\t " << k << "0% done..." << std::endl;
        if (!run.progressName.empty()) writeProgressFile(run.progressName, k * 10);
    }
}

bool sinkFailed(const RowSink& sink, RowSink::Status status) {
    if (status == RowSink::Status::Ok) return false;
    reportRunError(std::string(status == RowSink::Status::CannotOpen ? "couldn't open"
                                                                     : "couldn't write") +
                   " output file: " + sink.name());
    return true;
}

// How many blocks of `slots` rows one parallel region computes. More blocks per
// region mean fewer joins and less waiting for the slowest glob of a block; the
// bound is the memory of the rows, each as wide as the glob count, and keeping
// progress lines and write failures timely.
int32_t blocksPerParallelRegion(int32_t slots, int32_t globCount, int32_t activeCount) {
    constexpr int64_t rowMemoryBudget = 64ll << 20;  // bytes for all rows of a batch
    constexpr int64_t maxRowsPerBatch = 256;
    const int64_t rowBytes = std::max<int64_t>(globCount, 1) * int64_t{sizeof(double) + 2 * sizeof(int32_t)};
    int64_t rowsPerBatch = std::min(maxRowsPerBatch, rowMemoryBudget / rowBytes);
    rowsPerBatch = std::min<int64_t>(rowsPerBatch, std::max(activeCount, 1));
    return static_cast<int32_t>(std::max<int64_t>(1, rowsPerBatch / slots));
}

}  // namespace

bool computeAndWrite(Model& model, const RunOptions& run, RowSink& sink) {
    const int32_t dimension = model.sizes.dimension;
    const int32_t globCount = model.sizes.globCount;
    const FaceSet& faces = model.participatingFaces;
    GlobTable globs(globCount, model.participatingFaces);
    computeFaceGeometry(model.participatingFaces);
    placeGlobCentroids(globs);
    const Hemisphere hemisphere(dimension == 2 ? 2 : 3, model.parameters.hemisphereResolution);

    std::vector<int32_t> activeGlobs;
    for (int32_t g = 0; g < globs.globCount(); ++g)
        if (globs.globActive[g]) activeGlobs.push_back(g);

    const ResultHead head{model, activeGlobs, run.headerData, run.headerFlag};
    if (sinkFailed(sink, sink.begin(head))) return false;

    std::cout << "# Create BSP tree..." << std::endl;
    const MeshView mesh{&model.nodes, &model.participatingFaces};
    // Rays walk the tree's flat copy; the node tree goes once it is copied.
    const TraversalTree tree(BspNode(dimension, &mesh, true));

    std::cout << "# Calculate and write view factors..." << std::endl;
    const int32_t count = static_cast<int32_t>(activeGlobs.size());
    const int32_t slots = run.slotCount;
    const int32_t blocksPerBatch = blocksPerParallelRegion(slots, globCount, count);
    // One row per slot of a batch, allocated once and reused for every batch.
    std::vector<SparseRowVector> rows(static_cast<size_t>(slots) * blocksPerBatch);
    for (auto& row : rows) row.resize(globCount);

    const ZoneTable& zones = model.zones;
    for (int32_t batchStart = 0; batchStart < count; batchStart += slots * blocksPerBatch) {
        const int32_t batchEnd = std::min(count, batchStart + slots * blocksPerBatch);
        // Rows go to threads in blocks of `slots` globs: slot i of every block goes to
        // thread i modulo the team size, and each thread takes its slots block after
        // block in increasing order. That fixes which globs, in which order, draw from
        // each thread's generator for a given thread count. Several blocks share one
        // parallel region, with no barrier between them: threads then neither wait
        // for the slowest glob of every block nor spin through thousands of joins.
#pragma omp parallel num_threads(run.numThreads) default(none) \
    shared(batchStart, batchEnd, slots, activeGlobs, dimension, hemisphere, faces, globs, \
               zones, tree, rows)
        {
            const int32_t team = omp_get_num_threads();
            const int32_t thread = omp_get_thread_num();
            for (int32_t blockStart = batchStart; blockStart < batchEnd; blockStart += slots) {
                const int32_t chunk = std::min(slots, batchEnd - blockStart);
                for (int32_t i = thread; i < chunk; i += team)
                    computeViewFactorRow(activeGlobs[blockStart + i], dimension, hemisphere,
                                         faces, globs, zones, tree, rows[blockStart - batchStart + i]);
            }
        }
        // Handed over by this thread alone, in list order, whatever the threads' timing.
        for (int32_t blockStart = batchStart; blockStart < batchEnd; blockStart += slots) {
            const int32_t chunk = std::min(slots, batchEnd - blockStart);
            bool taken = true;
            for (int32_t i = 0; i < chunk; ++i) {
                SparseRowVector& row = rows[blockStart - batchStart + i];
                taken = sink.write(row) && taken;
                row.clear();
            }
            if (!taken) return !sinkFailed(sink, RowSink::Status::CannotWrite);
            reportProgress(run, static_cast<uint64_t>(blockStart), static_cast<uint64_t>(count));
        }
    }

    if (!sink.finish()) return !sinkFailed(sink, RowSink::Status::CannotWrite);
    if (!sink.announcesCompletion()) return true;
    std::cout << "#\t100% done!" << std::endl;
    if (!run.progressName.empty()) writeProgressFile(run.progressName, 100);
    return true;
}

}  // namespace hemiray
