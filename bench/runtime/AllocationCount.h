#pragma once

#include <cstdint>

namespace Lumenar::Core::Kelm {

/// How often this program has asked for memory through operator new so far. A program that links
/// AllocationCount.cpp has its operators replaced.
std::uint64_t allocationCount();

}  // namespace Lumenar::Core::Kelm
