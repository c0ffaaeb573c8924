#pragma once

#include <string>

#include "kelm/network/ConnectionRule.h"
#include "kelm/network/SynapseValues.h"

namespace Lumenar::Core::Kelm {

/// Synapses from one range of neurons to another, by a rule.
struct Projection {
    std::string name;  ///< names the random streams; not empty, and unique in a wiring
    NeuronRange sources = {};
    NeuronRange targets = {};
    ConnectionRule rule = {};
    SynapseValues weight = {};  ///< magnitudes, at least 0; rounded to single precision
    SynapseValues delay = {};   ///< ns, up to 2^51; rounded to whole ns, halves up
    bool inhibitory = false;    ///< the sign of all synapses of the projection
};

}  // namespace Lumenar::Core::Kelm
