#include "kelm/mpi/MpiProcess.h"

#include <mpi.h>

#include <cstdio>
#include <exception>
#include <stdexcept>

namespace Lumenar::Core::Kelm {

MpiProcess::MpiProcess() : exceptions_(std::uncaught_exceptions()) {
    int before = 0;
    MPI_Initialized(&before);
    if (before != 0) return;
    int level = MPI_THREAD_SINGLE;
    MPI_Init_thread(nullptr, nullptr, MPI_THREAD_FUNNELED, &level);
    if (level < MPI_THREAD_FUNNELED) {
        MPI_Finalize();
        throw std::runtime_error("this MPI does not allow threads");
    }
    initialised_ = true;
}

MpiProcess::~MpiProcess() {
    if (!initialised_) return;
    if (std::uncaught_exceptions() > exceptions_) {
        int rank = 0;
        MPI_Comm_rank(MPI_COMM_WORLD, &rank);
        std::fprintf(stderr, "kelm: rank %d ends all ranks, because it has thrown an exception\n",
                     rank);
        MPI_Abort(MPI_COMM_WORLD, 1);
    }
    MPI_Finalize();
}

}  // namespace Lumenar::Core::Kelm
