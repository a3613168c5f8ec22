// `hemiray run` started by an MPI launcher (mpirun, or srun through PMI/PMIx) is
// one rank of a shared run: the tool hands it to hemiray-mpi, the front end that
// links MPI, so that the tool itself never loads MPI.
#pragma once

#include <optional>

namespace hemiray {

// Nothing when the tool goes on by itself (no launcher, or not a run); otherwise
// does not return unless hemiray-mpi cannot be started, and then gives the exit
// status after a "hemiray: " line.
std::optional<int> handOverToMpiRun(int argc, char** argv);

// Under srun without an MPI plugin (srun --mpi=none, SLURM's default) each task
// would compute the whole model alone and all would write the same result. Such a
// step of several tasks is refused: task 0 says why and every task gets the exit
// status. Nothing otherwise.
std::optional<int> refuseTasksWithoutMpi();

}  // namespace hemiray
