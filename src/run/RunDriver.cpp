// One run from input to result: clocks, worker slots, parameters, mesh, the
// compute-and-write phase and the timing lines.
#include "run/RunDriver.h"

#include <omp.h>
#include <ctime>
#include <iostream>

#include "output/RowSink.h"
#include "run/ComputeAndWrite.h"
#include "run/Model.h"

namespace hemiray {

bool calculateViewFactors(std::unique_ptr<std::istream> input, const std::string& outputName,
                          const std::string& progressName, bool useOpenMP, bool binaryOutput,
                          int32_t dimension, int32_t size1, int32_t size2, int32_t size3,
                          int32_t size4, int32_t numThreads, bool readFromFile,
                          const void* meshData, const char* headerData, bool headerFlag,
                          bool directFields, int32_t /*reserved*/) {
    const std::clock_t cpuStart = std::clock();
    const double wallStart = static_cast<double>(std::time(nullptr));

    RunOptions options;
    options.progressName = progressName;
    options.numThreads = numThreads;
    options.headerData = headerData;
    options.headerFlag = headerFlag;
    options.slotCount = useOpenMP ? omp_get_max_threads() : 1;
    if (useOpenMP && options.slotCount > 1)
        std::cout << "# Using OpenMP with " << options.slotCount << " process"
                  << "es"
                  << "..." << std::endl;

    if (!samplingFromEnvironment(options.sampling)) return false;

    std::cout << "# Read parameter section..." << std::endl;
    const SizeSection sizes{size1, size2, size3, size4, dimension};
    const std::unique_ptr<Model> model =
        readFromFile ? readTextModel(*input, sizes) : readBlockModel(meshData, directFields);
    if (!model) return false;
    // Closing the input here (or waiting for its decompressor) frees the name for
    // the result. An HDF5 result is written beside the input and renamed over it,
    // so the input may stay open until the run ends.
    const std::unique_ptr<RowSink> sink = openFileSink(outputName, binaryOutput);
    if (!namesHdf5(outputName)) input.reset();

    if (!checkModel(*model)) return false;
    if (!computeAndWrite(*model, options, *sink)) return false;

    const double cpuSeconds = static_cast<double>(std::clock()) / CLOCKS_PER_SEC -
                              static_cast<double>(cpuStart) / CLOCKS_PER_SEC;
    std::cout << "# CPU  time: " << cpuSeconds << " (s)" << std::endl;
    std::cout << "# Wall time: " << static_cast<double>(std::time(nullptr)) - wallStart << " (s)"
              << std::endl;
    return true;
}

}  // namespace hemiray
