#pragma once

#include <cstdint>

namespace Lumenar::Core::Kelm {

/// The number of calls of operator new so far. AllocationCount.cpp replaces operator new and delete
/// of the program that links it.
std::uint64_t allocationCount();

}  // namespace Lumenar::Core::Kelm
