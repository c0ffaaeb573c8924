#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm::Kernel {

/// With fewer inputs a run costs more than it saves.
inline constexpr std::uint32_t min_run_inputs = 4;

/// Applies inputs of a walk, several at a time, as long as skipCandidate holds after each of them.
/// The last input that is applied is an exception: its draw is left to the caller. Returns how many
/// inputs are applied. The state and `rng` are then those before the draw of the last one. May
/// apply fewer inputs than it could.
///
/// `events`: shape (count), count at least 1; the first one is the walk's next input, and no
/// candidate is due before it. `window_end`: ns; inputs from there on are left. `limit`: ns, of the
/// draws.
std::uint32_t runInputs(State& state, std::uint64_t& rng, const NeuronModel& model,
                        const WindowEvent* events, std::uint32_t count, ModelTime window_end,
                        ModelTime limit, double drive_bound);

}  // namespace Lumenar::Core::Kelm::Kernel
