#pragma once

#include <cstdint>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/Synapse.h"

namespace Lumenar::Core::Kelm {

/// Synapses that leave each neuron of the benchmark network.
inline constexpr std::uint64_t benchmark_fanout = 16;

/// The seed of every measurement.
inline constexpr std::uint64_t benchmark_seed = 1;

/// What a measurement of scaling may vary in the benchmark network. The defaults are the network
/// that reports speak of.
struct BenchmarkScale {
    std::uint64_t neuron_count = 100'000;
    ModelTime min_delay = 1'000'000;  ///< ns; also the delay of every synapse
    ModelTime horizon = 200'000'000;  ///< ns
    double base_rate = 5.0;           ///< spikes/s
};

/// The one large network that all measurements share: built once, each run takes a copy of the
/// synapses. Its neurons are all alike.
struct BenchmarkWorkload {
    std::uint64_t neuron_count;
    ModelTime min_delay;            ///< ns
    ModelTime horizon;              ///< ns
    std::vector<Synapse> synapses;  ///< shape (neuron_count * benchmark_fanout), by source
    Kernel::Neuron neuron;
    Kernel::Firing firing;
};

/// Throws std::length_error for more synapses than a list can hold. Nothing else is tested here.
BenchmarkWorkload buildBenchmarkWorkload(const BenchmarkScale& scale = {});

}  // namespace Lumenar::Core::Kelm
