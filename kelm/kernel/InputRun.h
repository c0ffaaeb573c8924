#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm::Kernel {

/// With fewer inputs a run costs more than it saves.
inline constexpr std::uint32_t min_run_inputs = 4;

/// Applies inputs of a walk, several at a time, as long as skipCandidate holds after each of them.
/// Returns how many it has applied; the state and `rng` are those after the last one. May apply
/// fewer than it could.
///
/// `events`: shape (count), count at least 1; the first one is the walk's next input, and no
/// candidate is due before it. `end`: ns, the smaller of the window's end and the draw's limit.
/// Leaves inputs from `end` on, and always the last input before it.
std::uint32_t runInputs(State& state, std::uint64_t& rng, const NeuronModel& model,
                        const WindowEvent* events, std::uint32_t count, ModelTime end,
                        double drive_bound);

}  // namespace Lumenar::Core::Kelm::Kernel
