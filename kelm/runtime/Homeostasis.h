#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/PlasticityConfig.h"

namespace Lumenar::Core::Kelm {

/// Scales the incoming weights of each neuron whose mean incoming weight, enabled or not, exceeds
/// the cap, so that the mean comes down to the cap but for single-precision rounding. Walks the
/// whole network and returns how many neurons were scaled; 0 where homeostasis is off.
/// Throws InvalidPlasticity for a cap that is not finite and positive; nothing is scaled then.
/// Source: synaptic scaling, Turrigiano, Cell 135 (2008).
std::uint64_t applyHomeostasis(SynapseGraph& graph, const HomeostasisConfig& config);

/// applyHomeostasis for a caller that comes once per window: it leaves the same weights and returns
/// the same count, but looks again only at neurons whose incoming weights were set since it last
/// looked. A neuron that it scaled is looked at once more, as its mean may miss the cap by a
/// rounding step.
///
/// It must be the only one that takes the graph's reweighted targets, and stays with one graph.
class Homeostasis {
public:
    /// Throws as above. A change of the cap since the call before makes it walk the whole network.
    std::uint64_t apply(SynapseGraph& graph, const HomeostasisConfig& config);

private:
    std::optional<double> cap_;    ///< of the last walk; none before the first
    std::vector<NodeId> targets_;  ///< scratch
};

}  // namespace Lumenar::Core::Kelm
