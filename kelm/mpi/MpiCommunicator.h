#pragma once

#include <mpi.h>

namespace Lumenar::Core::Kelm {

/// An MPI communicator for MpiRankGroup. Only programs that have a communicator of their own need
/// this header, and with it mpi.h.
struct MpiCommunicator {
    MPI_Comm handle = MPI_COMM_NULL;
};

}  // namespace Lumenar::Core::Kelm
