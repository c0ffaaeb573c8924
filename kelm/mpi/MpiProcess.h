#pragma once

namespace Lumenar::Core::Kelm {

/// MPI, from the construction of this object until its destruction. Declare it first in main.
///
/// If an exception leaves the scope of the object, the destructor ends all processes of the job
/// with status 1, because the others may wait for this one. Inside the scope, catch only exceptions
/// that all ranks throw.
///
/// If the program has initialised MPI before, the object does nothing.
class MpiProcess {
public:
    /// Initialises MPI for calls from this thread (MPI_THREAD_FUNNELED). Throws std::runtime_error
    /// if MPI does not allow other threads beside it.
    MpiProcess();
    ~MpiProcess();
    MpiProcess(const MpiProcess&) = delete;
    MpiProcess& operator=(const MpiProcess&) = delete;

private:
    bool initialised_ = false;  ///< by this object
    int exceptions_;            ///< in flight at the construction
};

}  // namespace Lumenar::Core::Kelm
