// The models of test_same_bits.py in C++. `kelm-python-reference FILE` runs the composed model,
// writes its checkpoint to a file, and prints fingerprint and digest. `kelm-python-reference FILE
// SEED` runs the model generated from a seed, and writes the checkpoint of the middle of the run.
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "kelm/kelm.h"

using namespace kelm;

namespace {

/// Draws from a seed, as in test_same_bits.py.
class Draws {
public:
    explicit Draws(std::uint64_t seed) : state_(seed) {}
    /// A number in [0, below).
    std::uint64_t operator()(std::uint64_t below) {
        state_ = state_ * 6364136223846793005 + 1442695040888963407;
        return (state_ >> 33) % below;
    }
    ModelTime time(std::uint64_t below, ModelTime unit) {
        return static_cast<ModelTime>((*this)(below)) * unit;
    }
    double eighths(std::uint64_t below) { return static_cast<double>((*this)(below)) / 8; }

private:
    std::uint64_t state_;
};

constexpr std::uint64_t train_size = 6;

SynapseValues generatedWeight(Draws& draw) {
    const double size = 0.125 + draw.eighths(3);
    switch (draw(5)) {
        case 0:
            return size;
        case 1:
            return SynapseValues::uniform(0, size);
        case 2:
            return SynapseValues::normal(size, 0.1).within(0, 1);
        case 3:
            return SynapseValues::logNormal(-2, size).within(0, 1);
        default:
            return SynapseValues::exponential(size);
    }
}

SynapseValues generatedDelay(Draws& draw, ModelTime window) {
    const auto least = static_cast<double>(window);
    switch (draw(4)) {
        case 0:
            return window + draw.time(4, 250 * us);
        case 1:
            return SynapseValues::uniform(least, least + 2e6);
        case 2:
            return SynapseValues::normal(2e6, 1e6).within(least, 5e6);
        default:
            return SynapseValues::fromFunction([least](NodeId source, NodeId, std::uint64_t k) {
                return least + static_cast<double>((source + k) % 7) * 1e3;
            });
    }
}

/// Synapses by up to seven rules.
SynapseGraph generatedWiring(Draws& draw, std::uint64_t wiring_seed, std::uint64_t neurons,
                             ModelTime window, NeuronRange a, NeuronRange b, NeuronRange noise,
                             NeuronRange train) {
    std::vector<Projection> projections;
    const std::uint64_t count = 3 + draw(5);
    for (std::uint64_t k = 0; k < count; ++k) {
        const std::uint64_t number = draw(4);
        NeuronRange source = number == 0 ? a : number == 1 ? b : number == 2 ? noise : train;
        NeuronRange target = std::vector{a, b, NeuronRange{0, neurons}}[draw(3)];
        const std::uint64_t degree = 1 + draw(4);
        ConnectionRule rule = ConnectionRule::allToAll();
        switch (draw(6)) {
            case 0:
                break;
            case 1:
                rule = ConnectionRule::oneToOne();
                source = {a.first, 10};
                target = {b.first, 10};
                break;
            case 2:
                rule = ConnectionRule::fixedInDegree(degree);
                break;
            case 3:
                rule = ConnectionRule::fixedOutDegree(degree);
                break;
            case 4:
                rule = ConnectionRule::fixedTotalNumber(20 * degree);
                break;
            default:
                rule = ConnectionRule::bernoulli(static_cast<double>(degree) / 16);
                break;
        }
        if (draw(2) == 1) rule = rule.withoutSelfConnections();
        if (draw(2) == 1) rule = rule.withoutMultipleConnections();
        const SynapseValues weight = generatedWeight(draw);
        const SynapseValues delay = generatedDelay(draw, window);
        projections.push_back(
            {std::to_string(k), source, target, rule, weight, delay, number == 1});
    }
    return Wiring(neurons, window, projections, wiring_seed).build();
}

/// Synapses in columns that are not sorted by source.
SynapseGraph generatedColumns(Draws& draw, std::uint64_t neurons, ModelTime window) {
    std::vector<Synapse> synapses(500);
    for (Synapse& synapse : synapses) {
        synapse.source = draw(neurons);
        synapse.target = draw(neurons);
        synapse.weight = static_cast<float>(draw.eighths(5));
        synapse.delay = window + draw.time(4, 250 * us);
        synapse.inhibitory = draw(4) == 0;
    }
    return {neurons, window, synapses};
}

/// Three kinds of populations, rules or arrays, and for some seeds plasticity and oscillators.
std::unique_ptr<KelmRuntime> generated(std::uint64_t seed) {
    Draws draw(seed);
    const std::uint64_t wiring_seed = draw(1000);
    const ModelTime window = 500 * us + draw.time(2, 500 * us);
    Neuron neuron{.tau_membrane = 5 * ms + draw.time(20, ms)};
    neuron.adaptation_increment = draw.eighths(8);
    Firing firing{.base_rate = 20.0 + draw.eighths(400)};
    firing.gain = 1.0 + draw.eighths(16);
    firing.max_rate = 400;
    Neuron other = neuron;
    other.non_leaky = draw(2) == 1;
    Firing slow = firing;
    slow.base_rate = 3;
    const NeuronRange a{0, 20 + draw(50)};
    const NeuronRange b{a.count, 20 + draw(30)};
    const NeuronRange noise{b.first + b.count, 5 + draw(10)};
    const NeuronRange train{noise.first + noise.count, train_size};
    const std::uint64_t neurons = train.first + train.count;
    RuntimeOptions options{.seed = draw(1000)};
    options.populations = {{"a", a.count, neuron, firing},
                           {"b", b.count, other, slow},
                           poissonSources("noise", noise.count, 10 * Hz),
                           spikeSources("train", train.count)};
    for (ModelTime k = 0; k < 12; ++k) {
        const ModelTime time = k * 15 * ms + draw.time(15, ms);
        options.given_spikes.push_back({time, train.first + draw(train_size)});
    }
    SynapseGraph graph =
        draw(4) == 0 ? generatedColumns(draw, neurons, window)
                     : generatedWiring(draw, wiring_seed, neurons, window, a, b, noise, train);
    if (draw(2) == 1) {
        options.plasticity.enabled = true;
        options.plasticity.trace.tau_pre = 10 * ms + draw.time(10, ms);
        options.plasticity.excitatory = {PlasticityRuleKind::pair, 0.02, 0.01};
        options.plasticity.inhibitory = {PlasticityRuleKind::coincidence, 0, 0, 0.01, 0.5};
        if (draw(2) == 1) options.plasticity.homeostasis = {true, 0.25};
    }
    if (draw(2) == 1) {
        options.phase.emplace();
        options.phase->oscillators = {{1, 5.0 + draw.eighths(80), 0.5, 1.0}};
        options.phase->bindings.resize(neurons);
        const double strength = draw.eighths(8);
        for (NodeId n = 0; n < a.count; ++n) options.phase->bindings[n] = {{1, 0, strength, 0.25}};
    }
    return makeRuntime(std::move(graph), options);
}

/// Every part, on synapses in columns that are not sorted by source.
std::unique_ptr<KelmRuntime> composed() {
    constexpr std::uint64_t neurons = 50;
    std::vector<NodeId> sources, targets;
    std::vector<float> weights;
    std::vector<ModelTime> delays;
    std::vector<std::uint8_t> inhibitory;
    for (std::uint64_t k = 0; k < 400; ++k) {
        sources.push_back(k * 7 % neurons);
        targets.push_back((k * k + 3) % neurons);
        weights.push_back(0.01F * static_cast<float>(k % 30));
        delays.push_back(1 * ms + static_cast<ModelTime>(k % 5) * 500 * us);
        inhibitory.push_back(k % 4 == 0);
    }
    RuntimeOptions options{.seed = 9, .firing = {.base_rate = 15 * Hz, .gain = 2.0}};
    options.plasticity = {.trace = {.tau_pre = 15 * ms, .tau_post = 25 * ms},
                          .excitatory = {PlasticityRuleKind::pair, 0.02, 0.01},
                          .inhibitory = {PlasticityRuleKind::coincidence, 0.0, 0.0, 0.01, 0.5},
                          .homeostasis = {.enabled = true, .cap = 0.2},
                          .enabled = true};
    options.learning_journal = true;
    options.phase.emplace();
    options.phase->oscillators = {{3, 8 * Hz, 0.5, 1.0}, {7, 40 * Hz, 0.0, 0.5}};
    options.phase->bindings.resize(neurons);
    for (NodeId n = 0; n < 20; ++n) {
        options.phase->bindings[n].push_back({3, 0, 0.8, 0.1 * static_cast<double>(n)});
    }
    for (NodeId n = 10; n < 30; ++n) options.phase->bindings[n].push_back({7, 1, 0.3, 0.0});
    options.phase->couplings = {{3, 7, 5.0}};
    options.phase->coupling_period = 2 * ms;
    options.recorder = RecorderConfig{.causal = true, .sample_interval = 10 * ms};
    options.recorder->sample_kinds = {SampleKind::membrane, SampleKind::spike_counts};
    options.input_channels = {{"light", 2, {1, 2, 3}, 1 * ms, 0.5}};
    options.prediction.emplace();
    options.prediction->channels = {{"touch", {4, 5}, 2.0, 0.7, 1.5}, {"heat", {6}}};
    options.prediction->predictors = {std::nullopt, Predictor{{}, {7, 8}, {0.1, 0.2}, 0.3}};
    options.label = "composed";
    auto runtime =
        makeRuntime(SynapseGraph(neurons, 1 * ms,
                                 SynapseColumns{sources, targets, weights, delays, inhibitory}),
                    options);
    runtime->oscillators()->setCouplingEnabled(true);
    runtime->oscillators()->setMemberships(std::vector<std::vector<std::uint32_t>>(20, {3}));
    runtime->learningControl()->setGroup(9, 1);
    runtime->learningControl()->setGroupEnabled(1, false);
    runtime->learningControl()->setFastWeights(true, 100 * ms, 0.1);
    runtime->inject("light", 3 * ms, 1.0);
    runtime->run(60 * ms);
    runtime->prediction()->observeValue(0, 1.0, 0.25, 60 * ms);
    runtime->perturb({17, 70 * ms, PerturbationKind::inhibition, 0.5, {1, 40}});
    runtime->interventions().setGain(InterventionState::plasticity, 0.5);
    runtime->run(200 * ms);
    return runtime;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const auto runtime = argc == 2 ? composed() : generated(std::stoull(argv[2]));
    if (argc == 3) runtime->run(100 * ms);
    const Blob bytes = runtime->checkpoint();
    std::ofstream(argv[1], std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (argc == 3) runtime->run(200 * ms);
    std::printf("%016" PRIx64 " %016" PRIx64 "\n", runtime->configId(), runtime->logHash());
}
