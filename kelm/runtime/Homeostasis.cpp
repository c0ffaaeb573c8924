#include "kelm/runtime/Homeostasis.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <span>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

void requireCap(double cap) {
    if (!std::isfinite(cap) || !(cap > 0.0)) throw InvalidPlasticity(InvalidPlasticity::cap);
}

/// Scales one neuron and returns whether that was necessary. The sum runs in EdgeId order.
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

/// Hints the first synapses that enter a neuron. They lie anywhere in memory.
void prefetchIncoming(SynapseGraph& graph, NodeId neuron) {
    const std::span<const EdgeId> list = graph.incoming(neuron);
    for (const EdgeId id : list.first(std::min(list.size(), SynapseGraph::prefetch_block))) {
        graph.prefetchEdge(id);
    }
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
    // Taken before anything is scaled, so the next call visits the neurons that are scaled below.
    last_call_ = graph.takeReweightedTargets(last_call_, targets_);
    if (cap_ != config.cap) {
        // A neuron that is not among the targets was below the old cap, and may exceed the new one.
        cap_ = config.cap;
        return scaleNetwork(graph, config.cap);
    }
    // A neuron's sum reads only its own incoming weights. So the neurons left out would give the
    // result of the last call again: not scaled.
    std::uint64_t scaled = 0;
    for (std::size_t i = 0; i < targets_.size(); ++i) {
        if (i + 1 < targets_.size()) prefetchIncoming(graph, targets_[i + 1]);
        if (scaleNeuron(graph, targets_[i], config.cap)) ++scaled;
    }
    return scaled;
}

}  // namespace Lumenar::Core::Kelm
