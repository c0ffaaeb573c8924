#pragma once

#include <cstdint>
#include <optional>

// The controls of the emulated device, for tests. The device itself implements DeviceLayer.h with
// allocations on the host heap, launches as loops over their threads, and real atomics. Its name is
// "host emulation". Controls apply to the whole process. One thread at a time may use them, between
// operations.

namespace Lumenar::Core::Kelm::Device::Emulation {

/// Runs the threads of every later launch in an order permuted by `seed`, so that a result that
/// depends on scheduling shows. Without a value, each worker runs its share in ascending order.
void permuteThreads(std::optional<std::uint64_t> seed);

/// Makes an operation fail with `status`: the next one for n = 0, else the one n operations later.
/// Every function of the device layer that returns a status is an operation, except lastStatus. So
/// are a launch, whose failure lastStatus reports, and a sort or scan, whose failure is a
/// std::runtime_error. A failed operation has no effect, except that a failed release still gives
/// the block back. A new call replaces a failure that has not happened yet.
void failOperation(std::uint64_t n, int status);

/// Cancels a failure that has not happened yet.
void failNothing();

/// The number of operations since the process started.
std::uint64_t operationCount();

/// Calls since the process started, by kind, without those that failOperation or setPresent made
/// fail, and what they moved. On a device the host waits in an upload, a download, a
/// synchronisation and a release. A sort or a scan is one call here and several launches there.
struct Counts {
    std::uint64_t queries = 0;
    std::uint64_t allocations = 0;
    std::uint64_t releases = 0;
    std::uint64_t uploads = 0;
    std::uint64_t downloads = 0;
    std::uint64_t clears = 0;
    std::uint64_t synchronisations = 0;
    std::uint64_t launches = 0;
    std::uint64_t library_calls = 0;
    std::uint64_t uploaded_bytes = 0;
    std::uint64_t downloaded_bytes = 0;
    std::uint64_t cleared_bytes = 0;
    std::uint64_t threads = 0;  ///< of all launches

    friend bool operator==(const Counts&, const Counts&) = default;
};
Counts counts();

/// The number of blocks that are allocated and not released.
std::uint64_t liveAllocations();

/// Whether there is a device, which is so at the start. Without one, every operation fails.
void setPresent(bool present);

/// The number of host threads that share the work of a launch, at least 1. At the start it is the
/// number of processors.
void setWorkers(unsigned count);

}  // namespace Lumenar::Core::Kelm::Device::Emulation
