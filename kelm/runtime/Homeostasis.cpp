#include "kelm/runtime/Homeostasis.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <span>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

/// As many as a processor fetches at once without losing some.
constexpr std::size_t prefetched_synapses = 16;

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

/// Asks for the first of the synapses that enter a neuron, which lie anywhere.
void prefetchIncoming(SynapseGraph& graph, NodeId neuron) {
    const std::span<const EdgeId> list = graph.incoming(neuron);
    for (const EdgeId id : list.first(std::min(list.size(), prefetched_synapses))) {
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
    for (std::size_t i = 0; i < targets_.size(); ++i) {
        if (i + 1 < targets_.size()) prefetchIncoming(graph, targets_[i + 1]);
        if (scaleNeuron(graph, targets_[i], config.cap)) ++scaled;
    }
    return scaled;
}

}  // namespace Lumenar::Core::Kelm
