#include "kelm/engine/WindowEngine.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <type_traits>
#include <utility>

#include "kelm/core/Digest.h"
#include "kelm/core/Failures.h"
#include "kelm/core/FloatingPointEnvironment.h"
#include "kelm/core/Prefetch.h"
#include "kelm/engine/WindowEvents.h"
#include "kelm/events/BucketEventStore.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::uint64_t calendar_buckets = 4096;

/// How many events ahead a window's memory is asked for: far enough for it to come, near enough for
/// it to stay.
constexpr std::size_t prefetch_distance = 16;
/// The same in items, for the synapses of those that have fired.
constexpr std::size_t commit_distance = 8;
constexpr const char* spontaneous_name = "spontaneous";
constexpr std::uint64_t first_observation_id = 0x7fffffffffffffff;
constexpr BlobTag format_tag("KELMWEN3");

/// Streams of index 0 that composed runs may draw from. They exist from the start, so that every
/// snapshot holds them whether they were drawn from or not.
constexpr const char* single_streams[] = {"stimulus", "synaptic_noise", "learning"};

}  // namespace

std::uint64_t initialSpontaneousState(std::uint64_t seed, NodeId index) {
    return Runtime::RandomContext::deriveStreamState(seed, spontaneous_name, index);
}

/// Working storage of one run, cleared but not released from window to window.
struct WindowEngine::Window {
    explicit Window(std::uint64_t node_count) : events(node_count) {}

    ModelTime start = 0;
    ModelTime end = 0;
    std::vector<Event> taken;  ///< from a store that does not hand out its own storage
    WindowEvents events;
    std::size_t built = 0;  ///< events whose items have been built
    // Of the part that is in work, or of the window.
    std::vector<WindowWork> work;                  ///< ascending by neuron; item_count are in use
    std::vector<Kernel::WindowResult> results;     ///< as many are in use
    std::vector<Kernel::WindowEvent> item_events;  ///< grouped by item; item_event_count in use
    std::size_t item_count = 0;
    std::size_t item_event_count = 0;
    bool hook_had_items = false;  ///< a prepare hook may have changed them, now or before
    std::size_t log_mark = 0;     ///< length of the log before this window
    std::vector<SpikeRecord> new_spikes;
    std::vector<Kernel::State> shadow_states;  ///< of an observation, shape (neurons)
    std::vector<ModelTime> candidate_times;    ///< of an observation, shape (neurons)
};

WindowEngine::WindowEngine(Assembled, SynapseGraph&& graph, std::vector<Kernel::Neuron>&& neurons,
                           std::vector<Kernel::Firing>&& firings, std::uint64_t seed,
                           ModelTime horizon, std::unique_ptr<IEventStore>&& store)
    : graph_(std::move(graph)),
      neurons_(std::move(neurons)),
      firings_(std::move(firings)),
      seed_(seed),
      horizon_(horizon),
      store_(std::move(store)),
      random_(seed),
      spontaneous_(random_.family(spontaneous_name)) {
    if (!neurons_.empty()) uniform_neuron_ = neurons_[0];
    if (!firings_.empty()) uniform_firing_ = firings_[0];
    requireBuildable();
    heterogeneous_ = neuronsDiffer();
    alike_ = neuronsHaveEqualBits();
    if (alike_) {
        neurons_ = {};
        firings_ = {};
    }
    calendar_ = dynamic_cast<BucketEventStore*>(store_.get());
    states_.resize(graph_.nodeCount());
    candidates_.resize(graph_.nodeCount());
    if (calendar_ != nullptr) calendar_->holdCandidates(candidates_);
    createStreams();
    // In NodeId order: it fixes the order of candidates at equal times.
    for (NodeId n = 0; n < graph_.nodeCount(); ++n) drawFirstCandidate(n, 0.0);
}

WindowEngine::WindowEngine(SynapseGraph graph, std::vector<Kernel::Neuron> neurons,
                           std::vector<Kernel::Firing> firings, std::uint64_t seed,
                           ModelTime horizon, std::unique_ptr<IEventStore> store)
    : WindowEngine(Assembled(), std::move(graph), std::move(neurons), std::move(firings), seed,
                   horizon, std::move(store)) {}

WindowEngine::WindowEngine(SynapseGraph graph, const Kernel::Neuron& neuron,
                           const Kernel::Firing& firing, std::uint64_t seed, ModelTime horizon,
                           std::unique_ptr<IEventStore> store)
    : WindowEngine(
          Assembled(), std::move(graph), std::vector<Kernel::Neuron>(graph.nodeCount(), neuron),
          std::vector<Kernel::Firing>(graph.nodeCount(), firing), seed, horizon, std::move(store)) {
}

/// The checks of construction, and the default store.
void WindowEngine::requireBuildable() {
    if (horizon_ < 1) throw WindowEngineError(WindowEngineError::horizon_not_positive);
    if (neurons_.size() != graph_.nodeCount() || firings_.size() != graph_.nodeCount()) {
        throw WindowEngineError(WindowEngineError::parameter_count);
    }
    for (const Kernel::Firing& firing : firings_) {
        // A negative rate under a negative ceiling would be a bound below 0, which marks candidates
        // that are to be drawn anew: such a neuron would be drawn anew in every nanosecond.
        if (firing.base_rate * firing.rate_scale < 0.0 && firing.max_rate < 0.0) {
            throw WindowEngineError(WindowEngineError::negative_hazard);
        }
    }
    requireExactFloatingPoint();
    pristine_ = store_ == nullptr;
    if (pristine_) store_ = makeStore();
}

/// The default store.
std::unique_ptr<BucketEventStore> WindowEngine::makeStore() {
    const std::optional<ModelTime> d_min = graph_.dMin();
    if (!d_min) throw WindowEngineError(WindowEngineError::no_d_min);
    return std::make_unique<BucketEventStore>(*d_min, calendar_buckets);
}

bool WindowEngine::neuronsDiffer() const {
    for (std::size_t i = 1; i < neurons_.size(); ++i) {
        if (!(neurons_[i] == neurons_[0]) || !(firings_[i] == firings_[0])) return true;
    }
    return false;
}

/// Equal numbers can be other bits: 0.0 and -0.0.
bool WindowEngine::neuronsHaveEqualBits() const {
    for (std::size_t i = 1; i < neurons_.size(); ++i) {
        if (std::memcmp(&neurons_[i], &neurons_[0], sizeof(Kernel::Neuron)) != 0 ||
            std::memcmp(&firings_[i], &firings_[0], sizeof(Kernel::Firing)) != 0) {
            return false;
        }
    }
    return true;
}

void WindowEngine::createStreams() {
    for (NodeId n = 0; n < graph_.nodeCount(); ++n) random_.rawState(spontaneous_, n);
    for (const char* name : single_streams) random_.streamFor(name, 0);
}

/// Draws and posts a neuron's first candidate.
void WindowEngine::drawFirstCandidate(NodeId neuron, double drive_bound) {
    std::uint64_t rng = random_.rawState(spontaneous_, neuron);
    const Kernel::Candidate first = Kernel::nextCandidate(
        states_[neuron], neuronOf(neuron), firingOf(neuron), 0, horizon_, drive_bound, rng);
    random_.advanceTo(spontaneous_, neuron, rng);
    const ModelTime time = first.found ? first.time : no_time;
    if (calendar_ != nullptr) {
        calendar_->scheduleCandidate(neuron, time, first.bound);
    } else {
        scheduleCandidate(*store_, neuron, time, first.bound);
    }
}

void WindowEngine::reseedInitialCandidates(std::span<const double> drive_bounds) {
    if (drive_bounds.size() != states_.size()) {
        throw WindowEngineError(WindowEngineError::modulation_bounds);
    }
    if (profile_.windows != 0 || !log_.empty()) {
        throw WindowEngineError(WindowEngineError::late_reseed);
    }
    flushPendingRandomStates();
    pristine_ = false;
    for (NodeId n = 0; n < graph_.nodeCount(); ++n) drawFirstCandidate(n, drive_bounds[n]);
}

/// Catches the streams up with a whole run that a backend carried out.
void WindowEngine::flushPendingRandomStates() {
    for (NodeId n = 0; n < pending_random_states_.size(); ++n) {
        random_.advanceTo(spontaneous_, n, pending_random_states_[n]);
    }
    pending_random_states_.clear();
}

bool WindowEngine::offersWholeRun(ModelTime until) const {
    return until == horizon_ && profile_.windows == 0 && log_.empty() && prepare_hook_ == nullptr &&
           commit_hook_ == nullptr && observer_ == nullptr && observer_events_.empty() &&
           !external_events_ && !heterogeneous_;
}

bool WindowEngine::isPristine() {
    return pristine_ && alike_ && offersWholeRun(horizon_) &&
           graph_.dMin() == calendar_->bucketWidth();
}

void WindowEngine::adoptWholeRun(WholeRun&& run) {
    LargeArray<Kernel::State> states(run.states.begin(), run.states.end());
    LargeArray<CandidateSlot> candidates(run.candidates.begin(), run.candidates.end());
    auto store = makeStore();
    store->holdCandidates(candidates);
    if (run.next_window) store->resumeAt(*run.next_window);
    for (const Event& event : run.pending_events) store->post(event);

    states_ = std::move(states);
    pending_random_states_ = std::move(run.random_states);
    candidates_ = std::move(candidates);
    log_ = std::move(run.log);
    log_sorted_ = true;
    profile_ = run.profile;
    calendar_ = store.get();
    store_ = std::move(store);
}

void WindowEngine::run(IWindowBackend& backend, ModelTime until) {
    requireExactFloatingPoint();
    if (offersWholeRun(until) && backend.tryResidentRun(*this)) return;
    flushPendingRandomStates();
    if (calendar_ != nullptr) {
        runWindows(*calendar_, backend, until);
    } else {
        runWindows(*store_, backend, until);
    }
}

/// The next window's events by target; those of one neuron are put in order later.
template <class Store>
bool WindowEngine::takeWindow(Store& store, ModelTime until, Window& window) {
    if constexpr (std::is_same_v<Store, BucketEventStore>) {
        if (!store.takeWindow(until, window.events, window.start, window.end)) return false;
    } else {
        if (!store.take(until, window.taken, window.start, window.end)) return false;
        window.events.addAll(window.taken);
    }
    // A store that was handed in, or one out of a blob, may hold anything.
    if (window.events.reachesOutside()) {
        throw SynapseRoutingViolation(SynapseRoutingViolation::destination);
    }
    window.events.sortByTarget();
    window.built = 0;
    return true;
}

template <class Store>
void WindowEngine::runWindows(Store& store, IWindowBackend& backend, ModelTime until) {
    Window window(graph_.nodeCount());
    while (takeWindow(store, until, window)) {
        deliverObservations(window, window.start, false);
        window.log_mark = log_.size();
        const std::size_t part_items = partItems(window, backend);
        do {
            const bool first_part = window.built == 0;
            buildWork(window, part_items);
            const std::span<WindowWork> work(window.work.data(), window.item_count);
            if (prepare_hook_ != nullptr) {
                prepare_hook_->prepare(window.start, window.end, work, graph_);
            }
            backend.processWindow(work, {window.item_events.data(), window.item_event_count},
                                  window.end, horizon_, uniform_neuron_, uniform_firing_,
                                  {window.results.data(), window.item_count});
            if (first_part) {
                ++profile_.windows;
                profile_.deliveries += window.events.size();
            }
            commitItems(store, window);
        } while (window.built < window.events.size());
        if (commit_hook_ != nullptr) {
            // A copy: the hook may look at the log, which sorts it.
            window.new_spikes.assign(log_.begin() + static_cast<std::ptrdiff_t>(window.log_mark),
                                     log_.end());
            commit_hook_->commit(window.start, window.end, window.new_spikes, graph_);
        }
        deliverObservations(window, window.end, true);
    }
    deliverObservations(window, until, false);
}

/// How many items are built, computed and committed at a time. No item reads what another's commit
/// writes, so parts leave the same as the whole; but a hook before the backend and an observation
/// inside the window have to see all items.
std::size_t WindowEngine::partItems(const Window& window, IWindowBackend& backend) const {
    // Whoever is to observe may still come by the commit hook.
    const bool observed = observer_cursor_ < observer_events_.size() &&
                          observer_events_[observer_cursor_].time < window.end;
    if (prepare_hook_ != nullptr || observed) return IWindowBackend::whole_window;
    return std::max<std::size_t>(backend.partItems(), 1);
}

/// Builds the next items, `item_limit` at most.
void WindowEngine::buildWork(Window& window, std::size_t item_limit) {
    const WindowEvents::View events = window.events.view();
    std::span<const std::uint64_t> streams = random_.firstStates(spontaneous_);
    // Asks for all that an item needs until its commit, once its first event is near. Both ends of
    // a state: every other one lies across two lines.
    const auto prefetch = [&, states = states_.data(), slots = candidates_.data()](std::size_t i) {
        if (i >= events.size()) return;
        events.prefetch(i);
        const NodeId n = events.targetAt(i);
        prefetchLine(&states[n]);
        prefetchLine(&states[n].hazard_bound);
        prefetchLine(&slots[n]);
        prefetchLine(&slots[n].event_id);
        if (n < streams.size()) prefetchLine(&streams[n]);
        if (calendar_ != nullptr) calendar_->prefetchCandidate(n);
    };
    const std::size_t part = window.built;
    // Items stay from window to window. Parameters that are alike for all neurons are in them from
    // their making, and so is the empty drive, unless a hook may have changed either.
    window.hook_had_items = window.hook_had_items || prepare_hook_ != nullptr;
    const bool fresh = !alike_ || window.hook_had_items;
    std::size_t items = 0;
    std::size_t first = part;
    for (; first < events.size() && items < item_limit; ++items) {
        const NodeId n = events.targetAt(first);
        if (items == window.work.size()) {
            WindowWork& item = window.work.emplace_back();
            item.parameters = uniform_neuron_;
            item.firing = uniform_firing_;
            window.results.emplace_back();
        }
        WindowWork& item = window.work[items];
        if (fresh) {
            item.parameters = neuronOf(n);
            item.firing = firingOf(n);
            item.drive = PhaseDrive();
        }
        item.neuron = n;
        item.state = states_[n];
        if (n < streams.size()) {
            item.rng = streams[n];
        } else {
            // A forged snapshot may have left some out.
            item.rng = random_.rawState(spontaneous_, n);
            streams = random_.firstStates(spontaneous_);
        }
        item.pending_time = candidates_[n].time;
        // Of a forged snapshot, or of a reseeding that was refused on the way: the walk would draw
        // its way through all the windows that have gone by.
        if (item.pending_time >= 0 && item.pending_time < window.start) {
            throw WindowEngineError(WindowEngineError::past_candidate);
        }
        item.pending_bound = candidates_[n].rate;
        const std::size_t end = events.orderTarget(first);
        item.first_event = static_cast<std::uint32_t>(first - part);
        item.event_count = static_cast<std::uint32_t>(end - first);
        if (window.item_events.size() < end - part) window.item_events.resize(2 * (end - part));
        Kernel::WindowEvent* entry = window.item_events.data() + (first - part);
        for (; first < end; ++first, ++entry) {
            prefetch(first + prefetch_distance);
            const WindowEvents::Input input = events.inputAt(first);
            entry->time = input.time;
            entry->value = input.value;
            entry->wake_only = input.wake_only;
        }
    }
    window.built = first;
    window.item_count = items;
    window.item_event_count = first - part;
}

/// Puts the results of a window, or of a part, in force: in ascending NodeId and within a neuron in
/// ascending time. The sequence of calls into the store, and so every new id, is a function of the
/// results alone.
template <class Store>
void WindowEngine::commitItems(Store& store, const Window& window) {
    const auto prefetch_fired = [&](std::size_t i) {
        if (i < window.item_count && window.results[i].spike_count != 0) {
            graph_.prefetchSynapses(window.work[i].neuron);
        }
    };
    for (std::size_t i = 0; i < commit_distance; ++i) prefetch_fired(i);
    for (std::size_t i = 0; i < window.item_count; ++i) {
        prefetch_fired(i + commit_distance);
        const NodeId n = window.work[i].neuron;
        const Kernel::WindowResult& result = window.results[i];
        if (result.bound_violation) throw WindowEngineError(WindowEngineError::bound_violation);
        if (result.spike_overflow) throw WindowEngineError(WindowEngineError::spike_overflow);
        states_[n] = result.state;
        random_.advanceTo(spontaneous_, n, result.rng);
        profile_.updates += result.updates;
        profile_.candidates += result.candidates;
        profile_.accepted += result.accepted;
        for (std::int32_t s = 0; s < result.spike_count; ++s) {
            const ModelTime time = result.spike_times[s];
            log_.push_back({time, n});
            log_sorted_ = false;
            graph_.deliver(n, time, store);
        }
        scheduleCandidate(store, n, result.next_candidate, result.next_bound);
    }
}

/// Replaces a neuron's candidate, and its event in the store. An event that the store has already
/// handed out is past cancelling, which does no harm.
template <class Store>
void WindowEngine::scheduleCandidate(Store& store, NodeId neuron, ModelTime time, double rate) {
    if constexpr (std::is_same_v<Store, BucketEventStore>) {
        store.scheduleCandidate(neuron, time, rate);
        return;
    }
    CandidateSlot& slot = candidates_[neuron];
    if (slot.event_id != no_event) store.cancel(slot.event_id);
    slot.rate = rate;
    slot.time = time;
    slot.event_id = no_event;
    if (time < 0) return;
    Event event;
    event.time = time;
    event.kind = EventKind::candidate;
    event.source = neuron;
    event.target = neuron;
    event.value = rate;
    slot.event_id = store.post(event);
}

std::uint64_t WindowEngine::declareObserverEvent(const Event& event) {
    if (observer_cursor_ != 0) throw WindowEngineError(WindowEngineError::late_observation);
    Event declared = event;
    // Above every id that a store gives out.
    declared.id = first_observation_id + observer_events_.size();
    clearGap(declared.gap);
    observer_events_.insert(
        std::upper_bound(observer_events_.begin(), observer_events_.end(), declared, EventLess()),
        declared);
    return declared.id;
}

bool WindowEngine::observationDue(ModelTime limit) const {
    return observer_ != nullptr && observer_cursor_ < observer_events_.size() &&
           observer_events_[observer_cursor_].time < limit;
}

/// Delivers the observations before `limit`: between windows on the states of the last commit,
/// inside a window, when all its results are in force, on a shadow of its work.
void WindowEngine::deliverObservations(Window& window, ModelTime limit, bool inside) {
    while (observationDue(limit)) {
        const Event observation = observer_events_[observer_cursor_++];
        window.shadow_states.assign(states_.begin(), states_.end());
        window.candidate_times.resize(candidates_.size());
        std::transform(candidates_.begin(), candidates_.end(), window.candidate_times.begin(),
                       [](const CandidateSlot& slot) { return slot.time; });
        if (inside) shadowRun(window, observation.time);
        for (NodeId n = 0; n < window.shadow_states.size(); ++n) {
            Kernel::advanceTraces(window.shadow_states[n], neuronOf(n), observation.time);
        }
        observer_->observe(observation, window.shadow_states, window.candidate_times, graph_);
    }
}

/// Repeats the window's work up to `time` ns on the copies. Neurons without an item kept their
/// state over the window, so the copies of the committed states hold for them; every other one is
/// put back to its state before the window by its item. The random draws repeat, because an item
/// holds the generator as it stood.
void WindowEngine::shadowRun(Window& window, ModelTime time) {
    for (const WindowWork& item : std::span(window.work.data(), window.item_count)) {
        const Kernel::WindowEvent* events = window.item_events.data() + item.first_event;
        std::uint32_t count = 0;
        while (count < item.event_count && events[count].time < time) ++count;
        const Kernel::WindowResult result = Kernel::processWindow(
            item.state, item.rng, item.parameters, item.firing, events, count, time, horizon_,
            item.drive, item.pending_time, item.pending_bound);
        if (result.bound_violation || result.spike_overflow) {
            throw WindowEngineError(WindowEngineError::shadow_violation);
        }
        window.shadow_states[item.neuron] = result.state;
        window.candidate_times[item.neuron] = result.next_candidate;
    }
}

std::uint64_t WindowEngine::post(const Event& event) {
    if (event.target >= graph_.nodeCount()) {
        throw SynapseRoutingViolation(SynapseRoutingViolation::destination);
    }
    external_events_ = true;
    pristine_ = false;
    return store_->post(event);
}

std::span<const SpikeRecord> WindowEngine::spikeLog() {
    if (!log_sorted_) {
        std::sort(log_.begin(), log_.end(), SpikeRecordLess());
        log_sorted_ = true;
    }
    return log_;
}

std::uint64_t WindowEngine::logHash() { return digestImages(spikeLog()); }

std::uint64_t WindowEngine::spontaneousState(NodeId neuron) {
    flushPendingRandomStates();
    return random_.rawState(spontaneous_, neuron);
}

Blob WindowEngine::snapshot() {
    flushPendingRandomStates();
    Blob blob;
    appendTag(blob, format_tag);
    appendSequence(blob, states_);
    appendNested(blob, random_.snapshot());
    appendImages<CandidateSlot>(blob, candidates_);
    appendSequence(blob, spikeLog());
    appendImage(blob, profile_);
    appendNested(blob, graph_.snapshot());
    appendSequence(blob, observer_events_);
    appendU64(blob, observer_cursor_);
    appendNested(blob, store_->snapshot());
    return blob;
}

bool WindowEngine::restore(BlobView blob) {
    flushPendingRandomStates();
    BlobReader in(blob);
    std::uint64_t state_count = 0;
    if (!in.expectTag(format_tag) || !in.readU64(state_count)) return false;
    if (state_count != states_.size()) return false;
    LargeArray<Kernel::State> states;
    if (!in.readImages(state_count, states)) return false;

    BlobView stored_random;
    Runtime::RandomContext random(seed_);
    if (!in.readNested(stored_random) || !random.restore(stored_random)) return false;
    // A run must not go on under another seed.
    if (random.seed() != seed_) return false;
    const Runtime::RandomContext::Family spontaneous = random.family(spontaneous_name);

    LargeArray<CandidateSlot> candidates;
    std::vector<SpikeRecord> log;
    WindowProfile profile;
    BlobView stored_graph;
    if (!in.readImages(candidates_.size(), candidates) || !in.readSequence(log) ||
        !in.readImage(profile) || !in.readNested(stored_graph)) {
        return false;
    }
    SynapseGraph graph = graph_;
    if (!graph.restore(stored_graph)) return false;

    std::vector<Event> observations;
    std::uint64_t cursor = 0;
    BlobView stored_store;
    if (!in.readSequence(observations) || !in.readU64(cursor) || cursor > observations.size() ||
        !in.readNested(stored_store) || !in.atEnd()) {
        return false;
    }
    for (Event& observation : observations) clearGap(observation.gap);
    // The last test, and the only step that works on a live object. The candidates keep their place
    // in memory when the table is moved.
    const bool restored = calendar_ != nullptr ? calendar_->restore(stored_store, candidates)
                                               : store_->restore(stored_store);
    if (!restored) return false;

    pristine_ = false;
    graph_ = std::move(graph);
    states_ = std::move(states);
    random_ = std::move(random);
    spontaneous_ = spontaneous;
    candidates_ = std::move(candidates);
    log_ = std::move(log);
    log_sorted_ = std::is_sorted(log_.begin(), log_.end(), SpikeRecordLess());
    profile_ = profile;
    observer_events_ = std::move(observations);
    observer_cursor_ = cursor;
    return true;
}

}  // namespace Lumenar::Core::Kelm
