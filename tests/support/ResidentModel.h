#pragma once

#include <cstdint>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/Synapse.h"

namespace Lumenar::Core::Kelm::Testing {

/// A random model of the one shape that runs whole on a device: all neurons alike, each with the
/// same number of synapses, all delays one window, a horizon of whole windows. With inhibition,
/// self-loops and parallel synapses; hot, cool and silent ones.
struct ResidentModel {
    std::uint64_t seed = 0;  ///< of the generator; print it on failure
    std::uint64_t node_count = 0;
    std::uint64_t fanout = 0;
    ModelTime d_min = 0;    ///< ns
    ModelTime horizon = 0;  ///< ns
    std::uint64_t run_seed = 0;
    std::vector<Synapse> synapses;  ///< not always by source
    Kernel::Neuron neuron;
    Kernel::Firing firing;

    SynapseGraph graph() const { return SynapseGraph(node_count, d_min, synapses); }
    WindowEngine engine() const { return WindowEngine(graph(), neuron, firing, run_seed, horizon); }
};

ResidentModel generateResidentModel(std::uint64_t seed, std::uint64_t max_neurons);

}  // namespace Lumenar::Core::Kelm::Testing
