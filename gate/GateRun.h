#pragma once

#include <cstdint>
#include <vector>

#include "kelm/engine/IWindowBackend.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/engine/WindowProfile.h"
#include "kelm/kernel/NeuronModel.h"

namespace Lumenar::Core::Kelm {

class KelmRuntime;

/// The results of one run.
struct GateRun {
    std::vector<SpikeRecord> log;       ///< in canonical order
    std::vector<Kernel::State> states;  ///< final state of every neuron
    std::uint64_t hash = 0;             ///< digest of the log
    WindowProfile profile;
    std::uint64_t committed_windows = 0;  ///< calls of the runtime's commit hook
};

/// The results of the run of a runtime.
GateRun collectRun(KelmRuntime& runtime);

/// Runs the catalogue's model `index` to its horizon in a runtime with every optional part off.
GateRun runModel(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend);

/// Whether two logs hold the same spikes in the same order.
bool equalLogs(const GateRun& a, const GateRun& b);

/// Whether two states have the same 40 bytes: 0.0 and -0.0 differ, equal NaNs do not.
bool equalBits(const Kernel::State& a, const Kernel::State& b);

}  // namespace Lumenar::Core::Kelm
