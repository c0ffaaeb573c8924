#pragma once

#include <cstdint>
#include <vector>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// What a recorded sample can hold.
enum class SampleKind : std::uint8_t {
    membrane = 0,
    oscillator_phases = 1,
    active_synapses = 2,
    adaptation = 3,
    refractory_left = 4,
    next_candidate = 5,
    spike_counts = 6,
};

/// What a runtime keeps of a run.
struct RecorderConfig {
    bool record_spikes = true;
    bool causal = false;            ///< keep and check the causal map
    ModelTime sample_interval = 0;  ///< ns; grid of the samples, 0 for none
    std::vector<SampleKind> sample_kinds = {};
    std::uint8_t reserved = 0;  ///< stored, not interpreted
};

}  // namespace Lumenar::Core::Kelm
