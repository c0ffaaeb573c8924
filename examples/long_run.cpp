// A run that may be killed at any moment. `long_run NAME NEURONS MS` runs a network with 100
// synapses a neuron and writes NAME.npy, its spikes, and NAME.kelm, its last checkpoint. Started
// again, it continues from there, to the spikes and the digest of a run without interruption.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "kelm/kelm.h"

using namespace kelm;

int main(int argc, char** argv) try {
    const std::string name = argc > 1 ? argv[1] : "long_run";
    const NodeId neurons = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 10'000;
    const ModelTime end = (argc > 3 ? std::atoi(argv[3]) : 1000) * ms;

    const NeuronRange all{0, neurons}, excitatory{0, neurons * 4 / 5},
        inhibitory{excitatory.end(), neurons - excitatory.count};
    const SynapseValues delay = SynapseValues::uniform(1 * ms, 3 * ms);
    const Wiring wiring(
        neurons, 1 * ms,
        {{"E", excitatory, all, ConnectionRule::fixedInDegree(80), 0.1, delay},
         {"I", inhibitory, all, ConnectionRule::fixedInDegree(20), 0.45, delay, true}},
        7);
    const auto runtime = makeRuntime(
        wiring.build(), {.seed = 1, .firing = {.base_rate = 6 * Hz, .gain = 3.0, .max_rate = 400}});

    const std::string checkpoint = name + ".kelm", spikes = name + ".npy";
    const bool continued = std::filesystem::exists(checkpoint);
    if (continued) loadCheckpoint(*runtime, checkpoint);
    SpikeFile file =
        continued ? SpikeFile::resume(spikes, runtime->takenSpikes()) : SpikeFile::create(spikes);
    while (runtime->position() < end) {
        runtime->run(std::min(runtime->position() + 100 * ms, end));
        file.append(runtime->takeSpikes());
        file.flush();
        saveCheckpoint(*runtime, checkpoint);
    }
    std::printf("%" PRIu64 " spikes, digest %016" PRIx64 "\n", file.size(), runtime->logHash());
} catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
