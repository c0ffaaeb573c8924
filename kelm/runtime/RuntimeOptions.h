#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelm/core/IRankGroup.h"
#include "kelm/core/ModelTime.h"
#include "kelm/engine/ParameterTable.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/runtime/InputChannelSpec.h"
#include "kelm/runtime/PhaseConfig.h"
#include "kelm/runtime/PlasticityConfig.h"
#include "kelm/runtime/PredictionConfig.h"
#include "kelm/runtime/RecorderConfig.h"

namespace Lumenar::Core::Kelm {

/// The horizon of a run without a planned end: 2^60 ns, which is more than 36 years.
inline constexpr ModelTime open_horizon = ModelTime{1} << 60;

/// What makeRuntime makes a runtime of, besides the network.
struct RuntimeOptions {
    std::uint64_t seed = 0;            ///< of all random streams
    ModelTime horizon = open_horizon;  ///< ns; no run goes past it
    std::string backend = "auto";      ///< "auto", "cpu", "lanes", "threads" or "cuda"
    std::uint64_t threads = 0;         ///< of "auto" and "threads", at most; 0: one a processor
    Kernel::Neuron neuron = {};        ///< of every neuron, without populations
    Kernel::Firing firing = {};        ///< of every neuron, without populations
    /// Consecutive ranges of neurons that make up the network; empty where all are alike.
    std::vector<Population> populations = {};
    /// Spikes of neurons that never fire by themselves, ascending by time in ns, then neuron.
    std::vector<SpikeRecord> given_spikes = {};
    PlasticityConfig plasticity = {};             ///< weights learn if it is enabled
    bool learning_journal = false;                ///< keep every weight change that learning makes
    std::optional<PhaseConfig> phase = {};        ///< oscillators and bindings
    std::optional<RecorderConfig> recorder = {};  ///< what is recorded
    std::vector<InputChannelSpec> input_channels = {};
    std::optional<PredictionConfig> prediction = {};  ///< error channels
    std::string label = "unknown";                    ///< a name in checkpoints
    /// The processes that hold the network, which is then the share of this one; null for one
    /// process. They must outlive the runtime, and all of them make the same calls. What
    /// spikeLog and takeSpikes return, states, candidates and streams of the runtime, and the
    /// EdgeIds of its graph, are then those of this process; all else is that of the network.
    IRankGroup* ranks = nullptr;
};

}  // namespace Lumenar::Core::Kelm
