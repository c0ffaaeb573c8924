// A population that an oscillator drives with 8 cycles per second. Half of the neurons prefer its
// crest, the other half its trough. Prints a raster, and for each half a histogram of the phases of
// its spikes.
#include <array>
#include <cinttypes>
#include <cstdio>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"

using namespace Lumenar::Core::Kelm;

namespace {

constexpr ModelTime millisecond = 1'000'000;
constexpr NodeId neuron_count = 200;
constexpr NodeId trough_from = 100;
constexpr ModelTime horizon = 1000 * millisecond;
constexpr std::uint32_t theta = 1;

/// Every neuron weakly excites the next one of its half.
SynapseGraph wire() {
    std::vector<Synapse> synapses;
    for (NodeId n = 0; n < neuron_count; ++n) {
        const NodeId half = n < trough_from ? 0 : trough_from;
        synapses.push_back(
            {.source = n, .target = half + (n + 1) % trough_from, .delay = 2 * millisecond});
        synapses.back().weight = 0.1F;
    }
    return SynapseGraph(neuron_count, millisecond, std::move(synapses));
}

PhaseConfig rhythm() {
    PhaseConfig phase;
    phase.oscillators = {{.id = theta, .frequency = 8.0, .phase = 0.0, .amplitude = 1.0}};
    for (NodeId n = 0; n < neuron_count; ++n) {
        PhaseBinding binding{.oscillator = theta, .strength = 0.8};
        binding.phase_offset = n < trough_from ? 0.0 : std::numbers::pi;
        phase.bindings.push_back({binding});
    }
    return phase;
}

void printRaster(const std::vector<SpikeRecord>& spikes) {
    constexpr NodeId neurons_per_line = 10;
    constexpr ModelTime column = 12'500'000;  // a tenth of a cycle
    std::vector<std::string> lines(neuron_count / neurons_per_line,
                                   std::string(horizon / column, ' '));
    for (const SpikeRecord& spike : spikes) {
        char& mark =
            lines[spike.neuron / neurons_per_line][static_cast<std::size_t>(spike.time / column)];
        mark = mark == ' ' ? '.' : mark == '.' ? ':' : '#';
    }
    for (const std::string& line : lines) std::printf("|%s|\n", line.c_str());
}

}  // namespace

int main() {
    const Kernel::Neuron neuron{.adaptation_increment = 0.1};
    const Kernel::Firing firing{.base_rate = 5.0, .gain = 3.0};
    CpuWindowBackend backend;
    KelmRuntime runtime = makeKelmRuntime(wire(), neuron, firing, /*seed=*/1, horizon, &backend,
                                          nullptr, {}, rhythm());
    // Every neuron is a member of the oscillator, so each spike is logged with its phase.
    runtime.oscillators()->setMemberships(
        std::vector<std::vector<std::uint32_t>>(neuron_count, {theta}));
    runtime.run();

    const auto log = runtime.spikeLog();
    printRaster({log.begin(), log.end()});

    constexpr std::size_t bins = 12;
    std::array<std::array<int, bins>, 2> counts{};
    for (const PhaseLogEntry& entry : runtime.phaseLog()) {
        const double share = entry.phases.at(0).phase / (2.0 * std::numbers::pi);
        const auto bin = static_cast<std::size_t>(share * bins);
        ++counts[entry.neuron < trough_from ? 0 : 1][bin < bins ? bin : bins - 1];
    }
    std::printf("\nphase    crest half                        trough half\n");
    for (std::size_t bin = 0; bin < bins; ++bin) {
        const auto bar = [&](int n) { return std::string(static_cast<std::size_t>(n) / 10, '*'); };
        std::printf("%3zu deg  %-33s %s\n", bin * 360 / bins, bar(counts[0][bin]).c_str(),
                    bar(counts[1][bin]).c_str());
    }
    std::printf("%zu spikes, log hash %016" PRIx64 "\n", log.size(), runtime.logHash());
}
