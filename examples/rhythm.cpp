// 200 neurons that an oscillator drives with 8 cycles per second. Half of the neurons prefer its
// crest, the other half its trough. Prints for each half a histogram of the phases of its spikes.
#include <array>
#include <cinttypes>
#include <cstdio>
#include <numbers>
#include <string>
#include <vector>

#include "kelm/kelm.h"

using namespace kelm;

int main() {
    const NeuronRange crest{0, 100};
    PhaseConfig phase;
    phase.oscillators = {{.id = 1, .frequency = 8 * Hz, .phase = 0.0, .amplitude = 1.0}};
    for (NodeId n = 0; n < 200; ++n) {
        PhaseBinding binding{.oscillator = 1, .strength = 0.8};
        binding.phase_offset = crest.contains(n) ? 0.0 : std::numbers::pi;
        phase.bindings.push_back({binding});
    }
    const auto runtime =
        makeRuntime(SynapseGraph(200, 1 * ms, {}), {.seed = 1,
                                                    .neuron = {.adaptation_increment = 0.1},
                                                    .firing = {.base_rate = 5 * Hz, .gain = 3.0},
                                                    .phase = phase});
    // Every neuron is a member of the oscillator, so each spike is logged with its phase.
    runtime->oscillators()->setMemberships(std::vector<std::vector<std::uint32_t>>(200, {1}));
    runtime->run(1 * s);

    constexpr std::size_t bins = 12;
    std::array<std::array<std::size_t, bins>, 2> counts{};
    for (const PhaseLogEntry& entry : runtime->phaseLog()) {
        const double share = entry.phases.at(0).phase / (2.0 * std::numbers::pi);
        ++counts[crest.contains(entry.neuron) ? 0 : 1]
                [static_cast<std::size_t>(share * bins) % bins];
    }
    std::printf("phase    crest half                        trough half\n");
    for (std::size_t bin = 0; bin < bins; ++bin) {
        std::printf("%3zu deg  %-33s %s\n", bin * 360 / bins,
                    std::string(counts[0][bin] / 10, '*').c_str(),
                    std::string(counts[1][bin] / 10, '*').c_str());
    }
    std::printf("%zu spikes, log hash %016" PRIx64 "\n", runtime->spikeLog().size(),
                runtime->logHash());
}
