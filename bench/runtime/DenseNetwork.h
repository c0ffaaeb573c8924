#pragma once

#include <cstdint>

#include "gate/BenchmarkWorkload.h"

namespace Lumenar::Core::Kelm {

/// Synapses that leave each neuron of the dense network.
inline constexpr std::uint64_t dense_fanout = 1000;

/// The size of the dense network in the reports.
inline constexpr BenchmarkScale dense_scale = {10'000, 1'500'000, 1'000'000'000, 25.0};

/// A network with many random synapses per neuron. The last fifth of the neurons is inhibitory.
/// Throws std::length_error for more synapses than a list can hold.
BenchmarkWorkload buildDenseWorkload(const BenchmarkScale& scale);

}  // namespace Lumenar::Core::Kelm
