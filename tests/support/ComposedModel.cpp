#include "tests/support/ComposedModel.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

#include "tests/support/BlobLayout.h"
#include "tests/support/Draws.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

std::string text(const std::vector<std::uint64_t>& ids) {
    std::string line = "ids";
    for (const std::uint64_t id : ids) line += ' ' + std::to_string(id);
    return line;
}

}  // namespace

/// Times and rates are chosen per window, so that windows of any length see something happen. Every
/// draw is a statement of its own where there are several: the order of captures is not fixed.
class ComposedModel::Generator {
public:
    Generator(ComposedModel& model, const ComposedTraits& traits)
        : model_(model), draws_(~model.network_.seed), max_stops_(traits.max_stops) {}

    void generate() {
        model_.config_id_ = draws_.next();
        model_.label_ = "composed " + std::to_string(model_.seed());
        model_.gate_period_ = windows(0.5, 4.0);
        model_.has_third_factor_ = draws_.oneIn(3);
        generatePlasticity();
        generatePhase();
        generateRecorder();
        generateChannels();
        generatePrediction();
        generateSettings();
        generateStops();
    }

private:
    ModelTime dMin() const { return model_.network_.d_min; }
    std::uint64_t neuronCount() const { return model_.network_.node_count; }
    NodeId anyNeuron() { return draws_.below(neuronCount()); }
    double perSecond(double per_window) const {
        return per_window * 1e9 / static_cast<double>(dMin());
    }
    ModelTime windows(double low, double high) {
        return static_cast<ModelTime>(draws_.between(low, high) * static_cast<double>(dMin())) + 1;
    }
    std::vector<NodeId> someNeurons() {
        std::vector<NodeId> neurons;
        for (NodeId n = 0; n < neuronCount(); ++n) {
            if (draws_.oneIn(3)) neurons.push_back(n);
        }
        if (neurons.empty()) neurons.push_back(anyNeuron());
        return neurons;
    }

    PlasticityRule rule(PlasticityRuleKind kind) {
        PlasticityRule rule;
        rule.kind = kind;
        rule.a_potentiation = draws_.between(0.0, 0.1);
        rule.a_depression = draws_.between(0.0, 0.1);
        rule.a_coincidence = draws_.between(0.0, 0.05);
        rule.scale = draws_.between(0.5, 2.0);
        return rule;
    }

    void generatePlasticity() {
        PlasticityConfig& config = model_.plasticity_;
        config.enabled = true;
        config.trace.tau_pre = windows(1.0, 30.0);
        config.trace.tau_post = draws_.oneIn(2) ? config.trace.tau_pre : windows(1.0, 30.0);
        config.trace.tau_coincidence = windows(1.0, 60.0);
        const bool swapped = draws_.oneIn(2);
        config.excitatory =
            rule(swapped ? PlasticityRuleKind::coincidence : PlasticityRuleKind::pair);
        config.inhibitory =
            rule(swapped ? PlasticityRuleKind::pair : PlasticityRuleKind::coincidence);
        config.homeostasis.enabled = !draws_.oneIn(4);
        config.homeostasis.cap = draws_.between(0.2, 0.8);
    }

    std::uint32_t anyOscillator() {
        return model_.phase_.oscillators[draws_.below(model_.phase_.oscillators.size())].id;
    }

    void generatePhase() {
        PhaseConfig& phase = model_.phase_;
        const std::uint64_t count = 1 + draws_.below(4);
        for (std::uint64_t i = 0; i < count; ++i) {
            Oscillator oscillator;
            oscillator.id = static_cast<std::uint32_t>(draws_.next() << 2 | i);
            oscillator.frequency = draws_.oneIn(8) ? 0.0 : perSecond(draws_.between(0.01, 1.5));
            oscillator.phase = draws_.between(-7.0, 7.0);
            oscillator.amplitude = draws_.oneIn(6) ? 0.0 : draws_.between(0.2, 1.5);
            phase.oscillators.push_back(oscillator);
        }
        phase.coupling_period = windows(0.2, 3.0);
        for (std::uint64_t i = 0; i <= 2 * count; ++i) {
            phase.couplings.push_back(
                {anyOscillator(), anyOscillator(), perSecond(draws_.between(-1.0, 1.0))});
        }
        for (NodeId n = 0; n < neuronCount(); ++n) {
            phase.bindings.push_back(bindings());
            if (n >= 2 && draws_.oneIn(4)) continue;  // the table may end before the network does
            model_.memberships_.resize(n + 1);
            for (std::uint64_t left = draws_.below(3); left != 0; --left) {
                model_.memberships_[n].push_back(anyOscillator());
            }
        }
    }

    /// Up to eight with an effect, which is as many as a neuron takes, and some without.
    std::vector<PhaseBinding> bindings() {
        std::vector<PhaseBinding> list;
        if (draws_.oneIn(5)) return list;
        for (std::uint64_t left = draws_.below(9); left != 0; --left) {
            list.push_back({anyOscillator(), static_cast<std::uint8_t>(draws_.below(2)),
                            draws_.between(-0.3, 0.3), draws_.between(-4.0, 4.0)});
            if (draws_.oneIn(4)) list.push_back({anyOscillator(), 7, 1.0, 0.0});
        }
        return list;
    }

    void generateRecorder() {
        RecorderConfig& recorder = model_.recorder_;
        recorder.record_spikes = !draws_.oneIn(5);
        recorder.causal = !draws_.oneIn(4);
        recorder.sample_interval = draws_.oneIn(4) ? dMin() : windows(0.3, 3.0);
        recorder.sample_kinds = {SampleKind::membrane,        SampleKind::oscillator_phases,
                                 SampleKind::active_synapses, SampleKind::adaptation,
                                 SampleKind::refractory_left, SampleKind::next_candidate};
    }

    void generateChannels() {
        const std::uint64_t count = 2 + draws_.below(3);
        for (std::uint64_t i = 0; i < count; ++i) {
            InputChannelSpec spec;
            spec.name = "channel " + std::to_string(i);
            spec.modality = static_cast<std::uint8_t>(i);
            spec.targets = someNeurons();
            spec.delay = draws_.oneIn(2) ? 0 : windows(0.1, 4.0);
            spec.gain = draws_.between(-1.5, 1.5);
            model_.channels_.push_back(std::move(spec));
        }
    }

    void generatePrediction() {
        PredictionConfig& prediction = model_.prediction_;
        const std::uint64_t count = 1 + draws_.below(3);
        for (std::uint64_t i = 0; i < count; ++i) {
            ErrorChannel channel;
            channel.name = "error " + std::to_string(i);
            channel.targets = someNeurons();
            channel.targets.push_back(anyNeuron());
            channel.precision = draws_.between(0.0, 2.0);
            channel.strength = draws_.between(-0.6, 0.6);
            channel.clamp = draws_.between(0.1, 1.5);
            prediction.channels.push_back(std::move(channel));
        }
        if (draws_.oneIn(2)) return;
        prediction.predictors.resize(count);
        prediction.predictors[0] =
            Predictor{PredictorKind::explicit_readout, {anyNeuron()}, {0.5}, 0.1};
    }

    void act(std::function<std::string(KelmRuntime&)> action) {
        model_.steps_.push_back({std::nullopt, std::move(action)});
    }
    /// An action without an answer.
    template <class Action>
    void set(Action action) {
        act([action](KelmRuntime& runtime) {
            action(runtime);
            return std::string("done");
        });
    }
    void runTo(ModelTime until) { model_.steps_.push_back({until, {}}); }

    /// What is set once, before the run, and travels in checkpoints from there on.
    void generateSettings() {
        if (!draws_.oneIn(6)) {
            set([](KelmRuntime& runtime) { runtime.oscillators()->setCouplingEnabled(true); });
        }
        set([taped = anyNeuron()](KelmRuntime& runtime) {
            runtime.randomStreams().record("spontaneous", taped);
        });
        set([cap = draws_.between(0.5, 1.5)](KelmRuntime& runtime) {
            runtime.learningControl()->setWeightCap(cap);
        });
        for (const NodeId neuron : someNeurons()) {
            set([neuron](KelmRuntime& runtime) {
                runtime.learningControl()->setGroup(neuron, static_cast<std::uint32_t>(neuron % 3));
            });
        }
        if (!draws_.oneIn(3)) setFastWeights();
        setJournal();
    }

    void setFastWeights() {
        const bool on = !draws_.oneIn(4);
        const ModelTime tau = windows(0.5, 20.0);
        const double rate = draws_.oneIn(2) ? 0.0 : draws_.between(0.0, 0.5);
        set([=](KelmRuntime& runtime) {
            runtime.learningControl()->setFastWeights(on, tau, rate);
        });
    }

    void setJournal() {
        const auto mode = static_cast<JournalMode>(draws_.below(3));
        set([mode, rate = draws_.between(0.05, 1.0)](KelmRuntime& runtime) {
            runtime.learningControl()->setJournal(mode, rate);
        });
    }

    void generateStops() {
        std::vector<ModelTime> stops;
        for (std::uint64_t left = draws_.below(max_stops_ + 1); left != 0; --left) {
            ModelTime stop = draws_.timeBelow(static_cast<std::uint64_t>(model_.network_.horizon));
            if (draws_.oneIn(3)) stop = stop / dMin() * dMin();
            stops.push_back(stop);
        }
        std::sort(stops.begin(), stops.end());
        generateActions(0);
        for (const ModelTime stop : stops) {
            runTo(stop);
            generateActions(stop);
        }
        runTo(model_.network_.horizon);
    }

    void generateActions(ModelTime now) {
        for (std::uint64_t left = draws_.below(8); left != 0; --left) {
            switch (draws_.below(6)) {
                case 0:
                case 1:
                    inject(now);
                    break;
                case 2:
                    report(now);
                    break;
                case 3:
                    perturb(now);
                    break;
                case 4:
                    intervene();
                    break;
                default:
                    turnASwitch();
                    break;
            }
        }
    }

    /// Mostly within the next windows; now and then in one that is gone, or far ahead.
    ModelTime momentNear(ModelTime now) {
        if (draws_.oneIn(10)) return now - std::min(now, windows(0.0, 3.0));
        if (draws_.oneIn(12)) return now + 5000 * dMin();
        const ModelTime border = (now + dMin() - 1) / dMin() * dMin();
        return border + (draws_.oneIn(5) ? 0 : windows(0.0, 3.0));
    }

    void inject(ModelTime now) {
        const std::string name = model_.channels_[draws_.below(model_.channels_.size())].name;
        const ModelTime time = momentNear(now);
        const double value = draws_.between(-1.5, 1.5);
        act([=](KelmRuntime& runtime) { return text(runtime.inject(name, time, value)); });
    }

    void report(ModelTime now) {
        const std::size_t channel = draws_.below(model_.prediction_.channels.size());
        if (draws_.oneIn(5)) {
            set([channel, precision = draws_.between(0.0, 3.0)](KelmRuntime& runtime) {
                runtime.prediction()->setPrecision(channel, precision);
            });
        }
        const double observed = draws_.between(-2.0, 2.0);
        const double predicted = draws_.between(-2.0, 2.0);
        set([=](KelmRuntime& runtime) {
            runtime.prediction()->observeValue(channel, observed, predicted, now);
        });
    }

    void perturb(ModelTime now) {
        Perturbation perturbation;
        perturbation.cause = draws_.next();
        perturbation.time = momentNear(now);
        perturbation.kind = static_cast<PerturbationKind>(draws_.below(2));
        perturbation.strength = draws_.between(-1.0, 1.5);
        perturbation.targets = someNeurons();
        if (draws_.oneIn(8)) perturbation.targets.push_back(neuronCount());
        act([perturbation](KelmRuntime& runtime) { return text(runtime.perturb(perturbation)); });
    }

    void intervene() {
        const std::size_t mechanism = draws_.below(InterventionState::mechanism_count);
        set([mechanism, entry = draws_.next()](KelmRuntime& runtime) {
            runtime.interventions().note(entry);
            runtime.interventions().setOff(mechanism, entry % 3 == 0);
        });
        // Candidates on their way were drawn under the bound of their day. A gain that only falls
        // keeps every bound true, so none of these models may end in a bound violation.
        const bool falls = mechanism == InterventionState::oscillators ||
                           mechanism == InterventionState::prediction;
        const double factor = draws_.oneIn(8) ? 0.0 : draws_.between(0.3, falls ? 1.0 : 2.0);
        set([mechanism, factor, falls](KelmRuntime& runtime) {
            InterventionState& state = runtime.interventions();
            state.setGain(mechanism, falls ? state.mechanism_gain[mechanism] * factor : factor);
        });
    }

    void turnASwitch() {
        const bool on = draws_.oneIn(2);
        const auto number = static_cast<std::uint32_t>(draws_.below(3));
        const std::string channel = model_.channels_[0].name;
        switch (draws_.below(8)) {
            case 0:
                set([=](KelmRuntime& runtime) {
                    runtime.inputChannels()->setConnected(channel, on);
                });
                break;
            case 1:
                set([=, gain = draws_.between(-2.0, 2.0)](KelmRuntime& runtime) {
                    runtime.inputChannels()->setGain(channel, gain);
                });
                break;
            case 2:
                set([=](KelmRuntime& runtime) {
                    runtime.learningControl()->setFrozen(number, on);
                });
                break;
            case 3:
                set([=](KelmRuntime& runtime) {
                    runtime.learningControl()->setGroupEnabled(number, on);
                });
                break;
            case 4:
                set([=](KelmRuntime& runtime) {
                    if (on) return runtime.learningControl()->allowAllGroups();
                    runtime.learningControl()->allowOnlyGroups({number, 7, 0});
                });
                break;
            case 5:
                draws_.oneIn(2) ? setFastWeights() : setJournal();
                break;
            case 6:
                set([=](KelmRuntime& runtime) {
                    runtime.graph().setTransmissionEnabled(number == 0, on);
                });
                break;
            default:
                set([=, edge = draws_.next()](KelmRuntime& runtime) {
                    SynapseGraph& graph = runtime.graph();
                    if (graph.edgeCount() != 0) graph.setEnabled(edge % graph.edgeCount(), on);
                });
                break;
        }
    }

    ComposedModel& model_;
    Draws draws_;
    std::uint64_t max_stops_;
};

ComposedModel::ComposedModel(std::uint64_t seed, const ComposedTraits& traits)
    : network_(generateModel(seed, {traits.max_neurons, traits.max_windows, true, false})) {
    Generator(*this, traits).generate();
}

std::unique_ptr<KelmRuntime> ComposedModel::build(IWindowBackend& backend, bool recorded) const {
    std::unique_ptr<KelmRuntime> runtime(new KelmRuntime(
        makeKelmRuntime(network_.graph(), network_.neurons[0], network_.firings[0],
                        network_.run_seed, network_.horizon, &backend, nullptr, plasticity_, phase_,
                        recorded ? std::optional(recorder_) : std::nullopt, channels_, prediction_,
                        config_id_, label_)));
    runtime->oscillators()->setMemberships(memberships_);
    runtime->learningControl()->setModulator(
        [period = gate_period_](ModelTime window_end) { return window_end / period % 4 != 3; });
    if (has_third_factor_) {
        runtime->plasticity()->setChangeHook([](const WeightChangeContext& context) {
            return 1.0 - 0.1 * context.pre_phase + 0.05 * context.post_phase;
        });
    }
    return runtime;
}

ComposedModel::Outcome ComposedModel::perform(std::size_t step, KelmRuntime& runtime) const {
    const Step& chosen = steps_[step];
    try {
        if (!chosen.until) return {chosen.act(runtime)};
        runtime.run(*chosen.until);
        return {"ran to " + std::to_string(*chosen.until)};
    } catch (const std::exception& failure) {
        return {failure.what(), chosen.until.has_value()};
    }
}

bool ComposedModel::performAll(std::size_t first, std::size_t end, KelmRuntime& runtime,
                               std::vector<std::string>& outcomes) const {
    for (std::size_t step = first; step < end; ++step) {
        const Outcome outcome = perform(step, runtime);
        outcomes.push_back(outcome.text);
        if (outcome.ends_run) return false;
    }
    return true;
}

std::string firstDifference(KelmRuntime& a, KelmRuntime& b) {
    const std::string difference = firstDifference(imageOf(a), imageOf(b));
    if (!difference.empty()) return difference;
    return firstCheckpointDifference(a.checkpoint(), b.checkpoint(), a.prediction() != nullptr);
}

}  // namespace Lumenar::Core::Kelm::Testing
