#pragma once

namespace Lumenar::Core::Kelm {

/// Asks for the cache line of `address`, which is read or written soon. No more than a hint: the
/// address need not be valid.
///
/// The empty assembler text is there for the optimiser, which takes a function that does nothing
/// but ask for one without effect and drops its calls.
inline void prefetchLine(const void* address) {
    __builtin_prefetch(address);
    asm volatile("");
}

}  // namespace Lumenar::Core::Kelm
