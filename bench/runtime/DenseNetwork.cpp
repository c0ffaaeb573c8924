#include "bench/runtime/DenseNetwork.h"

#include <stdexcept>
#include <vector>

#include "kelm/core/RandomContext.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::uint64_t wiring_seed = 1001;

std::vector<Synapse> buildSynapses(std::uint64_t neuron_count, ModelTime delay) {
    std::vector<Synapse> synapses;
    if (neuron_count > synapses.max_size() / dense_fanout) {
        throw std::length_error("the dense network has more synapses than a list can hold");
    }
    synapses.reserve(neuron_count * dense_fanout);
    Runtime::RandomContext random(wiring_seed);
    const Runtime::RandomContext::Stream wiring = random.streamFor("wiring", 0);
    const std::uint64_t excitatory = neuron_count - neuron_count / 5;
    for (NodeId source = 0; source < neuron_count; ++source) {
        Synapse synapse;
        synapse.source = source;
        synapse.inhibitory = source >= excitatory;
        synapse.weight = synapse.inhibitory ? 0.25F : 0.05F;
        synapse.delay = delay;
        for (std::uint64_t i = 0; i < dense_fanout; ++i) {
            synapse.target = random.next(wiring) % neuron_count;
            synapses.push_back(synapse);
        }
    }
    return synapses;
}

}  // namespace

BenchmarkWorkload buildDenseWorkload(const BenchmarkScale& scale) {
    Kernel::Neuron neuron;
    neuron.adaptation_increment = 0.5;
    Kernel::Firing firing;
    firing.base_rate = scale.base_rate;
    firing.gain = 2.0;
    return {scale.neuron_count,
            scale.min_delay,
            scale.horizon,
            buildSynapses(scale.neuron_count, scale.min_delay),
            neuron,
            firing};
}

}  // namespace Lumenar::Core::Kelm
