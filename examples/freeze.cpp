// A plastic network. `freeze straight` runs to 400 ms. `freeze first FILE` runs to 200 ms and
// writes a checkpoint; `freeze second FILE` goes on from it, in another process, to the same
// digest.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "kelm/kelm.h"

using namespace kelm;

int main(int argc, char** argv) try {
    const std::string mode = argc > 1 ? argv[1] : "straight", file = argc > 2 ? argv[2] : "";
    const NeuronRange all{0, 100};
    const SynapseValues delay = SynapseValues::uniform(1 * ms, 30 * ms);
    const Wiring wiring(100, 1 * ms,
                        {{"all", all, all, ConnectionRule::fixedInDegree(10), 0.3, delay}}, 7);
    RuntimeOptions options{.seed = 1, .firing = {.base_rate = 8 * Hz, .gain = 2.0}};
    options.plasticity = {.enabled = true};
    options.plasticity.excitatory = {PlasticityRuleKind::pair, 0.01, 0.012};
    const auto runtime = makeRuntime(wiring.build(), options);
    if (mode == "first") {
        runtime->run(200 * ms);
        saveCheckpoint(*runtime, file);
        return 0;
    }
    if (mode == "second") loadCheckpoint(*runtime, file);
    runtime->run(400 * ms);
    std::printf("%zu spikes, log hash %016" PRIx64 "\n", runtime->spikeLog().size(),
                runtime->logHash());
} catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
