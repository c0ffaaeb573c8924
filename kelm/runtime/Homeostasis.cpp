#include "kelm/runtime/Homeostasis.h"

#include <cmath>
#include <span>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

void requireCap(double cap) {
    if (!std::isfinite(cap) || !(cap > 0.0)) throw InvalidPlasticity(InvalidPlasticity::cap);
}

/// Whether the neuron was scaled. The sum runs in EdgeId order.
bool scaleNeuron(SynapseGraph& graph, NodeId neuron, double cap) {
    const std::span<const EdgeId> list = graph.incoming(neuron);
    if (list.empty()) return false;
    double sum = 0.0;
    for (const EdgeId id : list) sum += static_cast<double>(graph.edge(id).weight);
    const double mean = sum / static_cast<double>(list.size());
    if (cap >= mean) return false;
    const double factor = cap / mean;
    for (const EdgeId id : list) {
        const double weight = static_cast<double>(graph.edge(id).weight);
        graph.setWeight(id, static_cast<float>(weight * factor));
    }
    return true;
}

std::uint64_t scaleNetwork(SynapseGraph& graph, double cap) {
    std::uint64_t scaled = 0;
    for (NodeId neuron = 0; neuron < graph.nodeCount(); ++neuron) {
        if (scaleNeuron(graph, neuron, cap)) ++scaled;
    }
    return scaled;
}

}  // namespace

std::uint64_t applyHomeostasis(SynapseGraph& graph, const HomeostasisConfig& config) {
    if (!config.enabled) return 0;
    requireCap(config.cap);
    return scaleNetwork(graph, config.cap);
}

std::uint64_t Homeostasis::apply(SynapseGraph& graph, const HomeostasisConfig& config) {
    if (!config.enabled) return 0;
    requireCap(config.cap);
    // Taken before anything is scaled: the neurons scaled below are then due at the next call.
    graph.takeReweightedTargets(targets_);
    if (cap_ != config.cap) {
        // A neuron below the old cap, and so not among the targets, may lie above the new one.
        cap_ = config.cap;
        return scaleNetwork(graph, config.cap);
    }
    // A neuron's sum reads its own incoming weights alone, so the neurons left out would come out
    // as they did the last time: not scaled.
    std::uint64_t scaled = 0;
    for (const NodeId neuron : targets_) {
        if (scaleNeuron(graph, neuron, config.cap)) ++scaled;
    }
    return scaled;
}

}  // namespace Lumenar::Core::Kelm
