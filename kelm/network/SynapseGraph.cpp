#include "kelm/network/SynapseGraph.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace Lumenar::Core::Kelm {

namespace {

constexpr BlobTag format_tag("KELMSYN1");
constexpr const char* weight_bound = "finite and at least 0";

/// The first fault of a synapse, or null.
const char* faultOf(const Synapse& synapse, std::uint64_t node_count,
                    std::optional<ModelTime> min_delay) {
    if (synapse.source >= node_count || synapse.target >= node_count) {
        return InvalidSynapse::endpoint;
    }
    if (!isWeight(synapse.weight)) return InvalidSynapse::weight;
    if (synapse.delay < 1 || (min_delay && synapse.delay < *min_delay)) {
        return InvalidSynapse::delay;
    }
    return nullptr;
}

/// What faultOf has found, in the same order.
FailureDetail detailOfFault(const Synapse& synapse, EdgeId id, std::uint64_t node_count,
                            std::optional<ModelTime> min_delay) {
    const auto detail = [id](const char* field, std::string value, std::string bound) {
        return FailureDetail{"synapse", id, field, std::move(value), std::move(bound)};
    };
    const std::string below = "below the neuron count " + decimal(node_count);
    if (synapse.source >= node_count) return detail("source", decimal(synapse.source), below);
    if (synapse.target >= node_count) return detail("target", decimal(synapse.target), below);
    if (!isWeight(synapse.weight)) {
        return detail("weight", decimal(synapse.weight), weight_bound);
    }
    return detail("delay", decimal(synapse.delay) + " ns",
                  "at least " + decimal(min_delay.value_or(1)) + " ns");
}

}  // namespace

SynapseGraph::SynapseGraph(Empty, std::uint64_t node_count, std::optional<ModelTime> min_delay,
                           std::uint64_t edge_count)
    : node_count_(node_count), min_delay_(min_delay) {
    if (min_delay_ && *min_delay_ < 1) {
        throw withDetail(InvalidSynapse(InvalidSynapse::min_delay_not_positive),
                         {.field = "min_delay",
                          .value = decimal(*min_delay_) + " ns",
                          .bound = "at least 1 ns"});
    }
    synapses_.reserve(edge_count);
}

SynapseGraph::SynapseGraph(std::uint64_t node_count, std::optional<ModelTime> min_delay,
                           std::vector<Synapse> edges)
    : SynapseGraph(Empty(), node_count, min_delay, edges.size()) {
    for (const Synapse& synapse : edges) append(synapse);
    // Released here and not at the end of the caller's expression: the list is larger than the
    // table.
    std::vector<Synapse>().swap(edges);
}

void SynapseGraph::check(const Synapse& synapse, EdgeId id) const {
    if (const char* fault = faultOf(synapse, node_count_, min_delay_)) {
        throw withDetail(InvalidSynapse(fault),
                         detailOfFault(synapse, id, node_count_, min_delay_));
    }
}

void SynapseGraph::append(const Synapse& synapse) {
    check(synapse, synapses_.size());
    synapses_.append(synapse, true);
    ++routed_count_;
}

/// Lists the routed synapses by source or by target. A list ascends by EdgeId: this order fixes the
/// order of deliveries, and with it the ids of events.
template <class End>
void SynapseGraph::buildRoutes(Routes& routes, End end) {
    // The table has one entry more than there are neurons; the sum must not wrap around.
    if (node_count_ >= routes.offsets.max_size()) {
        throw std::length_error("the network has more neurons than a table can hold");
    }
    routes.offsets.resize(node_count_ + 1);
    routes.edges = std::vector<EdgeId>();
    routes.ascending = routed_count_ == synapses_.size() && buildAscending(routes, end);
    if (!routes.ascending) buildSorted(routes, end);
    if (!out_.built && !in_.built) ++rebuilds_;
    routes.built = true;
}

/// Fills the offsets in one pass if the synapses are sorted by `end`. False if they are not.
template <class End>
bool SynapseGraph::buildAscending(Routes& routes, End end) const {
    const EdgeId count = synapses_.size();
    NodeId started = 0;  // number of lists whose first entry is known
    for (EdgeId id = 0; id < count; ++id) {
        const NodeId node = end(id);
        if (node + 1 < started) return false;
        for (; started <= node; ++started) routes.offsets[started] = id;
    }
    std::fill(routes.offsets.begin() + static_cast<std::ptrdiff_t>(started), routes.offsets.end(),
              count);
    return true;
}

template <class End>
void SynapseGraph::buildSorted(Routes& routes, End end) const {
    // Filling a list moves its offset from its begin to its end, which is the begin of the next
    // list.
    std::fill(routes.offsets.begin(), routes.offsets.end(), 0);
    for (EdgeId id = 0; id < synapses_.size(); ++id) {
        if (synapses_.isRouted(id)) ++routes.offsets[end(id)];
    }
    std::uint64_t sum = 0;
    for (std::uint64_t& offset : routes.offsets) sum += std::exchange(offset, sum);
    routes.edges.resize(routed_count_);
    for (EdgeId id = 0; id < synapses_.size(); ++id) {
        if (synapses_.isRouted(id)) routes.edges[routes.offsets[end(id)]++] = id;
    }
    std::copy_backward(routes.offsets.begin(), routes.offsets.end() - 1, routes.offsets.end());
    routes.offsets[0] = 0;
}

void SynapseGraph::buildOutgoing() {
    // First, because isDivided() promises `shared`.
    division_.entries = LargeArray<SectionEntry>();
    out_.shared.clear();
    buildRoutes(out_, [this](EdgeId id) { return synapses_.source(id); });
    if (synapses_.isCompact()) out_.shared.resize(node_count_);
}

void SynapseGraph::divide(const std::vector<NodeId>& ends) {
    outRoutes();
    if (ends != division_.ends) {
        division_ = Division();
        division_.ends = ends;
    }
    if (isDivided() || ends.empty() || !packsDeliveries() || routed_count_ == 0) return;
    division_.entries.resize(routed_count_);
    noteAllStale();
}

/// Makes the entries of all sources stale, in any round.
void SynapseGraph::noteAllStale() {
    for (SharedTransmission& shared : out_.shared) shared.setRound(0);
}

/// Writes the entries of a source: counts those of each section, then places them.
void SynapseGraph::writeSections(NodeId source) {
    std::array<std::uint64_t, few_sections> small{};
    std::vector<std::uint64_t> large;
    const std::size_t count = division_.ends.size();
    if (count > few_sections) large.resize(count);
    std::uint64_t* const next = count > few_sections ? large.data() : small.data();
    const RoutedTransmissions routed = routedTransmissions();
    const std::uint64_t first = out_.offsets[source];
    const std::uint64_t end = out_.offsets[source + 1];
    for (std::uint64_t i = first; i < end; ++i) ++next[sectionOf(routed[i].target)];
    std::uint64_t sum = first;
    for (std::size_t s = 0; s < count; ++s) sum += std::exchange(next[s], sum);
    for (std::uint64_t i = first; i < end; ++i) {
        const SynapseTable::Transmission& synapse = routed[i];
        division_.entries[next[sectionOf(synapse.target)]++] = {synapse.target, synapse.value()};
    }
}

ModelTime SynapseGraph::runDelayOf(NodeId source, bool as_run) {
    if (out_.shared.empty() || !packsDeliveries()) return 0;
    SharedTransmission& shared = sharedTransmissionOf(source);
    if (!formsRunNow(shared)) return 0;
    if (as_run && isDivided() && shared.round() != division_.round) {
        writeSections(source);
        shared.setRound(division_.round);
    }
    return shared.delay();
}

SynapseGraph::Transmission SynapseGraph::transmissionOf(NodeId source, bool as_run) {
    if (share_) return {share_->fan_out[source - share_->begin], 0};
    if (const ModelTime delay = runDelayOf(source, as_run); delay != 0) {
        return {out_.offsets[source + 1] - out_.offsets[source], as_run ? delay : 0};
    }
    std::uint64_t count = 0;
    for (std::uint64_t i = out_.offsets[source]; i < out_.offsets[source + 1]; ++i) {
        const EdgeId id = out_.ascending ? i : out_.edges[i];
        if (synapses_.isEnabled(id) && transmissionEnabled(synapses_.isInhibitory(id))) ++count;
    }
    return {count, 0};
}

SynapseGraph::SharedTransmission SynapseGraph::readSharedTransmission(NodeId source) const {
    const SharedTransmission no_run(0, false, false);
    const RoutedTransmissions routed = routedTransmissions();
    const std::uint64_t first = out_.offsets[source];
    const std::uint64_t end = out_.offsets[source + 1];
    if (end - first < min_run_deliveries) return no_run;
    const ModelTime delay = routed[first].delay();
    if (delay > SharedTransmission::longest_delay) return no_run;
    bool excitatory = false;
    bool inhibitory = false;
    for (std::uint64_t route = first; route < end; ++route) {
        const SynapseTable::Transmission& synapse = routed[route];
        if (!synapse.enabled() || synapse.delay() != delay) return no_run;
        (synapse.inhibitory() ? inhibitory : excitatory) = true;
    }
    return SharedTransmission(delay, excitatory, inhibitory);
}

void SynapseGraph::buildIncoming() {
    buildRoutes(in_, [this](EdgeId id) { return synapses_.target(id); });
}

void SynapseGraph::listAscending(Routes& routes) {
    routes.edges.resize(routed_count_);
    std::iota(routes.edges.begin(), routes.edges.end(), EdgeId{0});
}

std::span<const std::uint64_t> SynapseGraph::outOffsets() { return outRoutes().offsets; }

std::span<const EdgeId> SynapseGraph::outEdges() { return listed(outRoutes()).edges; }

std::optional<ModelTime> SynapseGraph::dMin() {
    if (min_delay_) return min_delay_;
    if (share_) return share_->smallest_delay;
    if (d_min_stale_) {
        derived_d_min_.reset();
        for (EdgeId id = 0; id < synapses_.size(); ++id) {
            if (!synapses_.isRouted(id)) continue;
            const ModelTime delay = synapses_[id].delay;
            derived_d_min_ = derived_d_min_ ? std::min(*derived_d_min_, delay) : delay;
        }
        d_min_stale_ = false;
    }
    return derived_d_min_;
}

ModelTime SynapseGraph::longestDelay() {
    if (share_) return share_->longest_delay;
    if (!longest_delay_) {
        ModelTime longest = 0;
        for (EdgeId id = 0; id < synapses_.size(); ++id) {
            longest = std::max(longest, synapses_[id].delay);
        }
        longest_delay_ = longest;
    }
    return *longest_delay_;
}

void SynapseGraph::setWeight(EdgeId id, float weight) {
    if (!isWeight(weight)) throw InvalidSynapse(InvalidSynapse::weight);
    checked(id);
    holder_link_.expandRuns();
    if (reweighted_.recording) reweighted_.note(0, synapses_.target(id));
    noteStale(id);
    synapses_.setWeight(id, weight);
}

void SynapseGraph::readWeights(EdgeId first, std::span<float> weights) const {
    checkRange(first, weights.size());
    for (std::size_t i = 0; i < weights.size(); ++i) weights[i] = synapses_.weight(first + i);
}

void SynapseGraph::writeWeights(EdgeId first, std::span<const float> weights) {
    const auto invalid = std::find_if_not(weights.begin(), weights.end(), isWeight);
    if (invalid != weights.end()) {
        const auto place = static_cast<std::uint64_t>(invalid - weights.begin());
        throw withDetail(InvalidSynapse(InvalidSynapse::weight),
                         {"synapse", first + place, "weight", decimal(*invalid), weight_bound});
    }
    checkRange(first, weights.size());
    if (weights.empty()) return;
    holder_link_.expandRuns();
    // First, because a note may lack memory. A note without a change costs time alone.
    if (reweighted_.recording) {
        for (std::size_t i = 0; i < weights.size(); ++i) {
            reweighted_.note(0, synapses_.target(first + i));
        }
    }
    for (std::size_t i = 0; i < weights.size(); ++i) {
        noteStale(first + i);
        synapses_.setWeight(first + i, weights[i]);
    }
}

void SynapseGraph::prepareWriters(std::size_t count, bool with_times) {
    if (with_times) synapses_.allocateChanges();
    if (reweighted_.recording && reweighted_.lists.size() < count) reweighted_.lists.resize(count);
    holder_link_.expandRuns();
    if (++division_.round == 0) {  // numbers begin again
        noteAllStale();
        division_.round = 1;
    }
}

std::uint64_t SynapseGraph::takeReweightedTargets(std::uint64_t last_call,
                                                  std::vector<NodeId>& targets) {
    if (reweighted_.recording && last_call == reweighted_.calls) {
        std::size_t count = 0;
        for (const ReweightedTargets::List& list : reweighted_.lists) count += list.nodes.size();
        targets.clear();
        targets.reserve(count);
        if (count > node_count_ / 16) {
            // A walk over all neurons takes less time than sorting so many.
            for (NodeId node = 0; node < node_count_; ++node) {
                if (std::exchange(reweighted_.noted[node], 0) != 0) targets.push_back(node);
            }
        } else {
            for (const ReweightedTargets::List& list : reweighted_.lists) {
                targets.insert(targets.end(), list.nodes.begin(), list.nodes.end());
            }
            std::sort(targets.begin(), targets.end());
            for (const NodeId node : targets) reweighted_.noted[node] = 0;
        }
    } else {
        targets.resize(node_count_);
        std::iota(targets.begin(), targets.end(), NodeId{0});
        if (reweighted_.lists.empty()) reweighted_.lists.resize(1);
        reweighted_.noted.assign(node_count_, 0);
        reweighted_.recording = true;
    }
    for (ReweightedTargets::List& list : reweighted_.lists) list.nodes.clear();
    return ++reweighted_.calls;
}

void SynapseGraph::appendHead(Blob& blob, std::uint64_t edge_count) const {
    appendTag(blob, format_tag);
    appendU64(blob, node_count_);
    appendFlag(blob, min_delay_.has_value());
    appendI64(blob, min_delay_.value_or(0));
    appendFlag(blob, excitatory_on_);
    appendFlag(blob, inhibitory_on_);
    appendU64(blob, edge_count);
}

void SynapseGraph::appendSynapse(Blob& blob, const Synapse& synapse, bool routed) {
    appendU64(blob, synapse.source);
    appendU64(blob, synapse.target);
    appendF32(blob, synapse.weight);
    appendI64(blob, synapse.delay);
    appendFlag(blob, synapse.inhibitory);
    appendU32(blob, synapse.reserved_a);
    appendI64(blob, synapse.reserved_b);
    appendI64(blob, synapse.last_change);
    appendFlag(blob, synapse.enabled);
    appendU32(blob, synapse.reserved_c);
    appendU64(blob, synapse.reserved_d);
    appendFlag(blob, routed);
}

Blob SynapseGraph::snapshot() const {
    Blob blob;
    blob.reserve(head_bytes + synapses_.size() * synapse_bytes);
    appendHead(blob, synapses_.size());
    for (EdgeId id = 0; id < synapses_.size(); ++id) {
        appendSynapse(blob, synapses_[id], synapses_.isRouted(id));
    }
    return blob;
}

bool SynapseGraph::readFields(BlobReader& in, Synapse& synapse, bool& routed) {
    return in.readU64(synapse.source) && in.readU64(synapse.target) && in.readF32(synapse.weight) &&
           in.readI64(synapse.delay) && in.readFlag(synapse.inhibitory) &&
           in.readU32(synapse.reserved_a) && in.readI64(synapse.reserved_b) &&
           in.readI64(synapse.last_change) && in.readFlag(synapse.enabled) &&
           in.readU32(synapse.reserved_c) && in.readU64(synapse.reserved_d) && in.readFlag(routed);
}

bool SynapseGraph::readHead(BlobReader& in, State& state, std::uint64_t& edge_count) const {
    std::uint64_t node_count = 0;
    bool has_min_delay = false;
    std::int64_t min_delay = 0;
    std::uint8_t excitatory_on = 0;
    std::uint8_t inhibitory_on = 0;
    if (!in.expectTag(format_tag) || !in.readU64(node_count) || !in.readFlag(has_min_delay) ||
        !in.readI64(min_delay) || !in.readU8(excitatory_on) || !in.readU8(inhibitory_on) ||
        !in.readCount(synapse_bytes, edge_count)) {
        return false;
    }
    if (node_count != node_count_ || (has_min_delay && min_delay < 1)) return false;
    if (has_min_delay) state.min_delay = min_delay;
    state.excitatory_on = excitatory_on != 0;
    state.inhibitory_on = inhibitory_on != 0;
    return true;
}

/// Reads a synapse and adds it to `state`.
bool SynapseGraph::readSynapse(BlobReader& in, State& state, Synapse& synapse) const {
    bool routed = false;
    if (!readFields(in, synapse, routed)) return false;
    if (faultOf(synapse, node_count_, state.min_delay) != nullptr) return false;
    state.synapses.append(synapse, routed);
    if (routed) ++state.routed_count;
    return true;
}

std::optional<SynapseGraph::State> SynapseGraph::read(BlobView blob) const {
    if (share_) return readShare(blob);
    BlobReader in(blob);
    State state;
    std::uint64_t edge_count = 0;
    if (!readHead(in, state, edge_count)) return std::nullopt;
    state.synapses.reserve(edge_count);
    for (EdgeId id = 0; id < edge_count; ++id) {
        Synapse synapse;
        if (!readSynapse(in, state, synapse)) return std::nullopt;
    }
    if (!in.atEnd()) return std::nullopt;
    return state;
}

void SynapseGraph::adopt(State&& state) {
    holder_link_.expandRuns();
    min_delay_ = state.min_delay;
    synapses_ = std::move(state.synapses);
    routed_count_ = state.routed_count;
    excitatory_on_ = state.excitatory_on;
    inhibitory_on_ = state.inhibitory_on;
    out_.built = false;
    in_.built = false;
    d_min_stale_ = true;
    longest_delay_.reset();
    reweighted_.clear();
    if (share_) share_->counted = false;
}

bool SynapseGraph::restore(BlobView blob) {
    std::optional<State> state = read(blob);
    if (!state) return false;
    adopt(std::move(*state));
    return true;
}

}  // namespace Lumenar::Core::Kelm
