#include "tests/support/ComposedModel.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

#include "kelm/runtime/MakeRuntime.h"
#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

std::string text(const std::vector<std::uint64_t>& ids) {
    std::string line = "ids";
    for (const std::uint64_t id : ids) line += ' ' + std::to_string(id);
    return line;
}

/// Times and rates are chosen per window, so that windows of any length have events. Several draws
/// of one expression are in a braced list, whose order C++ fixes; the order of lambda captures is
/// not fixed.
class Generator {
public:
    Generator(ComposedModel& model, const ComposedTraits& traits)
        : model_(model), draws_(~model.network.seed), traits_(traits) {}

    void generate() {
        model_.gate_period = windows(0.5, 4.0);
        model_.has_third_factor = draws_.oneIn(3);
        generatePlasticity();
        generatePhase();
        const ModelTime interval = draws_.oneIn(4) ? dMin() : windows(0.3, 3.0);
        model_.recorder = {!draws_.oneIn(5), !draws_.oneIn(4), interval, {}};
        for (int i = 0; i < 6; ++i) {
            model_.recorder.sample_kinds.push_back(static_cast<SampleKind>(i));
        }
        if (traits_.counts_spikes) model_.recorder.sample_kinds.push_back(SampleKind::spike_counts);
        generateChannels();
        generateSettings();
        generateSteps();
    }

private:
    ModelTime dMin() const { return model_.network.d_min; }
    NodeId anyNeuron() { return draws_.below(model_.network.node_count); }
    double perSecond(double per_window) const {
        return per_window * 1e9 / static_cast<double>(dMin());
    }
    ModelTime windows(double low, double high) {
        return static_cast<ModelTime>(draws_.between(low, high) * static_cast<double>(dMin())) + 1;
    }
    std::vector<NodeId> someNeurons() {
        std::vector<NodeId> neurons;
        for (NodeId n = 0; n < model_.network.node_count; ++n) {
            if (draws_.oneIn(3)) neurons.push_back(n);
        }
        if (neurons.empty()) neurons.push_back(anyNeuron());
        return neurons;
    }

    void generatePlasticity() {
        const auto rule = [&](PlasticityRuleKind kind) {
            return PlasticityRule{kind, draws_.between(0.0, 0.1), draws_.between(0.0, 0.1),
                                  draws_.between(0.0, 0.05), draws_.between(0.5, 2.0)};
        };
        PlasticityConfig& config = model_.plasticity;
        config.enabled = true;
        config.trace = {windows(1.0, 30.0), windows(1.0, 30.0), windows(1.0, 60.0), 1e-15};
        if (draws_.oneIn(2)) config.trace.tau_post = config.trace.tau_pre;
        config.excitatory = rule(PlasticityRuleKind::pair);
        config.inhibitory = rule(PlasticityRuleKind::coincidence);
        if (draws_.oneIn(2)) std::swap(config.excitatory, config.inhibitory);
        config.homeostasis = {!draws_.oneIn(4), draws_.between(0.2, 0.8)};
    }

    std::uint32_t anyOscillator() {
        return model_.phase.oscillators[draws_.below(model_.phase.oscillators.size())].id;
    }

    void generatePhase() {
        PhaseConfig& phase = model_.phase;
        const std::uint64_t count = 1 + draws_.below(4);
        for (std::uint64_t i = 0; i < count; ++i) {
            phase.oscillators.push_back(
                {static_cast<std::uint32_t>(draws_.next() << 2 | i),
                 draws_.oneIn(8) ? 0.0 : perSecond(draws_.between(0.01, 1.5)),
                 draws_.between(-7.0, 7.0), draws_.oneIn(6) ? 0.0 : draws_.between(0.2, 1.5)});
        }
        phase.coupling_period = windows(0.2, 3.0);
        for (std::uint64_t i = 0; i <= 2 * count; ++i) {
            phase.couplings.push_back(
                {anyOscillator(), anyOscillator(), perSecond(draws_.between(-1.0, 1.0))});
        }
        for (NodeId n = 0; n < model_.network.node_count; ++n) {
            std::vector<PhaseBinding>& bindings = phase.bindings.emplace_back();
            // Up to eight bindings with an effect, the most a neuron may have, and some without.
            for (std::uint64_t left = draws_.below(9); left != 0; --left) {
                bindings.push_back({anyOscillator(), static_cast<std::uint8_t>(draws_.below(2)),
                                    draws_.between(-0.3, 0.3), draws_.between(-4.0, 4.0)});
                if (draws_.oneIn(4)) bindings.push_back({anyOscillator(), 7, 1.0, 0.0});
            }
            if (n >= 2 && draws_.oneIn(4)) continue;  // the table may be shorter than the network
            model_.memberships.resize(n + 1);
            for (std::uint64_t left = draws_.below(3); left != 0; --left) {
                model_.memberships[n].push_back(anyOscillator());
            }
        }
    }

    void generateChannels() {
        for (std::uint64_t i = 2 + draws_.below(3); i != 0; --i) {
            model_.channels.push_back({"channel " + std::to_string(i), static_cast<std::uint8_t>(i),
                                       someNeurons(), draws_.oneIn(2) ? 0 : windows(0.1, 4.0),
                                       draws_.between(-1.5, 1.5)});
        }
        for (std::uint64_t i = 1 + draws_.below(3); i != 0; --i) {
            model_.prediction.channels.push_back(
                {"error " + std::to_string(i), someNeurons(), draws_.between(0.0, 2.0),
                 draws_.between(-0.6, 0.6), draws_.between(0.1, 1.5)});
        }
    }

    void act(const char* what, unsigned parts, std::function<std::string(KelmRuntime&)> action) {
        model_.steps.push_back({std::nullopt, std::move(action), what, parts});
    }
    /// Adds an action without a result.
    void set(const char* what, unsigned parts, std::function<void(KelmRuntime&)> action) {
        act(what, parts, [=](KelmRuntime& runtime) { return action(runtime), "done"; });
    }

    /// Adds the settings before the run, which checkpoints then hold.
    void generateSettings() {
        const bool coupled = !draws_.oneIn(6);
        const NodeId taped = anyNeuron();
        const double cap = draws_.between(0.5, 1.5);
        set("couple", phase_part,
            [=](KelmRuntime& r) { r.oscillators()->setCouplingEnabled(coupled); });
        set("record a stream", one_process_part,
            [=](KelmRuntime& r) { r.randomStreams().record("spontaneous", taped); });
        set("group", learning_part, [=, grouped = someNeurons()](KelmRuntime& r) {
            r.learningControl()->setWeightCap(cap);
            for (const NodeId n : grouped) r.learningControl()->setGroup(n, n % 3 != 0 ? 1 : 0);
        });
        setLearning();
    }

    void setLearning() {
        const bool fast = !draws_.oneIn(4);
        const ModelTime tau = windows(0.5, 20.0);
        const double rate = draws_.oneIn(2) ? 0.0 : draws_.between(0.0, 0.5);
        const auto mode = static_cast<JournalMode>(draws_.below(3));
        set("learn", learning_part, [=, share = draws_.between(0.05, 1.0)](KelmRuntime& r) {
            r.learningControl()->setFastWeights(fast, tau, rate);
            r.learningControl()->setJournal(mode, share);
        });
    }

    void generateSteps() {
        const ModelTime horizon = model_.network.horizon;
        std::vector<ModelTime> stops = {horizon};
        for (std::uint64_t left = draws_.below(traits_.max_stops + 1); left != 0; --left) {
            ModelTime stop = draws_.timeBelow(static_cast<std::uint64_t>(horizon));
            if (draws_.oneIn(3)) stop = stop / dMin() * dMin();
            stops.push_back(stop);
        }
        std::sort(stops.begin(), stops.end());
        void (Generator::*const actions[])(ModelTime) = {
            &Generator::inject,  &Generator::inject,    &Generator::report,
            &Generator::perturb, &Generator::intervene, &Generator::turnASwitch};
        ModelTime now = 0;
        for (const ModelTime stop : stops) {
            for (std::uint64_t left = draws_.below(8); left != 0; --left) {
                (this->*actions[draws_.below(std::size(actions))])(now);
            }
            model_.steps.push_back({stop, {}});
            now = stop;
        }
    }

    /// A time that is mostly in the next windows, sometimes in a past one or far ahead.
    ModelTime momentNear(ModelTime now) {
        if (draws_.oneIn(10)) return now - std::min(now, windows(0.0, 3.0));
        if (draws_.oneIn(12)) return now + 5000 * dMin();
        const ModelTime border = (now + dMin() - 1) / dMin() * dMin();
        return border + (draws_.oneIn(5) ? 0 : windows(0.0, 3.0));
    }

    void inject(ModelTime now) {
        const std::string name = model_.channels[draws_.below(model_.channels.size())].name;
        const ModelTime time = momentNear(now);
        act("inject", channel_part, [=, value = draws_.between(-1.5, 1.5)](KelmRuntime& runtime) {
            return text(runtime.inject(name, time, value));
        });
    }

    void report(ModelTime now) {
        const std::size_t channel = draws_.below(model_.prediction.channels.size());
        const double precision = draws_.between(0.0, 3.0);
        const double observed = draws_.between(-2.0, 2.0);
        set("report", prediction_part, [=, is_new = draws_.oneIn(5)](KelmRuntime& runtime) {
            if (is_new) runtime.prediction()->setPrecision(channel, precision);
            runtime.prediction()->observeValue(channel, observed, -0.5, now);
        });
    }

    void perturb(ModelTime now) {
        Perturbation hit{draws_.next(), momentNear(now),
                         static_cast<PerturbationKind>(draws_.below(2)), draws_.between(-1.0, 1.5),
                         someNeurons()};
        if (draws_.oneIn(8)) hit.targets.push_back(model_.network.node_count);
        act("perturb", 0, [=](KelmRuntime& runtime) { return text(runtime.perturb(hit)); });
    }

    void intervene(ModelTime) {
        const std::size_t mechanism = draws_.below(InterventionState::mechanism_count);
        // Pending candidates keep the bound under which they were drawn. A gain that only falls
        // keeps every bound valid, so only extreme models may end in a bound violation.
        const bool falls = !traits_.extreme && (mechanism == InterventionState::oscillators ||
                                                mechanism == InterventionState::prediction);
        const double factor = draws_.oneIn(8) ? 0.0 : draws_.between(0.3, falls ? 1.0 : 2.0);
        set("intervene", 0, [=, entry = draws_.next()](KelmRuntime& runtime) {
            InterventionState& state = runtime.interventions();
            state.note(entry);
            state.setOff(mechanism, entry % 3 == 0);
            state.setGain(mechanism, falls ? state.mechanism_gain[mechanism] * factor : factor);
        });
    }

    void turnASwitch(ModelTime) {
        const bool on = draws_.oneIn(2);
        const auto number = static_cast<std::uint32_t>(draws_.below(3));
        const double gain = draws_.between(-2.0, 2.0);
        const std::uint64_t edges = model_.network.synapses.size();
        const EdgeId edge = edges == 0 ? 0 : draws_.below(edges);
        const std::string channel = model_.channels[0].name;
        const auto turn = [&](unsigned parts, std::function<void(KelmRuntime&)> action) {
            set("turn a switch", parts, std::move(action));
        };
        switch (draws_.below(9)) {
            case 0:
                return turn(channel_part,
                            [=](KelmRuntime& r) { r.inputChannels()->setConnected(channel, on); });
            case 1:
                return turn(channel_part,
                            [=](KelmRuntime& r) { r.inputChannels()->setGain(channel, gain); });
            case 2:
                return turn(learning_part,
                            [=](KelmRuntime& r) { r.learningControl()->setFrozen(number, on); });
            case 3:
                return turn(learning_part, [=](KelmRuntime& r) {
                    r.learningControl()->setGroupEnabled(number, on);
                });
            case 4:
                return turn(learning_part, [=](KelmRuntime& r) {
                    r.learningControl()->allowOnlyGroups(std::vector{number, 7U});
                });
            case 5:
                return turn(learning_part,
                            [=](KelmRuntime& r) { r.learningControl()->allowAllGroups(); });
            case 6:
                return turn(
                    0, [=](KelmRuntime& r) { r.graph().setTransmissionEnabled(number == 0, on); });
            case 7:
                return turn(one_process_part, [=](KelmRuntime& r) {
                    if (number != 0) return r.graph().setEnabled(edge, on);
                    r.graph().setWeight(edge, static_cast<float>(gain));
                });
            default:
                return setLearning();
        }
    }

    ComposedModel& model_;
    Draws draws_;
    const ComposedTraits& traits_;
};

}  // namespace

ComposedModel generateComposedModel(std::uint64_t seed, const ComposedTraits& traits) {
    ComposedModel model;
    model.network = generateModel(seed, {.max_neurons = traits.max_neurons,
                                         .max_windows = traits.max_windows,
                                         .alike = true,
                                         .external_events = false,
                                         .fans = traits.fans,
                                         .extreme = traits.extreme,
                                         .far = traits.far});
    Generator(model, traits).generate();
    if (traits.far) {
        model.parts &= ~phase_part;
        // A lasting error would make the far network burst without end.
        for (ErrorChannel& channel : model.prediction.channels) channel.strength *= 0.1;
        const ModelTime far = model.network.horizon / 20 + 1;
        model.recorder.sample_interval = std::max(model.recorder.sample_interval, far);
        if (seed % 2 == 0) model.plasticity.trace.tau_pre = far;
        if (seed % 3 == 0) model.plasticity.trace.tau_post = far;
    }
    return model;
}

std::unique_ptr<KelmRuntime> ComposedModel::build(IWindowBackend& backend, bool recorded,
                                                  std::unique_ptr<IEventStore> store) const {
    PlasticityConfig learning = plasticity;
    learning.enabled = learning.enabled && has(learning_part);
    std::unique_ptr<KelmRuntime> runtime(new KelmRuntime(makeKelmRuntime(
        network.graph(), network.neurons[0], network.firings[0], network.run_seed, network.horizon,
        &backend, std::move(store), learning, has(phase_part) ? std::optional(phase) : std::nullopt,
        recorded && has(recorder_part) ? std::optional(recorder) : std::nullopt,
        has(channel_part) ? channels : std::vector<InputChannelSpec>(),
        has(prediction_part) ? std::optional(prediction) : std::nullopt, network.seed,
        "composed")));
    complete(*runtime);
    return runtime;
}

std::unique_ptr<KelmRuntime> ComposedModel::make(std::unique_ptr<IWindowBackend> backend,
                                                 IRankGroup* ranks, bool recorded) const {
    RuntimeOptions options{
        .seed = network.run_seed,
        .horizon = network.horizon,
        .neuron = network.neurons[0],
        .firing = network.firings[0],
        .plasticity = plasticity,
        .learning_journal = true,
        .phase = has(phase_part) ? std::optional(phase) : std::nullopt,
        .recorder = recorded && has(recorder_part) ? std::optional(recorder) : std::nullopt,
        .input_channels = has(channel_part) ? channels : std::vector<InputChannelSpec>(),
        .prediction = has(prediction_part) ? std::optional(prediction) : std::nullopt,
        .label = "composed",
        .ranks = ranks};
    options.plasticity.enabled = plasticity.enabled && has(learning_part);
    std::unique_ptr<KelmRuntime> runtime =
        makeRuntime(ranks == nullptr ? network.graph() : network.graph(*ranks), std::move(options),
                    std::move(backend));
    complete(*runtime);
    return runtime;
}

void ComposedModel::complete(KelmRuntime& runtime) const {
    if (has(phase_part)) runtime.oscillators()->setMemberships(memberships);
    if (!has(learning_part)) return;
    runtime.learningControl()->setModulator(
        [period = gate_period](ModelTime window_end) { return window_end / period % 4 != 3; });
    if (has_third_factor) {
        runtime.plasticity()->setChangeHook([](const WeightChangeContext& context) {
            return 1.0 - 0.1 * context.pre_phase + 0.05 * context.post_phase;
        });
    }
}

bool ComposedModel::perform(std::size_t first, std::size_t end, KelmRuntime& runtime,
                            std::vector<std::string>& outcomes) const {
    for (std::size_t i = first; i < end; ++i) {
        const Step& step = steps[i];
        if ((step.parts & ~parts) != 0) continue;
        try {
            if (step.until) runtime.run(*step.until);
            outcomes.push_back(step.until ? "ran to " + std::to_string(*step.until)
                                          : step.act(runtime));
        } catch (const std::exception& failure) {
            outcomes.emplace_back(failure.what());
            if (step.until) return false;
        }
    }
    return true;
}

}  // namespace Lumenar::Core::Kelm::Testing
