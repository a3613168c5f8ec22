// The compute-and-write phase of a run: geometry, direction set, result head,
// tree, and the parallel loop that computes the rows block by block and hands them
// to the run's row sink in active-glob order, with progress lines.
#pragma once

#include <cstdint>
#include <string>

namespace hemiray {

struct Model;
class RowSink;

struct RunOptions {
    int32_t slotCount = 1;         // rows computed per block
    int32_t numThreads = 1;        // threads of each parallel region
    std::string progressName;      // empty: no progress file
    const char* headerData = nullptr;  // text of the result's first line
    bool headerFlag = false;
};

// Computes every active glob's row of model into sink. Fills the participating
// faces' geometry. False after an "error: " line (the sink could not be opened or
// written); a file sink then leaves an earlier file of its name as it was.
bool computeAndWrite(Model& model, const RunOptions& options, RowSink& sink);

// Rewrites the progress file with "<percent>\n." and an end of line.
void writeProgressFile(const std::string& name, int percent);

}  // namespace hemiray
