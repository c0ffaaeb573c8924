#pragma once

namespace Lumenar::Core::Kelm {

/// Throws std::runtime_error unless the calling thread rounds to nearest, ties to even, and keeps
/// subnormal numbers, on input and on output. A host program, or a library in it built with
/// fast-math, can change either for the whole thread, and every result would then be other bits.
void requireExactFloatingPoint();

}  // namespace Lumenar::Core::Kelm
