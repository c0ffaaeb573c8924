// 300 neurons, a fifth of them inhibitory, wired at random, for 800 ms of model time. Prints a
// raster: a line for ten neurons, a column for 8 ms. Takes the seed as its argument.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelm/kelm.h"

using namespace kelm;

int main(int argc, char** argv) {
    const std::uint64_t seed = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
    const NeuronRange excitatory{0, 240}, inhibitory{240, 60}, all{0, 300};
    const auto rule = ConnectionRule::fixedOutDegree(30);
    const SynapseValues delay = SynapseValues::uniform(1 * ms, 9 * ms);
    const Wiring wiring(300, 1 * ms,
                        {{"exc", excitatory, all, rule, 0.3, delay},
                         {"inh", inhibitory, all, rule, 0.6, delay, true}},
                        seed);
    const auto runtime = makeRuntime(
        wiring.build(), {.seed = seed,
                         .neuron = {.tau_membrane = 10 * ms, .adaptation_increment = 0.2},
                         .firing = {.base_rate = 3 * Hz, .gain = 3.0, .max_rate = 400 * Hz}});
    runtime->run(800 * ms);

    std::vector<std::string> lines(30, std::string(100, ' '));
    for (const SpikeRecord& spike : runtime->spikeLog()) {
        const auto column = static_cast<std::size_t>(spike.time / (8 * ms));
        if (column >= 100) continue;  // the last window may end later
        char& mark = lines[spike.neuron / 10][column];
        mark = mark == ' ' ? '.' : mark == '.' ? ':' : '#';
    }
    for (const std::string& line : lines) std::printf("|%s|\n", line.c_str());
    std::printf("%zu spikes in %" PRIu64 " windows, log hash %016" PRIx64 "\n",
                runtime->spikeLog().size(), runtime->profile().windows, runtime->logHash());
}
