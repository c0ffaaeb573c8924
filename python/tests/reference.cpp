// The models of test_same_bits.py in C++. `kelm-python-reference MODEL FILE` runs a model, prints
// fingerprint and digest, and writes its checkpoint to a file.
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "kelm/kelm.h"

using namespace kelm;

namespace {

/// All rules and values, three kinds of populations, and both kinds of sources.
std::unique_ptr<KelmRuntime> wired() {
    const NeuronRange a{0, 60}, b{60, 40}, noise{100, 30}, train{130, 2}, all{0, 132};
    const auto delay = SynapseValues::uniform(1 * ms, 4 * ms);
    const Wiring wiring(
        132, 1 * ms,
        {{"in", a, all, ConnectionRule::fixedInDegree(5).withoutSelfConnections(), 0.2, delay},
         {"out",
          b,
          {0, 100},
          ConnectionRule::fixedOutDegree(7).withoutMultipleConnections(),
          SynapseValues::exponential(0.3),
          delay,
          true},
         {"total", noise, a, ConnectionRule::fixedTotalNumber(90),
          SynapseValues::logNormal(-1.0, 0.5).within(0.0, 2.0), 2 * ms},
         {"some", a, b, ConnectionRule::bernoulli(0.2),
          SynapseValues::normal(0.3, 0.1).within(0, 1),
          SynapseValues::normal(2 * ms, 1 * ms).within(1 * ms, 5 * ms)},
         {"every", train, b, ConnectionRule::allToAll(), 0.5, 1 * ms},
         {"one",
          {0, 40},
          b,
          ConnectionRule::oneToOne(),
          0.1,
          SynapseValues::fromFunction([](NodeId source, NodeId, std::uint64_t) {
              return static_cast<double>(1 * ms + static_cast<ModelTime>(source));
          })}},
        11);
    RuntimeOptions options{.seed = 5, .horizon = 400 * ms};
    const Neuron neuron{.tau_membrane = 15 * ms, .adaptation_increment = 0.1};
    const Firing firing{.base_rate = 12 * Hz, .gain = 2.0, .max_rate = 300 * Hz};
    Firing slow = firing;
    slow.base_rate = 3 * Hz;
    options.populations = {{"a", 60, neuron, firing},
                           {"b", 40, {.non_leaky = true}, slow},
                           poissonSources("noise", 30, 20 * Hz),
                           spikeSources("train", 2)};
    options.given_spikes = {{5 * ms, 131}, {7 * ms, 130}, {7 * ms, 131}, {120 * ms, 130}};
    auto runtime = makeRuntime(wiring.build(), options);
    runtime->run();
    return runtime;
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
    if (argc != 3) return 2;
    const auto runtime = std::string(argv[1]) == "wired" ? wired() : composed();
    const Blob bytes = runtime->checkpoint();
    std::ofstream(argv[2], std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    std::printf("%016" PRIx64 " %016" PRIx64 "\n", runtime->configId(), runtime->logHash());
}
