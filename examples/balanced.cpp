// A balanced network: 1600 excitatory and 400 inhibitory neurons, each with 80 excitatory and 20
// inhibitory inputs, for a second.
#include <cinttypes>
#include <cstdio>

#include "kelm/kelm.h"

using namespace kelm;

int main() {
    const NeuronRange excitatory{0, 1600}, inhibitory{1600, 400}, all{0, 2000};
    const SynapseValues delay = SynapseValues::uniform(1 * ms, 3 * ms);
    const Wiring wiring(
        2000, 1 * ms,
        {{"exc", excitatory, all, ConnectionRule::fixedInDegree(80), 0.10, delay},
         {"inh", inhibitory, all, ConnectionRule::fixedInDegree(20), 0.45, delay, true}},
        /*seed=*/7);
    const auto runtime = makeRuntime(
        wiring.build(), {.seed = 1,
                         .neuron = {.tau_membrane = 10 * ms, .adaptation_increment = 0.0},
                         .firing = {.base_rate = 6 * Hz, .gain = 3.0, .max_rate = 400 * Hz}});
    runtime->run(1 * s);
    std::printf("%zu spikes, digest %016" PRIx64 "\n", runtime->spikeLog().size(),
                runtime->logHash());
}
