// The compute-and-write phase of a run: geometry, direction set, result file head,
// tree, and the parallel loop that computes the rows block by block and writes them
// in active-glob order with progress lines.
#pragma once

#include <cstdint>
#include <string>

#include "input/MeshModel.h"
#include "input/ParameterSection.h"

namespace hemiray {

struct RunSetup {
    std::string outputName;
    std::string progressName;      // empty: no progress file
    bool binaryOutput = false;
    bool hdf5Output = false;       // the name contains ".h5"
    int32_t size1 = 0;
    int32_t size2 = 0;
    int32_t zoneCount = 0;
    int32_t globCount = 0;
    int32_t dimension = 0;
    int32_t nodeCoordinates = 0;   // coordinates per node written to the node section
    int32_t slotCount = 1;         // rows computed per block
    int32_t numThreads = 1;        // threads of each parallel region
    const char* headerData = nullptr;
    bool headerFlag = false;
};

// False after printing an "error: " line (the result file could not be opened or
// written); the input file is then left as it was.
bool computeAndWrite(const RunSetup& run, const RunParameters& parameters,
                     const NodeArray& nodes, const FaceSet& allFaces,
                     FaceSet& participatingFaces, const ZoneTable& zones);

// Called on the writing thread after every block of rows with the rows written so
// far and the rows in all, for front ends that show progress. None by default;
// the call is once per block, outside the parallel regions.
using RowProgressHook = void (*)(int64_t done, int64_t total);
void setRowProgressHook(RowProgressHook hook);

// Rewrites the progress file with "<percent>\n." and an end of line.
void writeProgressFile(const std::string& name, int percent);

}  // namespace hemiray
