// The rate of one network under eight seeds, and its spread.
#include <cinttypes>
#include <cmath>
#include <cstdio>

#include "kelm/kelm.h"

using namespace kelm;

int main() {
    constexpr std::uint64_t neurons = 400, seeds = 8;
    const NeuronRange all{0, neurons};
    const SynapseGraph network =
        Wiring(neurons, 1 * ms,
               {{.name = "recurrent",
                 .sources = all,
                 .targets = all,
                 .rule = ConnectionRule::bernoulli(0.05).withoutSelfConnections(),
                 .weight = SynapseValues::logNormal(-2.5, 0.5).within(0.0, 1.0),
                 .delay = 2 * ms}},
               /*seed=*/7)
            .build();
    double sum = 0.0, squares = 0.0;
    for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
        const auto runtime = makeRuntime(
            network, {.seed = seed, .backend = "lanes", .firing = {.base_rate = 5 * Hz}});
        runtime->run(1 * s);
        const double rate = static_cast<double>(runtime->spikeLog().size()) / neurons;
        std::printf("seed %" PRIu64 ": %.2f spikes/s, digest %016" PRIx64 "\n", seed, rate,
                    runtime->logHash());
        sum += rate;
        squares += rate * rate;
    }
    const double mean = sum / seeds;
    std::printf("mean %.2f, standard deviation %.2f spikes/s\n", mean,
                std::sqrt((squares - sum * mean) / (seeds - 1)));
}
