// A path of three neurons. Inputs drive them one after the other, so the pair rule strengthens the
// synapses along the path and weakens the synapses against it. Prints the four weights over time,
// taken from the journal.
#include <array>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"

using namespace Lumenar::Core::Kelm;

namespace {

constexpr ModelTime millisecond = 1'000'000;
constexpr ModelTime horizon = 4000 * millisecond;
constexpr ModelTime round_length = 200 * millisecond;

/// Edges 0 and 1 lead along the path 0, 1, 2; edges 2 and 3 lead back.
SynapseGraph wire() {
    std::vector<Synapse> synapses;
    for (const auto& [source, target] :
         std::vector<std::pair<NodeId, NodeId>>{{0, 1}, {1, 2}, {1, 0}, {2, 1}}) {
        synapses.push_back({.source = source, .target = target, .delay = millisecond});
        synapses.back().weight = 0.3F;
    }
    return SynapseGraph(3, millisecond, std::move(synapses));
}

PlasticityConfig pairRule() {
    PlasticityConfig config;
    config.enabled = true;
    config.excitatory = {
        .kind = PlasticityRuleKind::pair, .a_potentiation = 0.03, .a_depression = 0.036};
    return config;
}

/// One channel per neuron, strong enough to make it fire.
std::vector<InputChannelSpec> drives() {
    std::vector<InputChannelSpec> channels;
    for (NodeId n = 0; n < 3; ++n) {
        channels.push_back({.name = "drive " + std::to_string(n), .targets = {n}, .gain = 3.0});
    }
    return channels;
}

std::string bar(double weight) {
    return std::string(static_cast<std::size_t>(weight * 20.0 + 0.5), '=');
}

}  // namespace

int main() {
    const Kernel::Neuron neuron{.refractory_period = 5 * millisecond};
    const Kernel::Firing firing{.base_rate = 0.5, .gain = 3.0};
    CpuWindowBackend backend;
    KelmRuntime runtime =
        makeKelmRuntime(wire(), neuron, firing, /*seed=*/1, horizon, &backend, nullptr, pairRule(),
                        std::nullopt, std::nullopt, drives());
    for (ModelTime start = 0; start < horizon; start += round_length) {
        for (NodeId n = 0; n < 3; ++n) {
            const auto lag = static_cast<ModelTime>(n) * 8 * millisecond;
            runtime.inject("drive " + std::to_string(n), start + lag, 1.0);
        }
    }
    runtime.run();

    // The journal holds every change. A line shows the last weight of each synapse up to its time.
    std::array<double, 4> weights{0.3, 0.3, 0.3, 0.3};
    std::printf("   time   0->1                 1->2                 1->0                 2->1\n");
    ModelTime line = 0;
    const auto print = [&] {
        std::printf("%5" PRId64 " ms", line / millisecond);
        for (const double weight : weights) std::printf("  %-19s", bar(weight).c_str());
        std::printf("\n");
    };
    for (const JournalEntry& entry : runtime.learningControl()->journal()) {
        for (; entry.time >= line; line += round_length) print();
        weights[entry.edge] = entry.weight_after;
    }
    print();
    std::printf("%zu changes; along the path %.3f and %.3f, against it %.3f and %.3f\n",
                runtime.learningControl()->journal().size(), weights[0], weights[1], weights[2],
                weights[3]);
    return weights[0] > weights[2] && weights[1] > weights[3] ? 0 : 1;
}
