#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/runtime/Homeostasis.h"
#include "kelm/runtime/ICommitListener.h"
#include "kelm/runtime/InjectionTrace.h"
#include "kelm/runtime/InputChannelBank.h"
#include "kelm/runtime/InputChannelSpec.h"
#include "kelm/runtime/InstantPhases.h"
#include "kelm/runtime/InterventionState.h"
#include "kelm/runtime/LearningControl.h"
#include "kelm/runtime/OscillatorBank.h"
#include "kelm/runtime/Perturbation.h"
#include "kelm/runtime/PhaseConfig.h"
#include "kelm/runtime/PhaseLogEntry.h"
#include "kelm/runtime/PhaseModulator.h"
#include "kelm/runtime/PlasticityConfig.h"
#include "kelm/runtime/PlasticityEngine.h"
#include "kelm/runtime/PredictionBank.h"
#include "kelm/runtime/PredictionConfig.h"
#include "kelm/runtime/Probe.h"
#include "kelm/runtime/Recorder.h"
#include "kelm/runtime/RecorderConfig.h"
#include "kelm/runtime/Validation.h"

namespace Lumenar::Core::Kelm {

struct RuntimeOptions;

/// The version in a checkpoint. A runtime restores only checkpoints of its own version.
inline constexpr std::string_view engine_version = "2.0.0-beta.1";

/// An engine with everything that is more than spiking neurons. This is what a user of the library
/// composes. The parts act through the engine's three window hooks. Each part is optional. Without
/// any part the hooks only count.
///
/// In each window, `prepare` advances the coupling of the oscillators and writes each item's drive,
/// from phase modulation and prediction errors. After the engine has committed the results,
/// `commit` passes the window's spikes to plasticity and its proposals through learning control to
/// the graph, applies homeostasis, and logs the spikes. Samples of the recorder follow. Injections
/// and perturbations are events, posted between runs. All of this runs on the host, in one order,
/// so a composed run gives the same bits on every backend.
///
/// makeRuntime makes one, and makeKelmRuntime one without its checks. The engine's hooks refer to
/// the object, so it is neither copied nor moved. Between runs a caller may use its parts. Learning
/// notices a weight that was set in the graph at the synapse's next change. If run throws, the
/// runtime may only be destroyed, unless the backend was missing, floating-point operations were
/// not exact, or a callback of setProgress threw. One thread at a time.
class KelmRuntime : private IWindowPrepare, private IWindowCommit, private IWindowObserver {
public:
    KelmRuntime(const KelmRuntime&) = delete;
    KelmRuntime& operator=(const KelmRuntime&) = delete;
    ~KelmRuntime() override = default;

    /// Runs to the horizon. Throws std::invalid_argument without a backend, then what
    /// WindowEngine::run and the parts throw.
    void run();
    /// Runs every window that starts before `until` ns. Throws as above; position() is then
    /// unchanged, or that of the last report.
    void run(ModelTime until);
    /// Runs to `duration` ns after position(). Throws as above, and TimeOverflow.
    void runFor(ModelTime duration);

    /// Makes runs call `callback` about every `interval` of their wall time, for 0 after each
    /// window; an empty callback ends this. A call comes between two windows, and position() is the
    /// end of the last one, or that of the run if it is earlier. The callback may read the runtime,
    /// take spikes, write a checkpoint and request a stop. If it throws, the run ends after that
    /// window, and a later run goes on to the same bits. Call setProgress between runs.
    void setProgress(std::function<void(const RunProgress&)> callback,
                     std::chrono::nanoseconds interval = std::chrono::milliseconds(100));
    /// Ends the current run after its window, or the next one before its first window. A request
    /// during the last window ends the next run. position() is then the end of the last window, or
    /// that of the run if it is earlier, and a later run goes on to the same bits. May be called
    /// from any thread and from a signal handler.
    void requestStop() noexcept { control_.requestStop(); }
    /// Whether requestStop has ended the last run.
    bool stopped() const { return engine_.stopped(); }

    /// Injects a value on a named input channel at `time` ns and returns the ids of its events.
    /// Throws InvalidModality without channels, then what the injection trace, if one is set, and
    /// InputChannelBank::inject throw.
    std::vector<std::uint64_t> inject(const std::string& name, ModelTime time, double value);

    /// Acts on neurons directly, without a channel. Returns the ids of the events. Throws as
    /// postPerturbation does.
    std::vector<std::uint64_t> perturb(const Perturbation& perturbation);

    /// The first time in ns at which an input may arrive; the run is complete up to it. An
    /// injection arrives a channel's delay after its time. A store of the caller may refuse later
    /// times, too.
    ModelTime earliestInput() const;

    // The parts; null for a part that the runtime lacks.
    Recorder* recorder() { return recorder_.get(); }
    const Recorder* recorder() const { return recorder_.get(); }
    PredictionBank* prediction() { return prediction_.get(); }
    const PredictionBank* prediction() const { return prediction_.get(); }
    PlasticityEngine* plasticity() { return plasticity_.get(); }
    const PlasticityEngine* plasticity() const { return plasticity_.get(); }
    LearningControl* learningControl() { return learning_.get(); }
    const LearningControl* learningControl() const { return learning_.get(); }
    InputChannelBank* inputChannels() { return input_channels_.get(); }
    const InputChannelBank* inputChannels() const { return input_channels_.get(); }
    OscillatorBank* oscillators() { return oscillators_ ? &*oscillators_ : nullptr; }
    const OscillatorBank* oscillators() const { return oscillators_ ? &*oscillators_ : nullptr; }
    /// Gains and switches of the mechanisms. They act from the next window on.
    InterventionState& interventions() { return interventions_; }
    const InterventionState& interventions() const { return interventions_; }

    /// All spikes so far that were not taken, by time, then neuron. Valid until the next run or
    /// take.
    std::span<const SpikeRecord> spikeLog() { return engine_.spikeLog(); }
    /// spikeLog() of all ranks, in the same order. To be called by all ranks.
    std::vector<SpikeRecord> networkLog() { return engine_.networkLog(); }
    /// 64-bit digest of all spikes so far, whether taken or not.
    std::uint64_t logHash() { return engine_.logHash(); }
    /// Moves the spikes out of spikeLog(), which is then empty, so that a run of any length needs
    /// bounded memory. The pieces follow one another in time and make up the whole log. Throws
    /// WindowEngineError, with nothing taken, during a run, and for a store that hands out windows
    /// out of order.
    std::vector<SpikeRecord> takeSpikes() { return engine_.takeSpikes(); }
    /// How many spikes were taken, on all ranks, also before a checkpoint that was restored.
    std::uint64_t takenSpikes() const { return engine_.taken().count; }
    /// Every spike with its oscillators' phases, in the order of commit. Empty without oscillators.
    /// The list only grows.
    std::span<const PhaseLogEntry> phaseLog() const { return phase_log_; }
    WindowProfile profile() const { return engine_.profile(); }
    /// Shape (neurons): each state as of the neuron's last update.
    std::span<const Kernel::State> neuronStates() const { return engine_.states(); }
    /// The exact states of neurons at `time` ns, before the events of that time: shape (neurons),
    /// or (`neurons`) in their order. The hazard follows from the traces, without oscillators and
    /// prediction errors. The known times begin at the end of the last window, after a restore at
    /// the first time at which an input is accepted. They end at the start of the next window that
    /// holds an event. With a store that was given, they end at the `until` of the last run, or at
    /// an input posted since. Throws WindowEngineError during a run, InvalidMoment, which names the
    /// known times, for any other, and SynapseRoutingViolation for a neuron outside the network.
    std::vector<StateSample> statesAt(ModelTime time) { return engine_.statesAt(time); }
    std::vector<StateSample> statesAt(ModelTime time, std::span<const NodeId> neurons) {
        return engine_.statesAt(time, neurons);
    }
    /// Adds a probe. Its samples begin at position(), or at the end of the last window if that is
    /// later. A run takes all samples up to the end of its last window, also past `until`. A
    /// checkpoint holds no probe: a restore drops the samples and begins anew. The reference is
    /// valid as long as the runtime. Throws InvalidProbe, and WindowEngineError during a run.
    Probe& addProbe(ProbeConfig config);

    /// The raw state of a neuron's random stream. `neuron` must lie in the network.
    std::uint64_t spontaneousState(NodeId neuron) { return engine_.spontaneousState(neuron); }
    /// The random streams, for recording and replaying one. Valid until a restore.
    Runtime::RandomContext& randomStreams() { return engine_.randomStreams(); }
    const SynapseGraph& graph() const { return engine_.graph(); }
    SynapseGraph& graph() { return engine_.graph(); }

    /// The number of windows whose commit hook has finished.
    std::uint64_t commitCount() const { return commit_count_; }
    /// The `until` of the last finished run in ns, or the end of the last window after a report or
    /// a stop; 0 before the first run.
    ModelTime position() const { return position_; }
    /// The processes that hold the network; null for one process. See RuntimeOptions::ranks.
    IRankGroup* ranks() const { return ranks_; }
    std::uint64_t seed() const { return seed_; }
    ModelTime horizon() const { return horizon_; }
    std::uint64_t configId() const { return config_id_; }
    const std::string& label() const { return label_; }

    /// Sets the listener that each committed window calls; null for none. It must outlive the runs.
    void setCommitListener(ICommitListener* listener) { commit_listener_ = listener; }
    /// Sets the trace that records every call of inject; null for none. It must outlive the calls.
    void setInjectionTrace(InjectionTrace* trace) { injection_trace_ = trace; }

    /// The whole run state in one byte sequence; Checkpoint.h holds its grammar. It does not
    /// hold hooks, callables, or spikes that no sample has counted yet; these only if spikes were
    /// taken. Call it between runs. On several ranks, rank 0 gets the bytes that one process would
    /// write, and the others get none.
    Blob checkpoint();

    /// Replaces the run state by a checkpoint of a runtime that was built from the same arguments.
    /// The run continues as that one would. False, with nothing changed, for a checkpoint that is
    /// cut short or forged, or that was written under another label, config id, seed or set of
    /// parts. A store that the caller gave may have changed if it refuses. False on all ranks where
    /// one refuses or has other bytes. Call it between runs.
    /// Throws IncompatibleCheckpoint, with nothing changed, for another engine version.
    ///
    /// Memory: one copy of what the checkpoint holds, beside the live state.
    [[nodiscard]] bool restore(BlobView bytes);

    /// A runtime in the same state, with a backend of its own. Both continue to the same bits if
    /// the callers do the same. Callables are copied: what they refer to is shared. The fork has no
    /// commit listener, injection trace, probes, progress callback or request to stop. Call it
    /// between runs.
    /// Throws RefusedCall where the runtime was not made with a function that makes backends, and
    /// std::logic_error where a store of the caller gives a snapshot that the fork cannot read.
    std::unique_ptr<KelmRuntime> fork();
    /// The same with a given backend. Throws InvalidModel for none.
    std::unique_ptr<KelmRuntime> fork(std::unique_ptr<IWindowBackend> backend);

    /// Continues under another seed. All random streams start anew, as in a new runtime of that
    /// seed. Each neuron drops its candidate and draws the next one at earliestInput(), from its
    /// new stream. Everything else stays. So the run from here on depends on the state and the new
    /// seed alone, and two runs reseeded alike are equal. Handles of streams and their tapes are
    /// gone. A checkpoint from here on is one of the new seed: a runtime that was made with that
    /// seed accepts it. Call it between runs.
    void reseed(std::uint64_t seed);

    /// What is unusual about the model; empty unless makeRuntime made the runtime.
    std::span<const Finding> warnings() const { return warnings_; }

private:
    friend std::unique_ptr<KelmRuntime> makeRuntime(SynapseGraph network, RuntimeOptions options,
                                                    std::unique_ptr<IWindowBackend> backend);
    friend std::unique_ptr<KelmRuntime> makeRuntime(
        SynapseGraph network, RuntimeOptions options,
        std::function<std::unique_ptr<IWindowBackend>()> make_backend);
    friend KelmRuntime makeKelmRuntime(
        SynapseGraph network, const Kernel::Neuron& neuron, const Kernel::Firing& firing,
        std::uint64_t seed, ModelTime horizon, IWindowBackend* backend,
        std::unique_ptr<IEventStore> store, const PlasticityConfig& plasticity,
        std::optional<PhaseConfig> phase, std::optional<RecorderConfig> recorder,
        std::vector<InputChannelSpec> input_channels, std::optional<PredictionConfig> prediction,
        std::uint64_t config_id, std::string label);

    /// `checked`: for makeRuntime.
    KelmRuntime(SynapseGraph&& network, ParameterTable&& parameters, std::uint64_t seed,
                ModelTime horizon, IWindowBackend* backend, std::unique_ptr<IEventStore> store,
                const PlasticityConfig& plasticity, std::optional<PhaseConfig>&& phase,
                std::optional<RecorderConfig>&& recorder,
                std::vector<InputChannelSpec>&& input_channels,
                std::optional<PredictionConfig>&& prediction, std::uint64_t config_id,
                std::string&& label, bool checked, IRankGroup* ranks = nullptr);
    /// A fork.
    KelmRuntime(KelmRuntime& origin, std::unique_ptr<IWindowBackend> backend);

    void declareSamples(ModelTime interval);
    void requireUsable() const;
    void requireComplete() const;
    void requireNoRun() const;
    ModelTime reachedBy(ModelTime end) const;
    void requireRunTo(ModelTime until) const;
    void requireInputAt(ModelTime arrival) const;

    void createPlasticity();
    void createRecorder(RecorderConfig&& config);
    std::vector<SpikeRecord> uncountedSpikes(const Recorder::State& records);
    void createInputChannels(std::vector<InputChannelSpec>&& specs);
    void createPrediction(PredictionConfig&& config);
    void createOscillators(PhaseConfig&& config);
    void reseedModulated();

    void prepare(ModelTime window_start, ModelTime window_end, std::span<WindowWork> work,
                 SynapseGraph& graph) override;
    void prepareItem(WindowWork& item, InstantPhases& phases, ModelTime window_end);
    void commit(ModelTime window_start, ModelTime window_end, std::span<const SpikeRecord> spikes,
                SynapseGraph& graph) override;
    void learn(std::span<const SpikeRecord> spikes, ModelTime window_end, SynapseGraph& graph);
    void logSpikes(std::span<const SpikeRecord> spikes, const SynapseGraph& graph);
    void observe(const Event& event, std::span<const Kernel::State> states,
                 SynapseGraph& graph) override;
    void observe(const Event& event, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph& graph) override;

    std::uint64_t ownCount() const;
    Blob checkpointHere();
    bool restoreHere(BlobView bytes);
    struct State;
    [[nodiscard]] bool readState(BlobReader& in, State& state) const;
    [[nodiscard]] bool readParts(BlobReader& in, State& state) const;
    [[nodiscard]] bool readChannels(BlobReader& in, State& state) const;
    [[nodiscard]] bool readPrediction(BlobReader& in, State& state) const;
    [[nodiscard]] bool readTakenSpikes(BlobReader& in, State& state) const;
    void adopt(State&& state) noexcept;

    std::uint64_t seed_;
    ModelTime horizon_;
    std::uint64_t config_id_;
    std::string label_;
    ModelTime position_ = 0;
    ModelTime run_until_ = 0;  ///< ns; end of the last run, as its caller gave it
    RunControl control_;
    std::vector<std::unique_ptr<Probe>> probes_;
    WindowEngine engine_;
    IRankGroup* ranks_ = nullptr;
    NodeId first_neuron_ = 0;  ///< of those that this process holds
    IWindowBackend* backend_;
    // What makeRuntime adds.
    bool checked_ = false;  ///< refuses calls at the wrong time
    /// What a call may do now. `running`: inside a window, for a hook or listener. `failed`: the
    /// state may be incomplete.
    enum class Phase : std::uint8_t { ready, running, reporting, failed } phase_ = Phase::ready;
    std::unique_ptr<IWindowBackend> owned_backend_;
    std::function<std::unique_ptr<IWindowBackend>()> make_backend_;
    std::vector<Finding> warnings_;
    PlasticityConfig plasticity_config_;
    std::unique_ptr<PlasticityEngine> plasticity_;
    std::unique_ptr<LearningControl> learning_;
    Homeostasis homeostasis_;
    std::optional<OscillatorBank> oscillators_;
    // Of each neuron that this process holds, or empty.
    std::vector<PhaseModulator> phase_modulators_;
    std::vector<double> modulation_weight_sum_;  ///< at gain 1
    std::vector<PhaseLogEntry> phase_log_;
    std::unique_ptr<Recorder> recorder_;
    std::unique_ptr<InputChannelBank> input_channels_;
    std::unique_ptr<PredictionBank> prediction_;
    InterventionState interventions_;
    ICommitListener* commit_listener_ = nullptr;
    InjectionTrace* injection_trace_ = nullptr;
    std::uint64_t commit_count_ = 0;

    /// A neuron's error terms as of one version of the bank.
    struct CachedErrorTerms {
        PredictionBank::ErrorTerms terms;
        std::uint64_t version = 0;  ///< 0 for not yet computed
    };
    const PredictionBank::ErrorTerms& errorTermsOf(NodeId neuron);

    // What the hooks keep from item to item and from window to window.
    std::vector<InstantPhases> window_phases_;   ///< by thread; at the start of the window
    std::vector<CachedErrorTerms> error_terms_;  ///< as phase_modulators_
    std::vector<WeightChange> changes_;
    /// One value per neuron of each kind that a sample holds.
    struct {
        std::vector<double> membrane;
        std::vector<double> adaptation;
        std::vector<double> refractory_left;
        std::vector<double> next_candidate;
    } sampled_;
};

/// Builds a runtime in the caller's storage.
///
/// `network`: the graph, taken over. `neuron`, `firing`: the parameters of every neuron. `seed`:
/// of all random streams. `horizon`: ns. `backend`: borrowed, must outlive the runtime; run refuses
/// null. `store`: the pending events, or null for the engine's own. `plasticity`: its `enabled`
/// decides whether weights learn. `phase`: oscillators and one list of bindings per neuron.
/// `recorder`: what is recorded, with a sample each interval below the horizon. `input_channels`,
/// `prediction`: named input lines and local errors. `config_id`, `label`: name the configuration
/// in checkpoints.
///
/// Throws what WindowEngine's constructor and those of the parts throw, in the order plasticity,
/// recorder, input channels, prediction, phase. The range of a channel's targets comes before its
/// other checks. Throws InvalidRecorder for a recorder whose interval divides the horizon
/// into more than 10 million samples.
KelmRuntime makeKelmRuntime(SynapseGraph network, const Kernel::Neuron& neuron,
                            const Kernel::Firing& firing, std::uint64_t seed, ModelTime horizon,
                            IWindowBackend* backend, std::unique_ptr<IEventStore> store = nullptr,
                            const PlasticityConfig& plasticity = {},
                            std::optional<PhaseConfig> phase = std::nullopt,
                            std::optional<RecorderConfig> recorder = std::nullopt,
                            std::vector<InputChannelSpec> input_channels = {},
                            std::optional<PredictionConfig> prediction = std::nullopt,
                            std::uint64_t config_id = 0, std::string label = "unknown");

}  // namespace Lumenar::Core::Kelm
