#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "kelm/cuda/DeviceRecords.h"
#include "kelm/kernel/WindowProcessing.h"

// What tests use of the unit LookaheadCuda beyond its public headers. Not installed.

namespace Lumenar::Core::Kelm {

class CudaWindowBackend;
class WindowEngine;

/// CudaWindowBackend::tryResidentRun for networks of `min_neurons` neurons or more.
bool tryResidentRunFrom(CudaWindowBackend& backend, WindowEngine& engine,
                        std::uint64_t min_neurons);

#if defined(KELM_CUDA_TESTING)
// A shard queue run calls these, if they are set, between the device's work and its verification,
// which must find every fault that they plant. Only the tests' build of the unit has them.

inline std::function<void(std::vector<std::uint64_t>& shard_sizes)> tamper_with_shard_counts;
inline std::function<void(std::vector<ShardArrival>& queue,
                          std::vector<Kernel::WindowResult>& results)>
    tamper_with_shard_queue;
#endif

}  // namespace Lumenar::Core::Kelm
