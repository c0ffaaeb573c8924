#pragma once

#include <cstdint>

#include "gate/BenchmarkWorkload.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// Synapses that leave each neuron of the dense network in the reports.
inline constexpr std::uint64_t dense_fanout = 1000;

/// The size of the dense network in the reports.
inline constexpr BenchmarkScale dense_scale = {10'000, 1'500'000, 1'000'000'000, 25.0};

/// A network with many random synapses per neuron. The last fifth of the neurons is inhibitory. All
/// neurons have equal parameters.
struct DenseNetwork {
    SynapseGraph graph;
    Kernel::Neuron neuron;
    Kernel::Firing firing;
};

/// Builds the network without a list of its synapses. `fanout`: synapses that leave each neuron.
DenseNetwork buildDenseNetwork(const BenchmarkScale& scale, std::uint64_t fanout = dense_fanout);

}  // namespace Lumenar::Core::Kelm
