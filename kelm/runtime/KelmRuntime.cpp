#include "kelm/runtime/KelmRuntime.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/runtime/Checkpoint.h"

namespace Lumenar::Core::Kelm {

namespace {

/// More samples than this point to a wrong unit of the interval.
constexpr ModelTime max_samples = 10'000'000;

/// The rounding by which a neuron's drive may exceed its bound, per unit of its weight sum plus
/// one.
constexpr double bound_margin = 1e-10;

bool allBelow(std::span<const NodeId> targets, std::uint64_t neuron_count) {
    return std::all_of(targets.begin(), targets.end(),
                       [neuron_count](NodeId target) { return target < neuron_count; });
}

}  // namespace

KelmRuntime::KelmRuntime(SynapseGraph&& network, const Kernel::Neuron& neuron,
                         const Kernel::Firing& firing, std::uint64_t seed, ModelTime horizon,
                         IWindowBackend* backend, std::unique_ptr<IEventStore> store,
                         const PlasticityConfig& plasticity, std::optional<PhaseConfig>&& phase,
                         std::optional<RecorderConfig>&& recorder,
                         std::vector<InputChannelSpec>&& input_channels,
                         std::optional<PredictionConfig>&& prediction, std::uint64_t config_id,
                         std::string&& label)
    : seed_(seed),
      horizon_(horizon),
      config_id_(config_id),
      label_(std::move(label)),
      engine_(std::move(network), neuron, firing, seed, horizon, std::move(store)),
      backend_(backend),
      plasticity_config_(plasticity),
      phase_config_(std::move(phase)) {
    if (plasticity_config_.enabled) createPlasticity();
    if (recorder) createRecorder(std::move(*recorder));
    if (!input_channels.empty()) createInputChannels(std::move(input_channels));
    if (prediction) createPrediction(std::move(*prediction));
    if (phase_config_) createOscillators();
    const bool modulated = oscillators_ || prediction_;
    // An engine with a prepare hook fills every item anew, which costs more than the hook: one that
    // would leave the items alone is not set.
    engine_.setHooks(modulated ? this : nullptr, this, this);
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
    return KelmRuntime(std::move(network), neuron, firing, seed, horizon, backend, std::move(store),
                       plasticity, std::move(phase), std::move(recorder), std::move(input_channels),
                       std::move(prediction), config_id, std::move(label));
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
    if (interval <= 0) return;
    const ModelTime samples = (horizon_ - 1) / interval;
    if (samples > max_samples) {
        throw std::invalid_argument("recorder sample interval is too short for the horizon");
    }
    Event sample;
    sample.kind = EventKind::observation;
    for (ModelTime i = 1; i <= samples; ++i) {
        sample.time = i * interval;
        engine_.declareObserverEvent(sample);
    }
}

void KelmRuntime::createInputChannels(std::vector<InputChannelSpec>&& specs) {
    input_channels_ = std::make_unique<InputChannelBank>();
    for (InputChannelSpec& spec : specs) {
        if (!allBelow(spec.targets, graph().nodeCount())) {
            throw InvalidModality(InvalidModality::target);
        }
        input_channels_->addChannel(std::move(spec));
    }
}

void KelmRuntime::createPrediction(PredictionConfig&& config) {
    if (!config.predictors.empty() && config.predictors.size() != config.channels.size()) {
        throw InvalidPrediction(InvalidPrediction::predictor_count);
    }
    prediction_ = std::make_unique<PredictionBank>();
    error_terms_.resize(graph().nodeCount());
    for (std::size_t i = 0; i < config.channels.size(); ++i) {
        if (!allBelow(config.channels[i].targets, graph().nodeCount())) {
            throw InvalidPrediction(InvalidPrediction::target);
        }
        const std::size_t channel = prediction_->addErrorChannel(std::move(config.channels[i]));
        if (config.predictors.empty() || !config.predictors[i]) continue;
        prediction_->setPredictor(channel, std::move(*config.predictors[i]));
    }
}

void KelmRuntime::createOscillators() {
    if (phase_config_->bindings.size() != graph().nodeCount()) {
        throw InvalidPhaseModulation(InvalidPhaseModulation::binding_count);
    }
    oscillators_.emplace(phase_config_->oscillators);
    if (!phase_config_->couplings.empty()) {
        oscillators_->configureCoupling(phase_config_->couplings, phase_config_->coupling_period);
    }
    putInForce(makeModulators());
}

/// The modulators on the bank as it stands, at construction or after a restore.
KelmRuntime::Modulators KelmRuntime::makeModulators() const {
    Modulators made;
    if (!phase_config_) return made;
    if (!oscillators_) throw InvalidPhaseModulation(InvalidPhaseModulation::lost_oscillators);
    for (const std::vector<PhaseBinding>& bindings : phase_config_->bindings) {
        PhaseModulator modulator(*oscillators_);
        for (const PhaseBinding& binding : bindings) modulator.addBinding(binding);
        made.weight_sums.push_back(modulator.weightSum());
        made.modulators.push_back(std::move(modulator));
    }
    return made;
}

void KelmRuntime::putInForce(Modulators&& made) noexcept {
    phase_modulators_ = std::move(made.modulators);
    modulation_weight_sum_ = std::move(made.weight_sums);
    if (plasticity_ && oscillators_) plasticity_->setBank(&*oscillators_);
}

/// Draws the first candidates anew under bounds that cover whatever modulation can come; the draws
/// of the engine's construction knew of none.
void KelmRuntime::reseedModulated() {
    std::vector<double> bounds(graph().nodeCount(), 0.0);
    for (NodeId n = 0; n < bounds.size(); ++n) {
        if (oscillators_) bounds[n] += modulation_weight_sum_[n];
        if (prediction_) bounds[n] += prediction_->errorBound(n);
    }
    engine_.reseedInitialCandidates(bounds);
}

void KelmRuntime::run() { run(horizon_); }

void KelmRuntime::run(ModelTime until) {
    if (backend_ == nullptr) throw std::invalid_argument("a runtime needs a backend");
    engine_.run(*backend_, until);
    position_ = until;
}

std::vector<std::uint64_t> KelmRuntime::inject(const std::string& name, ModelTime time,
                                               double value) {
    if (!input_channels_) throw InvalidModality(InvalidModality::no_channels);
    if (injection_trace_ != nullptr) injection_trace_->record(name, time, value);
    return input_channels_->inject(name, time, value, engine_);
}

std::vector<std::uint64_t> KelmRuntime::perturb(const Perturbation& perturbation) {
    return postPerturbation(perturbation, graph().nodeCount(), engine_);
}

void KelmRuntime::prepare(ModelTime window_start, ModelTime window_end, std::span<WindowWork> work,
                          SynapseGraph&) {
    if (oscillators_) {
        oscillators_->advanceCoupling(window_start);
        window_phases_.moveTo(*oscillators_, window_start);
    }
    const double phase_gain = interventions_.mechanism_gain[InterventionState::oscillators];
    const double error_gain = interventions_.mechanism_gain[InterventionState::prediction];
    for (WindowWork& item : work) {
        const NodeId n = item.neuron;
        if (oscillators_) {
            PhaseModulator& modulator = phase_modulators_[n];
            modulator.setGain(phase_gain);
            const double bound = modulator.intervalBound(window_phases_, window_end);
            item.drive = modulator.kernelDrive(
                window_phases_, (modulation_weight_sum_[n] + 1.0) * bound_margin + bound);
        }
        if (prediction_) {
            const PredictionBank::ErrorTerms& error = errorTermsOf(n);
            item.drive.base += error.drive * error_gain;
            item.drive.bound += error.bound * error_gain;
        }
    }
}

/// A neuron's error terms change only with a report, so most windows reuse them.
const PredictionBank::ErrorTerms& KelmRuntime::errorTermsOf(NodeId neuron) {
    CachedErrorTerms& cached = error_terms_[neuron];
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
    plasticity_->takeChanges(graph, changes_);
    const double gain = interventions_.mechanism_gain[InterventionState::plasticity];
    for (WeightChange& change : changes_) change.delta *= gain;
    learning_->applyChanges(graph, changes_, window_end);
    homeostasis_.apply(graph, plasticity_config_.homeostasis);
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
    context.active_synapses = graph.routedCount();
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
    // A view of one value per neuron where the kind is selected, else of none.
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
            // Unsigned: of two times of a restored run the difference may leave ModelTime.
            return static_cast<double>(static_cast<std::uint64_t>(end) -
                                       static_cast<std::uint64_t>(event.time));
        });
    context.next_candidate = sampled(SampleKind::next_candidate, sampled_.next_candidate, [&](NodeId n) {
        return n < candidate_times.size() ? static_cast<double>(candidate_times[n]) : -1.0;
    });
    context.oscillators = oscillators();
    context.active_synapses = graph.routedCount();
    context.neuron_count = states.size();
    recorder_->recordObservation(event, context, Cause());
}

Blob KelmRuntime::checkpoint() {
    Blob blob;
    Checkpoint::appendHead(blob, engine_version, {label_, config_id_, seed_, position_});
    appendNested(blob, engine_.snapshot());
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
    return blob;
}

/// A checkpoint's content, before any of it is in force.
struct KelmRuntime::StoredState {
    ModelTime position = 0;
    BlobView engine;
    BlobView plasticity;
    BlobView learning;
    BlobView oscillators;
    std::vector<PhaseLogEntry> phase_log;
    std::vector<RecordedSpike> spikes;
    std::vector<RecordedSample> samples;
    std::vector<CauseEntry> causes;
    std::vector<InputChannelBank::ChannelState> channels;
    PredictionBank::State prediction;
    InterventionState interventions;
    std::uint64_t commit_count = 0;
};

bool KelmRuntime::restore(BlobView bytes) {
    BlobReader in(bytes);
    Checkpoint::Head head;
    if (!Checkpoint::readHead(in, engine_version, head)) return false;
    if (head.config_id != config_id_ || head.seed != seed_ || head.label != label_) return false;
    StoredState state;
    state.position = head.position;
    return readState(in, state) && restoreParts(state);
}

/// Reads the rest of a checkpoint and holds it against the parts that this runtime has.
bool KelmRuntime::readState(BlobReader& in, StoredState& state) const {
    if (!in.readNested(state.engine) || !in.readNested(state.plasticity) ||
        !in.readNested(state.learning) || !in.readNested(state.oscillators)) {
        return false;
    }
    if (state.plasticity.empty() == (plasticity_ != nullptr) ||
        state.learning.empty() == (learning_ != nullptr) ||
        state.oscillators.empty() == oscillators_.has_value()) {
        return false;
    }
    if (!Checkpoint::readPhaseLog(in, state.phase_log) ||
        !Checkpoint::readSpikes(in, state.spikes) || !Checkpoint::readSamples(in, state.samples) ||
        !Checkpoint::readCauses(in, state.causes)) {
        return false;
    }
    const bool has_records =
        !state.spikes.empty() || !state.samples.empty() || !state.causes.empty();
    if (has_records && !recorder_) return false;
    return readChannels(in, state) && readPrediction(in, state) &&
           Checkpoint::readInterventions(in, state.interventions) &&
           in.readU64(state.commit_count) &&
           (in.atEnd() || Checkpoint::readSampleExtension(in, state.samples)) && in.atEnd();
}

bool KelmRuntime::readChannels(BlobReader& in, StoredState& state) const {
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
        channel.connected = connected != 0;
    }
    return true;
}

bool KelmRuntime::readPrediction(BlobReader& in, StoredState& state) const {
    std::uint64_t count = 0;
    if (!in.readU64(count) || count != (prediction_ ? prediction_->channels().size() : 0)) {
        return false;
    }
    // The file has no flag for these: whether they are there is a matter of the configuration.
    if (!prediction_) return true;
    PredictionBank::State& prediction = state.prediction;
    return in.readImages(count, prediction.precisions) &&
           in.readSequence(prediction.observations) && in.readF64(prediction.reserved_a) &&
           in.readF64(prediction.reserved_b) && prediction_->accepts(prediction);
}

/// Puts what was read in force. Each part takes it up in a twin first and the engine comes last of
/// all that can refuse or run out of memory, so that nothing has changed where one does.
bool KelmRuntime::restoreParts(StoredState& state) {
    std::optional<PlasticityEngine> plasticity;
    if (plasticity_) {
        plasticity.emplace(graph().nodeCount(), plasticity_config_.trace,
                           plasticity_config_.excitatory, plasticity_config_.inhibitory);
        if (!plasticity->restore(state.plasticity)) return false;
    }
    std::optional<LearningControl> learning;
    if (learning_) {
        learning.emplace(graph().nodeCount(), learning_->synapseStates().size());
        if (!learning->restore(state.learning)) return false;
    }
    std::optional<OscillatorBank> oscillators = oscillators_;
    if (oscillators && !oscillators->restore(state.oscillators)) return false;
    for (const InputChannelBank::ChannelState& channel : state.channels) {
        if (!std::isfinite(channel.gain)) return false;
    }
    Recorder::CauseMap causes = Recorder::causeMapOf(state.causes);
    Modulators modulators = makeModulators();
    if (!engine_.restore(state.engine)) return false;

    // Into the parts where they stand: they have been handed out.
    if (plasticity) plasticity_->swapState(*plasticity);
    if (learning) learning_->swapState(*learning);
    if (oscillators) *oscillators_ = std::move(*oscillators);
    if (prediction_) prediction_->adopt(std::move(state.prediction));
    if (input_channels_) input_channels_->adopt(state.channels);
    if (recorder_) {
        recorder_->restoreState(std::move(state.spikes), std::move(state.samples),
                                std::move(causes));
    }
    interventions_ = std::move(state.interventions);
    phase_log_ = std::move(state.phase_log);
    position_ = state.position;
    commit_count_ = state.commit_count;
    putInForce(std::move(modulators));
    return true;
}

}  // namespace Lumenar::Core::Kelm
