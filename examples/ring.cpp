// Six neurons in a ring, each exciting the next, for 20 ms of model time.
#include <cinttypes>
#include <cstdio>
#include <utility>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"

using namespace Lumenar::Core::Kelm;

int main() {
    std::vector<Synapse> synapses;
    for (NodeId n = 0; n < 6; ++n) {
        synapses.push_back({.source = n, .target = (n + 1) % 6, .delay = 2'000'000});
        synapses.back().weight = 0.25F + 0.05F * static_cast<float>((n + 1) % 5);
    }
    SynapseGraph network(6, 1'000'000, std::move(synapses));  // no delay below 1 ms

    Kernel::Neuron neuron{.tau_membrane = 5'000'000, .tau_adaptation = 50'000'000};
    neuron.refractory_period = 1'000'000;
    neuron.adaptation_increment = 0.2;
    const Kernel::Firing firing{.base_rate = 150.0, .gain = 1.5};

    CpuWindowBackend backend;
    KelmRuntime runtime =
        makeKelmRuntime(std::move(network), neuron, firing, /*seed=*/1, 20'000'000, &backend);
    runtime.run();

    for (const SpikeRecord& spike : runtime.spikeLog()) {
        std::printf("%9" PRId64 " ns  neuron %" PRIu64 "\n", spike.time, spike.neuron);
    }
    std::printf("log hash %016" PRIx64 "\n", runtime.logHash());
}
