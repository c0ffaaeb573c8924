// 300 neurons, a fifth of them inhibitory, wired at random, for 800 ms of model time. Prints a
// raster: a line for ten neurons, a column for 8 ms. Takes the seed as its argument.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/RandomContext.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"

using namespace Lumenar::Core::Kelm;

int main(int argc, char** argv) {
    const std::uint64_t seed = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
    constexpr ModelTime ms = 1'000'000, horizon = 800 * ms;
    constexpr NodeId neurons = 300, inhibitory_from = 240;

    // The library's own streams give the same numbers everywhere, unlike the standard library's.
    Lumenar::Core::Runtime::RandomContext random(seed);
    const auto wiring = random.streamFor("wiring", 0);
    std::vector<Synapse> synapses;
    for (NodeId source = 0; source < neurons; ++source) {
        for (int i = 0; i < 30; ++i) {
            Synapse synapse{.source = source, .target = random.next(wiring) % neurons};
            synapse.inhibitory = source >= inhibitory_from;
            synapse.weight = synapse.inhibitory ? 0.6F : 0.3F;
            synapse.delay = ms * static_cast<ModelTime>(1 + random.next(wiring) % 8);
            synapses.push_back(synapse);
        }
    }
    const Kernel::Neuron neuron{.tau_membrane = 10 * ms, .adaptation_increment = 0.2};
    const Kernel::Firing firing{.base_rate = 3.0, .gain = 3.0, .max_rate = 400.0};

    CpuWindowBackend backend;
    KelmRuntime runtime = makeKelmRuntime(SynapseGraph(neurons, ms, std::move(synapses)), neuron,
                                          firing, seed, horizon, &backend);
    runtime.run();

    std::vector<std::string> lines(neurons / 10, std::string(horizon / (8 * ms), ' '));
    for (const SpikeRecord& spike : runtime.spikeLog()) {
        char& mark = lines[spike.neuron / 10][static_cast<std::size_t>(spike.time / (8 * ms))];
        mark = mark == ' ' ? '.' : mark == '.' ? ':' : '#';
    }
    for (const std::string& line : lines) std::printf("|%s|\n", line.c_str());
    std::printf("%zu spikes in %" PRIu64 " windows, log hash %016" PRIx64 "\n",
                runtime.spikeLog().size(), runtime.profile().windows, runtime.logHash());
}
