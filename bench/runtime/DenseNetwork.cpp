#include "bench/runtime/DenseNetwork.h"

#include "kelm/core/RandomContext.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::uint64_t wiring_seed = 1001;

}  // namespace

DenseNetwork buildDenseNetwork(const BenchmarkScale& scale, std::uint64_t fanout) {
    Runtime::RandomContext random(wiring_seed);
    const Runtime::RandomContext::Stream wiring = random.streamFor("wiring", 0);
    const std::uint64_t excitatory = scale.neuron_count - scale.neuron_count / 5;
    const auto synapse_at = [&](EdgeId id) {
        Synapse synapse;
        synapse.source = id / fanout;
        synapse.target = random.next(wiring) % scale.neuron_count;
        synapse.inhibitory = synapse.source >= excitatory;
        synapse.weight = synapse.inhibitory ? 0.25F : 0.05F;
        synapse.delay = scale.min_delay;
        return synapse;
    };
    DenseNetwork network{
        {scale.neuron_count, scale.min_delay, scale.neuron_count * fanout, synapse_at}, {}, {}};
    network.neuron.adaptation_increment = 0.5;
    network.firing.base_rate = scale.base_rate;
    network.firing.gain = 2.0;
    return network;
}

}  // namespace Lumenar::Core::Kelm
