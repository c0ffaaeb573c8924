#include "fuzz/SoakRun.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "compare/BlobLayout.h"
#include "compare/RunImage.h"
#include "kelm/core/Digest.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/events/BucketEventStore.h"
#include "kelm/runtime/ICommitListener.h"
#include "tests/ranks/ThreadRanks.h"
#include "tests/support/PlainStore.h"

namespace Lumenar::Core::Kelm::Fuzzing {

namespace {

using namespace Compare;
using namespace Testing;

constexpr std::uint64_t own_buckets = 4096;  ///< of the store that an engine makes itself

// Limits of a run: bursts can continue until the last model time.
constexpr std::uint64_t max_windows = 300;
constexpr std::uint64_t max_candidates = 20'000;

std::unique_ptr<IEventStore> storeFor(Manner manner, const SoakModel& model) {
    if (manner == Manner::plain_store) {
        return std::make_unique<PlainStore>(model.window(), own_buckets);
    }
    // Most events lie beyond so short a ring.
    if (manner == Manner::short_ring) {
        return std::make_unique<BucketEventStore>(model.window(), 4 + model.seed % 12);
    }
    return nullptr;
}

/// Records what hooks and listeners see: states, and digests of everything. Its observations also
/// change the graph.
class Witness final : public IWindowObserver, public ICommitListener {
public:
    explicit Witness(bool spreads) : spreads_(spreads) {}

    void observe(const Event& event, std::span<const Kernel::State> states,
                 SynapseGraph& graph) override {
        observe(event, states, {}, graph);
    }
    void observe(const Event& event, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph& graph) override {
        ++sights_;
        changeGraph(graph);
        add(event.time, digestImages(std::span<const Event>(&event, 1)));
        add(event.time, digestImages(candidate_times));
        add(event.time, digestImages(states));
        states_.insert(states_.end(), states.begin(), states.end());
    }
    void committed(ModelTime window_start, ModelTime window_end,
                   std::span<const SpikeRecord> spikes) override {
        add(window_start, static_cast<std::uint64_t>(window_end));
        add(window_start, digestImages(spikes));
    }

    std::uint64_t sights() const { return sights_; }
    const std::vector<Kernel::State>& states() const { return states_; }
    /// Digest of everything before `end` ns.
    std::string textUntil(ModelTime end) const {
        std::uint64_t all = 0;
        for (const auto& [time, digest] : notes_) {
            if (time < end) all = (all + static_cast<std::uint64_t>(time)) * prime + digest;
        }
        return "digest of what was seen: " + std::to_string(all);
    }

private:
    static constexpr std::uint64_t prime = 0x9e3779b97f4a7c15;

    void add(ModelTime time, std::uint64_t digest) { notes_.emplace_back(time, digest); }
    /// Sets a weight or turns a switch. Deliveries that are pending must not change.
    void changeGraph(SynapseGraph& graph) const {
        // Ranks can turn only the switches of a class, and number their synapses otherwise.
        if (spreads_) {
            if (sights_ % 2 == 0) return;
            return graph.setTransmissionEnabled(sights_ % 4 == 3, sights_ % 8 < 4);
        }
        if (graph.edgeCount() == 0) return;
        const EdgeId edge = sights_ * prime % graph.edgeCount();
        switch (sights_ % 6) {
            case 1:
                return graph.setEnabled(edge, sights_ % 4 == 1);
            case 3:
                return graph.setTransmissionEnabled(sights_ % 4 == 3, sights_ % 8 < 4);
            case 5:
                return graph.setWeight(edge, 0.01F * static_cast<float>(sights_ % 64));
            default:
                return;
        }
    }

    bool spreads_;
    std::vector<std::pair<ModelTime, std::uint64_t>> notes_;
    std::uint64_t sights_ = 0;  ///< observations at declared times
    std::vector<Kernel::State> states_;
};

/// The end of the last window in ns, 0 if there was none.
ModelTime lastEnd(CarriedRun& run) {
    const auto& windows = run.trace().windows();
    return windows.empty() ? 0 : windows.back().end;
}

/// Runs a model in pieces on the backends of a setting.
class PiecedRun : public SoakRun {
public:
    Tally tally() override {
        Tally tally = tally_;
        tally.runs = 1;
        tally.spikes = image().profile.accepted;
        tally.windows = image().profile.windows;
        addHappenings(tally);
        return tally;
    }
    bool showsWindows() const override { return setting_.manner != Manner::resident; }

    RunResults results() override {
        RunResults results = resultsUntil(lastEnd(*this));
        if (alive_) addBlobs(results.blobs);
        return results;
    }

    bool isAlive() const { return alive_; }
    /// The results without blobs. `end`: ns, of the last window. A run that threw may lack an
    /// observation before its last window that a run in smaller steps has delivered.
    RunResults resultsUntil(ModelTime end) {
        RunResults results;
        results.image = image();
        results.outcomes = outcomes_;
        results.outcomes.push_back(witness_.textUntil(alive_ ? last_model_time : end));
        if (alive_) results.observed = witness_.states();
        return results;
    }
    /// Adds what the parts store, and last what the whole run stores.
    virtual void addBlobs(std::vector<std::pair<std::string, Blob>>& blobs) = 0;
    /// Goes on from a cut at which `before` has stored `bytes`.
    void goOnFrom(const PiecedRun& before, const Cut& cut, const Blob& bytes) {
        outcomes_ = before.outcomes_;
        witness_ = before.witness_;
        tally_ = before.tally_;
        next_step_ = before.next_step_;
        takeOver(cut, [&] { accept(bytes, priorEnd(cut)); });
    }

protected:
    PiecedRun(const SoakModel& model, Setting setting)
        : model_(model), setting_(std::move(setting)), witness_(model.spreads) {
        for (IWindowBackend* const backend : setting_.backends) {
            traced_.push_back(std::make_unique<TracedBackend>(*backend, trace()));
        }
    }

    virtual RunImage image() = 0;
    virtual void addHappenings(Tally& tally) = 0;
    virtual void runTo(ModelTime until) = 0;
    virtual Blob store() = 0;
    /// Lets another object on the next backend take the run over. `bytes`: what the run has stored.
    /// `prior_end`: ns, the end of a separate run that the object has done before; no_time for a
    /// fresh object. Throws if the object does not accept the stored state in full.
    virtual void accept(const Blob& bytes, ModelTime prior_end) = 0;

    /// Performs an action and records an exception. False if there was one.
    template <class Action>
    bool attempt(const std::string& what, Action action) {
        try {
            action();
            return true;
        } catch (const std::exception& failure) {
            outcomes_.push_back(what + ": " + failure.what());
            return false;
        }
    }
    /// Runs up to `until`, with the cuts before that time.
    bool carry(ModelTime until) {
        const bool is_cut = setting_.manner == Manner::cut;
        for (; is_cut && alive_ && next_cut_ < model_.cuts.size() &&
               model_.cuts[next_cut_].time <= until;
             ++next_cut_) {
            if (!goOn(model_.cuts[next_cut_].time)) break;
            const Cut& cut = model_.cuts[next_cut_];
            place_ = cut.backend % traced_.size();
            takeOver(cut, [&] { accept(store(), priorEnd(cut)); });
        }
        return alive_ && goOn(until);
    }
    template <class Action>
    void takeOver(const Cut& cut, Action action) {
        alive_ = alive_ && attempt("cut at " + std::to_string(cut.time), action);
        ++tally_.cuts;
    }
    bool goOn(ModelTime until) {
        alive_ = attempt("thrown", [&] { runTo(until); });
        if (alive_) return true;
        // A rank may have no part in the window that is to be dropped.
        if (setting_.manner != Manner::ranks) trace().end();
        ++tally_.thrown;
        return false;
    }
    /// The end of the separate run of the object that takes over: before the cut, or one window
    /// past it, so that the object holds state of a later time.
    ModelTime priorEnd(const Cut& cut) const {
        if (cut.backend >> 62 != 0) return no_time;
        const ModelTime ahead = model_.network().horizon - cut.time;
        return (cut.backend >> 61 & 1) != 0 ? cut.time / 2
                                            : cut.time + std::min(model_.window(), ahead);
    }
    IWindowBackend& backend() { return *traced_[place_]; }
    /// The same for a runtime that owns its backend.
    std::unique_ptr<IWindowBackend> ownBackend() {
        return std::make_unique<TracedBackend>(*setting_.backends[place_], trace());
    }
    /// Checks what a restored object stores: `bytes`, but nothing on a rank behind the first one.
    void requireStored(const Blob& stored, const Blob& bytes) const {
        const bool stores = setting_.group == nullptr || setting_.group->rank() == 0;
        if (stored != (stores ? bytes : Blob())) {
            throw std::runtime_error("restored to something else");
        }
    }
    /// An object that takes a run over. Unless `prior_end` is no_time, it has run to that time on
    /// its own, without a trace. A restore must replace all of that state.
    template <class Build, class Run>
    auto another(ModelTime prior_end, Build build, Run run) {
        auto object = build();
        if (prior_end == no_time) return object;
        const Witness seen = witness_;
        trace().mute(true);
        try {
            run(*object);
        } catch (const std::exception&) {
            object = build();  // after a throw an object can only be destroyed
        }
        trace().mute(false);
        witness_ = seen;
        return object;
    }

    const SoakModel& model_;
    Setting setting_;
    std::vector<std::string> outcomes_;
    Witness witness_;
    Tally tally_;
    std::size_t next_step_ = 0;  ///< of a runtime
    bool alive_ = true;

private:
    std::vector<std::unique_ptr<TracedBackend>> traced_;
    std::size_t place_ = 0;
    std::size_t next_cut_ = 0;
};

class EngineRun final : public PiecedRun {
public:
    EngineRun(const SoakModel& model, Setting setting) : PiecedRun(model, std::move(setting)) {
        alive_ = attempt("not built", [&] { engine_ = build(); });
        if (!alive_) return;
        for (const Event& input : model_.network().inputs) {
            tally_.refusals += !attempt("refused", [&] { engine_->post(input); });
        }
    }

    void advance(ModelTime until) override {
        const ModelTime horizon = model_.network().horizon;
        if (!carry(std::min(until, horizon)) || until <= horizon) return;
        if (!is_behind_) {
            // Not for every model: this read applies random states that a whole run has left
            // pending.
            if (model_.kind == ModelKind::resident && model_.seed % 2 == 0) notePending();
            fillOpenWindows();
        }
        is_behind_ = true;
        carry(until);
    }

private:
    std::unique_ptr<WindowEngine> build() {
        std::unique_ptr<WindowEngine> engine(
            setting_.group == nullptr
                ? new WindowEngine(makeEngine(model_.network(), storeFor(setting_.manner, model_)))
                : new WindowEngine(makeEngine(model_.network(), *setting_.group)));
        if (model_.moments.empty()) return engine;
        engine->setHooks(nullptr, nullptr, &witness_);
        Event observation;
        observation.kind = EventKind::observation;
        for (const ModelTime moment : model_.moments) {
            observation.time = moment;
            engine->declareObserverEvent(observation);
        }
        return engine;
    }
    void addHappenings(Tally& tally) override { tally.observed += witness_.sights(); }
    RunImage image() override { return engine_ ? imageOf(*engine_) : RunImage(); }
    void addBlobs(std::vector<std::pair<std::string, Blob>>& blobs) override {
        // Another ring gives another blob, and a whole run has its own event ids.
        if (setting_.manner == Manner::short_ring || setting_.manner == Manner::resident) return;
        blobs.emplace_back("snapshot", store());
    }
    void runTo(ModelTime until) override {
        const std::uint64_t* const whole = setting_.whole_runs;
        const std::uint64_t before = whole == nullptr ? 0 : *whole;
        engine_->run(backend(), until);
        if (whole != nullptr) tally_.whole += *whole - before;
    }
    Blob store() override { return engine_->snapshot(); }
    void accept(const Blob& bytes, ModelTime prior_end) override {
        std::unique_ptr<WindowEngine> next = another(
            prior_end, [&] { return build(); },
            [&](WindowEngine& engine) { engine.run(backend(), prior_end); });
        if (!next->restore(bytes)) throw std::runtime_error("not restored");
        requireStored(next->snapshot(), bytes);
        engine_ = std::move(next);
    }

    /// Records candidates and pending events without ids and edges, which differ after a whole run.
    void notePending() {
        std::vector<CandidateSlot> slots(engine_->candidates().begin(),
                                         engine_->candidates().end());
        for (CandidateSlot& slot : slots) slot.event_id = no_event;
        outcomes_.push_back("digest of candidates: " +
                            std::to_string(digestImages(std::span<const CandidateSlot>(slots))));
        const BlobLayout layout(engine_->snapshot());
        BlobReader in(BlobView(layout.bytes()).subspan(layout.begin("store") + 8 + 49));
        std::vector<Event> events(in.remaining() / sizeof(Event));
        for (Event& event : events) {
            static_cast<void>(in.readImage(event));
            event.id = event.edge = 0;
        }
        std::ranges::sort(events, {}, [](const Event& event) {
            return std::tuple(event.time, event.target, event.kind, event.source, event.value);
        });
        outcomes_.push_back("digest of pending events: " +
                            std::to_string(digestImages(std::span<const Event>(events))));
    }
    /// Posts an input into every window that still accepts one, from the horizon backward. Which
    /// windows are open is part of the state that a run leaves.
    void fillOpenWindows() {
        const ModelTime window = model_.window();
        Event input;
        input.kind = EventKind::input;
        input.value = 1.0;
        input.time = model_.network().horizon;
        for (int i = 0; i < max_open && input.time >= 0; ++i, input.time -= window) {
            input.target = static_cast<NodeId>(i) % model_.network().node_count;
            if (!attempt("closed", [&] { engine_->post(input); })) break;
        }
    }

    static constexpr int max_open = 12;

    std::unique_ptr<WindowEngine> engine_;
    bool is_behind_ = false;
};

class RuntimeRun final : public PiecedRun {
public:
    RuntimeRun(const SoakModel& model, Setting setting) : PiecedRun(model, std::move(setting)) {
        alive_ = attempt("not built", [&] { runtime_ = build(); });
    }

    void advance(ModelTime until) override {
        const std::vector<ComposedModel::Step>& steps = model_.composed.steps;
        while (alive_ && next_step_ < steps.size()) {
            const ComposedModel::Step& step = steps[next_step_];
            if (step.until && *step.until > until) break;
            if (step.until) {
                carry(*step.until);
            } else {
                act();
            }
            ++next_step_;
        }
        if (alive_ && until < model_.network().horizon) carry(until);
    }

private:
    std::unique_ptr<KelmRuntime> build() {
        const ComposedModel& model = model_.composed;
        const bool recorded = setting_.manner != Manner::unwatched;
        std::unique_ptr<KelmRuntime> runtime =
            model_.spreads ? model.make(ownBackend(), setting_.group, recorded)
                           : model.build(backend(), recorded, storeFor(setting_.manner, model_));
        runtime->setCommitListener(&witness_);
        return runtime;
    }
    void act() {
        const std::size_t before = outcomes_.size();
        model_.composed.perform(next_step_, next_step_ + 1, *runtime_, outcomes_);
        if (outcomes_.size() == before) return;
        const std::string& outcome = outcomes_.back();
        tally_.refusals += outcome != "done" && !outcome.starts_with("ids");
    }
    void addHappenings(Tally& tally) override {
        if (!runtime_) return;
        const KelmRuntime& run = *runtime_;
        if (run.recorder() != nullptr) tally.observed += run.recorder()->samples().size();
        if (run.oscillators() != nullptr) tally.coupled += run.oscillators()->couplingSteps();
        if (run.learningControl() == nullptr) return;
        tally.learned += run.learningControl()->journal().size();
        tally.gated += run.learningControl()->modulatorHistory().size();
    }
    RunImage image() override { return runtime_ ? imageOf(*runtime_) : RunImage(); }
    void addBlobs(std::vector<std::pair<std::string, Blob>>& blobs) override {
        KelmRuntime& run = *runtime_;
        if (run.plasticity() != nullptr) {
            blobs.emplace_back("plasticity", run.plasticity()->snapshot());
            blobs.emplace_back("learning", run.learningControl()->snapshot());
        }
        if (run.oscillators() != nullptr) {
            blobs.emplace_back("oscillators", run.oscillators()->snapshot());
        }
        const bool other =
            setting_.manner == Manner::unwatched || setting_.manner == Manner::short_ring;
        if (!other) blobs.emplace_back("checkpoint", store());
    }
    void runTo(ModelTime until) override { runtime_->run(until); }
    Blob store() override { return runtime_->checkpoint(); }
    void accept(const Blob& bytes, ModelTime prior_end) override {
        std::unique_ptr<KelmRuntime> next = another(
            prior_end, [&] { return build(); },
            [&](KelmRuntime& runtime) { runtime.run(prior_end); });
        if (!next->restore(bytes)) throw std::runtime_error("not restored");
        requireStored(next->checkpoint(), bytes);
        runtime_ = std::move(next);
    }

    std::unique_ptr<KelmRuntime> runtime_;
};

std::unique_ptr<PiecedRun> startRun(const SoakModel& model, Setting setting) {
    if (model.isComposed()) return std::make_unique<RuntimeRun>(model, std::move(setting));
    return std::make_unique<EngineRun>(model, std::move(setting));
}

/// Runs a model on ranks, each on a thread of its own. The results of the ranks become those of one
/// run. They have an outcome more if a rank has seen something else than the first one.
class RanksRun final : public SoakRun {
public:
    RanksRun(const SoakModel& model, Setting setting)
        : model_(model), setting_(std::move(setting)) {}

    /// The threads of the ranks end with the call, so it repeats the run from the start.
    void advance(ModelTime until) override {
        runs_.clear();
        ends_.clear();
        failure_.clear();
        const bool is_cut = setting_.manner == Manner::ranks_cut;
        // A run in pieces starts on some number of ranks and continues on others, and as one
        // process without any.
        std::size_t ranks = is_cut ? model_.seed / 4 % (count() + 1) : count();
        const Cut* from = nullptr;
        for (const Cut& cut : model_.cuts) {
            if (!is_cut || cut.time > std::min(until, model_.network().horizon)) break;
            runPiece(ranks, from, cut.time);
            if (!isAlive()) break;
            ranks = cut.backend % (count() + 1);
            from = &cut;
        }
        if (runs_.empty() || isAlive()) runPiece(ranks, from, until);
        trace() = WindowTrace();
        // As in other ways, a window that threw is dropped.
        for (const ModelTime end : ends_) trace().begin(end);
        if (!isAlive()) trace().end();
    }
    bool showsWindows() const override { return false; }
    Tally tally() override { return isComplete() ? runs_.front()->tally() : Tally{.runs = 1}; }

    RunResults results() override {
        RunResults all;
        if (!isComplete()) {
            all.outcomes.push_back(failure_);
            return all;
        }
        const ModelTime end = lastEnd(*this);
        all = runs_.front()->resultsUntil(end);
        const RunResults first = common(all, 0);
        for (std::size_t rank = 1; rank < runs_.size(); ++rank) {
            const RunResults own = runs_[rank]->resultsUntil(end);
            if (const auto apart = differenceOf(first, common(own, rank))) {
                all.outcomes.push_back("rank " + std::to_string(rank) + ": " + apart->text());
            }
            append(all.image, own.image);
        }
        std::ranges::sort(all.image.log, SpikeRecordLess());
        all.blobs = blobs_.front();
        return all;
    }

private:
    using Blobs = std::vector<std::pair<std::string, Blob>>;

    std::size_t count() const { return setting_.backends.size(); }
    bool isComplete() const { return failure_.empty() && !runs_.empty(); }
    bool isAlive() const { return isComplete() && runs_.front()->isAlive(); }

    /// Runs to `until` ns on `ranks` ranks, in one process for 0. `from`: the cut from which this
    /// piece goes on, null for the first one.
    void runPiece(std::size_t ranks, const Cut* from, ModelTime until) {
        const std::vector<std::unique_ptr<PiecedRun>> before = std::move(runs_);
        const Blob bytes = from == nullptr ? Blob() : blobs_.front().back().second;
        const std::size_t count = std::max<std::size_t>(ranks, 1);
        runs_ = std::vector<std::unique_ptr<PiecedRun>>(count);
        blobs_ = std::vector<Blobs>(count);
        const auto runRank = [&](IRankGroup* group) {
            const std::size_t rank = group == nullptr ? 0 : group->rank();
            runs_[rank] =
                startRun(model_, {Manner::ranks, {setting_.backends[rank]}, nullptr, group});
            PiecedRun& run = *runs_[rank];
            if (from != nullptr) run.goOnFrom(*before.front(), *from, bytes);
            run.advance(until);
            if (run.isAlive()) run.addBlobs(blobs_[rank]);
        };
        try {
            if (ranks == 0) {
                runRank(nullptr);
            } else {
                ThreadRanks(static_cast<std::uint32_t>(ranks)).run([&](IRankGroup& group) {
                    runRank(&group);
                });
            }
        } catch (const std::exception& failure) {
            failure_ = std::string("the ranks failed: ") + failure.what();
            return;
        }
        for (const std::unique_ptr<PiecedRun>& run : runs_) {
            for (const WindowTrace::Window& window : run->trace().windows()) {
                ends_.insert(window.end);
            }
        }
    }
    /// What all ranks have alike: outcomes, observations, profile, and what the parts store.
    RunResults common(RunResults results, std::size_t rank) const {
        const WindowProfile profile = results.image.profile;
        results.image = {};
        results.image.profile = profile;
        results.blobs = blobs_[rank];
        if (!results.blobs.empty()) results.blobs.pop_back();
        return results;
    }
    /// Adds what a rank has of its own neurons.
    static void append(RunImage& all, const RunImage& own) {
        const auto add = [](auto& list, const auto& part) {
            list.insert(list.end(), part.begin(), part.end());
        };
        add(all.states, own.states);
        add(all.random_states, own.random_states);
        add(all.candidates, own.candidates);
        add(all.log, own.log);
    }

    const SoakModel& model_;
    Setting setting_;
    std::vector<std::unique_ptr<PiecedRun>> runs_;  ///< of the last piece, by rank
    std::vector<Blobs> blobs_;                      ///< at its end, by rank
    std::set<ModelTime> ends_;                      ///< ns, of the windows of all ranks
    std::string failure_;                           ///< of the ranks, which a run does not record
};

}  // namespace

SoakRun::SoakRun() : CarriedRun(WindowTrace(max_windows, max_candidates)) {}

Tally& Tally::operator+=(const Tally& other) {
    runs += other.runs;
    spikes += other.spikes;
    windows += other.windows;
    refusals += other.refusals;
    thrown += other.thrown;
    cuts += other.cuts;
    whole += other.whole;
    observed += other.observed;
    learned += other.learned;
    gated += other.gated;
    coupled += other.coupled;
    return *this;
}

std::unique_ptr<SoakRun> startSoakRun(const SoakModel& model, Setting setting) {
    if (setting.manner == Manner::ranks || setting.manner == Manner::ranks_cut) {
        return std::make_unique<RanksRun>(model, std::move(setting));
    }
    return startRun(model, std::move(setting));
}

}  // namespace Lumenar::Core::Kelm::Fuzzing
