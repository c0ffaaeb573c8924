#pragma once

#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/runtime/PhaseSample.h"

namespace Lumenar::Core::Kelm {

/// A spike with the phases of its oscillators.
struct PhaseLogEntry {
    ModelTime time = 0;  ///< ns
    NodeId neuron = 0;
    std::vector<PhaseSample> phases;  ///< of the oscillators reported for the neuron
};

}  // namespace Lumenar::Core::Kelm
