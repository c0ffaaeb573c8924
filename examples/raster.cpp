// A network of 300 neurons, a fifth of them inhibitory, wired at random. It runs for 800 ms
// of model time and prints its spikes as a raster: a line for ten neurons, a column for 8 ms.
//
//     raster [seed]
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/RandomContext.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"

using namespace Lumenar::Core::Kelm;
using Lumenar::Core::Runtime::RandomContext;

namespace {

constexpr ModelTime millisecond = 1'000'000;
constexpr NodeId neuron_count = 300;
constexpr NodeId inhibitory_from = 240;
constexpr int fanout = 30;
constexpr ModelTime shortest_delay = 1 * millisecond;
constexpr ModelTime horizon = 800 * millisecond;

/// Wires every neuron to `fanout` others. The numbers come from the library's own streams: unlike
/// the standard library's distributions, they are the same everywhere.
SynapseGraph wire(std::uint64_t seed) {
    RandomContext random(seed);
    const RandomContext::Stream wiring = random.streamFor("wiring", 0);
    std::vector<Synapse> synapses;
    for (NodeId source = 0; source < neuron_count; ++source) {
        for (int i = 0; i < fanout; ++i) {
            Synapse synapse;
            synapse.source = source;
            synapse.target = random.next(wiring) % neuron_count;
            synapse.inhibitory = source >= inhibitory_from;
            synapse.weight = synapse.inhibitory ? 0.6F : 0.3F;
            const auto extra_ms = static_cast<ModelTime>(random.next(wiring) % 8);
            synapse.delay = shortest_delay + extra_ms * millisecond;
            synapses.push_back(synapse);
        }
    }
    return SynapseGraph(neuron_count, shortest_delay, std::move(synapses));
}

void printRaster(std::span<const SpikeRecord> spikes) {
    constexpr NodeId neurons_per_line = 10;
    constexpr ModelTime column = 8 * millisecond;
    std::vector<std::vector<std::size_t>> counts(neuron_count / neurons_per_line,
                                                 std::vector<std::size_t>(horizon / column));
    for (const SpikeRecord& spike : spikes) {
        ++counts[spike.neuron / neurons_per_line][static_cast<std::size_t>(spike.time / column)];
    }
    const std::string marks = " .:+*#";
    for (std::size_t line = 0; line < counts.size(); ++line) {
        std::string text;
        for (const std::size_t n : counts[line])
            text += marks[n < marks.size() ? n : marks.size() - 1];
        std::printf("%c%03zu |%s|\n", line * neurons_per_line < inhibitory_from ? 'E' : 'I',
                    line * neurons_per_line, text.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t seed = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;

    const Kernel::Neuron neuron{.tau_membrane = 10 * millisecond,
                                .tau_adaptation = 100 * millisecond,
                                .refractory_period = 2 * millisecond,
                                .adaptation_increment = 0.2};
    const Kernel::Firing firing{.base_rate = 3.0, .gain = 3.0, .max_rate = 400.0};

    CpuWindowBackend backend;
    KelmRuntime runtime = makeKelmRuntime(wire(seed), neuron, firing, seed, horizon, &backend);
    runtime.run();

    printRaster(runtime.spikeLog());
    std::printf("%zu spikes in %" PRIu64 " windows, log hash %016" PRIx64 "\n",
                runtime.spikeLog().size(), runtime.profile().windows, runtime.logHash());
}
