#include "kelm/runtime/KelmRuntime.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/runtime/Checkpoint.h"
#include "kelm/runtime/RuntimeOptions.h"

namespace Lumenar::Core::Kelm {

namespace {

/// More samples than this point to a wrong unit of the interval.
constexpr ModelTime max_samples = 10'000'000;

/// The rounding by which a neuron's drive may exceed its bound, per unit of its weight sum plus
/// one.
constexpr double bound_margin = 1e-10;

/// Throws `failure`, with the target, for the first target of `item` that the network lacks.
template <class Failure>
void requireTargets(std::span<const NodeId> targets, std::uint64_t neuron_count, Failure failure,
                    const char* item, std::uint64_t index) {
    for (const NodeId target : targets) {
        if (target < neuron_count) continue;
        throw withDetail(std::move(failure), {item, index, "target", decimal(target),
                                              "below the neuron count " + decimal(neuron_count)});
    }
}

/// Adds the bindings of one neuron. A failure gets the neuron and the binding as its detail.
void addBindings(PhaseModulator& modulator, std::span<const PhaseBinding> bindings, NodeId neuron) {
    const PhaseBinding* binding = nullptr;
    const auto detail = [&](const char* field, std::string value, const char* bound) {
        const auto place = static_cast<std::uint64_t>(binding - bindings.data());
        return FailureDetail{"neuron", neuron, field + (" of binding " + decimal(place)),
                             std::move(value), bound};
    };
    try {
        for (const PhaseBinding& each : bindings) {
            binding = &each;
            modulator.addBinding(each);
        }
    } catch (InvalidOscillator& failure) {
        failure.setDetail(detail("oscillator", decimal(std::uint64_t{binding->oscillator}),
                                 "the id of an oscillator"));
        throw;
    } catch (InvalidPhaseModulation& failure) {
        const bool strength = !std::isfinite(binding->strength);
        failure.setDetail(detail(strength ? "strength" : "phase_offset",
                                 decimal(strength ? binding->strength : binding->phase_offset),
                                 "finite"));
        throw;
    }
}

}  // namespace

KelmRuntime::KelmRuntime(SynapseGraph&& network, ParameterTable&& parameters, std::uint64_t seed,
                         ModelTime horizon, IWindowBackend* backend,
                         std::unique_ptr<IEventStore> store, const PlasticityConfig& plasticity,
                         std::optional<PhaseConfig>&& phase,
                         std::optional<RecorderConfig>&& recorder,
                         std::vector<InputChannelSpec>&& input_channels,
                         std::optional<PredictionConfig>&& prediction, std::uint64_t config_id,
                         std::string&& label, bool checked, IRankGroup* ranks)
    : seed_(seed),
      horizon_(horizon),
      config_id_(config_id),
      label_(std::move(label)),
      engine_(std::move(network), std::move(parameters), seed, horizon, std::move(store), ranks),
      ranks_(ranks),
      first_neuron_(graph().share() ? graph().share()->begin : 0),
      backend_(backend),
      checked_(checked),
      plasticity_config_(plasticity) {
    if (plasticity_config_.enabled) createPlasticity();
    if (recorder) createRecorder(std::move(*recorder));
    if (!input_channels.empty()) createInputChannels(std::move(input_channels));
    if (prediction) createPrediction(std::move(*prediction));
    if (phase) createOscillators(std::move(*phase));
    const bool modulated = oscillators_ || prediction_;
    // With a prepare hook the engine fills every item anew, which costs more than the hook. So the
    // hook is set only if it changes items.
    engine_.setHooks(modulated ? this : nullptr, this, this);
    engine_.setRunControl(&control_);
    if (modulated) reseedModulated();
}

KelmRuntime makeKelmRuntime(SynapseGraph network, const Kernel::Neuron& neuron,
                            const Kernel::Firing& firing, std::uint64_t seed, ModelTime horizon,
                            IWindowBackend* backend, std::unique_ptr<IEventStore> store,
                            const PlasticityConfig& plasticity, std::optional<PhaseConfig> phase,
                            std::optional<RecorderConfig> recorder,
                            std::vector<InputChannelSpec> input_channels,
                            std::optional<PredictionConfig> prediction, std::uint64_t config_id,
                            std::string label) {
    return KelmRuntime(std::move(network), ParameterTable(network.nodeCount(), neuron, firing),
                       seed, horizon, backend, std::move(store), plasticity, std::move(phase),
                       std::move(recorder), std::move(input_channels), std::move(prediction),
                       config_id, std::move(label), false);
}

/// The number of neurons that this process holds.
std::uint64_t KelmRuntime::ownCount() const {
    const auto& share = graph().share();
    return share ? share->end - share->begin : graph().nodeCount();
}

void KelmRuntime::createPlasticity() {
    const SynapseGraph& network = graph();
    plasticity_ = std::make_unique<PlasticityEngine>(network.nodeCount(), plasticity_config_.trace,
                                                     plasticity_config_.excitatory,
                                                     plasticity_config_.inhibitory);
    learning_ = std::make_unique<LearningControl>(network.nodeCount(), network.edgeCount());
}

void KelmRuntime::createRecorder(RecorderConfig&& config) {
    const ModelTime interval = config.sample_interval;
    recorder_ = std::make_unique<Recorder>(std::move(config));
    if (interval > 0) declareSamples(interval);
}

void KelmRuntime::declareSamples(ModelTime interval) {
    Event sample;
    sample.kind = EventKind::observation;
    if (checked_) {
        sample.time = interval;
        engine_.declareObserverSeries(sample, interval);
        return;
    }
    const ModelTime samples = (horizon_ - 1) / interval;
    if (samples > max_samples) {
        throw withDetail(
            InvalidRecorder(InvalidRecorder::short_interval),
            {.field = "sample_interval",
             .value = decimal(interval) + " ns",
             .bound = "at least a ten-millionth of the horizon, " + decimal(horizon_) + " ns"});
    }
    for (ModelTime i = 1; i <= samples; ++i) {
        sample.time = i * interval;
        engine_.declareObserverEvent(sample);
    }
}

void KelmRuntime::createInputChannels(std::vector<InputChannelSpec>&& specs) {
    input_channels_ = std::make_unique<InputChannelBank>();
    for (InputChannelSpec& spec : specs) {
        requireTargets(spec.targets, graph().nodeCount(), InvalidModality(InvalidModality::target),
                       "input channel", input_channels_->size());
        input_channels_->addChannel(std::move(spec));
    }
}

void KelmRuntime::createPrediction(PredictionConfig&& config) {
    if (!config.predictors.empty() && config.predictors.size() != config.channels.size()) {
        throw withDetail(
            InvalidPrediction(InvalidPrediction::predictor_count),
            {.field = "number of predictors",
             .value = decimal(std::uint64_t{config.predictors.size()}),
             .bound = "0 or the channel count " + decimal(std::uint64_t{config.channels.size()})});
    }
    prediction_ = std::make_unique<PredictionBank>();
    error_terms_.resize(ownCount());
    for (std::size_t i = 0; i < config.channels.size(); ++i) {
        requireTargets(config.channels[i].targets, graph().nodeCount(),
                       InvalidPrediction(InvalidPrediction::target), "error channel", i);
        const std::size_t channel = prediction_->addErrorChannel(std::move(config.channels[i]));
        if (config.predictors.empty() || !config.predictors[i]) continue;
        prediction_->setPredictor(channel, std::move(*config.predictors[i]));
    }
}

void KelmRuntime::createOscillators(PhaseConfig&& config) {
    if (config.bindings.size() != graph().nodeCount()) {
        throw withDetail(InvalidPhaseModulation(InvalidPhaseModulation::binding_count),
                         {.field = "number of binding lists",
                          .value = decimal(std::uint64_t{config.bindings.size()}),
                          .bound = "the graph's neuron count " + decimal(graph().nodeCount())});
    }
    oscillators_.emplace(std::move(config.oscillators));
    if (!config.couplings.empty()) {
        oscillators_->configureCoupling(std::move(config.couplings), config.coupling_period);
    }
    // A modulator refers to the bank by address and position, so a restore leaves it as it is.
    phase_modulators_.reserve(ownCount());
    modulation_weight_sum_.reserve(ownCount());
    for (NodeId n = first_neuron_; n < first_neuron_ + ownCount(); ++n) {
        PhaseModulator& modulator = phase_modulators_.emplace_back(*oscillators_);
        addBindings(modulator, config.bindings[n], n);
        modulation_weight_sum_.push_back(modulator.weightSum());
    }
    if (plasticity_) plasticity_->setBank(&*oscillators_);
}

/// Draws the first candidates again, under bounds that cover all modulation. The engine's
/// construction draws them without modulation.
void KelmRuntime::reseedModulated() {
    std::vector<double> bounds(graph().nodeCount(), 0.0);
    for (NodeId n = first_neuron_; n < first_neuron_ + ownCount(); ++n) {
        if (oscillators_) bounds[n] += modulation_weight_sum_[n - first_neuron_];
        if (prediction_) bounds[n] += prediction_->errorBound(n);
    }
    engine_.reseedInitialCandidates(bounds);
}

void KelmRuntime::run() {
    if (checked_ && horizon_ == open_horizon) throw RefusedCall(RefusedCall::open_end);
    run(horizon_);
}

void KelmRuntime::run(ModelTime until) {
    requireNoRun();
    onEachRank(ranks_, [&] { requireRunTo(until); });
    if (backend_ == nullptr) throw std::invalid_argument("a runtime needs a backend");
    run_until_ = until;
    const std::uint64_t windows = engine_.profile().windows;
    phase_ = Phase::running;
    try {
        engine_.run(*backend_, until);
    } catch (...) {
        phase_ = engine_.isInWindow() ? Phase::failed : Phase::ready;
        // On several ranks, only those with a callback know the position of a report.
        if (phase_ == Phase::ready && engine_.profile().windows != windows) {
            position_ = reachedBy(engine_.processedUntil());
        }
        throw;
    }
    phase_ = Phase::ready;
    if (!engine_.stopped()) {
        position_ = until;
    } else if (engine_.profile().windows != windows) {
        position_ = reachedBy(engine_.processedUntil());
    }
}

/// The position of a run whose last window ends at `end` ns, which may lie behind the end of the
/// run.
ModelTime KelmRuntime::reachedBy(ModelTime end) const {
    return std::max(position_, std::min(end, run_until_));
}

void KelmRuntime::setProgress(std::function<void(const RunProgress&)> callback,
                              std::chrono::nanoseconds interval) {
    requireNoRun();
    if (callback == nullptr) return control_.setCallback(nullptr, 0);
    control_.setCallback(
        [this, report = std::move(callback)](const RunProgress& progress) {
            position_ = reachedBy(progress.position);
            phase_ = Phase::reporting;
            report(progress);
            phase_ = Phase::running;
        },
        interval.count());
}

void KelmRuntime::runFor(ModelTime duration) { run(addTime(position_, duration)); }

ModelTime KelmRuntime::earliestInput() const { return std::max(position_, engine_.openFrom()); }

void KelmRuntime::requireUsable() const {
    if (checked_ && phase_ == Phase::failed) throw RefusedCall(RefusedCall::after_failure);
}

void KelmRuntime::requireComplete() const {
    requireUsable();
    if (checked_ && phase_ == Phase::running) throw RefusedCall(RefusedCall::inside_window);
}

void KelmRuntime::requireNoRun() const {
    requireComplete();
    if (checked_ && phase_ == Phase::reporting) throw RefusedCall(RefusedCall::inside_run);
}

void KelmRuntime::requireRunTo(ModelTime until) const {
    if (!checked_) return;
    if (until < position_) throw RefusedCall(RefusedCall::backwards(until, position_));
    if (until > horizon_) throw RefusedCall(RefusedCall::pastHorizon(until, horizon_));
}

void KelmRuntime::requireInputAt(ModelTime arrival) const {
    requireUsable();
    if (checked_ && arrival < earliestInput()) {
        throw RefusedCall(RefusedCall::tooEarly(arrival, earliestInput()));
    }
}

Probe& KelmRuntime::addProbe(ProbeConfig config) {
    auto probe = std::make_unique<Probe>(std::move(config), graph().nodeCount(),
                                         std::max(position_, engine_.processedUntil()));
    probes_.reserve(probes_.size() + 1);
    engine_.addSampler(*probe);
    return *probes_.emplace_back(std::move(probe));
}

std::vector<std::uint64_t> KelmRuntime::inject(const std::string& name, ModelTime time,
                                               double value) {
    if (!input_channels_) throw InvalidModality(InvalidModality::no_channels);
    if (checked_) {
        const InputChannelSpec& channel = input_channels_->spec(input_channels_->indexOf(name));
        requireInputAt(addTime(time, channel.delay));
    }
    if (injection_trace_ != nullptr) injection_trace_->record(name, time, value);
    return input_channels_->inject(name, time, value, engine_);
}

std::vector<std::uint64_t> KelmRuntime::perturb(const Perturbation& perturbation) {
    requireInputAt(perturbation.time);
    return postPerturbation(perturbation, graph().nodeCount(), engine_);
}

void KelmRuntime::prepare(ModelTime window_start, ModelTime window_end, std::span<WindowWork> work,
                          SynapseGraph&) {
    if (oscillators_) oscillators_->advanceCoupling(window_start);
    const WorkParts parts(backend_->team());
    const std::size_t count = parts.countFor(work.size());
    if (window_phases_.size() < count) window_phases_.resize(count);
    parts.runRanges(count, work.size(), [&](std::size_t part, std::size_t first, std::size_t end) {
        InstantPhases& phases = window_phases_[part];
        if (oscillators_) phases.moveTo(*oscillators_, window_start);
        for (WindowWork& item : work.subspan(first, end - first)) {
            prepareItem(item, phases, window_end);
        }
    });
}

void KelmRuntime::prepareItem(WindowWork& item, InstantPhases& phases, ModelTime window_end) {
    const NodeId n = item.neuron;
    if (oscillators_) {
        const std::size_t place = n - first_neuron_;
        PhaseModulator& modulator = phase_modulators_[place];
        modulator.setGain(interventions_.mechanism_gain[InterventionState::oscillators]);
        const double bound = modulator.intervalBound(phases, window_end);
        item.drive = modulator.kernelDrive(
            phases, (modulation_weight_sum_[place] + 1.0) * bound_margin + bound);
    }
    if (prediction_) {
        const double error_gain = interventions_.mechanism_gain[InterventionState::prediction];
        const PredictionBank::ErrorTerms& error = errorTermsOf(n);
        item.drive.base += error.drive * error_gain;
        item.drive.bound += error.bound * error_gain;
    }
}

/// A neuron's error terms change only with a report, so most windows reuse them.
const PredictionBank::ErrorTerms& KelmRuntime::errorTermsOf(NodeId neuron) {
    CachedErrorTerms& cached = error_terms_[neuron - first_neuron_];
    if (cached.version != prediction_->version()) {
        cached = {prediction_->errorTerms(neuron), prediction_->version()};
    }
    return cached.terms;
}

void KelmRuntime::commit(ModelTime window_start, ModelTime window_end,
                         std::span<const SpikeRecord> spikes, SynapseGraph& graph) {
    if (plasticity_ && !interventions_.mechanism_off[InterventionState::plasticity]) {
        learn(spikes, window_end, graph);
    }
    logSpikes(spikes, graph);
    if (commit_listener_ != nullptr) {
        commit_listener_->committed(window_start, window_end, spikes);
    }
    ++commit_count_;
}

void KelmRuntime::learn(std::span<const SpikeRecord> spikes, ModelTime window_end,
                        SynapseGraph& graph) {
    for (const SpikeRecord& spike : spikes) plasticity_->recordSpike(spike.neuron, spike.time);
    const WorkParts parts(backend_->team());
    plasticity_->takeChanges(graph, changes_, parts);
    const double gain = interventions_.mechanism_gain[InterventionState::plasticity];
    const std::size_t count = parts.countFor(changes_.size());
    parts.runRanges(count, changes_.size(), [&](std::size_t, std::size_t i, std::size_t end) {
        for (; i < end; ++i) changes_[i].delta *= gain;
    });
    learning_->applyChanges(graph, changes_, window_end, parts);
    homeostasis_.apply(graph, plasticity_config_.homeostasis, parts);
}

void KelmRuntime::logSpikes(std::span<const SpikeRecord> spikes, const SynapseGraph& graph) {
    if (oscillators_) {
        for (const SpikeRecord& spike : spikes) {
            phase_log_.push_back(
                {spike.time, spike.neuron, oscillators_->neuronPhases(spike.neuron, spike.time)});
        }
    }
    if (!recorder_) return;
    SampleContext context;
    context.oscillators = oscillators();
    context.active_synapses = graph.networkRoutedCount();
    for (const SpikeRecord& spike : spikes) {
        recorder_->recordSpikeEvent(spike.neuron, spike.time, Cause(), 0, context);
    }
}

void KelmRuntime::observe(const Event& event, std::span<const Kernel::State> states,
                          SynapseGraph& graph) {
    observe(event, states, {}, graph);
}

void KelmRuntime::observe(const Event& event, std::span<const Kernel::State> states,
                          std::span<const ModelTime> candidate_times, SynapseGraph& graph) {
    if (!recorder_) return;
    // One value per neuron if the kind is selected, else none.
    const auto sampled = [&](SampleKind kind, std::vector<double>& values, auto value_of) {
        values.clear();
        if (!recorder_->selects(kind)) return std::span<const double>();
        for (NodeId n = 0; n < states.size(); ++n) values.push_back(value_of(n));
        return std::span<const double>(values);
    };
    SampleContext context;
    context.membrane = sampled(SampleKind::membrane, sampled_.membrane,
                               [&](NodeId n) { return states[n].membrane; });
    context.adaptation = sampled(SampleKind::adaptation, sampled_.adaptation,
                                 [&](NodeId n) { return states[n].adaptation; });
    context.refractory_left =
        sampled(SampleKind::refractory_left, sampled_.refractory_left, [&](NodeId n) {
            const ModelTime end = states[n].refractory_until;
            if (end <= event.time) return 0.0;
            // Unsigned: a restored run may hold times whose difference exceeds ModelTime.
            return static_cast<double>(static_cast<std::uint64_t>(end) -
                                       static_cast<std::uint64_t>(event.time));
        });
    context.next_candidate =
        sampled(SampleKind::next_candidate, sampled_.next_candidate, [&](NodeId n) {
            return n < candidate_times.size() ? static_cast<double>(candidate_times[n]) : -1.0;
        });
    context.oscillators = oscillators();
    context.active_synapses = graph.networkRoutedCount();
    context.neuron_count = states.size();
    recorder_->recordObservation(event, context, Cause());
}

Blob KelmRuntime::checkpoint() {
    requireComplete();
    return onEachRank(ranks_, [&] { return checkpointHere(); });
}

Blob KelmRuntime::checkpointHere() {
    Blob blob;
    const Blob engine = engine_.snapshot();
    if (ranks_ != nullptr && ranks_->rank() != 0) return blob;
    Checkpoint::appendHead(blob, engine_version, {label_, config_id_, seed_, position_});
    appendNested(blob, engine);
    appendNested(blob, plasticity_ ? plasticity_->snapshot() : Blob());
    appendNested(blob, learning_ ? learning_->snapshot() : Blob());
    appendNested(blob, oscillators_ ? oscillators_->snapshot() : Blob());
    Checkpoint::appendPhaseLog(blob, phase_log_);
    const std::span<const RecordedSample> samples =
        recorder_ ? recorder_->samples() : std::span<const RecordedSample>();
    Checkpoint::appendSpikes(blob,
                             recorder_ ? recorder_->spikes() : std::span<const RecordedSpike>());
    Checkpoint::appendSamples(blob, samples);
    Checkpoint::appendCauses(blob, recorder_ ? recorder_->causes() : std::vector<CauseEntry>());

    const std::size_t channels = input_channels_ ? input_channels_->size() : 0;
    appendU64(blob, channels);
    for (std::size_t i = 0; i < channels; ++i) {
        appendF64(blob, input_channels_->spec(i).gain);
        appendFlag(blob, input_channels_->isConnected(i));
        appendImage(blob, input_channels_->stats(i));
    }
    appendU64(blob, prediction_ ? prediction_->channels().size() : 0);
    if (prediction_) {
        for (const ErrorChannel& c : prediction_->channels()) appendF64(blob, c.precision);
        appendSequence(blob, prediction_->observations());
        appendF64(blob, prediction_->reservedA());
        appendF64(blob, prediction_->reservedB());
    }
    Checkpoint::appendInterventions(blob, interventions_);
    appendU64(blob, commit_count_);
    Checkpoint::appendSampleExtension(blob, samples);
    std::vector<SpikeRecord> uncounted;
    if (recorder_) uncounted.assign(recorder_->uncounted().begin(), recorder_->uncounted().end());
    std::sort(uncounted.begin(), uncounted.end(), SpikeRecordLess());
    Checkpoint::appendTakenSpikes(blob, engine_.taken(), uncounted);
    return blob;
}

/// What a checkpoint holds, checked but not yet adopted.
struct KelmRuntime::State {
    ModelTime position = 0;
    BlobView engine;
    std::optional<PlasticityEngine::State> plasticity;
    std::optional<LearningControl::State> learning;
    std::optional<OscillatorBank::State> oscillators;
    std::vector<PhaseLogEntry> phase_log;
    Recorder::State records;
    std::vector<InputChannelBank::ChannelState> channels;
    PredictionBank::State prediction;
    InterventionState interventions;
    std::uint64_t commit_count = 0;
    TakenSpikes taken;
    std::vector<SpikeRecord> uncounted;  ///< only beside taken spikes
};

/// Reads and checks everything first. The engine is the last that can refuse or run out of memory.
bool KelmRuntime::restore(BlobView bytes) {
    requireNoRun();
    const bool restored = onEachRank(ranks_, [&] { return restoreHere(bytes); });
    if (restored) phase_ = Phase::ready;
    return restored;
}

bool KelmRuntime::restoreHere(BlobView bytes) {
    BlobReader in(bytes);
    Checkpoint::Head head;
    State state;
    bool accepts = Checkpoint::readHead(in, engine_version, head) && head.config_id == config_id_ &&
                   head.seed == seed_ && head.label == label_;
    state.position = head.position;
    accepts = accepts && readState(in, state);
    // Each rank may have read a file of its own.
    if (ranks_ != nullptr && (!ranks_->allHave(bytes) || !ranks_->all(accepts))) return false;
    if (!accepts || !engine_.restore(state.engine, state.taken)) return false;
    phase_ = Phase::failed;  // if memory runs out, here or on another rank
    std::vector<SpikeRecord> uncounted = std::move(state.uncounted);
    const bool has_taken = state.taken.count != 0;
    if (checked_ && recorder_ && !has_taken) uncounted = uncountedSpikes(state.records);
    adopt(std::move(state));
    if (recorder_ && (checked_ || has_taken)) recorder_->setUncounted(std::move(uncounted));
    for (const auto& probe : probes_) {
        probe->restart(std::max(position_, engine_.processedUntil()));
    }
    engine_.rescheduleSamplers();
    return true;
}

/// The spikes of a restored engine that no sample has counted. A checkpoint holds them only if
/// spikes were taken.
std::vector<SpikeRecord> KelmRuntime::uncountedSpikes(const Recorder::State& records) {
    std::vector<SpikeRecord> uncounted;
    if (!recorder_->selects(SampleKind::spike_counts)) return uncounted;
    const ModelTime counted = records.samples.empty() ? -1 : records.samples.back().time;
    for (const SpikeRecord& spike : engine_.networkLog()) {
        if (spike.time > counted) uncounted.push_back(spike);
    }
    return uncounted;
}

KelmRuntime::KelmRuntime(KelmRuntime& origin, std::unique_ptr<IWindowBackend> backend)
    : seed_(origin.seed_),
      horizon_(origin.horizon_),
      config_id_(origin.config_id_),
      label_(origin.label_),
      position_(origin.position_),
      engine_(SynapseGraph(origin.graph()), origin.engine_.parameters(), seed_, horizon_),
      backend_(backend.get()),
      checked_(origin.checked_),
      owned_backend_(std::move(backend)),
      make_backend_(origin.make_backend_),
      warnings_(origin.warnings_),
      plasticity_config_(origin.plasticity_config_),
      oscillators_(origin.oscillators_),
      phase_modulators_(origin.phase_modulators_),
      modulation_weight_sum_(origin.modulation_weight_sum_),
      phase_log_(origin.phase_log_),
      interventions_(origin.interventions_),
      commit_count_(origin.commit_count_),
      error_terms_(origin.error_terms_) {
    const auto copy = [](const auto& from, auto& to) {
        using Part = std::decay_t<decltype(*from)>;
        if (from) to = std::make_unique<Part>(*from);
    };
    copy(origin.plasticity_, plasticity_);
    copy(origin.learning_, learning_);
    copy(origin.recorder_, recorder_);
    copy(origin.input_channels_, input_channels_);
    copy(origin.prediction_, prediction_);
    if (oscillators_) {
        for (PhaseModulator& modulator : phase_modulators_) modulator.moveTo(*oscillators_);
        if (plasticity_) plasticity_->setBank(&*oscillators_);
    }
    if (recorder_ && recorder_->config().sample_interval > 0 && checked_) {
        declareSamples(recorder_->config().sample_interval);
    }
    engine_.setHooks(oscillators_ || prediction_ ? this : nullptr, this, this);
    engine_.setRunControl(&control_);
    engine_.giveSpikes(std::vector<SpikeRecord>(origin.engine_.givenSpikes().begin(),
                                                origin.engine_.givenSpikes().end()));
    if (!engine_.restore(origin.engine_.snapshot(), origin.engine_.taken())) {
        throw std::logic_error("the engine of a fork refuses the snapshot of its origin");
    }
}

std::unique_ptr<KelmRuntime> KelmRuntime::fork() {
    requireComplete();
    if (ranks_ != nullptr) throw RefusedCall(RefusedCall::fork_on_ranks);
    if (!make_backend_) throw RefusedCall(RefusedCall::fork_backend);
    return fork(make_backend_());
}

std::unique_ptr<KelmRuntime> KelmRuntime::fork(std::unique_ptr<IWindowBackend> backend) {
    requireComplete();
    if (ranks_ != nullptr) throw RefusedCall(RefusedCall::fork_on_ranks);
    if (backend == nullptr) throw InvalidModel(InvalidModel::no_backend);
    return std::unique_ptr<KelmRuntime>(new KelmRuntime(*this, std::move(backend)));
}

void KelmRuntime::reseed(std::uint64_t seed) {
    requireNoRun();
    phase_ = Phase::failed;  // if the next call throws
    engine_.reseed(seed, earliestInput());
    phase_ = Phase::ready;
    seed_ = seed;
}

bool KelmRuntime::readState(BlobReader& in, State& state) const {
    Recorder::State& records = state.records;
    if (!readParts(in, state) || !Checkpoint::readPhaseLog(in, state.phase_log) ||
        !Checkpoint::readSpikes(in, records.spikes) ||
        !Checkpoint::readSamples(in, records.samples) ||
        !Checkpoint::readCauses(in, records.causes)) {
        return false;
    }
    const bool has_records =
        !records.spikes.empty() || !records.samples.empty() || !records.causes.empty();
    if (has_records && !recorder_) return false;
    return readChannels(in, state) && readPrediction(in, state) &&
           Checkpoint::readInterventions(in, state.interventions) &&
           in.readU64(state.commit_count) &&
           (in.atEnd() || Checkpoint::readSampleExtension(in, records.samples)) &&
           (in.atEnd() || readTakenSpikes(in, state)) && in.atEnd();
}

bool KelmRuntime::readTakenSpikes(BlobReader& in, State& state) const {
    if (!Checkpoint::readTakenSpikes(in, state.taken, state.uncounted)) return false;
    const auto is_known = [&](const SpikeRecord& spike) {
        return spike.neuron < graph().nodeCount();
    };
    const bool counts = recorder_ && recorder_->selects(SampleKind::spike_counts);
    return (counts || state.uncounted.empty()) &&
           std::all_of(state.uncounted.begin(), state.uncounted.end(), is_known);
}

/// The nested blobs. Each is empty exactly if the runtime lacks the part.
bool KelmRuntime::readParts(BlobReader& in, State& state) const {
    BlobView plasticity;
    BlobView learning;
    BlobView oscillators;
    if (!in.readNested(state.engine) || !in.readNested(plasticity) || !in.readNested(learning) ||
        !in.readNested(oscillators)) {
        return false;
    }
    if (plasticity.empty() == (plasticity_ != nullptr) ||
        learning.empty() == (learning_ != nullptr) ||
        oscillators.empty() == oscillators_.has_value()) {
        return false;
    }
    if (plasticity_) state.plasticity = plasticity_->read(plasticity);
    if (learning_) state.learning = learning_->read(learning);
    if (oscillators_) state.oscillators = oscillators_->read(oscillators);
    return state.plasticity.has_value() == (plasticity_ != nullptr) &&
           state.learning.has_value() == (learning_ != nullptr) &&
           state.oscillators.has_value() == oscillators_.has_value();
}

bool KelmRuntime::readChannels(BlobReader& in, State& state) const {
    std::uint64_t count = 0;
    if (!in.readU64(count) || count != (input_channels_ ? input_channels_->size() : 0)) {
        return false;
    }
    state.channels.resize(count);
    for (InputChannelBank::ChannelState& channel : state.channels) {
        std::uint8_t connected = 0;
        if (!in.readF64(channel.gain) || !in.readU8(connected) || !in.readImage(channel.stats)) {
            return false;
        }
        if (!std::isfinite(channel.gain)) return false;
        channel.connected = connected != 0;
    }
    return true;
}

bool KelmRuntime::readPrediction(BlobReader& in, State& state) const {
    std::uint64_t count = 0;
    if (!in.readU64(count) || count != (prediction_ ? prediction_->channels().size() : 0)) {
        return false;
    }
    // The file has no flag for these fields: the configuration decides whether they are there.
    if (!prediction_) return true;
    PredictionBank::State& prediction = state.prediction;
    return in.readImages(count, prediction.precisions) &&
           in.readSequence(prediction.observations) && in.readF64(prediction.reserved_a) &&
           in.readF64(prediction.reserved_b) && prediction_->accepts(prediction);
}

/// The parts keep their addresses, because callers hold pointers to them.
void KelmRuntime::adopt(State&& state) noexcept {
    if (plasticity_) plasticity_->adopt(std::move(*state.plasticity));
    if (learning_) learning_->adopt(std::move(*state.learning));
    if (oscillators_) oscillators_->adopt(std::move(*state.oscillators));
    if (prediction_) prediction_->adopt(std::move(state.prediction));
    if (input_channels_) input_channels_->adopt(state.channels);
    if (recorder_) recorder_->adopt(std::move(state.records));
    interventions_ = std::move(state.interventions);
    phase_log_ = std::move(state.phase_log);
    position_ = state.position;
    commit_count_ = state.commit_count;
}

}  // namespace Lumenar::Core::Kelm
