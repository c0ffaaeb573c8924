#pragma once

#include <algorithm>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/Failures.h"
#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/core/Prefetch.h"
#include "kelm/events/DeliveryRun.h"
#include "kelm/events/IEventStore.h"
#include "kelm/events/PackedDelivery.h"
#include "kelm/network/GraphShare.h"
#include "kelm/network/Synapse.h"
#include "kelm/network/SynapseColumns.h"
#include "kelm/network/SynapseTable.h"

namespace Lumenar::Core::Kelm {

class IRankGroup;

/// Keeps runs and reads their targets and values from the graph later.
class IRunHolder {
public:
    virtual ~IRunHolder() = default;
    /// Replaces the runs by their deliveries. The graph calls this before it changes what a run
    /// reads. May throw std::bad_alloc, with nothing changed here or in the graph.
    virtual void expandRuns() = 0;
};

/// The network: a fixed number of neurons and a fixed list of directed synapses.
///
/// Invariant: every endpoint lies below nodeCount(), every weight is finite and not negative, every
/// delay is at least 1 and at least the declared smallest delay. Self-loops and parallel synapses
/// are allowed. Neurons and synapses are never added or removed after construction. Weights, times
/// of last change and the switches may change.
///
/// The synapses lie in columns, 20 bytes each in a compact table. A graph whose synapses are sorted
/// by source delivers without outgoing lists. The first read of the routing tables builds them, so
/// such a read is not const. Views are valid until the graph is assigned to or restored. A graph
/// that was moved from may only be assigned to or destroyed. A move expands waiting runs and may
/// throw std::bad_alloc, with nothing changed. One thread at a time.
class SynapseGraph {
public:
    /// Takes over the synapses. A synapse's EdgeId is its index in the list.
    /// `min_delay`: declared smallest delay in ns, or none.
    /// Throws InvalidSynapse for a min_delay below 1, then for the first synapse that breaks the
    /// invariant: endpoints, weight, delay, in this order.
    SynapseGraph(std::uint64_t node_count, std::optional<ModelTime> min_delay,
                 std::vector<Synapse> edges);

    /// The same graph without a list, which would take more than three times its memory.
    /// `synapse_at(id)` returns the synapse of each EdgeId below `edge_count`, called once each, in
    /// ascending order.
    template <class SynapseAt>
    requires std::is_invocable_r_v<Synapse, SynapseAt&, EdgeId> SynapseGraph(
        std::uint64_t node_count, std::optional<ModelTime> min_delay, std::uint64_t edge_count,
        SynapseAt synapse_at)
        : SynapseGraph(Empty(), node_count, min_delay, edge_count) {
        for (EdgeId id = 0; id < edge_count; ++id) append(synapse_at(id));
    }

    /// The same graph from columns, which are not kept. Throws as SynapseColumns does, and as the
    /// constructor from a list. A template, so that an empty pair of braces is still a list.
    template <std::same_as<SynapseColumns> Columns>
    SynapseGraph(std::uint64_t node_count, std::optional<ModelTime> min_delay,
                 const Columns& columns)
        : SynapseGraph(node_count, min_delay, columns.size(),
                       [&columns](EdgeId id) { return columns[id]; }) {}

    std::uint64_t nodeCount() const { return node_count_; }
    std::uint64_t edgeCount() const { return synapses_.size(); }
    std::uint64_t routedCount() const { return routed_count_; }

    /// The synapses that leave `node`, ascending by EdgeId.
    /// Throws SynapseRoutingViolation for a node outside the network.
    std::span<const EdgeId> outgoing(NodeId node) {
        if (node >= node_count_) throw SynapseRoutingViolation(SynapseRoutingViolation::source);
        return listed(outRoutes()).of(node);
    }
    /// The synapses that enter `node`, ascending by EdgeId.
    /// Throws SynapseRoutingViolation for a node outside the network.
    std::span<const EdgeId> incoming(NodeId node) {
        if (node >= node_count_) {
            throw SynapseRoutingViolation(SynapseRoutingViolation::destination);
        }
        if (!in_.built) buildIncoming();
        return listed(in_).of(node);
    }
    /// Shape (nodeCount() + 1): neuron n's outgoing list is outEdges() from entry n to entry n + 1.
    std::span<const std::uint64_t> outOffsets();
    /// Shape (routedCount()): all outgoing lists, one after the other.
    std::span<const EdgeId> outEdges();

    /// Calls visit(synapse) for each synapse that leaves `node`, ascending by EdgeId, until a call
    /// returns false; returns false then. Builds no list. `node` must lie in the network.
    template <class Visit>
    bool visitOutgoing(NodeId node, Visit visit) {
        const Routes& routes = outRoutes();
        for (std::uint64_t i = routes.offsets[node]; i < routes.offsets[node + 1]; ++i) {
            if (!visit(synapses_[routes.ascending ? i : routes.edges[i]])) return false;
        }
        return true;
    }

    /// The window length of a run in ns: the declared smallest delay, else the smallest delay of
    /// all routed synapses, enabled or not. No value for a network that has neither.
    std::optional<ModelTime> dMin();

    /// The longest delay of all synapses in ns, 0 without synapses.
    ModelTime longestDelay();

    /// How many times the routing tables were built.
    std::uint64_t rebuilds() const { return rebuilds_; }

    /// Each throws SynapseRoutingViolation for an id outside the network.
    Synapse edge(EdgeId id) const { return synapses_[checked(id)]; }
    NodeId source(EdgeId id) const { return synapses_.source(checked(id)); }
    NodeId target(EdgeId id) const { return synapses_.target(checked(id)); }
    float weight(EdgeId id) const { return synapses_.weight(checked(id)); }
    bool isRouted(EdgeId id) const { return synapses_.isRouted(checked(id)); }
    ModelTime lastChange(EdgeId id) const { return synapses_.lastChange(checked(id)); }
    /// Reads or writes the time of a synapse's last change, only in the expression that makes it,
    /// not from a variable. A read allocates nothing. The first write may throw std::bad_alloc,
    /// with nothing changed.
    class LastChange {
    public:
        operator ModelTime() const&& { return synapses_.lastChange(id_); }
        void operator=(ModelTime time) && { synapses_.setLastChange(id_, time); }
        void operator=(LastChange&& other) && {
            std::move(*this) = static_cast<ModelTime>(std::move(other));
        }

    private:
        friend class SynapseGraph;
        LastChange(SynapseTable& synapses, EdgeId id) : synapses_(synapses), id_(id) {}
        LastChange(const LastChange&) = default;

        SynapseTable& synapses_;
        EdgeId id_;
    };
    LastChange lastChange(EdgeId id) { return {synapses_, checked(id)}; }

    /// Whether the synapses of a class, excitatory or inhibitory, transmit.
    bool transmissionEnabled(bool inhibitory) const {
        return inhibitory ? inhibitory_on_ : excitatory_on_;
    }
    /// Switches a class on or off from the next delivery on. Events already posted still arrive.
    void setTransmissionEnabled(bool inhibitory, bool on) {
        (inhibitory ? inhibitory_on_ : excitatory_on_) = on;
        if (share_) share_->counted = false;
    }
    /// Switches one synapse on or off from the next delivery on. Events already posted still
    /// arrive. The synapse stays routed and counts for dMin() either way. Throws
    /// SynapseRoutingViolation for an id outside the network, and std::logic_error in a share.
    void setEnabled(EdgeId id, bool on) {
        if (share_) refuseSwitch();
        synapses_.setEnabled(checked(id), on);
        if (!out_.shared.empty()) out_.shared[synapses_.source(id)].forget();
    }

    /// Sets a weight magnitude from the next delivery on. Events already posted keep their value.
    /// Throws InvalidSynapse for a weight that is negative or not finite, then
    /// SynapseRoutingViolation for an id outside the network. May throw std::bad_alloc, with
    /// nothing changed.
    void setWeight(EdgeId id, float weight);

    /// Reads the weight magnitudes of synapses `first` and following.
    /// Throws SynapseRoutingViolation for a range that does not lie in the network.
    void readWeights(EdgeId first, std::span<float> weights) const;
    /// Sets the weight magnitudes of synapses `first` and following, as setWeight does for each.
    /// Throws, with nothing changed, InvalidSynapse for a weight that is negative or not finite,
    /// with the first such synapse as its detail, then SynapseRoutingViolation as readWeights does.
    /// May throw std::bad_alloc, with nothing changed.
    void writeWeights(EdgeId first, std::span<const float> weights);

    /// Prepares writers 0 to `count` - 1, through which as many threads may set weights at once.
    /// Call it before the threads start. `with_times`: the threads also write lastChange. It costs
    /// as much as setting one weight, in a division as much as setting a weight of each source. May
    /// throw std::bad_alloc, with nothing changed.
    void prepareWriters(std::size_t count, bool with_times);
    /// Sets a weight as setWeight(id, weight) does. Two threads must not use one writer, nor set
    /// the weight of one synapse. A writer is ready until the next call that is not one of this.
    void setWeight(std::size_t writer, EdgeId id, float weight) {
        if (!isWeight(weight)) throw InvalidSynapse(InvalidSynapse::weight);
        checked(id);
        if (reweighted_.recording) reweighted_.note(writer, synapses_.target(id));
        synapses_.setWeight(id, weight);
    }
    /// Whether the synapses came in the order of their sources, so that each list of incoming
    /// synapses ascends by source. Reads the outgoing lists, which must be built.
    bool isSortedBySource() const { return out_.ascending; }

    /// Replaces `targets` by the neurons whose incoming weights were set since an earlier call,
    /// also to the same value: ascending, each once. `last_call` is what that call returned, 0 for
    /// none. Returns the number of this call.
    ///
    /// `targets` becomes every neuron if `last_call` is not the latest call, or if the graph was
    /// copied, moved, assigned to or restored since. So a second reader costs the first reader
    /// time, but hides no change from it.
    ///
    /// A graph keeps no record before the first call. Memory is bounded by the neuron count. May
    /// throw std::bad_alloc, with the record unchanged.
    std::uint64_t takeReweightedTargets(std::uint64_t last_call, std::vector<NodeId>& targets);

    /// Prefetches what deliver() from `source` reads, or deferRun() where `as_run` is set. `source`
    /// must lie in the network.
    void prefetchSynapses(NodeId source, bool as_run) const {
        if (!out_.built) return;
        if (as_run && !out_.shared.empty() && out_.shared[source].formsRun()) return;
        const std::uint64_t first = out_.offsets[source];
        if (out_.ascending) {
            synapses_.prefetchRange(first, out_.offsets[source + 1]);
        } else {
            prefetchLine(out_.edges.data() + first);
        }
    }
    /// Prefetches a synapse. `id` must lie in the network.
    void prefetchEdge(EdgeId id) const { synapses_.prefetch(id); }

    /// How many synapses to prefetch at once. A processor drops prefetches beyond its capacity.
    static constexpr std::size_t prefetch_block = 16;

    /// Posts one delivery for each transmitting synapse of `source`, in EdgeId order, for a spike
    /// at `time` ns. Returns their number. A Sink of a final class needs no virtual calls.
    /// A Sink whose functions take a second argument also gets each delivery's place among all
    /// deliveries of the spike. A Sink that takes packed deliveries gets them where the table is
    /// compact. Throws
    /// SynapseRoutingViolation for a source outside the network, and TimeOverflow for a delivery
    /// beyond the range of ModelTime. The deliveries before that one stay posted.
    template <class Sink>
    std::uint64_t deliver(NodeId source, ModelTime time, Sink& sink) {
        if (source >= node_count_) throw SynapseRoutingViolation(SynapseRoutingViolation::source);
        const Routes& routes = outRoutes();
        if constexpr (
            requires(const PackedDelivery& packed) { sink.postPacked(packed); } ||
            requires(const PackedDelivery& packed) { sink.postPacked(packed, 0); }) {
            if (packsDeliveries()) return deliverPacked(routes, source, time, sink);
        }
        std::uint64_t count = 0;
        const std::uint64_t end = routes.offsets[source + 1];
        for (std::uint64_t i = routes.offsets[source]; i < end; ++i) {
            const EdgeId id = routes.ascending ? i : routes.edges[i];
            const Synapse synapse = synapses_[id];
            if (!synapse.enabled || !transmissionEnabled(synapse.inhibitory)) continue;
            Event event;
            event.time = addTime(time, synapse.delay);
            event.source = source;
            event.target = synapse.target;
            event.edge = networkEdge(id);
            event.value = deliveredValue(synapse);
            if constexpr (requires { sink.post(event, count); }) {
                sink.post(event, placeOf(id, count));
            } else {
                sink.post(event);
            }
            ++count;
        }
        return count;
    }

    /// Fewest deliveries of a run: a run takes a quarter of their memory, or less.
    static constexpr std::uint64_t min_run_deliveries = 4;

    /// Returns the deliveries that deliver() would post, as one run without an id, for `holder` to
    /// keep. No value, and no effect, unless `source` has at least min_run_deliveries routed
    /// synapses, all of them transmit and have one delay, and the table is compact. Throws as
    /// deliver() does.
    ///
    /// The graph calls holder.expandRuns() once, before it next changes a weight or is restored,
    /// assigned to or moved from. A switch changes no run. A graph has one holder: before another
    /// one becomes the holder, the first expands its runs. A copy of the graph has no holder. The
    /// holder must not move, and calls releaseHolder before it ends.
    std::optional<DeliveryRun> deferRun(NodeId source, ModelTime time, IRunHolder& holder) {
        if (source >= node_count_) throw SynapseRoutingViolation(SynapseRoutingViolation::source);
        const Routes& routes = outRoutes();
        if (routes.shared.empty()) return std::nullopt;
        const SharedTransmission shared = sharedTransmissionOf(source);
        if (!formsRunNow(shared)) return std::nullopt;
        DeliveryRun run;
        run.time = addTime(time, shared.delay());
        run.first_route = routes.offsets[source];
        run.count = routes.offsets[source + 1] - run.first_route;
        holder_link_.connect(holder);
        return run;
    }

    /// Tells the graph that the runs of `holder` are gone. No effect if it is not the holder.
    void releaseHolder(const IRunHolder& holder) noexcept { holder_link_.disconnect(holder); }

    /// The transmissions of a compact table by their index in the outgoing lists.
    class RoutedTransmissions {
    public:
        RoutedTransmissions() = default;
        const SynapseTable::Transmission& operator[](std::uint64_t route) const {
            return transmissions_[edgeAt(route)];
        }
        EdgeId edgeAt(std::uint64_t route) const {
            return edges_ == nullptr ? route : edges_[route];
        }
        /// Prefetches `count` entries from `route` on. A long range is cut.
        void prefetch(std::uint64_t route, std::uint64_t count) const {
            if (edges_ != nullptr) return prefetchLine(edges_ + route);
            constexpr std::uint64_t line = 64 / sizeof(SynapseTable::Transmission);
            count = std::min<std::uint64_t>(count, prefetch_block);
            for (std::uint64_t i = 0; i < count; i += line) {
                prefetchLine(transmissions_ + route + i);
            }
            prefetchLine(transmissions_ + route + count - 1);
        }

    private:
        friend class SynapseGraph;
        const SynapseTable::Transmission* transmissions_ = nullptr;
        const EdgeId* edges_ = nullptr;  ///< null where entry i is synapse i
    };
    /// For reading runs. Valid until the graph changes.
    RoutedTransmissions routedTransmissions() const {
        RoutedTransmissions routed;
        if (synapses_.size() == 0) return routed;
        routed.transmissions_ = &synapses_.transmission(0);
        if (!out_.ascending) routed.edges_ = out_.edges.data();
        return routed;
    }

    /// What a delivery of a run needs, in 8 bytes.
    class SectionEntry {
    public:
        /// Not set: an array of many takes memory page by page, when each is first written.
        SectionEntry() {}
        std::uint32_t target;
        float value() const { return value_; }

    private:
        friend class SynapseGraph;
        SectionEntry(std::uint32_t to, float delivered) : target(to), value_(delivered) {}
        float value_;
    };
    /// The entries of all sections by their index.
    class SectionEntries {
    public:
        SectionEntries() = default;
        const SectionEntry& operator[](std::uint64_t route) const { return entries_[route]; }
        void prefetch(std::uint64_t route, std::uint64_t count) const {
            constexpr std::uint64_t line = 64 / sizeof(SectionEntry);
            count = std::min<std::uint64_t>(count, 2 * prefetch_block);
            for (std::uint64_t i = 0; i < count; i += line) prefetchLine(entries_ + route + i);
            prefetchLine(entries_ + route + count - 1);
        }

    private:
        friend class SynapseGraph;
        const SectionEntry* entries_ = nullptr;
    };
    /// For reading the runs of sections. Valid until the graph changes.
    SectionEntries sectionEntries() const {
        SectionEntries entries;
        entries.entries_ = division_.entries.data();
        return entries;
    }

    /// Divides the outgoing lists by target: section i of a source lists its synapses whose targets
    /// lie below ends[i] and not in an earlier section. `ends`: ascending, the last one behind all
    /// targets, or empty for a graph that is not divided, as it begins. Sections take 8 bytes a
    /// synapse. A copied, moved or assigned graph is not divided. No run may be waiting. Builds the
    /// outgoing lists, so that several threads may read them; those of a source are put in the
    /// order of sections by transmissionOf or runDelayOf. May throw std::bad_alloc.
    void divide(const std::vector<NodeId>& ends);
    /// Ends the division.
    void undivide() noexcept { division_ = Division(); }
    /// What the deliveries of a spike have in common, for several threads that post them.
    struct Transmission {
        std::uint64_t count = 0;  ///< deliveries that deliver() posts
        ModelTime delay = 0;      ///< ns, of all of them if they form runs; else 0
    };
    /// Reads what the deliveries of `source` have in common. `as_run`: whether runs are wanted. In
    /// a share: for a neuron of its range, and without the delay. Several threads may call it at
    /// once, each for other sources, after divide. May throw std::bad_alloc.
    Transmission transmissionOf(NodeId source, bool as_run);
    /// The delay alone, also in a share, whose other deliveries are not here. Otherwise as
    /// transmissionOf.
    ModelTime runDelayOf(NodeId source, bool as_run);
    /// The run of a section, or of a graph that is not divided, for a spike whose deliveries form
    /// runs, without an id. It may be empty. Several threads may call it at once.
    DeliveryRun runOf(NodeId source, ModelTime arrival, std::size_t section) const {
        std::uint64_t first = out_.offsets[source];
        std::uint64_t end = out_.offsets[source + 1];
        if (isDivided()) {
            first = sectionBegin(first, end, section);
            end = sectionBegin(first, end, section + 1);
        }
        DeliveryRun run;
        run.time = arrival;
        run.first_route = first;
        run.count = end - first;
        return run;
    }
    /// Prefetches what transmissionOf reads.
    void prefetchTransmission(NodeId source) const {
        prefetchLine(out_.offsets.data() + source);
        if (!out_.shared.empty()) prefetchLine(out_.shared.data() + source);
    }
    /// Prefetches what runOf reads: first the place of the run, then the run.
    void prefetchRunPlace(NodeId source) const { prefetchLine(out_.offsets.data() + source); }
    void prefetchRun(NodeId source) const {
        if (!isDivided()) return;
        const std::uint64_t first = out_.offsets[source];
        prefetchLine(division_.entries.data() + first + (out_.offsets[source + 1] - first) / 2);
    }
    /// Makes `holder` the one that keeps runs, as deferRun does.
    void connectHolder(IRunHolder& holder) { holder_link_.connect(holder); }

    /// Calls visit(delivery) for each delivery of a run, as deliver() would have posted it, with
    /// its id.
    template <class Visit>
    void visitDeliveries(const DeliveryRun& run, Visit visit) const {
        const RoutedTransmissions routed = routedTransmissions();
        for (std::uint64_t i = 0; i < run.count; ++i) {
            const EdgeId edge = routed.edgeAt(run.first_route + i);
            visit(deliveryOf(run, placeOf(edge, i), edge));
        }
    }
    /// The same for a run of a section, whose id is that of the spike's first delivery to any
    /// neuron.
    template <class Visit>
    void visitDeliveries(const DeliveryRun& run, std::size_t section, Visit visit) const {
        const std::vector<std::uint64_t>& offsets = out_.offsets;
        const auto next = std::upper_bound(offsets.begin(), offsets.end(), run.first_route);
        const auto source = static_cast<NodeId>(next - offsets.begin()) - 1;
        for (std::uint64_t i = offsets[source]; i < offsets[source + 1]; ++i) {
            const EdgeId edge = out_.ascending ? i : out_.edges[i];
            if (sectionOf(synapses_.target(edge)) != section) continue;
            visit(deliveryOf(run, placeOf(edge, i - offsets[source]), edge));
        }
    }

    // A graph may be the share of a rank: it has all neurons of a network, and of its synapses only
    // those that enter a range of neurons. Its EdgeIds are its own, by source. What all ranks call
    // belongs into IRankGroup::together, so that none waits for one that throws.

    const std::optional<GraphShare>& share() const { return share_; }
    /// Whether this is the share of the rank, by the layout formula.
    bool isShareOf(const IRankGroup& ranks) const;
    /// The number of synapses of the whole network.
    std::uint64_t networkEdgeCount() const { return share_ ? share_->edge_count : edgeCount(); }
    /// The EdgeId in the network of the synapse `edge`.
    EdgeId networkEdge(EdgeId edge) const { return share_ ? share_->network_edges[edge] : edge; }
    /// routedCount() of the network.
    std::uint64_t networkRoutedCount() const {
        return share_ ? share_->routed_count : routed_count_;
    }
    /// The share of the neurons from `begin` to below `end` of a network of `node_count` neurons.
    /// `synapses`: those that enter the range, with their EdgeIds in the network in `edges`, both
    /// ascending by source, then EdgeId. Throws as the constructor from a list, and
    /// std::invalid_argument for synapses of other ranges or in another order.
    static SynapseGraph shareOf(std::uint64_t node_count, std::optional<ModelTime> min_delay,
                                NodeId begin, NodeId end, std::span<const Synapse> synapses,
                                std::span<const EdgeId> edges);
    /// The share of a rank of a network that rank 0 holds, with all that snapshot() of `graph`
    /// holds. `graph`: the network on rank 0; it is not read on other ranks. To be called by all
    /// ranks. Rank 0 sends in blocks. Throws std::invalid_argument, on all ranks, for no graph, and
    /// for one that is a share.
    static SynapseGraph scatter(const SynapseGraph* graph, IRankGroup& ranks);
    /// The share of a rank of a network whose synapses the ranks hold in columns, each rank any
    /// part of them. The EdgeIds are those of the columns of all ranks, one behind the other. To be
    /// called by all ranks, with the same `node_count` and `min_delay`. Each rank sends in blocks.
    ///
    /// Throws, on all ranks, as the constructor from columns. The detail has the EdgeId.
    static SynapseGraph buildShare(std::uint64_t node_count, std::optional<ModelTime> min_delay,
                                   const SynapseColumns& columns, IRankGroup& ranks);
    /// On rank 0, calls visit(synapse, is_routed) for all synapses of the network, in the order of
    /// their EdgeIds there. To be called by all ranks. Rank 0 holds few of them at a time.
    void visitNetwork(IRankGroup& ranks,
                      const std::function<void(const Synapse&, bool)>& visit) const;
    /// On rank 0 the snapshot of the network, elsewhere nothing. To be called by all ranks.
    Blob collectSnapshot(IRankGroup& ranks) const;
    /// Computes with the other ranks what depends on all synapses of a source. To be called by all
    /// ranks: once at first, then after a switch of a class or a restore. Throws
    /// std::invalid_argument for shares that do not belong together, and may throw std::bad_alloc.
    void countShare(IRankGroup& ranks);

    /// Format "KELMSYN1": tag, node count (8), has min_delay (1), min_delay (8), excitatory on (1),
    /// inhibitory on (1), edge count (8), then each synapse in 63 bytes: source (8), target (8),
    /// weight (4), delay (8), inhibitory (1), reserved_a (4), reserved_b (8), last_change (8),
    /// enabled (1), reserved_c (4), reserved_d (8), routed (1).
    Blob snapshot() const;

    /// What a snapshot holds, but for the neuron count.
    struct State {
        std::optional<ModelTime> min_delay;
        SynapseTable synapses;
        std::uint64_t routed_count = 0;
        bool excitatory_on = true;
        bool inhibitory_on = true;
    };
    /// Reads a snapshot for adopt. No value for a blob that is cut short, forged, of another format
    /// or of a network with another neuron count, or that holds a synapse which construction
    /// refuses. In a share: the snapshot is the network's, and its synapses must have the same
    /// ends.
    std::optional<State> read(BlobView blob) const;
    /// Replaces what a snapshot holds. Throws what IRunHolder::expandRuns throws, with nothing
    /// changed.
    void adopt(State&& state);
    /// Reads and adopts. False, with the graph unchanged, for a blob that read() refuses.
    [[nodiscard]] bool restore(BlobView blob);

private:
    /// The neurons whose incoming weights were set since the last call that took them. A copied or
    /// moved graph starts a new record.
    struct ReweightedTargets {
        /// Written by one thread at a time, so it has a cache line of its own.
        struct alignas(64) List {
            std::vector<NodeId> nodes;
        };

        ReweightedTargets() = default;
        ReweightedTargets(const ReweightedTargets&) noexcept {}
        ReweightedTargets& operator=(const ReweightedTargets&) noexcept {
            clear();
            return *this;
        }
        void clear() noexcept {
            recording = false;
            lists.clear();
            noted.clear();
        }
        /// Notes a neuron in the list of a writer, unless it is in a list.
        void note(std::size_t writer, NodeId target) {
            const std::atomic_ref<std::uint8_t> is_noted(noted[target]);
            if (is_noted.load(std::memory_order_relaxed) != 0) return;
            std::vector<NodeId>& nodes = lists[writer].nodes;
            nodes.push_back(target);
            // Another writer may have noted it since.
            if (is_noted.exchange(1, std::memory_order_relaxed) != 0) nodes.pop_back();
        }

        bool recording = false;
        std::uint64_t calls = 0;          ///< calls that took the targets
        std::vector<List> lists;          ///< by writer; at least one while recording
        std::vector<std::uint8_t> noted;  ///< by NodeId: 1 for a neuron in a list
    };

    friend class Wiring;
    /// Selects the constructor that takes over a table of checked synapses, all of them routed.
    struct Placed {};
    void requireEqualNetworks(IRankGroup& ranks) const;
    /// Makes a new graph, sorted by source, the share of [begin, end). `order`: by EdgeId; orders
    /// the synapses of a source; those of equal order follow their targets, and so the ranks.
    void makeShare(NodeId begin, NodeId end, LargeArray<std::uint64_t> order, IRankGroup& ranks);
    SynapseGraph(Placed, std::uint64_t node_count, std::optional<ModelTime> min_delay,
                 SynapseTable synapses)
        : node_count_(node_count),
          min_delay_(min_delay),
          synapses_(std::move(synapses)),
          routed_count_(synapses_.size()) {}
    /// Selects the constructor of a graph without synapses, with room for `edge_count` of them.
    struct Empty {};
    SynapseGraph(Empty, std::uint64_t node_count, std::optional<ModelTime> min_delay,
                 std::uint64_t edge_count);
    /// Throws for the first fault of a synapse.
    void check(const Synapse& synapse, EdgeId id) const;
    /// Adds a synapse while the graph is constructed.
    void append(const Synapse& synapse);
    /// Makes a new graph without synapses a share, not counted. The rank holds `count` synapses of
    /// the network, which come behind those of lower ranks. at(i) returns number i of them and
    /// whether it is routed. Checks them all before it sends one.
    template <class At>
    void receiveShare(EdgeId count, At at, IRankGroup& ranks);

    std::size_t checked(EdgeId id) const {
        if (id >= synapses_.size()) throw SynapseRoutingViolation(SynapseRoutingViolation::edge);
        return static_cast<std::size_t>(id);
    }
    void checkRange(EdgeId first, std::size_t count) const {
        if (first > synapses_.size() || count > synapses_.size() - first) {
            throw SynapseRoutingViolation(SynapseRoutingViolation::edge);
        }
    }
    /// The link to the holder of the runs, if there is one. Assigning to a graph or moving from it
    /// expands its runs and cuts its link; a copy has no link. The first member of the graph, so
    /// that runs are expanded before the synapses change.
    class HolderLink {
    public:
        HolderLink() = default;
        ~HolderLink() = default;
        HolderLink(const HolderLink&) noexcept {}
        HolderLink(HolderLink&& other) { other.expandRuns(); }
        HolderLink& operator=(const HolderLink& other) {
            if (this != &other) expandRuns();
            return *this;
        }
        HolderLink& operator=(HolderLink&& other) {
            expandRuns();
            other.expandRuns();
            return *this;
        }

        void connect(IRunHolder& holder) {
            if (holder_ == &holder) return;
            expandRuns();
            holder_ = &holder;
        }
        void disconnect(const IRunHolder& holder) noexcept {
            if (holder_ == &holder) holder_ = nullptr;
        }
        void expandRuns() {
            if (holder_ == nullptr) return;
            holder_->expandRuns();
            holder_ = nullptr;
        }

    private:
        IRunHolder* holder_ = nullptr;
    };

    /// How all outgoing synapses of a neuron transmit, in 8 bytes.
    class SharedTransmission {
        static constexpr int round_shift = 3;
        static constexpr int delay_shift = 19;
        static constexpr std::uint64_t round_bits = std::uint64_t{0xffff} << round_shift;

    public:
        static constexpr ModelTime longest_delay = (ModelTime{1} << (64 - delay_shift)) - 1;

        /// Not known.
        SharedTransmission() = default;
        /// `delay`: of all synapses in ns, at most longest_delay, or 0 where their deliveries form
        /// no run.
        SharedTransmission(ModelTime delay, bool excitatory, bool inhibitory)
            : bits_(static_cast<std::uint64_t>(delay) << delay_shift | (inhibitory ? 4 : 0) |
                    (excitatory ? 2 : 0) | 1) {}

        bool isKnown() const { return (bits_ & 1) != 0; }
        bool formsRun() const { return delay() != 0; }
        ModelTime delay() const { return static_cast<ModelTime>(bits_ >> delay_shift); }
        bool hasExcitatory() const { return (bits_ & 2) != 0; }
        bool hasInhibitory() const { return (bits_ & 4) != 0; }
        /// Becomes not known, but for the round.
        void forget() { bits_ &= round_bits; }

        /// The round in which the neuron's entries in a Division were written, or 0.
        std::uint16_t round() const { return static_cast<std::uint16_t>(bits_ >> round_shift); }
        void setRound(std::uint16_t round) {
            bits_ = (bits_ & ~round_bits) | std::uint64_t{round} << round_shift;
        }

    private:
        std::uint64_t bits_ = 0;
    };

    /// The routed synapses by source or by target, in compressed sparse rows.
    struct Routes {
        std::vector<std::uint64_t> offsets;  ///< shape (neurons + 1)
        std::vector<EdgeId> edges;           ///< shape (routed synapses), see ascending
        /// Shape (neurons); an entry is filled when it is first read. Empty for incoming routes and
        /// for a table that is not compact.
        std::vector<SharedTransmission> shared;
        bool built = false;
        /// Entry i is synapse i, because the synapses came in this order. `edges` is then filled
        /// only when it is read.
        bool ascending = false;

        std::span<const EdgeId> of(NodeId node) const {
            return {edges.data() + offsets[node], edges.data() + offsets[node + 1]};
        }
    };

    /// Into sections by target. A copied or moved graph is one section.
    struct Division {
        Division() = default;
        Division(const Division&) noexcept {}
        Division& operator=(const Division& other) noexcept {
            if (this == &other) return *this;
            ends.clear();
            entries = LargeArray<SectionEntry>();  // frees the memory
            return *this;
        }

        std::vector<NodeId> ends;  ///< by section; empty for one section
        /// Where the table is compact: shape (routed synapses), by source, then section, then
        /// EdgeId. Those of a source are written when it first fires in a round. Its waiting runs
        /// read them until a weight changes.
        LargeArray<SectionEntry> entries;
        std::uint16_t round = 1;  ///< a new one begins when the weights of all sources may change
    };

    Routes& outRoutes() {
        if (!out_.built) buildOutgoing();
        return out_;
    }
    static constexpr std::size_t few_sections = 16;
    std::size_t sectionOf(NodeId target) const {
        const std::vector<NodeId>& ends = division_.ends;
        if (ends.size() <= few_sections) {
            // Targets are random, so a search by branches would be guessed wrong half of the time.
            std::size_t section = 0;
            for (const NodeId end : ends) section += end <= target ? 1 : 0;
            return section;
        }
        return static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), target) -
                                        ends.begin());
    }
    bool isDivided() const { return !division_.entries.empty(); }
    /// Where the entries of a section begin among those of a source, or of the first of them.
    std::uint64_t sectionBegin(std::uint64_t first, std::uint64_t end, std::size_t section) const {
        if (section == 0) return first;
        if (section == division_.ends.size()) return end;
        const NodeId target = division_.ends[section - 1];
        const SectionEntry* const entries = division_.entries.data();
        return static_cast<std::uint64_t>(
            std::partition_point(entries + first, entries + end,
                                 [&](const SectionEntry& entry) { return entry.target < target; }) -
            entries);
    }
    PackedDelivery deliveryOf(const DeliveryRun& run, std::uint64_t place, EdgeId edge) const {
        PackedDelivery delivery = packedDelivery(synapses_.source(edge), networkEdge(edge),
                                                 synapses_.transmission(edge), run.time);
        delivery.id = run.id + place;
        return delivery;
    }
    void noteStale(EdgeId id) {
        if (isDivided()) out_.shared[synapses_.source(id)].setRound(0);
    }
    void noteAllStale();
    void writeSections(NodeId source);
    bool formsRunNow(SharedTransmission shared) const {
        return shared.formsRun() && (!shared.hasExcitatory() || excitatory_on_) &&
               (!shared.hasInhibitory() || inhibitory_on_);
    }
    void buildOutgoing();
    void buildIncoming();
    SharedTransmission& sharedTransmissionOf(NodeId source) {
        SharedTransmission& shared = out_.shared[source];
        if (!shared.isKnown()) {
            const std::uint16_t round = shared.round();
            shared = readSharedTransmission(source);
            shared.setRound(round);
        }
        return shared;
    }
    SharedTransmission readSharedTransmission(NodeId source) const;
    template <class End>
    void buildRoutes(Routes& routes, End end);
    template <class End>
    bool buildAscending(Routes& routes, End end) const;
    template <class End>
    void buildSorted(Routes& routes, End end) const;
    /// The routes with their list filled.
    const Routes& listed(Routes& routes) {
        if (routes.edges.size() != routed_count_) listAscending(routes);
        return routes;
    }
    void listAscending(Routes& routes);
    template <class Sink>
    std::uint64_t deliverPacked(const Routes& routes, NodeId source, ModelTime time, Sink& sink) {
        std::uint64_t count = 0;
        const std::uint64_t end = routes.offsets[source + 1];
        for (std::uint64_t i = routes.offsets[source]; i < end; ++i) {
            const EdgeId id = routes.ascending ? i : routes.edges[i];
            const SynapseTable::Transmission& synapse = synapses_.transmission(id);
            if (!synapse.enabled() || !transmissionEnabled(synapse.inhibitory())) continue;
            const PackedDelivery delivery =
                packedDelivery(source, networkEdge(id), synapse, addTime(time, synapse.delay()));
            if constexpr (requires { sink.postPacked(delivery, count); }) {
                sink.postPacked(delivery, placeOf(id, count));
            } else {
                sink.postPacked(delivery);
            }
            ++count;
        }
        return count;
    }
    static PackedDelivery packedDelivery(NodeId source, EdgeId id,
                                         const SynapseTable::Transmission& synapse,
                                         ModelTime time) {
        PackedDelivery delivery;
        delivery.time = time;
        delivery.source = static_cast<std::uint32_t>(source);
        delivery.target = synapse.target;
        delivery.edge = static_cast<std::uint32_t>(id);
        delivery.value = synapse.value();
        return delivery;
    }
    static constexpr std::size_t head_bytes = 35;
    static constexpr std::size_t synapse_bytes = 63;
    static bool readFields(BlobReader& in, Synapse& synapse, bool& routed);
    void appendHead(Blob& blob, std::uint64_t edge_count) const;
    static void appendSynapse(Blob& blob, const Synapse& synapse, bool routed);
    [[noreturn]] static void refuseSwitch();
    bool readHead(BlobReader& in, State& state, std::uint64_t& edge_count) const;
    bool readSynapse(BlobReader& in, State& state, Synapse& synapse) const;
    std::optional<State> readShare(BlobView blob) const;

    /// Whether deliveries fit their packed form.
    bool packsDeliveries() const {
        return synapses_.isCompact() && (!share_ || share_->edge_count <= std::uint64_t{1} << 32);
    }
    /// Of a delivery that is number `place` of its source here.
    std::uint64_t placeOf(EdgeId edge, std::uint64_t place) const {
        return share_ ? share_->places[edge] : place;
    }

    HolderLink holder_link_;
    std::uint64_t node_count_;
    std::optional<ModelTime> min_delay_;
    SynapseTable synapses_;
    std::uint64_t routed_count_ = 0;
    Routes out_;
    Division division_;
    Routes in_;  ///< only learning reads it
    std::optional<ModelTime> derived_d_min_;
    std::optional<ModelTime> longest_delay_;  ///< none until it is read
    std::uint64_t rebuilds_ = 0;
    bool d_min_stale_ = true;
    bool excitatory_on_ = true;
    bool inhibitory_on_ = true;
    ReweightedTargets reweighted_;
    std::optional<GraphShare> share_;
};

}  // namespace Lumenar::Core::Kelm
