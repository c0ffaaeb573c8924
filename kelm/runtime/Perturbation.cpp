#include "kelm/runtime/Perturbation.h"

#include <cmath>

#include "kelm/core/Failures.h"
#include "kelm/events/Event.h"

namespace Lumenar::Core::Kelm {

std::vector<std::uint64_t> postPerturbation(const Perturbation& perturbation,
                                            std::uint64_t node_count, IEventSink& sink) {
    if (!std::isfinite(perturbation.strength)) {
        throw InvalidIntervention(InvalidIntervention::strength);
    }
    const bool inhibits = perturbation.kind == PerturbationKind::inhibition;
    if (!inhibits && perturbation.kind != PerturbationKind::activation) {
        throw InvalidIntervention(InvalidIntervention::kind);
    }
    if (perturbation.targets.empty()) throw InvalidIntervention(InvalidIntervention::no_targets);

    Event event;
    event.time = perturbation.time;
    event.kind = EventKind::perturbation;
    // A negation, not a subtraction from zero, so that 0.0 becomes -0.0.
    event.value = inhibits ? -perturbation.strength : perturbation.strength;
    event.cause = perturbation.cause;
    std::vector<std::uint64_t> ids;
    ids.reserve(perturbation.targets.size());
    for (const NodeId target : perturbation.targets) {
        if (target >= node_count) throw InvalidIntervention(InvalidIntervention::target);
        event.source = target;
        event.target = target;
        ids.push_back(sink.post(event));
    }
    return ids;
}

}  // namespace Lumenar::Core::Kelm
