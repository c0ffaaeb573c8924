// A run with the installed library: a ring of six neurons with a known log hash.
#include <cinttypes>
#include <cstdio>
#include <utility>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"

int main() {
    using namespace Lumenar::Core::Kelm;
    std::vector<Synapse> synapses(6);
    for (NodeId n = 0; n < 6; ++n) {
        synapses[n].source = n;
        synapses[n].target = (n + 1) % 6;
        synapses[n].weight = static_cast<float>((n + 1) % 5) * 0.05F + 0.25F;
        synapses[n].delay = 2'000'000;
    }
    Kernel::Neuron neuron;
    neuron.tau_membrane = 5'000'000;
    neuron.tau_adaptation = 50'000'000;
    neuron.refractory_period = 1'000'000;
    neuron.adaptation_increment = 0.2;
    Kernel::Firing firing;
    firing.base_rate = 150.0;
    firing.gain = 1.5;
    WindowEngine engine(SynapseGraph(6, 1'000'000, std::move(synapses)), neuron, firing, 1,
                        20'000'000);
    CpuWindowBackend backend;
    engine.run(backend);
    std::printf("%016" PRIx64 "\n", engine.logHash());
    return engine.logHash() == 0xd4962290def24958 ? 0 : 1;
}
