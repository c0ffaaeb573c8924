#pragma once

#include <cstdint>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/events/IEventStore.h"

namespace Lumenar::Core::Kelm {

enum class PerturbationKind : std::uint8_t { activation = 0, inhibition = 1 };

/// An input to neurons without a channel.
struct Perturbation {
    std::uint64_t cause = 0;  ///< the caller's identifier, copied into every event
    ModelTime time = 0;       ///< ns, when it acts
    PerturbationKind kind = PerturbationKind::activation;
    double strength = 0.0;        ///< finite, any sign; an inhibition reverses it
    std::vector<NodeId> targets;  ///< not empty; a neuron named twice is hit twice
};

/// Posts one event per target, in the order of the targets, and returns their ids.
/// Throws InvalidIntervention for a strength that is not finite, an unknown kind and no target, in
/// this order and with nothing posted. Throws InvalidIntervention for a target that is not below
/// `node_count`, and what the sink throws. The events of the targets before that one stay posted.
std::vector<std::uint64_t> postPerturbation(const Perturbation& perturbation,
                                            std::uint64_t node_count, IEventSink& sink);

}  // namespace Lumenar::Core::Kelm
