#include "gate/BenchmarkWorkload.h"

#include <stdexcept>

namespace Lumenar::Core::Kelm {

namespace {

/// Neither stride shares a factor with a power of ten. So in networks of such a size as many
/// synapses enter each neuron as leave it, and the targets of a spike are not neighbours.
constexpr std::uint64_t source_stride = 7;
constexpr std::uint64_t target_stride = 131;

std::vector<Synapse> buildSynapses(std::uint64_t neuron_count, ModelTime delay) {
    std::vector<Synapse> synapses;
    if (neuron_count > synapses.max_size() / benchmark_fanout) {
        throw std::length_error("the benchmark network has more synapses than a list can hold");
    }
    synapses.reserve(neuron_count * benchmark_fanout);
    for (std::uint64_t i = 0; i < neuron_count; ++i) {
        const std::uint64_t first = target_stride + source_stride * i;
        for (std::uint64_t j = 0; j < benchmark_fanout; ++j) {
            Synapse synapse;
            synapse.source = i;
            synapse.target = (first + target_stride * j) % neuron_count;
            synapse.weight = 0.02F;
            synapse.delay = delay;
            synapses.push_back(synapse);
        }
    }
    return synapses;
}

}  // namespace

BenchmarkWorkload buildBenchmarkWorkload(const BenchmarkScale& scale) {
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
