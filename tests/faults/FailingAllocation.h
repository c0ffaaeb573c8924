#pragma once

#include <cstdint>

// FailingAllocation.cpp replaces all forms of operator new and delete of the program that links it.
// They count allocations, and a test can make one allocation fail. Counting is thread-safe; only
// one thread at a time may set a failure.

namespace Lumenar::Core::Kelm::Testing {

/// Makes one allocation fail with std::bad_alloc: the next one for n = 0, else the one after n more
/// allocations. Replaces an earlier setting.
void failAllocation(std::uint64_t n);

/// Cancels the setting. True if the allocation that was to fail has failed.
bool failNoAllocation();

/// While one exists, allocations of its thread neither fail nor count as allocations before the one
/// that is to fail.
class SafeAllocations {
public:
    SafeAllocations();
    ~SafeAllocations();
    SafeAllocations(const SafeAllocations&) = delete;
    SafeAllocations& operator=(const SafeAllocations&) = delete;
};

/// Blocks allocated since the program started.
std::uint64_t allocationCount();

/// Blocks that are allocated now, and their bytes.
std::int64_t liveBlocks();
std::int64_t liveBytes();

/// The largest value of liveBytes() since the last call of restartPeak(), in a single thread.
std::int64_t peakBytes();
void restartPeak();

}  // namespace Lumenar::Core::Kelm::Testing
