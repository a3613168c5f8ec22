// Geometry, result head, tree, and the parallel block loop with ordered row output.
#include "run/ComputeAndWrite.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <vector>

#include "Hemisphere"
#include "SparseRowVector"
#include "geometry/BspTree.h"
#include "geometry/FaceGeometry.h"
#include "geometry/GlobCentroids.h"
#include "geometry/TraversalTree.h"
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
    if (!run.hdf5Output) {
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

    std::cout << "# Calculate and write view factors..." << std::endl;
    // One row per slot, allocated once and reused for every block.
    std::vector<SparseRowVector> rows(static_cast<size_t>(run.slotCount));
    for (auto& row : rows) row.resize(run.globCount);

    const int32_t count = static_cast<int32_t>(activeGlobs.size());
    const int32_t dimension = run.dimension;
    const FaceSet& faces = participatingFaces;
    for (int32_t start = 0; start < count; start += run.slotCount) {
        const int32_t chunk = std::min(run.slotCount, count - start);
        // Slot i goes to thread i modulo the team size, so the faces each thread
        // handles, and with them its random draws, are fixed for a thread count.
#pragma omp parallel num_threads(run.numThreads) default(none) \
    shared(chunk, activeGlobs, start, dimension, hemisphere, faces, globs, zones, tree, rows)
        {
#pragma omp for schedule(static, 1)
            for (int32_t i = 0; i < chunk; ++i)
                computeViewFactorRow(activeGlobs[start + i], dimension, hemisphere, faces, globs,
                                     zones, tree, rows[i]);
        }
        // Written by this thread alone, in list order, whatever the threads' timing.
        for (int32_t i = 0; i < chunk; ++i) {
            if (sink) writeRow(sink->stream(), run.binaryOutput, rows[i]);
            rows[i].clear();
        }
        reportProgress(run, static_cast<uint64_t>(start), static_cast<uint64_t>(count));
    }

    if (!sink) return true;
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
