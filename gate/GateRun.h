#pragma once

#include <cstdint>
#include <vector>

#include "kelm/engine/IWindowBackend.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/engine/WindowProfile.h"
#include "kelm/kernel/NeuronModel.h"

namespace Lumenar::Core::Kelm::Gate {

/// What one run leaves behind for the comparisons.
struct GateRun {
    std::vector<SpikeRecord> log;       ///< in canonical order
    std::vector<Kernel::State> states;  ///< final state of every neuron
    std::uint64_t hash = 0;             ///< digest of the log
    WindowProfile profile;
    std::uint64_t committed_windows = 0;  ///< calls of the runtime's commit hook
};

/// Runs the catalogue's model `index` to its horizon in a runtime with every optional part off.
GateRun runModel(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend);

}  // namespace Lumenar::Core::Kelm::Gate
