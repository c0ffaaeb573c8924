#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/engine/WindowProfile.h"
#include "kelm/events/CandidateSlot.h"
#include "kelm/events/Event.h"
#include "kelm/kernel/NeuronModel.h"

namespace Lumenar::Core::Kelm {

/// The result of a run that a backend has taken to the horizon by itself.
struct WholeRun {
    LargeArray<Kernel::State> states;          ///< shape (neurons)
    std::vector<std::uint64_t> random_states;  ///< shape (neurons)
    LargeArray<CandidateSlot> candidates;      ///< shape (neurons), none with an event
    std::vector<SpikeRecord> log;              ///< by time, then neuron
    WindowProfile profile;
    std::vector<Event> pending_events;  ///< in the order in which they are to be posted
    /// The next window that the calendar hands out; none if it has handed out no window.
    std::optional<std::int64_t> next_window;
};

}  // namespace Lumenar::Core::Kelm
