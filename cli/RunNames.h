// Names of `run` results, shared by the tool and its MPI front end.
#pragma once

#include <string>

namespace hemiray {

// "mesh.msh" -> "mesh.msh.vf", "mesh.msh.gz" -> "mesh.msh.vf.gz", "mesh.Z" -> "mesh.vf",
// "mesh.h5" -> "mesh.vf.h5" (an HDF5 result).
inline std::string defaultOutputName(const std::string& input) {
    auto endsWith = [&](const std::string& tail) {
        return input.size() >= tail.size() &&
               input.compare(input.size() - tail.size(), tail.size(), tail) == 0;
    };
    if (endsWith(".gz")) return input.substr(0, input.size() - 3) + ".vf.gz";
    if (endsWith(".Z")) return input.substr(0, input.size() - 2) + ".vf";
    if (endsWith(".h5")) return input.substr(0, input.size() - 3) + ".vf.h5";
    return input + ".vf";
}

}  // namespace hemiray
