// The run driver: carries one computation from the parameters and the mesh to the
// written result, with the console lines and the CPU and wall times.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

namespace hemiray {

// The largest hemisphere resolution a run of this dimension accepts. The bound is
// on directions per face (3 R^2 on the hemicube, 2 R on the planar fan), so planar
// runs may ask for a far higher resolution than the 2048 of the others.
[[nodiscard]] int64_t largestHemisphereResolution(int32_t dimension);

// Reads the parameters and the mesh (from input, or from meshData when readFromFile
// is false), runs the compute-and-write phase and prints the timing lines. Returns
// false after printing an "error: " line; malformed mesh text ends the process.
bool calculateViewFactors(std::unique_ptr<std::istream> input, const std::string& outputName,
                          const std::string& progressName, bool useOpenMP, bool binaryOutput,
                          int32_t dimension, int32_t size1, int32_t size2, int32_t size3,
                          int32_t size4, int32_t numThreads, bool readFromFile,
                          const void* meshData, const char* headerData, bool headerFlag,
                          bool directFields, int32_t reserved);

}  // namespace hemiray
