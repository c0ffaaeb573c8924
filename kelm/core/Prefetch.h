#pragma once

namespace Lumenar::Core::Kelm {

/// Prefetches the cache line of `address`, which is read or written soon. A hint: the address need
/// not be valid.
///
/// Without the empty assembler text the optimiser takes a function that only prefetches for one
/// without effect and drops its calls.
inline void prefetchLine(const void* address) {
    __builtin_prefetch(address);
    asm volatile("");
}

}  // namespace Lumenar::Core::Kelm
