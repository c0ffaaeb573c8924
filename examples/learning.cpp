// A path of three neurons. Inputs drive them one after the other, so the pair rule strengthens the
// synapses along the path and weakens the synapses against it. Prints the four weights over time.
#include <array>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "kelm/kelm.h"

using namespace kelm;

int main() {
    // Synapses 0 and 1 lead along the path 0, 1, 2; synapses 2 and 3 lead back.
    const std::vector<NodeId> sources{0, 1, 1, 2}, targets{1, 2, 0, 1};
    RuntimeOptions options{.seed = 1,
                           .neuron = {.refractory_period = 5 * ms},
                           .firing = {.base_rate = 0.5 * Hz, .gain = 3.0}};
    options.plasticity = {.enabled = true};
    options.plasticity.excitatory = {PlasticityRuleKind::pair, 0.03, 0.036};
    for (NodeId n = 0; n < 3; ++n) {  // a channel that makes a neuron fire
        options.input_channels.push_back({.name = std::to_string(n), .targets = {n}, .gain = 3.0});
    }
    const auto runtime = makeRuntime(
        SynapseGraph(3, 1 * ms, SynapseColumns{sources, targets, 0.3F, 1 * ms}), options);

    std::array<float, 4> weights{};
    std::printf("   time   0->1                 1->2                 1->0                 2->1\n");
    for (ModelTime round = 0; round < 4 * s; round += 200 * ms) {
        runtime->graph().readWeights(0, weights);
        std::printf("%5" PRId64 " ms", round / ms);
        for (const float weight : weights) {
            std::printf("  %-19s", std::string(static_cast<std::size_t>(weight * 20), '=').c_str());
        }
        std::printf("\n");
        for (NodeId n = 0; n < 3; ++n) {
            const ModelTime lag = (1 + 8 * static_cast<ModelTime>(n)) * ms;
            runtime->inject(std::to_string(n), round + lag, 1.0);
        }
        runtime->runFor(200 * ms);
    }
    runtime->graph().readWeights(0, weights);
    std::printf("along the path %.3f and %.3f, against it %.3f and %.3f\n", weights[0], weights[1],
                weights[2], weights[3]);
    return weights[0] > weights[2] && weights[1] > weights[3] ? 0 : 1;
}
