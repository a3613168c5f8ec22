// The library's one exported function: chooses the input source, reads the size
// section and hands the run to the driver. No exception crosses this boundary.
#include <exception>
#include <memory>
#include <new>
#include <string>

#include "hemiray/raytracing.h"
#include "run/InputSource.h"
#include "run/RunDriver.h"
#include "run/RunError.h"

namespace hemiray {
namespace {

int runFromHost(int binaryOutput, const char* fileName, int useOpenMP, int numThreads,
                int readFromFile, const void* meshData, const char* headerData, bool headerFlag,
                bool directFields, int reserved) {
    if (fileName == nullptr) {
        reportRunError("no file name given");
        return 0;
    }
    const std::string inputName(fileName);
    const std::string outputName(fileName);
    const std::string progressName;  // no argument sets it: no progress file

    std::unique_ptr<std::istream> input;
    SizeSection sizes;
    if (readFromFile) {
        input = openInputSource(inputName);
        if (input->fail()) {
            reportRunError("couldn't open input file: " + inputName);
            return 0;
        }
    }
    if (readFromFile && !readSizeSection(*input, sizes)) {
        reportRunError("reading size section!");
        return 0;
    }
    if (numThreads < 2) numThreads = 1;

    if (!calculateViewFactors(std::move(input), outputName, progressName, useOpenMP != 0,
                              binaryOutput != 0, sizes.dimension, sizes.size1, sizes.size2,
                              sizes.zoneCount, sizes.globCount, numThreads, readFromFile != 0,
                              meshData, headerData, headerFlag, directFields, reserved)) {
        reportRunError("couldn't calculate view factors!");
        return 0;
    }
    return 1;
}

}  // namespace
}  // namespace hemiray

extern "C" HEMIRAY_API int raytracing_lib(int binaryOutput, const char* fileName, void* /*unused*/,
                                          int useOpenMP, int numThreads, int readFromFile,
                                          const void* meshData, const char* headerData,
                                          bool headerFlag, bool directFields, int reserved) {
    try {
        return hemiray::runFromHost(binaryOutput, fileName, useOpenMP, numThreads, readFromFile,
                                    meshData, headerData, headerFlag, directFields, reserved);
    } catch (const std::bad_alloc&) {
        hemiray::reportRunError("out of memory");
    } catch (const std::exception& e) {
        hemiray::reportRunError(e.what());
    } catch (...) {
        hemiray::reportRunError("unexpected failure");
    }
    return 0;
}
