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

}  // namespace hemiray
