#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// A named input line, from one modality to a fixed set of neurons.
struct InputChannelSpec {
    std::string name = {};             ///< not empty, unique among channels
    std::uint8_t modality = 0;         ///< stored, not interpreted
    std::vector<NodeId> targets = {};  ///< not empty, no neuron twice
    ModelTime delay = 0;               ///< ns from injection to arrival, not negative
    double gain = 1.0;                 ///< factor of the injected value, finite
};

}  // namespace Lumenar::Core::Kelm
