#pragma once

// The steps that extend the parity matrix to what a plain run leaves off. Each creates its own
// backends and throws std::runtime_error "kelmgate: ..." at the first difference; what a run
// throws passes unchanged.

namespace Lumenar::Core::Kelm {

/// 15 cells: a run that is cut in the middle on the device, moved to a new runtime through a
/// checkpoint and finished there equals one whole run on the CPU.
void checkRestore();

/// 18 cells: plastic runs on both backends end in the same weights and the same total change,
/// which is not zero.
void checkPlasticity();

/// 12 cells: phase-modulated runs on both backends are equal. A run that throws is reported with
/// its cell and its backend.
void checkPhase();

/// One run on each backend with injection, prediction, perturbation and recorder: all equal, and
/// something was sampled.
void checkComposed();

}  // namespace Lumenar::Core::Kelm
