#include "tests/support/ResidentModel.h"

#include <algorithm>

#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

std::vector<Synapse> generateSynapses(Draws& draws, const ResidentModel& model) {
    std::vector<Synapse> synapses;
    for (NodeId source = 0; source < model.node_count; ++source) {
        for (std::uint64_t k = 0; k < model.fanout; ++k) {
            Synapse synapse;
            synapse.source = source;
            synapse.target = draws.oneIn(12) ? source : draws.below(model.node_count);
            synapse.inhibitory = draws.oneIn(4);
            synapse.weight = draws.oneIn(20) ? 0.0F : static_cast<float>(draws.between(0.0, 0.6));
            synapse.delay = model.d_min;
            synapses.push_back(synapse);
        }
    }
    // Edge ids need not follow the sources; each source keeps its own in ascending order.
    if (draws.oneIn(2)) {
        for (std::size_t i = synapses.size(); i > 1; --i) {
            std::swap(synapses[i - 1], synapses[draws.below(i)]);
        }
    }
    return synapses;
}

}  // namespace

ResidentModel generateResidentModel(std::uint64_t seed, std::uint64_t max_neurons) {
    Draws draws(seed);
    ResidentModel model;
    model.seed = seed;
    model.node_count =
        1 + draws.below(draws.oneIn(8) ? max_neurons : std::min<std::uint64_t>(max_neurons, 60));
    model.fanout = 1 + draws.below(6);
    model.d_min = 1 + draws.timeBelow(draws.oneIn(3) ? 40 : 3'000'000);
    model.horizon = model.d_min * (1 + draws.timeBelow(60));
    model.run_seed = draws.next();
    model.synapses = generateSynapses(draws, model);

    model.neuron.tau_membrane = 1 + draws.timeBelow(20 * static_cast<std::uint64_t>(model.d_min));
    model.neuron.tau_adaptation =
        1 + draws.timeBelow(100 * static_cast<std::uint64_t>(model.d_min));
    model.neuron.refractory_period = model.d_min / 6 + 1;
    model.neuron.adaptation_increment = draws.between(0.0, 1.0);
    if (draws.oneIn(5)) model.neuron.input_coupling = draws.between(-0.5, 0.5);
    model.neuron.hard_refractory = !draws.oneIn(4);

    const double windows_per_s = 1e9 / static_cast<double>(model.d_min);
    const double rates[] = {0.0, 0.002, 0.02, 0.2, 1.0};  // spikes per window
    model.firing.base_rate = rates[draws.below(5)] * windows_per_s;
    model.firing.gain = draws.between(0.2, 2.0);
    model.firing.max_rate = 2.5 * windows_per_s;
    return model;
}

}  // namespace Lumenar::Core::Kelm::Testing
