#pragma once

#include <cstdint>
#include <optional>

// The controls of the emulated device, for tests. The device itself is reached through
// DeviceLayer.h: allocations on the host heap, launches as loops over their threads, atomics as
// real atomics. It is named "host emulation". Controls are used by one thread at a time, between
// operations, and hold for the whole process.

namespace Lumenar::Core::Kelm::Device::Emulation {

/// Runs the threads of every later launch in an order permuted by `seed`, so that a result that
/// depends on scheduling shows; without a value, in ascending order within each worker's share.
void permuteThreads(std::optional<std::uint64_t> seed);

/// Lets an operation fail with `status`: the next one for n = 0, else the one n operations later.
/// Every function of the device layer that returns a status counts as one, but lastStatus; so do
/// a launch, whose failure lastStatus then reports, a sort and a scan, which throw
/// std::runtime_error. A failed operation has no effect, but that a failed release gives the block
/// back. Only one failure waits at a time.
void failOperation(std::uint64_t n, int status);

/// No failure waits any longer.
void failNothing();

/// Operations begun since the process started.
std::uint64_t operationCount();

/// Blocks allocated and not released.
std::uint64_t liveAllocations();

/// Whether the device is there; it is at the start. On one that is not, every operation fails.
void setPresent(bool present);

/// Host threads that share the work of a launch, at least 1; as many as there are processors at
/// the start.
void setWorkers(unsigned count);

}  // namespace Lumenar::Core::Kelm::Device::Emulation
