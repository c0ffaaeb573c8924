#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/PlasticityConfig.h"
#include "kelm/runtime/WorkParts.h"

namespace Lumenar::Core::Kelm {

/// Scales the incoming weights of each neuron whose mean incoming weight exceeds the cap, so that
/// the mean becomes the cap, up to single-precision rounding. Disabled synapses count. Walks the
/// whole network and returns the number of neurons scaled; 0 if homeostasis is off.
/// Throws InvalidPlasticity, with nothing scaled, for a cap that is not finite and positive.
/// Source: synaptic scaling, Turrigiano, Cell 135 (2008).
std::uint64_t applyHomeostasis(SynapseGraph& graph, const HomeostasisConfig& config);

/// applyHomeostasis for a caller that calls it once per window. It leaves the same weights and
/// returns the same count, but visits only the neurons whose incoming weights were set since its
/// last call. The next call visits each scaled neuron again, because rounding may leave its mean
/// above the cap. One object serves one graph.
class Homeostasis {
public:
    /// Throws as above. Walks the whole network if the cap differs from that of the last call.
    /// `parts`: divides the neurons.
    std::uint64_t apply(SynapseGraph& graph, const HomeostasisConfig& config,
                        const WorkParts& parts = {});

private:
    std::optional<double> cap_;    ///< of the last call; none before the first
    std::uint64_t last_call_ = 0;  ///< number of the last call that took the graph's targets
    std::vector<NodeId> targets_;  ///< scratch
};

}  // namespace Lumenar::Core::Kelm
