#include "kelm/engine/WindowEngine.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <exception>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "kelm/core/Digest.h"
#include "kelm/core/Failures.h"
#include "kelm/core/FloatingPointEnvironment.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/core/Prefetch.h"
#include "kelm/engine/RunState.h"
#include "kelm/engine/WindowEvents.h"

namespace Lumenar::Core::Kelm {

namespace {

/// How many events ahead the memory of an event's neuron is prefetched: early enough to arrive in
/// time, late enough to stay in the cache.
constexpr std::size_t prefetch_distance = 16;
constexpr std::uint64_t first_observation_id = 0x7fffffffffffffff;
constexpr BlobTag format_tag("KELMWEN3");

/// Streams of index 0 for composed runs. They exist from the start, so that every snapshot holds
/// them.
constexpr const char* single_streams[] = {"stimulus", "synaptic_noise", "learning"};

void requireHorizon(ModelTime horizon) {
    if (horizon >= 1) return;
    throw withDetail(
        WindowEngineError(WindowEngineError::horizon_not_positive),
        {.field = "horizon", .value = decimal(horizon) + " ns", .bound = "at least 1 ns"});
}

/// `things`: what there must be `count` of, one a neuron.
void requireCount(const std::string& things, std::uint64_t count, std::uint64_t neurons) {
    if (count == neurons) return;
    throw withDetail(WindowEngineError(WindowEngineError::parameter_count),
                     {.field = "number of " + things,
                      .value = decimal(count),
                      .bound = "the graph's neuron count " + decimal(neurons)});
}

/// The table of neurons that differ, after the checks that come before those of their values.
ParameterTable tableOf(const SynapseGraph& graph, std::span<const Kernel::Neuron> neurons,
                       std::span<const Kernel::Firing> firings, ModelTime horizon) {
    requireHorizon(horizon);
    requireCount("neurons", neurons.size(), graph.nodeCount());
    requireCount("firings", firings.size(), graph.nodeCount());
    return ParameterTable(neurons, firings);
}

}  // namespace

std::uint64_t initialSpontaneousState(std::uint64_t seed, NodeId index) {
    return Runtime::RandomContext::deriveStreamState(seed, spontaneous_name, index);
}

WindowEngine::WindowEngine(Assembled, SynapseGraph&& graph, ParameterTable&& parameters,
                           std::uint64_t seed, ModelTime horizon,
                           std::unique_ptr<IEventStore>&& store, IRankGroup* ranks) try
    : graph_(std::move(graph)),
      parameters_(std::move(parameters)),
      heterogeneous_(parameters_.isHeterogeneous()),
      seed_(seed),
      horizon_(horizon),
      ranks_(ranks),
      first_neuron_(graph_.share() ? graph_.share()->begin : 0),
      calendar_(buildCalendar(std::move(store))),
      random_(seed),
      spontaneous_(random_.family(spontaneous_name, firstNeuron())) {
    pristine_ = calendar_.windowWidth().has_value() && ranks_ == nullptr;
    onEachRank(ranks_, [&] {
        states_.resize(calendar_.candidates().size());
        createStreams();
        // In NodeId order: it fixes the order of candidates at equal times.
        for (NodeId n = firstNeuron(); n < endNeuron(); ++n) drawFirstCandidate(n, 0.0);
        numberCandidates(0);
    });
} catch (...) {
    if (ranks != nullptr) ranks->fail(std::current_exception());
    throw;
}

WindowEngine::WindowEngine(SynapseGraph graph, std::vector<Kernel::Neuron> neurons,
                           std::vector<Kernel::Firing> firings, std::uint64_t seed,
                           ModelTime horizon, std::unique_ptr<IEventStore> store)
    : WindowEngine(Assembled(), std::move(graph), tableOf(graph, neurons, firings, horizon), seed,
                   horizon, std::move(store)) {}

WindowEngine::WindowEngine(SynapseGraph graph, const Kernel::Neuron& neuron,
                           const Kernel::Firing& firing, std::uint64_t seed, ModelTime horizon,
                           std::unique_ptr<IEventStore> store)
    : WindowEngine(Assembled(), std::move(graph), ParameterTable(graph.nodeCount(), neuron, firing),
                   seed, horizon, std::move(store)) {}

WindowEngine::WindowEngine(SynapseGraph graph, ParameterTable parameters, std::uint64_t seed,
                           ModelTime horizon, std::unique_ptr<IEventStore> store, IRankGroup* ranks)
    : WindowEngine(Assembled(), std::move(graph), std::move(parameters), seed, horizon,
                   std::move(store), ranks) {}

/// The checks of construction, and the calendar. The members declared before the calendar are
/// already set.
WindowCalendar WindowEngine::buildCalendar(std::unique_ptr<IEventStore>&& store) {
    onEachRank(ranks_, [&] { requireBuildable(store != nullptr); });
    if (ranks_ != nullptr) requireEqualRanks();
    if (store != nullptr) return WindowCalendar(graph_, std::move(store));
    if (ranks_ != nullptr && !graph_.share()->counted) graph_.countShare(*ranks_);
    const std::optional<ModelTime> d_min = graph_.dMin();
    if (!d_min) throw WindowEngineError(WindowEngineError::no_d_min);
    return WindowCalendar(graph_, *d_min);
}

/// The checks of construction that a rank makes alone.
void WindowEngine::requireBuildable(bool has_store) const {
    requireHorizon(horizon_);
    if (graph_.share().has_value() != (ranks_ != nullptr)) {
        throw std::invalid_argument(
            "several ranks need the share of a network, and a share needs its ranks");
    }
    if (ranks_ != nullptr && !graph_.isShareOf(*ranks_)) {
        throw std::invalid_argument("the share of the network is not that of its rank");
    }
    if (ranks_ != nullptr && has_store) throw notOverRanks("a store of the caller");
    const std::uint64_t neurons =
        graph_.share() ? graph_.share()->end - graph_.share()->begin : graph_.nodeCount();
    requireCount("neurons", parameters_.neuronCount(), neurons);
    for (const ParameterTable::Entry& entry : parameters_.entries()) {
        const Kernel::Firing& firing = entry.firing;
        // A negative rate under a negative ceiling would give a bound below 0. Such a bound marks a
        // candidate that must be drawn anew, so the neuron would be drawn in every nanosecond.
        if (firing.base_rate * firing.rate_scale < 0.0 && firing.max_rate < 0.0) {
            NodeId neuron = 0;
            while (&parameters_[neuron] != &entry) ++neuron;
            throw withDetail(WindowEngineError(WindowEngineError::negative_hazard),
                             {.item = "neuron",
                              .index = first_neuron_ + neuron,
                              .field = "max_rate",
                              .value = decimal(firing.max_rate) + " Hz",
                              .bound = "positive"});
        }
    }
    requireExactFloatingPoint();
}

void WindowEngine::requireEqualRanks() const {
    Blob own;
    appendU64(own, seed_);
    appendI64(own, horizon_);
    if (const auto rank = ranks_->firstDifferent(own)) {
        throw std::invalid_argument("rank " + std::to_string(*rank) +
                                    " has another seed or horizon than rank 0");
    }
}

void WindowEngine::createStreams() {
    for (NodeId n = firstNeuron(); n < endNeuron(); ++n) random_.rawState(spontaneous_, n);
    for (const char* name : single_streams) random_.streamFor(name, 0);
}

/// Draws and posts a neuron's first candidate.
void WindowEngine::drawFirstCandidate(NodeId neuron, double drive_bound) {
    std::uint64_t rng = random_.rawState(spontaneous_, neuron);
    const ParameterTable::Entry& parameters = parametersOf(neuron);
    const Kernel::Candidate first = Kernel::nextCandidate(
        stateOf(neuron), parameters.neuron, parameters.firing, 0, horizon_, drive_bound, rng);
    random_.advanceTo(spontaneous_, neuron, rng);
    calendar_.schedule(neuron, first.found ? first.time : no_time, first.bound);
}

void WindowEngine::reseedInitialCandidates(std::span<const double> drive_bounds) {
    if (drive_bounds.size() != graph_.nodeCount()) {
        throw WindowEngineError(WindowEngineError::modulation_bounds);
    }
    if (profile_.windows != 0 || !log_.empty() || taken_.count != 0) {
        throw WindowEngineError(WindowEngineError::late_reseed);
    }
    flushPendingRandomStates();
    pristine_ = false;
    eventless_until_ = 0;
    onEachRank(ranks_, [&] {
        const std::uint64_t first_id = calendar_.nextId();
        for (NodeId n = firstNeuron(); n < endNeuron(); ++n) {
            drawFirstCandidate(n, drive_bounds[n]);
        }
        numberCandidates(first_id);
    });
}

void WindowEngine::reseed(std::uint64_t seed, ModelTime from) {
    onEachRank(ranks_, [&] {
        if (from < openFrom()) throw LookaheadViolation(LookaheadViolation::processed);
        if (ranks_ != nullptr) {
            ranks_->requireSame(std::array{seed, static_cast<std::uint64_t>(from)});
        }
        reseedHere(seed, from);
    });
}

void WindowEngine::reseedHere(std::uint64_t seed, ModelTime from) {
    pending_random_states_.clear();
    pristine_ = false;
    seed_ = seed;
    random_ = Runtime::RandomContext(seed);
    spontaneous_ = random_.family(spontaneous_name, firstNeuron());
    createStreams();
    // A candidate with a negative bound is a marker, at which the walk draws anew. Only the walk
    // knows the drive of the window, and with it the bound of the draw.
    const ModelTime marker = from < horizon_ ? from : no_time;
    eventless_until_ = std::min(eventless_until_, from);
    const std::uint64_t first_id = calendar_.nextId();
    for (NodeId n = firstNeuron(); n < endNeuron(); ++n) calendar_.schedule(n, marker, -1.0);
    numberCandidates(first_id);
}

/// Moves the streams to where a whole run of a backend has left them.
void WindowEngine::flushPendingRandomStates() {
    for (NodeId n = 0; n < pending_random_states_.size(); ++n) {
        random_.advanceTo(spontaneous_, n, pending_random_states_[n]);
    }
    pending_random_states_.clear();
}

bool WindowEngine::offersWholeRun(ModelTime until) const {
    return until == horizon_ && profile_.windows == 0 && log_.empty() && taken_.count == 0 &&
           prepare_hook_ == nullptr && commit_hook_ == nullptr && control_ == nullptr &&
           samplers_.empty() && observer_ == nullptr && observer_events_.empty() &&
           !external_events_ && given_.empty() && !heterogeneous_;
}

bool WindowEngine::isPristine() {
    return pristine_ && parameters_.isUniform() && offersWholeRun(horizon_) &&
           graph_.dMin() == calendar_.windowWidth();
}

void WindowEngine::adoptWholeRun(WholeRun&& run) {
    calendar_.resume(std::move(run.candidates), run.next_window, run.pending_events);

    states_ = std::move(run.states);
    pending_random_states_ = std::move(run.random_states);
    log_ = std::move(run.log);
    log_sorted_ = true;
    profile_ = run.profile;
    processed_until_ = calendar_.openFrom().value_or(0);
}

void WindowEngine::run(IWindowBackend& backend, ModelTime until) {
    onEachRank(ranks_, [&] {
        requireExactFloatingPoint();
        if (ranks_ != nullptr) ranks_->requireSame(until);
    });
    stopped_ = false;
    if (offersWholeRun(until)) {
        running_ = true;
        const bool taken = backend.tryResidentRun(*this);
        running_ = false;
        if (taken) return;
    }
    flushPendingRandomStates();
    if (control_ != nullptr) {
        stopped_ = ranks_ == nullptr && control_->takeStopRequest();
        if (stopped_) return;
        control_->begin(processed_until_);
    }
    team_ = backend.team();
    running_ = true;
    ranks_end_ = false;
    stopped_ = onEachRank(ranks_, [&] {
        try {
            return runWindows(backend, until);
        } catch (...) {
            if (ranks_end_) ranks_->agreeOn(std::current_exception());
            throw;
        }
    });
    running_ = false;
    if (control_ != nullptr) control_->end(processed_until_);
}

/// Returns whether the run was stopped before `until`.
bool WindowEngine::runWindows(IWindowBackend& backend, ModelTime until) {
    Window window;
    // An observation may come before the first window, and its observer reads the network's counts.
    if (ranks_ != nullptr) requireCountedShare();
    agreeOnNextWindow(window);
    if (std::exchange(agreed_stop_, false)) return true;
    setShards(window, firstShardCount());
    while (takeWindow(until, window)) {
        deliverObservations(window, window.start, false);
        window.log_mark = log_.size();
        computeAndCommit(window, backend);
        if (commit_hook_ != nullptr) {
            // A copy, because the hook may read the log, which sorts it.
            if (ranks_ == nullptr) {
                window.new_spikes.assign(
                    log_.begin() + static_cast<std::ptrdiff_t>(window.log_mark), log_.end());
            }
            commit_hook_->commit(window.start, window.end, window.new_spikes, graph_);
        }
        deliverObservations(window, window.end, true);
        if (next_sample_ < window.end) takeSamples(window, window.end, true);
        processed_until_ = window.end;
        if (team_ != nullptr) setShards(window, nextShardCount(window.event_count));
        const bool acts = ranks_ == nullptr
                              ? control_ != nullptr && control_->isDue(window.event_count)
                              : agreed_stop_ || agreed_report_;
        if (acts) {
            if (stopsAfterWindow(window, until)) return true;
            // The callback may have restored the engine, which is then one shard.
            setShards(window, calendar_.shardCount());
            if (ranks_ != nullptr) requireCountedShare();
        }
    }
    // The observer may post an event before the end.
    eventless_until_ = until;
    deliverObservations(window, until, false);
    takeSamples(window, until, false);
    agreeOnNextWindow(window);
    return false;
}

bool WindowEngine::stopsAfterWindow(Window& window, ModelTime until) {
    // The state is complete, so the callback may do what is allowed between runs.
    running_ = false;
    if (ranks_ == nullptr) {
        control_->act(processed_until_, taken_.count + log_.size());
    } else if (std::exchange(agreed_report_, false)) {
        ranks_->together([&] {
            if (control_ == nullptr) return;
            control_->report(processed_until_, taken_.count + log_count_);
        });
    }
    running_ = true;
    agreeOnNextWindow(window);
    // If no window is left, the run ends by itself. The request then stops the next run.
    return processed_until_ < until && takeStopRequest();
}

/// Whether a stop was requested, on any rank, since the last call.
bool WindowEngine::takeStopRequest() {
    return ranks_ == nullptr ? control_->takeStopRequest() : std::exchange(agreed_stop_, false);
}

/// Takes the next window and sorts its events by target. Those of one target are in order if the
/// window is dense; otherwise buildFromKeys puts them in order.
bool WindowEngine::takeWindow(ModelTime until, Window& window) {
    const ModelTime also =
        ranks_ == nullptr ? nextGivenTime() : static_cast<ModelTime>(agreed_time_);
    if (!calendar_.openWindow(until, also, window.start, window.end)) return false;
    window.event_count = calendar_.openedCount();
    window.work = {};
    takeGivenSpikes(window);
    window.taken = (window.shards.size() == 1 && ranks_ == nullptr) || observationDue(window.start);
    if (window.taken) {
        forShards(window, [&](std::size_t s) { takeEvents(window.shards[s], s); });
        countEvents(window);
    }
    return true;
}

void WindowEngine::takeEvents(Shard& shard, std::size_t index) {
    calendar_.takeEvents(index, shard.events);
    // Possible with a store that was given, and after a restore from a forged blob.
    if (shard.events.reachesOutside()) {
        throw SynapseRoutingViolation(SynapseRoutingViolation::destination);
    }
    shard.events.sortByTarget();
    shard.built = 0;
    shard.next_target = shard.begin;
}

void WindowEngine::countEvents(Window& window) {
    window.event_count = 0;
    for (const Shard& shard : window.shards) window.event_count += shard.events.size();
}

void WindowEngine::takeGivenSpikes(Window& window) {
    const std::size_t end = next_given_ == given_.size() ? next_given_ : firstGivenFrom(window.end);
    window.given.assign(given_.begin() + static_cast<std::ptrdiff_t>(next_given_),
                        given_.begin() + static_cast<std::ptrdiff_t>(end));
    // In the order of commits.
    std::sort(window.given.begin(), window.given.end(),
              [](const SpikeRecord& a, const SpikeRecord& b) {
                  return a.neuron != b.neuron ? a.neuron < b.neuron : a.time < b.time;
              });
    window.committed_given = 0;
    next_given_ = end;
}

/// Builds, computes and commits all items of a window, part by part. No item reads what the commit
/// of another one writes, so parts leave the same results as the whole.
void WindowEngine::computeAndCommit(Window& window, IWindowBackend& backend) {
    const bool whole = needsWholeWindow(window);
    if (window.shards.size() > 1 || ranks_ != nullptr) {
        return computeShards(window, backend, whole);
    }
    Shard& shard = window.shards.front();
    const std::size_t part_items =
        whole ? IWindowBackend::whole_window : std::max<std::size_t>(backend.partItems(), 1);
    do {
        const bool first_part = shard.built == 0;
        buildWork(shard, window.start, part_items);
        window.work = {shard.work.data(), shard.item_count};
        window.results = {shard.results.data(), shard.item_count};
        window.item_events = shard.item_events;
        if (prepare_hook_ != nullptr) {
            prepare_hook_->prepare(window.start, window.end, window.work, graph_);
        }
        backend.processWindow(window.work, window.item_events, window.end, horizon_,
                              uniformNeuron(), uniformFiring(), window.results);
        if (first_part) {
            ++profile_.windows;
            profile_.deliveries += window.event_count;
        }
        commitItems(window);
    } while (shard.built < shard.events.size());
    commitGivenSpikes(window, graph_.nodeCount());
}

/// A prepare hook sees all items of a window at once, and an observation inside the window repeats
/// them all. The commit hook may still set the observer, so a window without an
/// observer may still need all its items.
bool WindowEngine::needsWholeWindow(const Window& window) const {
    if (next_sample_ < window.end) return true;
    return prepare_hook_ != nullptr || (observer_cursor_ < observer_events_.size() &&
                                        observer_events_[observer_cursor_].time < window.end);
}

/// Builds the next items, `item_limit` at most, each from the events of one target.
void WindowEngine::buildWork(Shard& shard, ModelTime window_start, std::size_t item_limit) {
    shard.item_count = 0;
    if (const PlacedEvents* placed = shard.events.placedEvents()) {
        buildFromPlaced(shard, window_start, *placed, item_limit);
    } else {
        buildFromKeys(shard, window_start, item_limit);
    }
}

/// Builds items whose events the backend reads in place.
void WindowEngine::buildFromPlaced(Shard& shard, ModelTime window_start, const PlacedEvents& placed,
                                   std::size_t item_limit) {
    const bool rewrites_parameters = mustRewriteParameters(shard);
    const std::size_t part = shard.built;
    std::size_t first = part;
    NodeId n = shard.next_target;
    for (; first < placed.size() && shard.item_count < item_limit; ++n) {
        const std::size_t end = placed.endOf(n);
        if (end == first) continue;
        addItem(shard, window_start, n, rewrites_parameters, first - part, end - first);
        first = end;
    }
    shard.next_target = n;
    shard.built = first;
    shard.item_events = {placed.data() + part, first - part};
}

/// Builds items and copies their events.
void WindowEngine::buildFromKeys(Shard& shard, ModelTime window_start, std::size_t item_limit) {
    WindowEvents::Walk events = shard.events.walk();
    // Prefetches what an item reads from here to its commit. Half of the states and slots lie
    // across two cache lines.
    const auto prefetch = [&, states = states_.data(), first_neuron = firstNeuron(),
                           streams = random_.firstStates(spontaneous_)](std::size_t i) {
        if (i >= events.size()) return;
        events.prefetch(i);
        const NodeId n = events.targetAt(i);
        const std::size_t place = n - first_neuron;
        prefetchLine(&states[place]);
        prefetchLine(&states[place].hazard_bound);
        if (place < streams.size()) prefetchLine(&streams[place]);
        calendar_.prefetch(shard.index, n);
    };
    const bool rewrites_parameters = mustRewriteParameters(shard);
    const std::size_t part = shard.built;
    std::size_t first = part;
    while (first < events.size() && shard.item_count < item_limit) {
        const NodeId n = events.targetAt(first);
        const std::size_t end = events.orderTarget(first);
        addItem(shard, window_start, n, rewrites_parameters, first - part, end - first);
        if (shard.copied_events.size() < end - part) shard.copied_events.resize(2 * (end - part));
        Kernel::WindowEvent* entry = shard.copied_events.data() + (first - part);
        for (; first < end; ++first, ++entry) {
            prefetch(first + prefetch_distance);
            const WindowEvents::Input input = events.inputAt(first);
            entry->time = input.time;
            entry->value = input.value;
            entry->wake_only = input.wake_only;
        }
    }
    shard.built = first;
    shard.item_events = {shard.copied_events.data(), first - part};
}

/// Adds the item of a neuron with `count` of the item events, from `first` on.
void WindowEngine::addItem(Shard& shard, ModelTime window_start, NodeId neuron,
                           bool rewrites_parameters, std::size_t first, std::size_t count) {
    if (shard.item_count == shard.work.size()) appendItem(shard);
    WindowWork& item = shard.work[shard.item_count++];
    if (rewrites_parameters) rewriteParameters(item, neuron);
    readNeuron(item, neuron, window_start);
    item.first_event = static_cast<std::uint32_t>(first);
    item.event_count = static_cast<std::uint32_t>(count);
}

/// Items stay from window to window. Where all neurons are alike, an item keeps the parameters and
/// the empty drive that it was made with, unless a prepare hook may have changed them.
bool WindowEngine::mustRewriteParameters(Shard& shard) const {
    shard.hook_had_items = shard.hook_had_items || prepare_hook_ != nullptr;
    return !parameters_.isUniform() || shard.hook_had_items;
}

void WindowEngine::appendItem(Shard& shard) const {
    WindowWork& item = shard.work.emplace_back();
    item.parameters = uniformNeuron();
    item.firing = uniformFiring();
    shard.results.emplace_back();
}

void WindowEngine::rewriteParameters(WindowWork& item, NodeId neuron) const {
    const ParameterTable::Entry& parameters = parametersOf(neuron);
    item.parameters = parameters.neuron;
    item.firing = parameters.firing;
    item.drive = PhaseDrive();
}

/// The part of an item that its neuron holds.
void WindowEngine::readNeuron(WindowWork& item, NodeId neuron, ModelTime window_start) {
    const CandidateSlot& slot = calendar_.candidate(neuron);
    // Reached only with a forged snapshot or after a refused reseed: the walk would have to draw
    // its way through all windows in between.
    if (slot.time >= 0 && slot.time < window_start) {
        throw WindowEngineError(WindowEngineError::past_candidate);
    }
    item.neuron = neuron;
    item.state = stateOf(neuron);
    item.rng = random_.rawState(spontaneous_, neuron);
    item.pending_time = slot.time;
    item.pending_bound = slot.rate;
}

/// Commits the results: in ascending NodeId, and within a neuron in ascending time. The order
/// of the posts, and so every new id, is a function of the results alone.
void WindowEngine::commitItems(Window& window) {
    const auto prefetch_fired = [&](std::size_t i) {
        if (i < window.work.size() && window.results[i].spike_count != 0) {
            calendar_.prefetchSynapses(window.work[i].neuron);
        }
    };
    for (std::size_t i = 0; i < commit_distance; ++i) prefetch_fired(i);
    for (std::size_t i = 0; i < window.work.size(); ++i) {
        prefetch_fired(i + commit_distance);
        const NodeId n = window.work[i].neuron;
        const Kernel::WindowResult& result = window.results[i];
        if (window.committed_given < window.given.size()) commitGivenSpikes(window, n);
        applyResult(n, result, profile_);
        for (std::int32_t s = 0; s < result.spike_count; ++s) {
            commitSpike(n, result.spike_times[s]);
        }
        calendar_.schedule(n, result.next_candidate, result.next_bound);
    }
}

/// Commits what a result says of its neuron alone.
void WindowEngine::applyResult(NodeId neuron, const Kernel::WindowResult& result,
                               WindowProfile& profile) {
    if (result.bound_violation) throw WindowEngineError(WindowEngineError::bound_violation);
    if (result.spike_overflow) throw WindowEngineError(WindowEngineError::spike_overflow);
    stateOf(neuron) = result.state;
    random_.advanceTo(spontaneous_, neuron, result.rng);
    profile.updates += result.updates;
    profile.candidates += result.candidates;
    profile.accepted += result.accepted;
}

void WindowEngine::commitSpike(NodeId neuron, ModelTime time) {
    log_.push_back({time, neuron});
    log_sorted_ = false;
    calendar_.deliver(neuron, time);
}

/// Commits the given spikes of the window whose neurons lie before `end`.
void WindowEngine::commitGivenSpikes(Window& window, NodeId end) {
    for (; window.committed_given < window.given.size(); ++window.committed_given) {
        const SpikeRecord& spike = window.given[window.committed_given];
        if (spike.neuron >= end) return;
        commitSpike(spike.neuron, spike.time);
    }
}

std::size_t WindowEngine::firstGivenFrom(ModelTime time) const {
    const auto first = std::partition_point(
        given_.begin(), given_.end(), [&](const SpikeRecord& spike) { return spike.time < time; });
    return static_cast<std::size_t>(first - given_.begin());
}

void WindowEngine::giveSpikes(std::vector<SpikeRecord> spikes) {
    if (processed_until_ != 0 || eventless_until_ != 0 || running_ || has_given_) {
        throw InvalidSpikeTrain(InvalidSpikeTrain::late);
    }
    if (!calendar_.windowWidth()) throw InvalidSpikeTrain(InvalidSpikeTrain::store);
    onEachRank(ranks_, [&] { requireGivable(spikes); });
    has_given_ = !spikes.empty();
    std::erase_if(spikes, [this](const SpikeRecord& spike) { return isForeign(spike.neuron); });
    given_ = std::move(spikes);
    // No neuron fires from the horizon on.
    given_.resize(firstGivenFrom(horizon_));
    next_given_ = 0;
}

void WindowEngine::requireGivable(std::span<const SpikeRecord> spikes) {
    std::size_t bad = 0;
    std::exception_ptr failure;
    try {
        for (; bad < spikes.size(); ++bad) requireGivable(spikes, bad);
    } catch (const InvalidSpikeTrain&) {
        failure = std::current_exception();
    }
    // A rank knows the parameters of its own neurons only. The first bad spike of all ranks counts.
    const auto place = failure ? static_cast<ModelTime>(bad) : last_model_time;
    if (ranks_ != nullptr && leastOfRanks(place) != place) return;
    if (failure) std::rethrow_exception(failure);
}

void WindowEngine::requireGivable(std::span<const SpikeRecord> spikes, std::size_t i) const {
    const SpikeRecord& spike = spikes[i];
    if (spike.neuron >= graph_.nodeCount()) {
        throw InvalidSpikeTrain(InvalidSpikeTrain::unknown(i, spike.neuron, graph_.nodeCount()));
    }
    if (spike.time < 0 || (i > 0 && !SpikeRecordLess()(spikes[i - 1], spike))) {
        throw InvalidSpikeTrain(InvalidSpikeTrain::order(i, spike.time, spike.neuron));
    }
    if (isForeign(spike.neuron)) return;
    const Kernel::Firing& firing = parametersOf(spike.neuron).firing;
    if (firing.base_rate != 0 && firing.rate_scale != 0) {
        throw InvalidSpikeTrain(InvalidSpikeTrain::fires(i, spike.neuron));
    }
}

std::uint64_t WindowEngine::declareObserverEvent(const Event& event) {
    // During a run the current window may be committed in part. An observation inside it would
    // then miss that part.
    if (running_ || observer_cursor_ != 0 || series_interval_ != 0) {
        throw WindowEngineError(WindowEngineError::late_observation);
    }
    Event declared = event;
    // Above every id that a calendar gives out.
    declared.id = first_observation_id + observer_events_.size();
    clearGap(declared.gap);
    observer_events_.insert(
        std::upper_bound(observer_events_.begin(), observer_events_.end(), declared, EventLess()),
        declared);
    return declared.id;
}

void WindowEngine::declareObserverSeries(const Event& event, ModelTime interval) {
    assert(event.time >= 0 && interval > 0);
    if (running_ || !observer_events_.empty() || series_interval_ != 0) {
        throw WindowEngineError(WindowEngineError::late_observation);
    }
    Event first = event;
    first.id = first_observation_id;
    clearGap(first.gap);
    if (first.time < horizon_) observer_events_.push_back(first);
    series_start_ = first;
    series_interval_ = interval;
}

bool WindowEngine::observationDue(ModelTime limit) const {
    return observer_ != nullptr && observer_cursor_ < observer_events_.size() &&
           observer_events_[observer_cursor_].time < limit;
}

/// Removes the next observation from the declared ones.
Event WindowEngine::takeObservation() {
    if (series_interval_ == 0) return observer_events_[observer_cursor_++];
    Event& next = observer_events_.front();
    const Event taken = next;
    if (horizon_ - next.time > series_interval_) {
        next.time += series_interval_;
        ++next.id;
    } else {
        observer_events_.clear();
    }
    return taken;
}

/// Whether a snapshot's observations can be those of this engine's series. Any list is accepted
/// without a series.
bool WindowEngine::acceptsObservations(std::span<const Event> observations,
                                       std::uint64_t cursor) const {
    if (series_interval_ == 0 || observations.empty()) return true;
    if (observations.size() != 1 || cursor != 0) return false;
    const Event& stored = observations.front();
    if (stored.time < series_start_.time || stored.time >= horizon_) return false;
    const ModelTime elapsed = stored.time - series_start_.time;
    Event expected = series_start_;
    expected.time = stored.time;
    expected.id += static_cast<std::uint64_t>(elapsed / series_interval_);
    return elapsed % series_interval_ == 0 && std::memcmp(&stored, &expected, sizeof stored) == 0;
}

/// Delivers the observations before `limit` ns. Between windows they see the states of the last
/// commit. Inside a window, whose results are all committed, they see a repetition of its work.
void WindowEngine::deliverObservations(Window& window, ModelTime limit, bool inside) {
    while (observationDue(limit)) {
        const Event observation = takeObservation();
        window.shadow_states.assign(states_.begin(), states_.end());
        const std::span<const CandidateSlot> slots = calendar_.candidates();
        window.candidate_times.resize(slots.size());
        std::transform(slots.begin(), slots.end(), window.candidate_times.begin(),
                       [](const CandidateSlot& slot) { return slot.time; });
        if (inside) shadowRun(window, observation.time);
        for (NodeId n = firstNeuron(); n < endNeuron(); ++n) {
            Kernel::advanceTraces(window.shadow_states[n - firstNeuron()], parametersOf(n).neuron,
                                  observation.time);
        }
        if (ranks_ != nullptr) {
            gatherEverywhere(window.shadow_states);
            gatherEverywhere(window.candidate_times);
        }
        observer_->observe(observation, window.shadow_states, window.candidate_times, graph_);
    }
}

/// Repeats the window's work up to `time` ns on the copies. A neuron without an item kept its state
/// over the window, so the copy of its committed state holds. The item of any other neuron has its
/// state from before the window. The random draws repeat, because an item holds the generator's
/// state too.
void WindowEngine::shadowRun(Window& window, ModelTime time) {
    for (const WindowWork& item : window.work) {
        const Kernel::WindowResult result = shadowWalk(window, item, time);
        window.shadow_states[item.neuron - firstNeuron()] = result.state;
        window.candidate_times[item.neuron - firstNeuron()] = result.next_candidate;
    }
}

Kernel::WindowResult WindowEngine::shadowWalk(const Window& window, const WindowWork& item,
                                              ModelTime time) const {
    const Kernel::WindowEvent* events = window.item_events.data() + item.first_event;
    std::uint32_t count = 0;
    while (count < item.event_count && events[count].time < time) ++count;
    const Kernel::WindowResult result =
        Kernel::processWindow(item.state, item.rng, item.parameters, item.firing, events, count,
                              time, horizon_, item.drive, item.pending_time, item.pending_bound);
    if (result.bound_violation || result.spike_overflow) {
        throw WindowEngineError(WindowEngineError::shadow_violation);
    }
    return result;
}

void WindowEngine::requireKnown(ModelTime time) {
    if (running_) throw WindowEngineError(WindowEngineError::late_states);
    ModelTime next = calendar_.nextWindowStart().value_or(processed_until_);
    ModelTime given = nextGivenTime();
    if (ranks_ != nullptr) {
        next = leastOfRanks(next);
        given = leastOfRanks(given < 0 ? last_model_time : given);
    }
    ModelTime last = std::max(next, eventless_until_);
    if (given >= 0) last = std::min(last, given);
    if (time < processed_until_ || time > last) {
        throw InvalidMoment(InvalidMoment::outside(time, processed_until_, last));
    }
}

StateSample WindowEngine::sampleOf(Kernel::State state, NodeId neuron, ModelTime time) const {
    const ParameterTable::Entry& parameters = parametersOf(neuron);
    const Kernel::NeuronModel model(parameters.neuron, parameters.firing);
    Kernel::advanceTraces(state, model.neuron, time);
    const Kernel::Traces traces{state.membrane, state.adaptation};
    return {traces.membrane, traces.adaptation,
            state.refractory_until > time ? state.refractory_until - time : 0,
            Kernel::hazardAt(state, traces, model, time, 0.0)};
}

std::vector<StateSample> WindowEngine::statesAt(ModelTime time) {
    return onEachRank(ranks_, [&] {
        requireKnown(time);
        std::vector<StateSample> samples;
        samples.reserve(states_.size());
        for (NodeId n = firstNeuron(); n < endNeuron(); ++n) {
            samples.push_back(sampleOf(stateOf(n), n, time));
        }
        if (ranks_ != nullptr) {
            ranks_->requireSame(time);
            gatherEverywhere(samples);
        }
        return samples;
    });
}

std::vector<StateSample> WindowEngine::statesAt(ModelTime time, std::span<const NodeId> neurons) {
    return onEachRank(ranks_, [&] {
        requireKnown(time);
        std::vector<StateSample> samples;
        samples.reserve(neurons.size());
        for (const NodeId n : neurons) {
            if (n >= graph_.nodeCount()) {
                throw SynapseRoutingViolation(SynapseRoutingViolation::destination);
            }
            if (!isForeign(n)) samples.push_back(sampleOf(stateOf(n), n, time));
        }
        if (ranks_ != nullptr) orderSamples(samples, neurons, time);
        return samples;
    });
}

void WindowEngine::addSampler(IStateSampler& sampler) {
    if (running_) throw WindowEngineError(WindowEngineError::late_sampler);
    samplers_.push_back(&sampler);
    rescheduleSamplers();
}

void WindowEngine::rescheduleSamplers() {
    next_sample_ = last_model_time;
    for (const IStateSampler* sampler : samplers_) {
        next_sample_ = std::min(next_sample_, sampler->nextSample());
    }
}

/// Takes the samples before `limit` ns. After the commit of a window, that window's items have the
/// states from before it.
void WindowEngine::takeSamples(const Window& window, ModelTime limit, bool after_commit) {
    const std::span<const WindowWork> items = after_commit ? window.work : std::span<WindowWork>();
    std::vector<StateSample> samples;
    for (; next_sample_ < limit; rescheduleSamplers()) {
        const ModelTime time = next_sample_;
        for (IStateSampler* const sampler : samplers_) {
            if (sampler->nextSample() != time) continue;
            samples.clear();
            for (const NodeId n : sampler->neurons()) {
                if (isForeign(n)) continue;
                const auto item = std::ranges::lower_bound(items, n, {}, &WindowWork::neuron);
                const bool has_item = item != items.end() && item->neuron == n;
                samples.push_back(sampleOf(
                    has_item ? shadowWalk(window, *item, time).state : stateOf(n), n, time));
            }
            if (ranks_ != nullptr) orderSamples(samples, sampler->neurons(), time);
            sampler->addSamples(samples);
        }
    }
}

std::uint64_t WindowEngine::post(const Event& event) {
    if (event.target >= graph_.nodeCount()) {
        throw SynapseRoutingViolation(SynapseRoutingViolation::destination);
    }
    external_events_ = true;
    pristine_ = false;
    const std::uint64_t id = calendar_.post(event);
    // All ranks post the same events.
    agreed_time_ = std::min(agreed_time_, static_cast<std::uint64_t>(event.time));
    eventless_until_ = std::min(eventless_until_, event.time);
    return id;
}

std::span<const SpikeRecord> WindowEngine::spikeLog() {
    if (!log_sorted_) {
        std::sort(log_.begin(), log_.end(), SpikeRecordLess());
        log_sorted_ = true;
    }
    return log_;
}

std::vector<SpikeRecord> WindowEngine::takeSpikes() {
    if (running_) throw WindowEngineError(WindowEngineError::late_take);
    if (ranks_ != nullptr) {
        taken_ = digestOfRanks();
        log_count_ = 0;
        return std::exchange(log_, {});
    }
    const std::span<const SpikeRecord> log = spikeLog();
    if (log.empty()) return {};
    if (SpikeRecordLess()(log.front(), last_taken_)) {
        throw WindowEngineError(WindowEngineError::take_order);
    }
    taken_ = {taken_.count + log.size(), logHash()};
    last_taken_ = log.back();
    return std::exchange(log_, {});
}

std::vector<SpikeRecord> WindowEngine::networkLog() {
    return onEachRank(ranks_, [&] {
        std::vector<SpikeRecord> log(spikeLog().begin(), spikeLog().end());
        if (ranks_ == nullptr) return log;
        gatherEverywhere(log);
        std::sort(log.begin(), log.end(), SpikeRecordLess());
        return log;
    });
}

std::uint64_t WindowEngine::logHash() {
    return ranks_ == nullptr ? digestImages(spikeLog(), taken_.digest) : digestOfRanks().digest;
}

std::uint64_t WindowEngine::spontaneousState(NodeId neuron) {
    flushPendingRandomStates();
    if (isForeign(neuron)) throw SynapseRoutingViolation(SynapseRoutingViolation::destination);
    return random_.rawState(spontaneous_, neuron);
}

Blob WindowEngine::snapshot() {
    flushPendingRandomStates();
    if (ranks_ != nullptr) return ranks_->together([&] { return snapshotOfRanks(); });
    return assembleSnapshot(states_, random_, calendar_.candidates(), spikeLog(), graph_.snapshot(),
                            calendar_.snapshot());
}

Blob WindowEngine::assembleSnapshot(std::span<const Kernel::State> states,
                                    const Runtime::RandomContext& random,
                                    std::span<const CandidateSlot> candidates,
                                    std::span<const SpikeRecord> log, BlobView graph,
                                    BlobView calendar) const {
    Blob blob;
    appendTag(blob, format_tag);
    appendU64(blob, states.size());
    appendImages<Kernel::State>(blob, states);
    appendNested(blob, random.snapshot());
    appendImages<CandidateSlot>(blob, candidates);
    appendU64(blob, log.size());
    appendImages<SpikeRecord>(blob, log);
    appendImage(blob, profile_);
    appendNested(blob, graph);
    appendSequence(blob, observer_events_);
    appendU64(blob, observer_cursor_);
    appendNested(blob, calendar);
    return blob;
}

/// Keeps of one value per neuron of the network those of the engine's neurons.
template <class Value>
void WindowEngine::keepOwn(LargeArray<Value>& values) const {
    if (ranks_ == nullptr) return;
    const auto first = values.begin() + static_cast<std::ptrdiff_t>(first_neuron_);
    values = LargeArray<Value>(first, first + static_cast<std::ptrdiff_t>(states_.size()));
}

bool WindowEngine::restore(BlobView blob, const TakenSpikes& taken) {
    if (ranks_ == nullptr) return restoreHere(blob, taken, nullptr);
    // All ranks accept the blob, or none of them changes.
    bool asked = false;
    const auto agree = [&](bool accepts) {
        asked = true;
        return ranks_->all(accepts);
    };
    return ranks_->together([&] {
        if (!ranks_->allHave(blob)) return false;
        const bool restored = restoreHere(blob, taken, agree);
        if (!asked) agree(false);
        return restored;
    });
}

/// `agree`: as WindowCalendar::restore takes it.
bool WindowEngine::restoreHere(BlobView blob, const TakenSpikes& taken,
                               const std::function<bool(bool)>& agree) {
    flushPendingRandomStates();
    BlobReader in(blob);
    std::uint64_t state_count = 0;
    if (!in.expectTag(format_tag) || !in.readU64(state_count)) return false;
    if (state_count != graph_.nodeCount()) return false;
    LargeArray<Kernel::State> states;
    if (!in.readImages(state_count, states)) return false;
    keepOwn(states);

    BlobView stored_random;
    Runtime::RandomContext random(seed_);
    if (!in.readNested(stored_random) || !random.restore(stored_random)) return false;
    // A run must not go on under another seed.
    if (random.seed() != seed_) return false;
    if (ranks_ != nullptr && !random.keepOnly(spontaneous_name, first_neuron_, states_.size())) {
        return false;
    }

    LargeArray<CandidateSlot> candidates;
    std::vector<SpikeRecord> log;
    WindowProfile profile;
    BlobView stored_graph;
    if (!in.readImages(state_count, candidates) || !in.readSequence(log) ||
        !in.readImage(profile) || !in.readNested(stored_graph)) {
        return false;
    }
    keepOwn(candidates);
    const std::uint64_t log_count = log.size();
    if (ranks_ != nullptr) {
        std::erase_if(log, [this](const SpikeRecord& spike) { return isForeign(spike.neuron); });
    }
    std::optional<SynapseGraph::State> graph = graph_.read(stored_graph);
    if (!graph) return false;

    std::vector<Event> observations;
    std::uint64_t cursor = 0;
    BlobView stored_store;
    if (!in.readSequence(observations) || !in.readU64(cursor) || cursor > observations.size() ||
        !in.readNested(stored_store) || !in.atEnd()) {
        return false;
    }
    for (Event& observation : observations) clearGap(observation.gap);
    if (!acceptsObservations(observations, cursor)) return false;
    // The last test: a store that was given may be changed even where it refuses.
    if (!calendar_.restore(stored_store, std::move(candidates), has_given_, agree)) return false;

    pristine_ = false;
    graph_.adopt(std::move(*graph));
    states_ = std::move(states);
    random_ = std::move(random);
    spontaneous_ = random_.family(spontaneous_name, first_neuron_);
    log_ = std::move(log);
    log_count_ = log_count;
    log_sorted_ = std::is_sorted(log_.begin(), log_.end(), SpikeRecordLess());
    taken_ = taken;
    last_taken_ = {first_model_time, 0};
    profile_ = profile;
    observer_events_ = std::move(observations);
    observer_cursor_ = cursor;
    running_ = false;
    stopped_ = false;
    processed_until_ = eventless_until_ = 0;
    for (const Kernel::State& state : states_) {
        processed_until_ = std::max(processed_until_, state.last_update);
    }
    processed_until_ = calendar_.openFrom().value_or(processed_until_);
    next_given_ = firstGivenFrom(processed_until_);
    return true;
}

}  // namespace Lumenar::Core::Kelm
