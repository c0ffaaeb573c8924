#include <algorithm>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>

#include "kelm/core/Blob.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/core/ShardRanges.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

namespace {

/// How many synapses of the network rank 0 collects, or a rank sends, at a time.
constexpr EdgeId block_edges = EdgeId{1} << 18;

/// Reads what another rank of the same program has written, so nothing is checked.
template <class Value>
Value take(BlobView& in) {
    Value value;
    std::memcpy(&value, in.data(), sizeof value);
    in = in.subspan(sizeof value);
    return value;
}

/// A synapse as the owner of its source sees it.
struct RemoteSynapse {
    std::uint64_t key;  ///< EdgeId in the network, then a bit: whether it transmits
    std::uint32_t rank;
    std::uint32_t index;  ///< among those that the rank has of the source

    bool transmits() const { return (key & 1) != 0; }
};

/// `i`: of a synapse of a share.
std::string misplaced(std::size_t i, const char* rule) {
    return "synapse " + std::to_string(i) + " of a share " + rule;
}

}  // namespace

SynapseGraph SynapseGraph::shareOf(std::uint64_t node_count, std::optional<ModelTime> min_delay,
                                   NodeId begin, NodeId end, std::span<const Synapse> synapses,
                                   std::span<const EdgeId> edges) {
    if (begin > end || end > node_count) {
        throw std::invalid_argument("the neurons of a share do not lie in the network");
    }
    if (synapses.size() != edges.size()) {
        throw std::invalid_argument("the synapses of a share need one EdgeId each");
    }
    SynapseGraph graph(Empty(), node_count, min_delay, synapses.size());
    for (std::size_t i = 0; i < synapses.size(); ++i) {
        const Synapse& synapse = synapses[i];
        graph.append(synapse);
        if (synapse.target < begin || synapse.target >= end) {
            throw std::invalid_argument(misplaced(i, "enters a neuron of another rank"));
        }
        const auto placeOf = [&](std::size_t k) { return std::pair(synapses[k].source, edges[k]); };
        if (i > 0 && placeOf(i) <= placeOf(i - 1)) {
            throw std::invalid_argument(misplaced(i, "must lie behind the one before"));
        }
    }
    GraphShare& share = graph.share_.emplace();
    share.begin = begin;
    share.end = end;
    share.network_edges.assign(edges.begin(), edges.end());
    return graph;
}

void SynapseGraph::requireEqualNetworks(IRankGroup& ranks) const {
    Blob own;
    appendU64(own, node_count_);
    appendI64(own, min_delay_.value_or(no_time));
    if (const auto rank = ranks.firstDifferent(own)) {
        throw std::invalid_argument("rank " + std::to_string(*rank) +
                                    " has another number of neurons or min_delay than rank 0");
    }
}

template <class At>
void SynapseGraph::receiveShare(EdgeId count, At at, IRankGroup& ranks) {
    requireEqualNetworks(ranks);
    const std::uint32_t size = ranks.size();
    const std::vector<EdgeId> counts = ranks.shareRecord(count);
    const EdgeId first = std::accumulate(counts.begin(), counts.begin() + ranks.rank(), EdgeId{0});
    const EdgeId longest = std::ranges::max(counts);
    ranks.together([&] {
        for (EdgeId i = 0; i < count; ++i) check(at(i).first, first + i);
    });

    SynapseTable arrived;
    LargeArray<EdgeId> edges;
    for (EdgeId begin = 0; begin < longest; begin += block_edges) {
        // New ones: a cleared blob keeps the memory of a block that went to one rank.
        std::vector<Blob> outgoing(size);
        const EdgeId end = std::min(count, begin + block_edges);
        for (EdgeId i = begin; i < end; ++i) {
            const auto [synapse, routed] = at(i);
            Blob& blob = outgoing[Kernel::shardOf(node_count_, size, synapse.target)];
            appendU64(blob, first + i);
            appendSynapse(blob, synapse, routed);
        }
        for (BlobView from : ranks.swap(outgoing)) {
            while (!from.empty()) {
                edges.push_back(take<EdgeId>(from));
                BlobReader in(from.first(synapse_bytes));
                from = from.subspan(synapse_bytes);
                Synapse synapse;
                bool routed = false;
                (void)readFields(in, synapse, routed);
                arrived.append(synapse, routed);
            }
        }
    }

    // Of each source: first its synapse count, then the place of its next synapse.
    std::vector<std::uint64_t> next(node_count_);
    for (EdgeId id = 0; id < edges.size(); ++id) ++next[arrived.source(id)];
    std::uint64_t sum = 0;
    for (std::uint64_t& entry : next) sum += std::exchange(entry, sum);
    LargeArray<EdgeId> order(edges.size());
    for (EdgeId id = 0; id < edges.size(); ++id) order[next[arrived.source(id)]++] = id;
    GraphShare& share = share_.emplace();
    share.begin = Kernel::shardBegin(node_count_, size, ranks.rank());
    share.end = Kernel::shardEnd(node_count_, size, ranks.rank());
    share.network_edges.reserve(order.size());
    synapses_.reserve(order.size());
    auto begin = order.begin();
    for (const std::uint64_t place : next) {
        const auto end = order.begin() + static_cast<std::ptrdiff_t>(place);
        // Blocks of several ranks have come in turn.
        std::ranges::sort(begin, end, {}, [&](EdgeId id) { return edges[id]; });
        for (; begin != end; ++begin) {
            synapses_.append(arrived[*begin], arrived.isRouted(*begin));
            share.network_edges.push_back(edges[*begin]);
            if (arrived.isRouted(*begin)) ++routed_count_;
        }
    }
}

SynapseGraph SynapseGraph::scatter(const SynapseGraph* graph, IRankGroup& ranks) {
    struct Head {
        std::uint64_t node_count = 0;
        std::optional<ModelTime> min_delay;
        bool excitatory_on = true;
        bool inhibitory_on = true;
    };
    return ranks.together([&] {
        if (ranks.rank() != 0) graph = nullptr;
        Head head;
        if (ranks.rank() == 0) {
            if (graph == nullptr) throw std::invalid_argument("rank 0 has no graph to scatter");
            if (graph->share_) throw std::invalid_argument("the graph to scatter is a share");
            head = {graph->node_count_, graph->min_delay_, graph->excitatory_on_,
                    graph->inhibitory_on_};
        }
        head = ranks.shareRecord(head).front();
        SynapseGraph share(Empty(), head.node_count, head.min_delay, 0);
        share.excitatory_on_ = head.excitatory_on;
        share.inhibitory_on_ = head.inhibitory_on;
        share.receiveShare(
            graph == nullptr ? 0 : graph->edgeCount(),
            [&](EdgeId i) { return std::pair(graph->synapses_[i], graph->isRouted(i)); }, ranks);
        share.countShare(ranks);
        return share;
    });
}

SynapseGraph SynapseGraph::buildShare(std::uint64_t node_count, std::optional<ModelTime> min_delay,
                                      const SynapseColumns& columns, IRankGroup& ranks) {
    return ranks.together([&] {
        // A wrong length of any column comes before every other fault.
        const EdgeId count = ranks.together([&] { return columns.size(); });
        SynapseGraph share(Empty(), node_count, min_delay, 0);
        share.receiveShare(
            count, [&](EdgeId i) { return std::pair(columns[i], true); }, ranks);
        share.countShare(ranks);
        return share;
    });
}

bool SynapseGraph::isShareOf(const IRankGroup& ranks) const {
    return share_ && share_->begin == Kernel::shardBegin(node_count_, ranks.size(), ranks.rank()) &&
           share_->end == Kernel::shardEnd(node_count_, ranks.size(), ranks.rank());
}

/// The owner of a source gets the number of its synapses of each order from all ranks, and returns
/// the EdgeId of the first one of each.
void SynapseGraph::makeShare(NodeId begin, NodeId end, LargeArray<std::uint64_t> order,
                             IRankGroup& ranks) {
    requireEqualNetworks(ranks);
    const Routes& routes = outRoutes();
    const std::uint32_t size = ranks.size();
    std::vector<Blob> outgoing(size);
    const auto runEnd = [&](EdgeId id, EdgeId last) {
        EdgeId next = id;
        while (next < last && order[next] == order[id]) ++next;
        return next;
    };
    for (std::uint32_t r = 0; r < size; ++r) {
        const NodeId range_end = Kernel::shardEnd(node_count_, size, r);
        for (NodeId n = Kernel::shardBegin(node_count_, size, r); n < range_end; ++n) {
            const EdgeId last = routes.offsets[n + 1];
            std::uint32_t runs = 0;
            for (EdgeId id = routes.offsets[n]; id < last; id = runEnd(id, last)) ++runs;
            appendU32(outgoing[r], runs);
            for (EdgeId id = routes.offsets[n]; id < last;) {
                const EdgeId next = runEnd(id, last);
                appendU64(outgoing[r], order[id]);
                appendU64(outgoing[r], next - id);
                id = next;
            }
        }
    }
    std::vector<BlobView> incoming;
    for (const BlobView from : ranks.swap(outgoing)) incoming.push_back(from);

    struct Run {
        std::uint64_t order;
        std::uint64_t count;
        std::uint32_t rank;
        EdgeId first;  ///< from the owner's first EdgeId
    };
    std::vector<Run> runs;
    std::vector<std::vector<EdgeId>> firsts(size);  // by rank
    EdgeId count = 0;
    for (NodeId n = begin; n < end; ++n) {
        runs.clear();
        for (std::uint32_t r = 0; r < size; ++r) {
            for (auto left = take<std::uint32_t>(incoming[r]); left > 0; --left) {
                const auto key = take<std::uint64_t>(incoming[r]);
                runs.push_back({key, take<std::uint64_t>(incoming[r]), r, 0});
            }
        }
        std::vector<std::size_t> sorted(runs.size());
        std::iota(sorted.begin(), sorted.end(), std::size_t{0});
        std::ranges::stable_sort(sorted, {}, [&](std::size_t i) { return runs[i].order; });
        for (const std::size_t i : sorted)
            runs[i].first = std::exchange(count, count + runs[i].count);
        for (const Run& run : runs) firsts[run.rank].push_back(run.first);
    }
    const std::vector<EdgeId> counts = ranks.shareRecord(count);
    const EdgeId before = std::accumulate(counts.begin(), counts.begin() + ranks.rank(), EdgeId{0});
    for (std::uint32_t r = 0; r < size; ++r) {
        outgoing[r].clear();
        for (EdgeId& first : firsts[r]) appendU64(outgoing[r], before + first);
    }
    EdgeId id = 0;
    for (BlobView from : ranks.swap(outgoing)) {
        while (!from.empty()) {
            const EdgeId last = routes.offsets[synapses_.source(id) + 1];
            const EdgeId next = runEnd(id, last);
            for (auto edge = take<EdgeId>(from); id < next; ++id, ++edge) order[id] = edge;
        }
    }
    GraphShare& share = share_.emplace();
    share.begin = begin;
    share.end = end;
    share.network_edges = std::move(order);
    countShare(ranks);
}

/// Goes through the network in blocks of EdgeIds.
void SynapseGraph::visitNetwork(IRankGroup& ranks,
                                const std::function<void(const Synapse&, bool)>& visit) const {
    const LargeArray<EdgeId>& edges = share_->network_edges;
    // Own synapses in the order of the network, unless they have it.
    LargeArray<EdgeId> order;
    if (!std::ranges::is_sorted(edges)) {
        order.resize(edges.size());
        std::iota(order.begin(), order.end(), EdgeId{0});
        std::ranges::sort(order, {}, [&](EdgeId id) { return edges[id]; });
    }
    Blob own;
    Blob block;
    EdgeId next = 0;  // in that order; those before it are sent
    for (EdgeId first = 0; first < share_->edge_count; first += block_edges) {
        const EdgeId count = std::min(block_edges, share_->edge_count - first);
        own.clear();
        for (; next < edges.size(); ++next) {
            const EdgeId id = order.empty() ? next : order[next];
            if (edges[id] - first >= count) break;
            appendU64(own, edges[id] - first);
            appendSynapse(own, synapses_[id], synapses_.isRouted(id));
        }
        if (ranks.rank() == 0) block.resize(count * synapse_bytes);
        for (BlobView from : ranks.collect(own)) {
            while (!from.empty()) {
                const auto place = take<EdgeId>(from) * synapse_bytes;
                std::copy_n(from.begin(), synapse_bytes,
                            block.begin() + static_cast<std::ptrdiff_t>(place));
                from = from.subspan(synapse_bytes);
            }
        }
        if (ranks.rank() != 0) continue;
        BlobReader in(block);
        for (EdgeId i = 0; i < count; ++i) {
            Synapse synapse;
            bool routed = false;
            (void)readFields(in, synapse, routed);
            visit(synapse, routed);
        }
    }
}

Blob SynapseGraph::collectSnapshot(IRankGroup& ranks) const {
    Blob blob;
    if (ranks.rank() == 0) {
        blob.reserve(head_bytes + share_->edge_count * synapse_bytes);
        appendHead(blob, share_->edge_count);
    }
    visitNetwork(
        ranks, [&](const Synapse& synapse, bool routed) { appendSynapse(blob, synapse, routed); });
    return blob;
}

/// Reads the synapses at the places of the network's EdgeIds.
std::optional<SynapseGraph::State> SynapseGraph::readShare(BlobView blob) const {
    BlobReader in(blob);
    State state;
    std::uint64_t edge_count = 0;
    if (!readHead(in, state, edge_count) || edge_count != share_->edge_count) return std::nullopt;
    BlobView records;
    if (!in.readView(edge_count * synapse_bytes, records) || !in.atEnd()) return std::nullopt;
    state.synapses.reserve(synapses_.size());
    for (EdgeId id = 0; id < synapses_.size(); ++id) {
        BlobReader record(
            records.subspan(share_->network_edges[id] * synapse_bytes, synapse_bytes));
        // The rank of the target reads a synapse, so it must not have moved.
        Synapse synapse;
        if (!readSynapse(record, state, synapse) || synapse.source != synapses_.source(id) ||
            synapse.target != synapses_.target(id)) {
            return std::nullopt;
        }
    }
    return state;
}

void SynapseGraph::refuseSwitch() {
    throw std::logic_error("a synapse of a network on several ranks cannot be switched");
}

/// Each source has an owner, the rank whose range holds it. The owner gets the keys of all synapses
/// of the source, orders them, and returns the places.
void SynapseGraph::countShare(IRankGroup& ranks) {
    requireEqualNetworks(ranks);
    if (!ranks.all(isShareOf(ranks))) {
        throw std::invalid_argument("the share of the network is not that of its rank");
    }
    GraphShare& share = *share_;
    // Runs have the ids of the places that they were posted with.
    holder_link_.expandRuns();
    const Routes& routes = outRoutes();
    const std::uint32_t size = ranks.size();
    std::vector<Blob> outgoing(size);
    for (std::uint32_t r = 0; r < size; ++r) {
        const NodeId end = Kernel::shardEnd(node_count_, size, r);
        for (NodeId source = Kernel::shardBegin(node_count_, size, r); source < end; ++source) {
            const std::uint64_t first = routes.offsets[source];
            const std::uint64_t last = routes.offsets[source + 1];
            appendU32(outgoing[r], static_cast<std::uint32_t>(last - first));
            ModelTime shortest = 0;
            for (std::uint64_t i = first; i < last; ++i) {
                const EdgeId id = routes.ascending ? i : routes.edges[i];
                const bool transmits =
                    synapses_.isEnabled(id) && transmissionEnabled(synapses_.isInhibitory(id));
                if (transmits) {
                    const ModelTime delay = synapses_[id].delay;
                    shortest = shortest == 0 ? delay : std::min(shortest, delay);
                }
                appendU64(outgoing[r], share.network_edges[id] << 1 | (transmits ? 1 : 0));
            }
            if (last != first) appendI64(outgoing[r], shortest);
        }
    }
    std::vector<BlobView> incoming;
    for (const BlobView from : ranks.swap(outgoing)) incoming.push_back(from);

    for (Blob& blob : outgoing) blob.clear();
    const std::uint64_t own = share.end - share.begin;
    std::vector<std::uint32_t> fan_out(own);
    std::vector<ModelTime> shortest_delay(own);
    std::vector<RemoteSynapse> synapses;
    std::vector<std::uint32_t> counts(size);
    std::vector<std::vector<std::uint32_t>> places(size);
    for (std::uint64_t n = 0; n < own; ++n) {
        synapses.clear();
        for (std::uint32_t r = 0; r < size; ++r) {
            counts[r] = take<std::uint32_t>(incoming[r]);
            places[r].resize(counts[r]);
            for (std::uint32_t i = 0; i < counts[r]; ++i) {
                synapses.push_back({take<std::uint64_t>(incoming[r]), r, i});
            }
            if (counts[r] == 0) continue;
            const auto shortest = take<ModelTime>(incoming[r]);
            ModelTime& known = shortest_delay[n];
            if (shortest != 0) known = known == 0 ? shortest : std::min(known, shortest);
        }
        std::ranges::stable_sort(synapses, {},
                                 [](const RemoteSynapse& synapse) { return synapse.key >> 1; });
        std::uint32_t place = 0;
        for (const RemoteSynapse& synapse : synapses) {
            places[synapse.rank][synapse.index] = place;
            if (synapse.transmits()) ++place;
        }
        fan_out[n] = place;
        for (std::uint32_t r = 0; r < size; ++r) {
            appendImages<std::uint32_t>(outgoing[r], places[r]);
        }
    }
    std::vector<std::uint32_t> own_places(synapses_.size());
    std::uint64_t route = 0;
    for (BlobView from : ranks.swap(outgoing)) {
        // The owners are ascending ranges, so their answers follow one another by source.
        for (; !from.empty(); ++route) {
            own_places[routes.ascending ? route : routes.edges[route]] = take<std::uint32_t>(from);
        }
    }

    struct Limits {
        ModelTime smallest_delay = last_model_time;  ///< of routed synapses
        ModelTime longest_delay = 0;
        std::uint64_t routed_count = 0;
        std::uint64_t edge_count = 0;
        EdgeId edges_end = 0;  ///< behind the largest EdgeId in the network
    };
    Limits limits;
    limits.edge_count = synapses_.size();
    limits.routed_count = routed_count_;
    for (EdgeId id = 0; id < synapses_.size(); ++id) {
        const ModelTime delay = synapses_[id].delay;
        if (synapses_.isRouted(id)) limits.smallest_delay = std::min(limits.smallest_delay, delay);
        limits.longest_delay = std::max(limits.longest_delay, delay);
        limits.edges_end = std::max(limits.edges_end, share.network_edges[id] + 1);
    }
    Limits all;
    for (const Limits& other : ranks.shareRecord(limits)) {
        all.smallest_delay = std::min(all.smallest_delay, other.smallest_delay);
        all.longest_delay = std::max(all.longest_delay, other.longest_delay);
        all.routed_count += other.routed_count;
        all.edge_count += other.edge_count;
        all.edges_end = std::max(all.edges_end, other.edges_end);
    }
    if (all.edges_end > all.edge_count) {
        throw std::invalid_argument("a share has EdgeId " + std::to_string(all.edges_end - 1) +
                                    ", and the network has " + std::to_string(all.edge_count) +
                                    " synapses");
    }
    // As many EdgeIds as there are below edge_count: they are these if a sum over both is the same.
    // Each rank adds its own ones and subtracts a part of the others.
    std::uint64_t sum = 0;
    for (const EdgeId id : share.network_edges) sum += splitmixOutput(id);
    const EdgeId part_end = Kernel::shardEnd(all.edge_count, size, ranks.rank());
    for (EdgeId id = Kernel::shardBegin(all.edge_count, size, ranks.rank()); id < part_end; ++id) {
        sum -= splitmixOutput(id);
    }
    const std::vector<std::uint64_t> sums = ranks.shareRecord(sum);
    if (std::accumulate(sums.begin(), sums.end(), std::uint64_t{0}) != 0) {
        throw std::invalid_argument("two synapses of the shares have the same EdgeId");
    }
    share.smallest_delay.reset();
    if (all.routed_count != 0) share.smallest_delay = all.smallest_delay;
    share.longest_delay = all.longest_delay;
    share.routed_count = all.routed_count;
    share.edge_count = all.edge_count;
    share.places = std::move(own_places);
    share.fan_out = std::move(fan_out);
    share.shortest_delay = std::move(shortest_delay);
    share.counted = true;
}

}  // namespace Lumenar::Core::Kelm
