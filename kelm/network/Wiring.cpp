#include "kelm/network/Wiring.h"

#include <algorithm>
#include <set>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/core/ShardRanges.h"
#include "kelm/network/ConnectionRows.h"
#include "kelm/network/PairDraws.h"
#include "kelm/network/ProjectionChecks.h"
#include "kelm/network/SynapseTable.h"
#include "kelm/network/ValueDraws.h"

namespace Lumenar::Core::Kelm {

namespace {

/// A graph of more neurons would not be compact.
constexpr std::uint64_t max_neurons = 0xffffffff;

/// Calls place(source, target, weight, delay) for the synapses of a projection with targets in
/// [first, end).
template <class Place>
void placeSynapses(const Projection& projection, std::uint64_t seed,
                   const ValueBounds& delay_bounds, NodeId first, NodeId end, Place place) {
    const bool rows_of_sources = hasRowsOfSources(projection.rule);
    const NeuronRange rows = ConnectionRows(projection).rows;
    NodeId row = rows.first;
    NodeId rows_end = rows.end();
    if (!rows_of_sources) {
        row = std::max(row, first);
        rows_end = std::min(rows_end, end);
    }
    if (row >= rows_end) return;
    PairDraws pairs(projection, seed);
    ValueDraws weights(projection, projection.weight, "weight", weight_bounds, seed);
    ValueDraws delays(projection, projection.delay, "delay", delay_bounds, seed);
    std::uint64_t index = pairs.firstIndex(row);
    for (; row < rows_end; ++row) {
        const std::span<const NodeId> nodes = pairs.draw(row);
        weights.startRow(row);
        delays.startRow(row);
        for (std::size_t i = 0; i < nodes.size(); ++i, ++index) {
            const NodeId source = rows_of_sources ? row : nodes[i];
            const NodeId target = rows_of_sources ? nodes[i] : row;
            const auto weight = static_cast<float>(weights.next(source, target, i, index));
            const auto delay = static_cast<ModelTime>(delays.next(source, target, i, index) + 0.5);
            if (target < first || target >= end) continue;
            place(source, target, weight, delay);
        }
    }
}

/// Adds the synapses of a projection with targets in [first, end) to `counts`, by source.
void countBySource(const Projection& projection, std::uint64_t seed, NodeId first, NodeId end,
                   std::vector<std::uint64_t>& counts) {
    const NeuronRange& targets = projection.targets;
    const bool all = first <= targets.first && targets.end() <= end;
    if (hasRowsOfSources(projection.rule) && all) {
        const NeuronRange& sources = projection.sources;
        for (NodeId source = sources.first; source < sources.end(); ++source) {
            counts[source] += projection.rule.count;
        }
        return;
    }
    PairDraws pairs(projection, seed);
    if (hasRowsOfSources(projection.rule)) {
        for (NodeId row = pairs.rows().first; row < pairs.rows().end(); ++row) {
            for (const NodeId target : pairs.draw(row)) {
                counts[row] += target >= first && target < end ? 1 : 0;
            }
        }
        return;
    }
    const NodeId rows_end = std::min(pairs.rows().end(), end);
    for (NodeId row = std::max(pairs.rows().first, first); row < rows_end; ++row) {
        for (const NodeId source : pairs.draw(row)) ++counts[source];
    }
}

}  // namespace

Wiring::Wiring(std::uint64_t node_count, std::optional<ModelTime> min_delay,
               std::vector<Projection> projections, std::uint64_t seed)
    : node_count_(node_count),
      min_delay_(min_delay),
      projections_(std::move(projections)),
      seed_(seed) {
    if (min_delay && *min_delay < 1) throw InvalidSynapse(InvalidSynapse::min_delay_not_positive);
    if (node_count > max_neurons) {
        throw std::invalid_argument(
            joinedText("a wiring of ", node_count, " neurons has more than ", max_neurons));
    }
    std::set<std::string_view> names;
    for (const Projection& projection : projections_) {
        if (projection.name.empty()) refuseProjection(projection, "the name is empty");
        if (!names.insert(projection.name).second) {
            refuseProjection(projection, "the name is taken");
        }
        checkProjection(projection, node_count, min_delay);
    }
}

SynapseTable Wiring::table(NodeId first, NodeId end, LargeArray<std::uint64_t>* projections) const {
    // Of each source: first its synapse count, then the EdgeId of the next synapse to place.
    std::vector<std::uint64_t> next(node_count_);
    for (const Projection& projection : projections_) {
        countBySource(projection, seed_, first, end, next);
    }
    std::uint64_t count = 0;
    for (std::uint64_t& entry : next) count += std::exchange(entry, count);

    SynapseTable synapses;
    synapses.resize(count);
    if (projections != nullptr) projections->resize(count);
    for (std::size_t p = 0; p < projections_.size(); ++p) {
        const bool inhibitory = projections_[p].inhibitory;
        placeSynapses(projections_[p], seed_, delayBounds(min_delay_), first, end,
                      [&](NodeId source, NodeId target, float weight, ModelTime delay) {
                          const EdgeId id = next[source]++;
                          synapses.place(id, target, weight, delay, inhibitory);
                          if (projections != nullptr) (*projections)[id] = p;
                      });
    }
    synapses.placeSources(next);
    return synapses;
}

SynapseGraph Wiring::build() const {
    return SynapseGraph(SynapseGraph::Placed(), node_count_, min_delay_,
                        table(0, node_count_, nullptr));
}

SynapseGraph Wiring::buildShare(IRankGroup& ranks) const {
    return ranks.together([&] {
        const NodeId first = Kernel::shardBegin(node_count_, ranks.size(), ranks.rank());
        const NodeId end = Kernel::shardEnd(node_count_, ranks.size(), ranks.rank());
        LargeArray<std::uint64_t> projections;
        SynapseTable synapses = table(first, end, &projections);
        SynapseGraph graph(SynapseGraph::Placed(), node_count_, min_delay_, std::move(synapses));
        graph.makeShare(first, end, std::move(projections), ranks);
        return graph;
    });
}

void Wiring::visit(NodeId first, NodeId end,
                   const std::function<void(const Synapse&)>& visit) const {
    if (first > end || end > node_count_) {
        throw std::out_of_range(joinedText("targets from ", first, " to below ", end,
                                           " are not in a network of ", node_count_, " neurons"));
    }
    for (const Projection& projection : projections_) {
        placeSynapses(projection, seed_, delayBounds(min_delay_), first, end,
                      [&](NodeId source, NodeId target, float weight, ModelTime delay) {
                          visit({.source = source,
                                 .target = target,
                                 .weight = weight,
                                 .delay = delay,
                                 .inhibitory = projection.inhibitory});
                      });
    }
}

}  // namespace Lumenar::Core::Kelm
