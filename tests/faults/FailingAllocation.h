#pragma once

#include <cstdint>

// A program that links FailingAllocation.cpp has all forms of its operators new and delete
// replaced: they count, and one allocation can be made to fail. Counting takes any number of
// threads; setting a failure is for one at a time.

namespace Lumenar::Core::Kelm::Testing {

/// Lets an allocation fail with std::bad_alloc: the next one for n = 0, else the one n allocations
/// later. An earlier setting no longer holds.
void failAllocation(std::uint64_t n);

/// No allocation fails any longer. True where the one that was to fail has come and failed.
bool failNoAllocation();

/// Blocks allocated since the program started.
std::uint64_t allocationCount();

/// Blocks allocated and not released, and how many bytes they hold.
std::int64_t liveBlocks();
std::int64_t liveBytes();

}  // namespace Lumenar::Core::Kelm::Testing
