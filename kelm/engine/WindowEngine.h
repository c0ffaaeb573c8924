#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/core/LargePages.h"
#include "kelm/core/RandomContext.h"
#include "kelm/engine/IShardTeam.h"
#include "kelm/engine/IWindowBackend.h"
#include "kelm/engine/ParameterTable.h"
#include "kelm/engine/RunControl.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/engine/StateSample.h"
#include "kelm/engine/WholeRun.h"
#include "kelm/engine/WindowCalendar.h"
#include "kelm/engine/WindowHooks.h"
#include "kelm/engine/WindowProfile.h"
#include "kelm/events/CandidateSlot.h"
#include "kelm/events/IEventStore.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// The raw state with which neuron `index`'s random stream starts under `seed`.
std::uint64_t initialSpontaneousState(std::uint64_t seed, NodeId index);

/// The discrete-event core. It owns a network, the state and parameters of every neuron, the
/// pending events, the random streams and the spike log, and advances them window by window.
///
/// A window is one bucket of the calendar, one smallest synaptic delay long. No spike of a window
/// can reach a neuron inside it, so all neurons of a window are independent. The order of a window:
/// take its events, observations before it, group the events by neuron, prepare hook, backend,
/// serial commit in ascending NodeId, commit hook, observations inside it. All ids, and with them
/// all ties, are a function of the results alone, so a run does not depend on how or where the
/// backend computes.
///
/// If the backend has a team of threads, the network is divided into shards: ranges of neurons,
/// each with its candidates and the events that wait for it. The shards take, compute and commit
/// their parts of a window side by side. Each counts the ids that its commits take. The sums of
/// these counts give the first id of each shard, and each shard then posts the deliveries of all
/// spikes of the window to its own neurons. So all ids are those of the serial commit.
///
/// Between two windows the state is complete. After a throw out of run the engine may only be read,
/// restored or destroyed, unless a run control's callback threw. It is neither copied nor moved.
/// Hooks and backends are borrowed. Used by one thread at a time.
class WindowEngine final : public IEventSink {
public:
    /// An engine for a network whose neurons differ.
    ///
    /// `neurons`, `firings`: shape (graph.nodeCount()). `horizon`: ns, end of the planned run.
    /// `store`: holds all pending events, or null for a calendar of the graph's dMin() and 4096
    /// buckets, which is faster. A store is not tested against the graph. Its caller may keep its
    /// address and use it between runs.
    /// Throws WindowEngineError for a horizon below 1, for a count that differs from the graph's,
    /// for a neuron whose rate and ceiling are both negative, and without a store for a graph
    /// without dMin(), in this order. Throws std::runtime_error in a floating-point environment
    /// that rounds otherwise than to nearest or flushes subnormals.
    WindowEngine(SynapseGraph graph, std::vector<Kernel::Neuron> neurons,
                 std::vector<Kernel::Firing> firings, std::uint64_t seed, ModelTime horizon,
                 std::unique_ptr<IEventStore> store = nullptr);

    /// An engine whose neurons are all alike; otherwise as above.
    WindowEngine(SynapseGraph graph, const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                 std::uint64_t seed, ModelTime horizon,
                 std::unique_ptr<IEventStore> store = nullptr);

    /// An engine whose neurons have the parameters of a table of graph.nodeCount() neurons;
    /// otherwise as above.
    ///
    /// `ranks`: of a network that several processes hold; null for one process. `graph` is then the
    /// share of this rank, and `parameters` those of its neurons. All ranks make the same calls,
    /// and a failure of one ends the call on all. Log, states, candidates and streams are those of
    /// the rank's neurons; all else is that of one engine of the whole network. Throws
    /// std::logic_error for what cannot be spread over ranks: a store, recorded streams, deliveries
    /// near the end of time, and a hook that replaces the graph. Throws std::invalid_argument for a
    /// graph that is not the share of the rank, and for seeds or horizons that differ by rank.
    WindowEngine(SynapseGraph graph, ParameterTable parameters, std::uint64_t seed,
                 ModelTime horizon, std::unique_ptr<IEventStore> store = nullptr,
                 IRankGroup* ranks = nullptr);

    WindowEngine(const WindowEngine&) = delete;
    WindowEngine& operator=(const WindowEngine&) = delete;
    ~WindowEngine() override = default;

    /// Sets the three hooks, each of which may be null. They must outlive the engine's runs.
    void setHooks(IWindowPrepare* prepare, IWindowCommit* commit, IWindowObserver* observer) {
        prepare_hook_ = prepare;
        commit_hook_ = commit;
        observer_ = observer;
    }

    /// Sets what reports progress and stops runs, or null. It must outlive the engine's runs.
    /// The engine calls its callback between two windows. The callback may read the engine, take
    /// spikes, write a snapshot and request a stop. If it throws, the run ends after that window,
    /// and a later run goes on to the same bits.
    void setRunControl(RunControl* control) { control_ = control; }
    /// Whether a request has stopped the last run before its end, at processedUntil(). A later run
    /// goes on to the same bits.
    bool stopped() const { return stopped_; }
    /// The end of the last window in ns. After a restore: the first time at which post accepts an
    /// event, or the last update of a state where the events lie in a store that was given.
    ModelTime processedUntil() const { return processed_until_; }

    /// Runs to the horizon.
    void run(IWindowBackend& backend) { run(backend, horizon_); }

    /// Runs every window that starts before `until` ns. A window is not cut, so the run may end
    /// later than `until`. A later call goes on from there.
    ///
    /// Throws WindowEngineError for a hazard above its bound and for more spikes in a window than
    /// a result can hold, in this order for each neuron, and for a candidate of a forged snapshot
    /// that lies before its window; SynapseRoutingViolation for an event outside the network;
    /// LookaheadViolation for a delivery into a processed window; TimeOverflow; what
    /// RandomContext::advanceTo throws; std::runtime_error in a floating-point environment as
    /// above; and what a hook or the backend throws. Nothing of a window whose backend throws
    /// is committed.
    void run(IWindowBackend& backend, ModelTime until);

    /// Posts an event from outside. Ids are given in the order of posting.
    /// Throws SynapseRoutingViolation for a target outside the network, and what the store throws.
    std::uint64_t post(const Event& event) override;

    /// Whether a run is inside a window, or has ended there in an exception.
    bool isInWindow() const { return running_; }

    /// Makes `spikes` part of the run, ascending by time in ns, then neuron. They are logged and
    /// delivered as if their neurons had fired; those from the horizon on are dropped. These
    /// neurons must never fire by themselves. No snapshot holds the spikes: an engine that restores
    /// one must have been given the same. They take 16 bytes each. Call it before the first run,
    /// once. Throws InvalidSpikeTrain for an engine that has run or has a store of its caller, then
    /// for the first spike outside the network, before time 0, out of order, or of a neuron whose
    /// hazard is not 0; nothing is given then.
    void giveSpikes(std::vector<SpikeRecord> spikes);
    std::span<const SpikeRecord> givenSpikes() const { return given_; }

    /// Declares an observation: the observer sees the network as of the event's time, in ns, and
    /// gets the event's other fields. Returns the observation's id. At equal times observations
    /// come in the order of declaration. They do not disturb the run: they are in no store and no
    /// counter, and for a moment inside a window the window's work is repeated on copies.
    /// Throws WindowEngineError during a run, once an observation has been delivered, and beside a
    /// series.
    std::uint64_t declareObserverEvent(const Event& event);

    /// Declares observations at the event's time and each `interval` ns after it, below the
    /// horizon, with ascending ids. Their memory does not depend on their number: a snapshot holds
    /// only the next one. An engine that restores the snapshot needs the same series. `event.time`
    /// must not be negative, `interval` must be positive. Throws WindowEngineError where an
    /// observation or a series was declared before.
    void declareObserverSeries(const Event& event, ModelTime interval);

    /// Draws every first candidate again, for external drives of at most `drive_bounds`, shape
    /// (neurons). The draws of construction stay consumed. Call it before the first run.
    /// Throws WindowEngineError for another count, then once the run has begun. Throws
    /// LookaheadViolation for a candidate before the window at which an earlier run has stopped;
    /// the engine may then only be destroyed.
    void reseedInitialCandidates(std::span<const double> drive_bounds);

    /// Continues under another seed. All random streams start anew, as in a new engine of that
    /// seed; handles of streams and tapes are gone. At `from` ns each neuron drops its candidate
    /// and draws one from its new stream. Call it between runs. Throws LookaheadViolation, with
    /// nothing changed, for a time before openFrom(). A store of the caller may also refuse; the
    /// engine may then only be destroyed.
    void reseed(std::uint64_t seed, ModelTime from);

    /// Format "KELMWEN3": tag; state count (8), states (40 each); length (8) and "RNDCTX1" blob of
    /// the streams; per neuron its candidate: time, rate, event id (24); log count (8), log (16
    /// each) in canonical order; profile (40); length (8) and "KELMSYN1" blob of the graph;
    /// observation count (8), observations (64 each), how many are delivered (8); length (8) and
    /// blob of the store. It does not hold taken(). Sorts the log. Call it between runs.
    Blob snapshot();

    /// Restores a snapshot of an engine of the same graph shape, parameters, seed and horizon. The
    /// run then goes on as the run of that engine, of whose spikes `taken` were taken. False for a
    /// blob that is cut short, forged, or of another format, neuron count or seed; the engine is
    /// then as it was, unless a store that was given refused after it had changed itself. False on
    /// all ranks where one refuses or has another blob. Call it between runs.
    [[nodiscard]] bool restore(BlobView blob, const TakenSpikes& taken = {});

    /// All spikes so far that were not taken, by time, then neuron. Valid until the next run or
    /// take.
    std::span<const SpikeRecord> spikeLog();

    /// spikeLog() of all ranks.
    std::vector<SpikeRecord> networkLog();

    /// The first time in ns at which post accepts an event. 0 for an engine with a store of its
    /// caller, which may refuse later times.
    ModelTime openFrom() const { return calendar_.openFrom().value_or(0); }

    /// Moves the spikes out of spikeLog(), which is then empty. Every spike of a window lies before
    /// those of later windows, so the pieces that are taken between runs follow one another.
    /// Throws WindowEngineError during a run, and for a spike that lies before a taken one; nothing
    /// is taken then.
    std::vector<SpikeRecord> takeSpikes();
    const TakenSpikes& taken() const { return taken_; }

    /// 64-bit digest of all spikes so far, the taken ones first: per spike time and neuron, 8 bytes
    /// each.
    std::uint64_t logHash();

    /// Shape (neurons): each state as of the neuron's last update.
    std::span<const Kernel::State> states() const { return states_; }
    /// The neurons at `time` ns, before the events of that time: shape (neurons), or (`neurons`) in
    /// their order. The values are exact: an event at that time acts on them. The known times begin
    /// at processedUntil() and end at the start of the next window that holds an event. With a
    /// store that was given, they end at the `until` of the last run, or at an event posted since.
    /// Throws WindowEngineError during a run, InvalidMoment for a time that is not known, and
    /// SynapseRoutingViolation for a neuron outside the network.
    std::vector<StateSample> statesAt(ModelTime time);
    std::vector<StateSample> statesAt(ModelTime time, std::span<const NodeId> neurons);
    /// Adds a sampler that later runs call. It must outlive them. Its neurons must lie in the
    /// network, and its first moment must not be before processedUntil(). The values are those of
    /// statesAt, also inside a window. Throws WindowEngineError during a run.
    void addSampler(IStateSampler& sampler);
    /// Call it after the next moment of a sampler has changed.
    void rescheduleSamplers();
    /// Shape (neurons): each neuron's scheduled candidate.
    std::span<const CandidateSlot> candidates() const { return calendar_.candidates(); }
    /// The raw state of a neuron's random stream. `neuron` must lie in the network.
    std::uint64_t spontaneousState(NodeId neuron);
    /// The random streams, for recording and replaying one. Valid until a restore.
    Runtime::RandomContext& randomStreams() {
        flushPendingRandomStates();
        pristine_ = false;
        return random_;
    }

    /// Whether graph, parameters, seed and horizon determine the engine: it is as its construction
    /// left it, with a calendar of its own and neurons whose parameters have the same bits. False
    /// for good after a store was given, an event posted, candidates reseeded, streams touched, a
    /// snapshot restored or a window run. False while there is a hook, a run control, a sampler or
    /// an observation, or while the graph's dMin() is not the calendar's window.
    bool isPristine();
    /// Adopts a run that a backend has taken to the horizon. Only tryResidentRun may call
    /// it, while isPristine() holds. May throw std::bad_alloc, with nothing changed.
    void adoptWholeRun(WholeRun&& run);

    const WindowProfile& profile() const { return profile_; }
    const SynapseGraph& graph() const { return graph_; }
    SynapseGraph& graph() { return graph_; }
    std::uint64_t seed() const { return seed_; }
    ModelTime horizon() const { return horizon_; }
    /// The parameters of neuron 0, which hold for all where isHeterogeneous() is false.
    const Kernel::Neuron& uniformNeuron() const { return parameters_.entries()[0].neuron; }
    const Kernel::Firing& uniformFiring() const { return parameters_.entries()[0].firing; }
    /// Whether some neuron's parameters differ from those of neuron 0.
    bool isHeterogeneous() const { return heterogeneous_; }
    const ParameterTable& parameters() const { return parameters_; }
    /// Whether an event has come in through post.
    bool hasExternalEvents() const { return external_events_; }

private:
    /// no_time without a sign: later than all times.
    static constexpr auto never = static_cast<std::uint64_t>(no_time);

    struct Shard;
    struct SpikePosts;
    struct Message;
    struct Window;
    /// What the ranks have told each other about a window.
    struct Exchanged {
        std::uint64_t first_id;  ///< of this rank
        std::uint64_t next_id;
        bool lower_rank_failed;
    };
    struct Assembled {};
    /// What chooses the number of shards.
    struct ShardLoad {
        bool was_divided = false;
        std::uint64_t events_since_change = 0;
        std::size_t windows = 0;  ///< since the last choice
        std::size_t events = 0;   ///< in them
    };

    /// All public constructors end here. The arguments are references, because the others read the
    /// graph's neuron count.
    WindowEngine(Assembled, SynapseGraph&& graph, ParameterTable&& parameters, std::uint64_t seed,
                 ModelTime horizon, std::unique_ptr<IEventStore>&& store,
                 IRankGroup* ranks = nullptr);

    /// The neurons that the engine holds: all, or those of its rank.
    NodeId firstNeuron() const { return first_neuron_; }
    NodeId endNeuron() const { return first_neuron_ + states_.size(); }
    Kernel::State& stateOf(NodeId neuron) { return states_[neuron - first_neuron_]; }
    const ParameterTable::Entry& parametersOf(NodeId neuron) const {
        return parameters_[neuron - first_neuron_];
    }
    bool offersWholeRun(ModelTime until) const;
    bool stopsAfterWindow(Window& window, ModelTime until);
    bool takeStopRequest();
    void requireBuildable(bool has_store) const;
    void requireEqualRanks() const;
    void requireCountedShare();
    void requireGivable(std::span<const SpikeRecord> spikes);
    void requireGivable(std::span<const SpikeRecord> spikes, std::size_t i) const;
    void reseedHere(std::uint64_t seed, ModelTime from);
    WindowCalendar buildCalendar(std::unique_ptr<IEventStore>&& store);
    void createStreams();
    void drawFirstCandidate(NodeId neuron, double drive_bound);
    void flushPendingRandomStates();
    bool runWindows(IWindowBackend& backend, ModelTime until);
    bool takeWindow(ModelTime until, Window& window);
    void takeGivenSpikes(Window& window);
    void takeEvents(Shard& shard, std::size_t index);
    static void countEvents(Window& window);
    void computeAndCommit(Window& window, IWindowBackend& backend);
    bool needsWholeWindow(const Window& window) const;
    void buildWork(Shard& shard, ModelTime window_start, std::size_t item_limit);
    void buildFromPlaced(Shard& shard, ModelTime window_start, const PlacedEvents& placed,
                         std::size_t item_limit);
    void buildFromKeys(Shard& shard, ModelTime window_start, std::size_t item_limit);
    void addItem(Shard& shard, ModelTime window_start, NodeId neuron, bool rewrites_parameters,
                 std::size_t first, std::size_t count);
    bool mustRewriteParameters(Shard& shard) const;
    void appendItem(Shard& shard) const;
    void rewriteParameters(WindowWork& item, NodeId neuron) const;
    void readNeuron(WindowWork& item, NodeId neuron, ModelTime window_start);
    void commitItems(Window& window);
    void applyResult(NodeId neuron, const Kernel::WindowResult& result, WindowProfile& profile);
    void commitSpike(NodeId neuron, ModelTime time);
    void commitGivenSpikes(Window& window, NodeId end);

    // Of several shards.
    void setShards(Window& window, std::size_t count);
    std::size_t firstShardCount() const;
    std::size_t nextShardCount(std::size_t events);
    template <class Task>
    void forShards(Window& window, Task task, bool side_by_side = true);
    bool canCommitApart(Window& window);
    template <class Commit>
    void commitShards(Window& window, Commit commit);
    void computeShards(Window& window, IWindowBackend& backend, bool whole);
    void gatherItems(Window& window);
    void commitApart(Window& window, std::size_t shard, std::span<const WindowWork> work,
                     std::span<const Kernel::WindowResult> results);
    void addSpike(Shard& shard, const SpikeRecord& spike);
    void commitGivenApart(Window& window, std::size_t shard, NodeId end);
    void finishShards(Window& window);

    // Of several ranks.
    Exchanged exchange(Window& window, std::size_t shard_end, std::uint64_t id_count,
                       WindowProfile& counts);
    void readRunDelays(Window& window);
    Exchanged receive(Window& window, std::span<const BlobView> messages, WindowProfile& counts);
    void agreeOnNextWindow(Window& window);
    Blob snapshotOfRanks();
    Blob assembleSnapshot(std::span<const Kernel::State> states,
                          const Runtime::RandomContext& random,
                          std::span<const CandidateSlot> candidates,
                          std::span<const SpikeRecord> log, BlobView graph,
                          BlobView calendar) const;
    bool isForeign(NodeId neuron) const { return neuron - first_neuron_ >= states_.size(); }
    std::uint64_t firstTime();
    ModelTime leastOfRanks(ModelTime time);
    TakenSpikes digestOfRanks();
    void orderSamples(std::vector<StateSample>& samples, std::span<const NodeId> neurons,
                      ModelTime time);
    template <class Value>
    void keepOwn(LargeArray<Value>& values) const;
    bool restoreHere(BlobView blob, const TakenSpikes& taken,
                     const std::function<bool(bool)>& agree);
    void numberCandidates(std::uint64_t first_id);
    template <class Values>
    void gatherEverywhere(Values& values);
    /// Whether a window that a shard has committed may have to be undone, because a shard before it
    /// or another rank fails.
    bool mayBeUndone(std::size_t shard) const;
    ModelTime nextGivenTime() const {
        return next_given_ < given_.size() ? given_[next_given_].time : no_time;
    }
    std::size_t firstGivenFrom(ModelTime time) const;
    bool observationDue(ModelTime limit) const;
    Event takeObservation();
    bool acceptsObservations(std::span<const Event> observations, std::uint64_t cursor) const;
    void deliverObservations(Window& window, ModelTime limit, bool inside);
    void shadowRun(Window& window, ModelTime time);
    Kernel::WindowResult shadowWalk(const Window& window, const WindowWork& item,
                                    ModelTime time) const;
    void requireKnown(ModelTime time);
    StateSample sampleOf(Kernel::State state, NodeId neuron, ModelTime time) const;
    void takeSamples(const Window& window, ModelTime limit, bool after_commit);

    SynapseGraph graph_;
    ParameterTable parameters_;
    bool heterogeneous_;
    std::uint64_t seed_;
    ModelTime horizon_;
    IRankGroup* ranks_ = nullptr;  ///< null for a network in one piece
    NodeId first_neuron_ = 0;
    /// Of several ranks: a time in ns in the next window that holds an event on any rank, or
    /// never.
    std::uint64_t agreed_time_ = never;
    bool ranks_end_ = false;       ///< an item has failed on a rank, which ends the run on all
    bool agreed_stop_ = false;     ///< a rank has a request to stop
    bool agreed_report_ = false;   ///< rank 0 reports after this window, and so do all
    std::uint64_t log_count_ = 0;  ///< length of the log of all ranks
    bool has_given_ = false;       ///< giveSpikes was called, on any rank
    WindowCalendar calendar_;
    LargeArray<Kernel::State> states_;
    Runtime::RandomContext random_;
    Runtime::RandomContext::Family spontaneous_;
    std::vector<std::uint64_t> pending_random_states_;  ///< of a whole run, not yet applied
    std::vector<SpikeRecord> given_;                    ///< ascending by time, then neuron
    std::size_t next_given_ = 0;                        ///< the first one that is still to come
    std::vector<SpikeRecord> log_;                      ///< without the spikes that were taken
    bool log_sorted_ = true;
    TakenSpikes taken_;
    SpikeRecord last_taken_{first_model_time, 0};  ///< unknown after a restore
    WindowProfile profile_;
    IWindowCommit* commit_hook_ = nullptr;
    IWindowPrepare* prepare_hook_ = nullptr;
    IWindowObserver* observer_ = nullptr;
    /// Declared observations in the order of EventLess. Of a series the next one only.
    std::vector<Event> observer_events_;
    std::uint64_t observer_cursor_ = 0;  ///< the first one not yet delivered
    Event series_start_;                 ///< the first observation of the series
    ModelTime series_interval_ = 0;      ///< ns; 0 without a series
    RunControl* control_ = nullptr;
    ShardLoad shard_load_;
    IShardTeam* team_ = nullptr;  ///< of the backend of the current run
    bool stopped_ = false;
    ModelTime processed_until_ = 0;
    ModelTime eventless_until_ = 0;  ///< no event is pending before
    std::vector<IStateSampler*> samplers_;
    ModelTime next_sample_ = last_model_time;
    bool external_events_ = false;
    bool pristine_ = false;  ///< what isPristine() says, but for windows, hooks and dMin()
    bool running_ = false;   ///< inside a run, or after a run that threw
};

}  // namespace Lumenar::Core::Kelm
