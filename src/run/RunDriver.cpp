// One run from input to result: clocks, worker slots, parameters, mesh, the
// compute-and-write phase and the timing lines.
#include "run/RunDriver.h"

#include <ctime>
#include <iostream>
#include <omp.h>

#include "input/MeshBlock.h"
#include "input/MeshModel.h"
#include "input/ParameterSection.h"
#include "input/SectionReader.h"
#include "run/ComputeAndWrite.h"
#include "run/InputSource.h"

namespace hemiray {

namespace {

// The cost of a run is its directions per face: 3 R^2 for the hemicube, 2 R for
// the planar fan. Resolution 2048 on the hemicube (12.6 million directions, 400 MB
// of direction set) is the most a run may ask for; a planar run may use the
// resolution that gives as many directions.
constexpr int64_t maxDirections = int64_t{3} * 2048 * 2048;

// Rows are as wide as the glob count and one is allocated per worker slot, so an
// absurd count from a damaged size section would allocate gigabytes before the
// first ray. A count beyond both the face count and a million is refused.
constexpr int32_t globCountAllowance = 1 << 20;

bool checkDimensionAndResolution(int32_t dimension, const RunParameters& parameters) {
    if (dimension < 1 || dimension > 3) {
        std::cerr << "error: dimension " << dimension
                  << " in the size section is not 1 (axisymmetric), 2 (planar) or 3" << std::endl;
        return false;
    }
    const int32_t resolution = parameters.hemisphereResolution;
    const int64_t largest = largestHemisphereResolution(dimension);
    if (resolution < 0 || resolution > largest) {
        std::cerr << "error: hemisphere resolution " << resolution << " is outside 0 to "
                  << largest << std::endl;
        return false;
    }
    return true;
}

bool checkGlobCount(int32_t globCount, int32_t faceCount) {
    if (globCount < 0 || (globCount > faceCount && globCount > globCountAllowance)) {
        std::cerr << "error: glob count " << globCount << " in the size section does not fit "
                  << faceCount << " faces" << std::endl;
        return false;
    }
    return true;
}

// Node numbers are stored as read; one outside the node array (a 0 in the text
// becomes -1) would send the geometry past the array. Only participating faces
// are ever measured or traced, so only they are checked.
bool checkFaceNodes(const FaceSet& faces, size_t nodeCount) {
    for (int32_t f = 0; f < faces.faceCount(); ++f)
        for (int32_t k = faces.faceNodeStart[f]; k < faces.faceNodeStart[f + 1]; ++k) {
            const int32_t node = faces.faceNodes[k];
            if (node >= 0 && static_cast<size_t>(node) < nodeCount) continue;
            std::cerr << "error: face " << faces.faceId[f] + 1 << " refers to node "
                      << static_cast<int64_t>(node) + 1 << ", outside the " << nodeCount
                      << " nodes of the mesh" << std::endl;
            return false;
        }
    return true;
}

// A ray that ends on a wall scores into the column of the wall's glob, so a glob
// id at or above the row width cannot be scored. It is a fault of the model text
// (or block), found as soon as the glob count and the faces are both known, and
// reported like any other malformed input rather than midway through the rows.
// Mirror and periodic faces never score; their ids are not used.
void checkScoringGlobs(const FaceSet& faces, int32_t globCount) {
    for (int32_t f = 0; f < faces.faceCount(); ++f)
        if (faces.faceZoneType[f] < zoneTypeSpecial && faces.faceGlob[f] >= globCount)
            reportInputError("glob id at or above the glob count");
}

}  // namespace

int64_t largestHemisphereResolution(int32_t dimension) {
    return dimension == 2 ? maxDirections / 2 : 2048;
}

bool calculateViewFactors(std::unique_ptr<std::istream> input, const std::string& outputName,
                          const std::string& progressName, bool useOpenMP, bool binaryOutput,
                          int32_t dimension, int32_t size1, int32_t size2, int32_t size3,
                          int32_t size4, int32_t numThreads, bool readFromFile,
                          const void* meshData, const char* headerData, bool headerFlag,
                          bool directFields, int32_t /*reserved*/) {
    const std::clock_t cpuStart = std::clock();
    const double wallStart = static_cast<double>(std::time(nullptr));

    RunSetup run;
    run.outputName = outputName;
    run.progressName = progressName;
    run.binaryOutput = binaryOutput;
    run.hdf5Output = namesHdf5(outputName);
    run.numThreads = numThreads;
    run.headerData = headerData;
    run.headerFlag = headerFlag;

    run.slotCount = useOpenMP ? omp_get_max_threads() : 1;
    if (useOpenMP && run.slotCount > 1)
        std::cout << "# Using OpenMP with " << run.slotCount << " process" << "es" << "..."
                  << std::endl;

    std::cout << "# Read parameter section..." << std::endl;
    RunParameters parameters;
    MeshBlockView block;
    if (readFromFile) {
        if (!readParameterSection(*input, parameters)) return false;
    } else {
        if (meshData == nullptr) {
            std::cerr << "error: no mesh data given" << std::endl;
            return false;
        }
        // The head is checked against the block's length before anything else is
        // read from it; a bad block ends the process like bad mesh text.
        block = directFields ? openDirectBlock(meshData) : openPackedBlock(meshData);
        // Both families carry the host's 64-byte parameter block at the same place.
        copyParameterBlock(block.parameters, parameters);
        size1 = block.size1;
        size2 = block.size2;
        size3 = block.zoneCount;
        size4 = block.globCount;
        dimension = block.dimension;
    }
    run.size1 = size1;
    run.size2 = size2;
    run.zoneCount = size3;
    run.globCount = size4;
    run.dimension = dimension;
    // Text: axisymmetric meshes carry two coordinates per node, like planar ones. A
    // block's node section is written with the block's own dimension value.
    run.nodeCoordinates = !readFromFile ? dimension : dimension == 3 ? 3 : 2;
    if (!checkDimensionAndResolution(dimension, parameters)) return false;

    NodeArray nodes;
    FaceSet allFaces(dimension, nodes);
    FaceSet participatingFaces(dimension, nodes);
    ZoneTable zones(size3);
    if (readFromFile) {
        readMeshSections(*input, run.nodeCoordinates, nodes, allFaces, participatingFaces, zones);
        // Closing the input here (or waiting for its decompressor) frees the name for
        // the result. An HDF5 result is written beside the input and renamed over it,
        // so the input may stay open until the run ends.
        if (!run.hdf5Output) input.reset();
    } else {
        readBlockMesh(block, dimension, nodes, allFaces, participatingFaces, zones);
    }

    if (!checkGlobCount(run.globCount, allFaces.faceCount())) return false;
    checkScoringGlobs(participatingFaces, run.globCount);
    if (!checkFaceNodes(participatingFaces, nodes.size())) return false;
    if (!computeAndWrite(run, parameters, nodes, allFaces, participatingFaces, zones)) return false;

    const double cpuSeconds = static_cast<double>(std::clock()) / CLOCKS_PER_SEC -
                              static_cast<double>(cpuStart) / CLOCKS_PER_SEC;
    std::cout << "# CPU  time: " << cpuSeconds << " (s)" << std::endl;
    std::cout << "# Wall time: " << static_cast<double>(std::time(nullptr)) - wallStart << " (s)"
              << std::endl;
    return true;
}

}  // namespace hemiray
