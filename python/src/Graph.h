#pragma once

#include <optional>
#include <utility>

#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm::Python {

/// A built network, which nothing changes: each simulation copies it.
struct Graph {
    explicit Graph(SynapseGraph built) : synapses(std::move(built)), window(synapses.dMin()) {}

    SynapseGraph synapses;
    std::optional<ModelTime> window;  ///< ns
};

}  // namespace Lumenar::Core::Kelm::Python
