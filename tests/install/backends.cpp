// The ring of main.cpp with every backend of the package, through the one header.
#include <vector>

#include "kelm/kelm.h"

int main() {
    std::vector<kelm::Synapse> ring;
    for (kelm::NodeId n = 0; n < 6; ++n) {
        ring.push_back({.source = n,
                        .target = (n + 1) % 6,
                        .weight = static_cast<float>((n + 1) % 5) * 0.05F + 0.25F,
                        .delay = 2 * kelm::ms});
    }
    std::vector<std::string> names = kelm::availableBackends();
    names.push_back("auto");
    for (const std::string& name : names) {
        const auto runtime = kelm::makeRuntime(kelm::SynapseGraph(6, 1 * kelm::ms, ring),
                                               {.seed = 1,
                                                .horizon = 20 * kelm::ms,
                                                .backend = name,
                                                .neuron = {.tau_membrane = 5 * kelm::ms,
                                                           .tau_adaptation = 50 * kelm::ms,
                                                           .refractory_period = 1 * kelm::ms,
                                                           .adaptation_increment = 0.2},
                                                .firing = {.base_rate = 150.0, .gain = 1.5}});
        runtime->run();
        if (runtime->logHash() != 0xd4962290def24958) return 1;
    }
    return names.size() >= 3 ? 0 : 1;
}
