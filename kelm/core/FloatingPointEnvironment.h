#pragma once

namespace Lumenar::Core::Kelm {

/// Throws std::runtime_error unless the calling thread rounds to nearest, ties to even, and keeps
/// subnormal numbers, as operands and as results. A host program, or a library in it that was built
/// with fast-math, can change either for the whole thread and so change the bits of results.
void requireExactFloatingPoint();

}  // namespace Lumenar::Core::Kelm
