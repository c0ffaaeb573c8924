#pragma once

// The steps for the parts that are off in the parity matrix. Each creates its own backends and
// throws std::runtime_error "kelmgate: ..." at the first difference; exceptions of a run pass
// unchanged.

namespace Lumenar::Core::Kelm {

/// 15 cells: a run on the device that continues in a new runtime from a checkpoint in the middle
/// equals one whole run on the CPU.
void checkRestore();

/// 18 cells: plastic runs on both backends end in the same weights and the same total change,
/// which is not zero.
void checkPlasticity();

/// 12 cells: phase-modulated runs on both backends are equal. If a run throws, the message gets its
/// cell and its backend.
void checkPhase();

/// One run on each backend with injection, prediction, perturbation and recorder: all equal, and
/// something was sampled.
void checkComposed();

}  // namespace Lumenar::Core::Kelm
