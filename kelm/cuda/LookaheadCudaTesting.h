#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "kelm/cuda/DeviceRecords.h"
#include "kelm/kernel/WindowProcessing.h"

// What the unit LookaheadCuda shows to its tests beyond its public headers. Not installed.

namespace Lumenar::Core::Kelm {

class CudaWindowBackend;
class WindowEngine;

/// Throws WindowEngineError "CUDA <what>: <the runtime's text>" unless `status` is 0.
void checkCuda(int status, const char* what);

/// CudaWindowBackend::tryResidentRun for networks of `min_neurons` neurons or more.
bool tryResidentRunFrom(CudaWindowBackend& backend, WindowEngine& engine,
                        std::uint64_t min_neurons);

#if defined(KELM_CUDA_TESTING)
// Called by shard queue runs, where set, between the device's work and its verification: a fault
// planted here must be found. Only the tests' build of the unit has them.

inline std::function<void(std::vector<std::uint64_t>& shard_sizes)> tamper_with_shard_counts;
inline std::function<void(std::vector<ShardArrival>& queue,
                          std::vector<Kernel::WindowResult>& results)>
    tamper_with_shard_queue;
#endif

}  // namespace Lumenar::Core::Kelm
