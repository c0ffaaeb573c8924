// Six neurons in a ring, each exciting the next, for 20 ms of model time.
#include <cinttypes>
#include <cstdio>
#include <vector>

#include "kelm/kelm.h"

using namespace kelm;

int main() {
    std::vector<Synapse> synapses;
    for (NodeId n = 0; n < 6; ++n) {
        synapses.push_back({.source = n, .target = (n + 1) % 6, .delay = 2 * ms});
        synapses.back().weight = 0.25F + 0.05F * static_cast<float>((n + 1) % 5);
    }
    const auto runtime = makeRuntime(SynapseGraph(6, 1 * ms, std::move(synapses)),
                                     {.seed = 1,
                                      .horizon = 20 * ms,
                                      .neuron = {.tau_membrane = 5 * ms,
                                                 .tau_adaptation = 50 * ms,
                                                 .refractory_period = 1 * ms,
                                                 .adaptation_increment = 0.2},
                                      .firing = {.base_rate = 150 * Hz, .gain = 1.5}});
    runtime->run();
    for (const SpikeRecord& spike : runtime->spikeLog()) {
        std::printf("%9" PRId64 " ns  neuron %" PRIu64 "\n", spike.time, spike.neuron);
    }
    std::printf("log hash %016" PRIx64 "\n", runtime->logHash());
}
