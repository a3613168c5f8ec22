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

const char* const launcherSizes[] = {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE", "PMIX_SIZE", nullptr};
const char* const launcherRanks[] = {"OMPI_COMM_WORLD_RANK", "PMI_RANK", "PMIX_RANK", nullptr};

}  // namespace

std::optional<int> refuseTasksWithoutMpi() {
    if (launcherValue(launcherSizes) || launcherValue(launcherRanks)) return std::nullopt;
    // Set by srun for each task of a step; a batch script itself has no step size.
    const char* tasks = std::getenv("SLURM_STEP_NUM_TASKS");
    const char* task = std::getenv("SLURM_PROCID");
    if (!tasks || !task || std::atol(tasks) <= 1) return std::nullopt;
    if (std::strcmp(task, "0") == 0)
        std::cerr << "hemiray: started as one of " << tasks
                  << " tasks of a SLURM step without MPI; use srun --mpi=pmix (or one task)"
                  << std::endl;
    return 1;
}

std::optional<int> handOverToMpiRun(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "run") != 0) return std::nullopt;
    const char* size = launcherValue(launcherSizes);
    const char* rank = launcherValue(launcherRanks);
    if (!size && !rank) return refuseTasksWithoutMpi();

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
