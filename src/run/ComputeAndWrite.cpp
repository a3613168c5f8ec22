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
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "output/Hdf5Consumer.h"
#include "output/ViewFactorWriter.h"
#include "run/OutputSink.h"
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
void reportProgress(const RunSetup& run, uint64_t start, uint64_t count) {
    const uint64_t slots = static_cast<uint64_t>(run.slotCount);
    for (int k = 1; k <= 9; ++k) {
        if (start / slots + 1 != (k * count / slots) / 10) continue;
        std::cout << "#\t " << k << "0% done..." << std::endl;
        if (!run.progressName.empty()) writeProgressFile(run.progressName, k * 10);
    }
}

// Starts the HDF5 result and delivers the model to it: the same content as the
// head sections of a text result. Null after printing the error line.
std::unique_ptr<Hdf5Delivery> startHdf5Result(const RunSetup& run, const RunParameters& parameters,
                                              const NodeArray& nodes, const FaceSet& allFaces,
                                              const ZoneTable& zones,
                                              const std::vector<int32_t>& activeGlobs) {
    Hdf5Consumer* consumer = Hdf5Consumer::instance();
    auto delivery = consumer ? consumer->startResult(run.outputName) : nullptr;
    if (!delivery) {
        std::cerr << "error: couldn't open output file: " << run.outputName << std::endl;
        return nullptr;
    }
    Hdf5ResultWriter& file = delivery->writer();
    file.writeSizes(run.size1, run.size2, run.zoneCount, run.globCount, run.dimension,
                    run.headerData, run.headerFlag);
    file.writeParameters(parameters);
    file.writeNodes(run.nodeCoordinates, nodes);
    file.writeZones(zones);
    file.writeFaces(allFaces);
    file.beginRows(activeGlobs, run.globCount);
    if (!file.ok()) {
        std::cerr << "error: couldn't write output file: " << run.outputName << std::endl;
        return nullptr;
    }
    return delivery;
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

bool computeAndWrite(const RunSetup& run, const RunParameters& parameters,
                     const NodeArray& nodes, const FaceSet& allFaces,
                     FaceSet& participatingFaces, const ZoneTable& zones) {
    GlobTable globs(run.globCount, participatingFaces);
    computeFaceGeometry(participatingFaces);
    placeGlobCentroids(globs);
    const Hemisphere hemisphere(run.dimension == 2 ? 2 : 3, parameters.hemisphereResolution);

    std::vector<int32_t> activeGlobs;
    for (int32_t g = 0; g < globs.globCount(); ++g)
        if (globs.globActive[g]) activeGlobs.push_back(g);

    std::unique_ptr<OutputSink> sink;
    std::unique_ptr<Hdf5Delivery> hdf5;
    if (run.hdf5Output) {
        hdf5 = startHdf5Result(run, parameters, nodes, allFaces, zones, activeGlobs);
        if (!hdf5) return false;
    } else {
        sink = std::make_unique<OutputSink>(run.outputName, run.binaryOutput);
        if (!sink->ok()) {
            std::cerr << "error: couldn't open output file: " << run.outputName << std::endl;
            return false;
        }
        std::ostream& out = sink->stream();
        writeFileHeader(out, run.size1, run.size2, run.zoneCount, run.globCount, run.dimension,
                        run.headerData, run.headerFlag);
        writeParameterHeader(out, parameters);
        writeNodeSection(out, run.nodeCoordinates, nodes);
        writeFaceSections(out, zones, allFaces);
        writeGlobSections(out, zones, allFaces);
        writePeriodicSections(out, zones);
        writeRowSectionHeader(out, run.binaryOutput, activeGlobs);
    }

    std::cout << "# Create BSP tree..." << std::endl;
    const MeshView mesh{&nodes, &participatingFaces};
    // Rays walk the tree's flat copy; the node tree goes once it is copied.
    const TraversalTree tree(BspNode(run.dimension, &mesh, true));
    // 3D runs trace through a BVH that returns the flat tree's hits bit for bit.
    const RayTracer tracer(tree, participatingFaces, traceEngineFromEnvironment());

    std::cout << "# Calculate and write view factors..." << std::endl;
    const int32_t count = static_cast<int32_t>(activeGlobs.size());
    const int32_t slots = run.slotCount;
    const int32_t blocksPerBatch = blocksPerParallelRegion(slots, run.globCount, count);
    // One row per slot of a batch, allocated once and reused for every batch.
    std::vector<SparseRowVector> rows(static_cast<size_t>(slots) * blocksPerBatch);
    for (auto& row : rows) row.resize(run.globCount);

    const int32_t dimension = run.dimension;
    const FaceSet& faces = participatingFaces;
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
               zones, tracer, rows)
        {
            const int32_t team = omp_get_num_threads();
            const int32_t thread = omp_get_thread_num();
            for (int32_t blockStart = batchStart; blockStart < batchEnd; blockStart += slots) {
                const int32_t chunk = std::min(slots, batchEnd - blockStart);
                for (int32_t i = thread; i < chunk; i += team)
                    computeViewFactorRow(activeGlobs[blockStart + i], dimension, hemisphere,
                                         faces, globs, zones, tracer, rows[blockStart - batchStart + i]);
            }
        }
        // Written by this thread alone, in list order, whatever the threads' timing.
        for (int32_t blockStart = batchStart; blockStart < batchEnd; blockStart += slots) {
            const int32_t chunk = std::min(slots, batchEnd - blockStart);
            for (int32_t i = 0; i < chunk; ++i) {
                SparseRowVector& row = rows[blockStart - batchStart + i];
                if (sink) writeRow(sink->stream(), run.binaryOutput, row);
                else hdf5->writer().appendRow(row);
                row.clear();
            }
            // A result that can no longer be written is not worth the remaining rows.
            if (hdf5 && !hdf5->writer().ok()) {
                std::cerr << "error: couldn't write output file: " << run.outputName << std::endl;
                return false;
            }
            reportProgress(run, static_cast<uint64_t>(blockStart), static_cast<uint64_t>(count));
        }
    }

    // The HDF5 result ends without the closing line and the 100 % line.
    if (hdf5) {
        if (hdf5->commit()) return true;
        std::cerr << "error: couldn't write output file: " << run.outputName << std::endl;
        return false;
    }
    sink->stream() << "))" << std::endl;
    if (!sink->commit()) {
        std::cerr << "error: couldn't write output file: " << run.outputName << std::endl;
        return false;
    }
    std::cout << "#\t100% done!" << std::endl;
    if (!run.progressName.empty()) writeProgressFile(run.progressName, 100);
    return true;
}

}  // namespace hemiray
