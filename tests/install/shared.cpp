// A shared object that uses the library through its one header.
#include "kelm/kelm.h"

using namespace kelm::Units;

/// Runs the ring of main.cpp halfway, stores it and continues it. Returns 0 if all agree.
extern "C" int continuedRing() {
    std::vector<kelm::Synapse> synapses(6);
    for (kelm::NodeId n = 0; n < 6; ++n) {
        synapses[n].source = n;
        synapses[n].target = (n + 1) % 6;
        synapses[n].weight = static_cast<float>((n + 1) % 5) * 0.05F + 0.25F;
        synapses[n].delay = 2 * ms;
    }
    const kelm::Neuron neuron{.tau_membrane = 5 * ms,
                              .tau_adaptation = 50'000 * us,
                              .refractory_period = 1'000'000 * ns,
                              .adaptation_increment = 0.2};
    const kelm::Firing firing{.base_rate = 150.0 * Hz, .gain = 1.5};
    kelm::SynapseGraph graph(6, 1 * ms, synapses);
    // The ceiling of a million spikes per second does no harm beside the refractory period.
    if (!kelm::validate(graph).empty() || !kelm::validate(neuron, firing, 1 * ms, 1 * s).empty()) {
        return 1;
    }
    const std::uint64_t config_id = kelm::fingerprint(graph, neuron, firing, 20 * ms);
    kelm::CpuWindowBackend backend;
    const auto make = [&] {
        return kelm::makeKelmRuntime(graph, neuron, firing, 1, 20 * ms, &backend, nullptr, {}, {},
                                     {}, {}, {}, config_id, "ring");
    };
    kelm::KelmRuntime first = make();
    first.run(10 * ms);
    const kelm::Blob checkpoint = first.checkpoint();
    if (kelm::examineCheckpoint(checkpoint).config_id != config_id) return 2;
    kelm::KelmRuntime second = make();
    kelm::restoreCheckpoint(second, checkpoint);
    second.run();
    kelm::RandomContext& streams = second.randomStreams();
    if (streams.seed() != 1) return 3;
    return second.logHash() == 0xd4962290def24958 ? 0 : 4;
}
