#include "kelm/runtime/Fingerprint.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// The arguments of a small runtime with every part, as scripts/reference/fingerprint.py has them.
struct Settings {
    std::uint64_t node_count = 3;
    std::optional<ModelTime> min_delay = 1'000'000;
    std::vector<Synapse> synapses{
        {.source = 0, .target = 1, .weight = 0.25F, .delay = 2'000'000},
        {.source = 1, .target = 2, .weight = 0.5F, .delay = 1'500'000, .inhibitory = true}};
    bool excitatory_on = true;
    bool inhibitory_on = true;
    Kernel::Neuron neuron = {};
    Kernel::Firing firing = {};
    ModelTime horizon = 20'000'000;
    PlasticityConfig plasticity{.excitatory = {PlasticityRuleKind::pair, 0.01, 0.012, 0.5, 1.0},
                                .inhibitory = {PlasticityRuleKind::coincidence, 0.1, 0.2, 0.3, 2.0},
                                .homeostasis = {true, 0.75},
                                .enabled = true};
    std::optional<PhaseConfig> phase =
        PhaseConfig{{{7, 40.0, 0.5, 1.0}, {9, 8.0, 0.0, 0.5}},
                    {{{7, 0, 0.3, 0.1}}, {}, {{9, 1, 0.2, 0.0}, {7, 0, 0.1, 0.0}}},
                    {{7, 9, 2.0}},
                    5'000'000};
    std::optional<RecorderConfig> recorder =
        RecorderConfig{true, false, 2'000'000, {SampleKind::adaptation, SampleKind::membrane}};
    std::vector<InputChannelSpec> channels{{"left", 1, {0, 2}, 1'000, 0.5}};
    std::optional<PredictionConfig> prediction =
        PredictionConfig{{{"height", {1}, 2.0, -0.25, 1.5}}, {Predictor{{}, {0}, {0.5}, 0.125}}};

    SynapseGraph graph() const {
        SynapseGraph graph(node_count, min_delay, synapses);
        graph.setTransmissionEnabled(false, excitatory_on);
        graph.setTransmissionEnabled(true, inhibitory_on);
        return graph;
    }
    std::uint64_t print() const {
        SynapseGraph network = graph();
        return fingerprint(network, neuron, firing, horizon, plasticity, phase, recorder, channels,
                           prediction);
    }
    std::uint64_t print(std::span<const Kernel::Neuron> neurons,
                        std::span<const Kernel::Firing> firings) const {
        SynapseGraph network = graph();
        return fingerprint(network, neurons, firings, horizon, plasticity, phase, recorder,
                           channels, prediction);
    }
};

using Change = std::function<void(Settings&)>;

TEST(Fingerprint, IsTheDigestOfTheDocumentedBytes) {
    // scripts/reference/fingerprint.py
    EXPECT_EQ(Settings().print(), 0x2aa3b38ea4aa319c);
    const Settings small{.plasticity = {},
                         .phase = std::nullopt,
                         .recorder = std::nullopt,
                         .channels = {},
                         .prediction = std::nullopt};
    EXPECT_EQ(small.print(), 0x7f0ce1990834adcd);
}

TEST(Fingerprint, DiffersWithEverySetting) {
    const std::vector<std::pair<const char*, Change>> changes{
        {"nothing", [](Settings&) {}},
        {"neuron count", [](Settings& s) { s.node_count = 4; }},
        {"min_delay", [](Settings& s) { s.min_delay = 500'000; }},
        {"window of the synapses", [](Settings& s) { s.min_delay.reset(); }},
        {"excitatory on", [](Settings& s) { s.excitatory_on = false; }},
        {"inhibitory on", [](Settings& s) { s.inhibitory_on = false; }},
        {"synapse", [](Settings& s) { s.synapses.pop_back(); }},
        {"synapse order", [](Settings& s) { std::swap(s.synapses[0], s.synapses[1]); }},
        {"source", [](Settings& s) { s.synapses[0].source = 2; }},
        {"target", [](Settings& s) { s.synapses[0].target = 2; }},
        {"weight", [](Settings& s) { s.synapses[0].weight = 0.26F; }},
        {"zero weight", [](Settings& s) { s.synapses[0].weight = 0.0F; }},
        {"negative zero weight", [](Settings& s) { s.synapses[0].weight = -0.0F; }},
        {"delay", [](Settings& s) { s.synapses[0].delay = 2'000'001; }},
        {"inhibitory", [](Settings& s) { s.synapses[0].inhibitory = true; }},
        {"enabled", [](Settings& s) { s.synapses[0].enabled = false; }},
        {"last change", [](Settings& s) { s.synapses[0].last_change = 1; }},
        {"tau_membrane", [](Settings& s) { s.neuron.tau_membrane = 12'000'000; }},
        {"tau_adaptation", [](Settings& s) { ++s.neuron.tau_adaptation; }},
        {"refractory_period", [](Settings& s) { ++s.neuron.refractory_period; }},
        {"adaptation_increment", [](Settings& s) { s.neuron.adaptation_increment = 0.5; }},
        {"input_coupling", [](Settings& s) { s.neuron.input_coupling = 0.5; }},
        {"reset_value", [](Settings& s) { s.neuron.reset_value = 0.5; }},
        {"negative zero reset_value", [](Settings& s) { s.neuron.reset_value = -0.0; }},
        {"trace_epsilon", [](Settings& s) { s.neuron.trace_epsilon = 0.0; }},
        {"hard_refractory", [](Settings& s) { s.neuron.hard_refractory = false; }},
        {"non_leaky", [](Settings& s) { s.neuron.non_leaky = true; }},
        {"base_rate", [](Settings& s) { s.firing.base_rate = 0.75; }},
        {"gain", [](Settings& s) { s.firing.gain = 0.75; }},
        {"threshold", [](Settings& s) { s.firing.threshold = 0.75; }},
        {"adaptation_weight", [](Settings& s) { s.firing.adaptation_weight = 0.75; }},
        {"rate_scale", [](Settings& s) { s.firing.rate_scale = 0.75; }},
        {"max_rate", [](Settings& s) { s.firing.max_rate = 0.75; }},
        {"horizon", [](Settings& s) { ++s.horizon; }},
        {"no plasticity", [](Settings& s) { s.plasticity.enabled = false; }},
        {"tau_pre", [](Settings& s) { ++s.plasticity.trace.tau_pre; }},
        {"tau_post", [](Settings& s) { ++s.plasticity.trace.tau_post; }},
        {"tau_coincidence", [](Settings& s) { ++s.plasticity.trace.tau_coincidence; }},
        {"epsilon", [](Settings& s) { s.plasticity.trace.epsilon = 0.0; }},
        {"kind", [](Settings& s) { s.plasticity.excitatory.kind = PlasticityRuleKind::none; }},
        {"a_potentiation", [](Settings& s) { s.plasticity.excitatory.a_potentiation = 3.0; }},
        {"a_depression", [](Settings& s) { s.plasticity.excitatory.a_depression = 3.0; }},
        {"a_coincidence", [](Settings& s) { s.plasticity.excitatory.a_coincidence = 3.0; }},
        {"scale", [](Settings& s) { s.plasticity.excitatory.scale = 3.0; }},
        {"inhibitory rule", [](Settings& s) { s.plasticity.inhibitory.scale = 3.0; }},
        {"homeostasis", [](Settings& s) { s.plasticity.homeostasis.enabled = false; }},
        {"cap", [](Settings& s) { s.plasticity.homeostasis.cap = 3.0; }},
        {"no phase", [](Settings& s) { s.phase.reset(); }},
        {"oscillator", [](Settings& s) { s.phase->oscillators.pop_back(); }},
        {"oscillator id", [](Settings& s) { s.phase->oscillators[1].id = 3; }},
        {"frequency", [](Settings& s) { s.phase->oscillators[1].frequency = 3.0; }},
        {"phase", [](Settings& s) { s.phase->oscillators[1].phase = 3.0; }},
        {"amplitude", [](Settings& s) { s.phase->oscillators[1].amplitude = 3.0; }},
        {"binding", [](Settings& s) { s.phase->bindings[2].pop_back(); }},
        {"neuron of a binding",
         [](Settings& s) { s.phase->bindings[0].swap(s.phase->bindings[1]); }},
        {"binding's oscillator", [](Settings& s) { s.phase->bindings[0][0].oscillator = 9; }},
        {"polarity", [](Settings& s) { s.phase->bindings[0][0].polarity = 1; }},
        {"binding's strength", [](Settings& s) { s.phase->bindings[0][0].strength = 3.0; }},
        {"phase_offset", [](Settings& s) { s.phase->bindings[0][0].phase_offset = 3.0; }},
        {"coupling", [](Settings& s) { s.phase->couplings.pop_back(); }},
        {"coupling's source", [](Settings& s) { s.phase->couplings[0].source = 9; }},
        {"coupling's target", [](Settings& s) { s.phase->couplings[0].target = 7; }},
        {"coupling's strength", [](Settings& s) { s.phase->couplings[0].strength = 3.0; }},
        {"coupling_period", [](Settings& s) { ++s.phase->coupling_period; }},
        {"no recorder", [](Settings& s) { s.recorder.reset(); }},
        {"record_spikes", [](Settings& s) { s.recorder->record_spikes = false; }},
        {"causal", [](Settings& s) { s.recorder->causal = true; }},
        {"sample_interval", [](Settings& s) { ++s.recorder->sample_interval; }},
        {"sample_kinds", [](Settings& s) { s.recorder->sample_kinds.pop_back(); }},
        {"no channel", [](Settings& s) { s.channels.clear(); }},
        {"channel name", [](Settings& s) { s.channels[0].name = "right"; }},
        {"channel targets",
         [](Settings& s) {
             s.channels[0].targets = {2, 0};
         }},
        {"channel delay", [](Settings& s) { ++s.channels[0].delay; }},
        {"channel gain", [](Settings& s) { s.channels[0].gain = 3.0; }},
        {"no prediction", [](Settings& s) { s.prediction.reset(); }},
        {"prediction without channels", [](Settings& s) { s.prediction = PredictionConfig(); }},
        {"error channel name", [](Settings& s) { s.prediction->channels[0].name = "depth"; }},
        {"error channel targets", [](Settings& s) { s.prediction->channels[0].targets = {2}; }},
        {"precision", [](Settings& s) { s.prediction->channels[0].precision = 3.0; }},
        {"error strength", [](Settings& s) { s.prediction->channels[0].strength = 3.0; }},
        {"clamp", [](Settings& s) { s.prediction->channels[0].clamp = 3.0; }},
        {"no predictor", [](Settings& s) { s.prediction->predictors[0].reset(); }},
        {"predictor kind",
         [](Settings& s) { s.prediction->predictors[0]->kind = PredictorKind{1}; }},
        {"sources", [](Settings& s) { s.prediction->predictors[0]->sources[0] = 2; }},
        {"readout weights", [](Settings& s) { s.prediction->predictors[0]->weights[0] = 3.0; }},
        {"bias", [](Settings& s) { s.prediction->predictors[0]->bias = 3.0; }},
    };
    std::map<std::uint64_t, std::string> seen;
    for (const auto& [what, change] : changes) {
        Settings settings;
        change(settings);
        const auto [place, is_new] = seen.emplace(settings.print(), what);
        EXPECT_TRUE(is_new) << what << " has the fingerprint of " << place->second;
    }
}

TEST(Fingerprint, DoesNotDifferWithWhatDecidesNothing) {
    const std::pair<const char*, Change> changes[]{
        {"synapse fields that nothing reads", [](Settings& s) { s.synapses[0].reserved_b = 5; }},
        {"spare_flag", [](Settings& s) { s.firing.spare_flag = true; }},
        {"order of sample kinds",
         [](Settings& s) { std::swap(s.recorder->sample_kinds[0], s.recorder->sample_kinds[1]); }},
        {"recorder's reserved", [](Settings& s) { s.recorder->reserved = 5; }},
        {"modality", [](Settings& s) { s.channels[0].modality = 5; }},
    };
    for (const auto& [what, change] : changes) {
        Settings settings;
        change(settings);
        EXPECT_EQ(settings.print(), Settings().print()) << what;
    }
    // The bits of a NaN differ from machine to machine.
    Settings positive, negative;
    positive.neuron.reset_value = std::numeric_limits<double>::quiet_NaN();
    negative.neuron.reset_value = -std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(positive.print(), negative.print());
}

TEST(Fingerprint, TakesTheParametersOfEveryNeuron) {
    const Settings settings;
    std::vector<Kernel::Neuron> neurons(3);
    std::vector<Kernel::Firing> firings(3);
    EXPECT_EQ(settings.print(neurons, firings), settings.print());
    std::map<std::uint64_t, std::size_t> seen{{settings.print(), 3}};
    for (std::size_t n = 0; n < 3; ++n) {
        neurons[n].reset_value = 0.5;
        EXPECT_TRUE(seen.emplace(settings.print(neurons, firings), n).second) << n;
        neurons[n].reset_value = 0.0;
        firings[n].gain = 0.5;
        EXPECT_TRUE(seen.emplace(settings.print(neurons, firings), n).second) << n;
        firings[n].gain = Kernel::Firing().gain;
    }
    firings.pop_back();
    expectThrows<WindowEngineError>([&] { settings.print(neurons, firings); },
                                    "per-neuron parameter count does not match graph");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
