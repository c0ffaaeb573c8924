#include "gate/ModelCatalogue.h"

#include <utility>
#include <vector>

namespace Lumenar::Core::Kelm {

namespace {

constexpr ModelTime horizon = 20'000'000;

SynapseGraph buildRing(std::uint64_t node_count, std::uint64_t fanout, ModelTime base_delay) {
    std::vector<Synapse> synapses;
    synapses.reserve(node_count * fanout);
    for (std::uint64_t i = 0; i < node_count; ++i) {
        for (std::uint64_t j = 1; j <= fanout; ++j) {
            Synapse synapse;
            synapse.source = i;
            synapse.target = (i + j) % node_count;
            // Product and sum in single precision. The remainder is of i + j, not of the target.
            synapse.weight = static_cast<float>((i + j) % 5) * 0.05F + 0.25F;
            synapse.delay = static_cast<ModelTime>((j & 1) + 1) * base_delay;
            synapses.push_back(synapse);
        }
    }
    return SynapseGraph(node_count, base_delay, std::move(synapses));
}

}  // namespace

GateModel buildModel(std::uint64_t index) {
    const std::uint64_t node_count = index % 7 + 6;
    const std::uint64_t fanout = (index & 3) + 1;
    const auto base_delay = static_cast<ModelTime>((index % 3 + 1) * 1'000'000);

    Kernel::Neuron neuron;
    neuron.tau_membrane = static_cast<ModelTime>(((index & 3) + 1) * 5'000'000);
    neuron.tau_adaptation = static_cast<ModelTime>((index % 3 + 1) * 50'000'000);
    neuron.refractory_period = base_delay;
    neuron.adaptation_increment = static_cast<double>(index % 5) * 0.1 + 0.2;
    neuron.hard_refractory = index % 2 == 0;

    Kernel::Firing firing;
    firing.base_rate = static_cast<double>(index % 6) * 50.0 + 150.0;
    firing.gain = static_cast<double>(index % 3) * 0.5 + 1.5;

    return {buildRing(node_count, fanout, base_delay), neuron, firing, horizon};
}

}  // namespace Lumenar::Core::Kelm
