#include "kelm/runtime/Homeostasis.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <span>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

/// So many synapses of a neuron take as long as an event of a window.
constexpr std::uint64_t synapses_a_unit = 16;

void requireCap(double cap) {
    if (!std::isfinite(cap) || !(cap > 0.0)) throw InvalidPlasticity(InvalidPlasticity::cap);
}

/// Scales one neuron and returns whether that was necessary. The sum runs in EdgeId order.
bool scaleNeuron(SynapseGraph& graph, NodeId neuron, double cap, std::size_t writer) {
    const std::span<const EdgeId> list = graph.incoming(neuron);
    if (list.empty()) return false;
    double sum = 0.0;
    for (const EdgeId id : list) sum += static_cast<double>(graph.weight(id));
    const double mean = sum / static_cast<double>(list.size());
    if (cap >= mean) return false;
    const double factor = cap / mean;
    for (const EdgeId id : list) {
        const double weight = static_cast<double>(graph.weight(id));
        graph.setWeight(writer, id, static_cast<float>(weight * factor));
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

/// Scales neurons neuronAt(0) to neuronAt(count - 1), each another one, and returns the number of
/// those scaled. A neuron reads and writes only its own incoming weights.
template <class NeuronAt>
std::uint64_t scaleNeurons(SynapseGraph& graph, std::size_t count, NeuronAt neuronAt, double cap,
                           const WorkParts& parts) {
    if (count == 0) return 0;
    graph.incoming(neuronAt(0));  // builds the lists
    const std::uint64_t synapses = count * (graph.routedCount() / graph.nodeCount());
    const std::size_t part_count =
        std::min(parts.countFor(count + synapses / synapses_a_unit), count);
    graph.prepareWriters(part_count, false);
    std::atomic<std::uint64_t> scaled = 0;
    parts.runRanges(part_count, count, [&](std::size_t part, std::size_t first, std::size_t end) {
        std::uint64_t scaled_here = 0;
        for (std::size_t i = first; i < end; ++i) {
            if (i + 1 < end) prefetchIncoming(graph, neuronAt(i + 1));
            if (scaleNeuron(graph, neuronAt(i), cap, part)) ++scaled_here;
        }
        scaled.fetch_add(scaled_here, std::memory_order_relaxed);
    });
    return scaled.load(std::memory_order_relaxed);
}

std::uint64_t scaleNetwork(SynapseGraph& graph, double cap, const WorkParts& parts) {
    return scaleNeurons(
        graph, graph.nodeCount(), [](std::size_t i) { return NodeId{i}; }, cap, parts);
}

}  // namespace

std::uint64_t applyHomeostasis(SynapseGraph& graph, const HomeostasisConfig& config) {
    if (!config.enabled) return 0;
    requireCap(config.cap);
    return scaleNetwork(graph, config.cap, {});
}

std::uint64_t Homeostasis::apply(SynapseGraph& graph, const HomeostasisConfig& config,
                                 const WorkParts& parts) {
    if (!config.enabled) return 0;
    requireCap(config.cap);
    // Taken before anything is scaled, so the next call visits the neurons that are scaled below.
    last_call_ = graph.takeReweightedTargets(last_call_, targets_);
    if (cap_ != config.cap) {
        // A neuron that is not among the targets was below the old cap, and may exceed the new one.
        cap_ = config.cap;
        return scaleNetwork(graph, config.cap, parts);
    }
    // A neuron's sum reads only its own incoming weights. So the neurons left out would give the
    // result of the last call again: not scaled.
    return scaleNeurons(
        graph, targets_.size(), [this](std::size_t i) { return targets_[i]; }, config.cap, parts);
}

}  // namespace Lumenar::Core::Kelm
