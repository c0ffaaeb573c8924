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

/// The size of the benchmark network. The defaults are those of the report; measurements of scaling
/// use others.
struct BenchmarkScale {
    std::uint64_t neuron_count = 100'000;
    ModelTime min_delay = 1'000'000;  ///< ns; also the delay of every synapse
    ModelTime horizon = 200'000'000;  ///< ns
    double base_rate = 5.0;           ///< spikes/s
};

/// The network of all measurements. It is built once, and each run copies the synapses. All neurons
/// are equal.
struct BenchmarkWorkload {
    std::uint64_t neuron_count;
    ModelTime min_delay;            ///< ns
    ModelTime horizon;              ///< ns
    std::vector<Synapse> synapses;  ///< shape (neuron_count * benchmark_fanout), by source
    Kernel::Neuron neuron;
    Kernel::Firing firing;
};

/// Throws std::length_error for more synapses than a vector can hold. Nothing else is checked.
BenchmarkWorkload buildBenchmarkWorkload(const BenchmarkScale& scale = {});

}  // namespace Lumenar::Core::Kelm
