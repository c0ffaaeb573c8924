#pragma once

#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/runtime/PhaseSample.h"

namespace Lumenar::Core::Kelm {

/// A spike, and where the oscillators of its neuron stood.
struct PhaseLogEntry {
    ModelTime time = 0;  ///< ns
    NodeId neuron = 0;
    std::vector<PhaseSample> phases;  ///< of the neuron's oscillators at that time
};

}  // namespace Lumenar::Core::Kelm
