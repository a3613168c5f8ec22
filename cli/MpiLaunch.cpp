// The hand-over of a `run` under an MPI launcher to hemiray-mpi, which lies beside
// the tool.
#include "MpiLaunch.h"

#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>

namespace hemiray {

namespace {

// Open MPI's mpirun, and srun or Hydra through PMIx or PMI, tell each rank so.
const char* launcherValue(const char* const* names) {
    for (const char* const* name = names; *name; ++name)
        if (const char* value = std::getenv(*name)) return value;
    return nullptr;
}

}  // namespace

std::optional<int> handOverToMpiRun(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "run") != 0) return std::nullopt;
    static const char* const sizes[] = {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE", "PMIX_SIZE", nullptr};
    static const char* const ranks[] = {"OMPI_COMM_WORLD_RANK", "PMI_RANK", "PMIX_RANK", nullptr};
    const char* size = launcherValue(sizes);
    const char* rank = launcherValue(ranks);
    if (!size && !rank) return std::nullopt;

    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    const std::string front = (self.parent_path() / "hemiray-mpi").string();
    if (!ec && access(front.c_str(), X_OK) == 0) {
        argv[0] = const_cast<char*>(front.c_str());
        execv(front.c_str(), argv);
    }
    // A job of one rank is an ordinary run; more ranks would all write the result.
    if (size && std::strcmp(size, "1") == 0) return std::nullopt;
    if (!rank || std::strcmp(rank, "0") == 0)
        std::cerr << "hemiray: started as a rank of an MPI job, but " << front
                  << " cannot be run (was MPI found when hemiray was built?)" << std::endl;
    return 1;
}

}  // namespace hemiray
