#include "gate/BackendGates.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "gate/GateRequire.h"
#include "gate/GateRun.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::uint64_t ring_size = 8;
constexpr ModelTime ring_delay = 1'000'000;

/// Synapses from each neuron to its `fanout` successors, source by source.
std::vector<Synapse> ringSynapses(std::uint64_t fanout, float weight) {
    std::vector<Synapse> synapses;
    for (std::uint64_t i = 0; i < ring_size; ++i) {
        for (std::uint64_t j = 1; j <= fanout; ++j) {
            Synapse synapse;
            synapse.source = i;
            synapse.target = (i + j) % ring_size;
            synapse.weight = weight;
            synapse.delay = ring_delay;
            synapses.push_back(synapse);
        }
    }
    return synapses;
}

/// Throws `failure` unless the network is eligible as expected and the reason contains `reason`.
void requireVerdict(std::vector<Synapse> synapses, bool eligible, const std::string& reason,
                    const char* failure) {
    SynapseGraph graph(ring_size, ring_delay, std::move(synapses));
    std::string given;
    const bool verdict = residentEligible(graph, &given);
    const bool reason_fits = eligible ? given.empty() : given.find(reason) != std::string::npos;
    if (verdict != eligible || !reason_fits) throw std::runtime_error(failure);
}

std::vector<Kernel::Neuron> alternatingNeurons() {
    std::vector<Kernel::Neuron> neurons(ring_size);
    for (std::uint64_t i = 0; i < ring_size; ++i) {
        const bool even = i % 2 == 0;
        neurons[i].tau_membrane = even ? 6'000'000 : 45'000'000;
        neurons[i].tau_adaptation = even ? 40'000'000 : 240'000'000;
        neurons[i].refractory_period = even ? 1'000'000 : 3'000'000;
        neurons[i].input_coupling = even ? 1.25 : -0.75;
    }
    return neurons;
}

std::vector<Kernel::Firing> alternatingFirings() {
    std::vector<Kernel::Firing> firings(ring_size);
    for (std::uint64_t i = 0; i < ring_size; ++i) {
        const bool even = i % 2 == 0;
        firings[i].base_rate = even ? 45.0 : 12.0;
        firings[i].threshold = even ? 0.25 : -0.2;
        firings[i].rate_scale = even ? 0.65 : 1.0;
    }
    return firings;
}

/// A ring of unequal neurons with one stimulus for each at time 0.
std::unique_ptr<WindowEngine> makeHeterogeneousEngine() {
    constexpr std::uint64_t seed = 9182;
    constexpr ModelTime horizon = 80'000'000;
    auto engine =
        std::make_unique<WindowEngine>(SynapseGraph(ring_size, ring_delay, ringSynapses(1, 0.12F)),
                                       alternatingNeurons(), alternatingFirings(), seed, horizon);
    for (NodeId i = 0; i < ring_size; ++i) {
        Event stimulus;
        stimulus.kind = EventKind::input;
        stimulus.source = i;
        stimulus.target = i;
        stimulus.value = 0.8;
        engine->post(stimulus);
    }
    return engine;
}

/// Numeric equality: a NaN differs from everything.
bool equalNumbers(const Kernel::State& a, const Kernel::State& b) {
    return a.membrane == b.membrane && a.adaptation == b.adaptation &&
           a.last_update == b.last_update && a.refractory_until == b.refractory_until &&
           a.hazard_bound == b.hazard_bound;
}

}  // namespace

void checkResidentEligibility() {
    const std::vector<Synapse> uniform = ringSynapses(2, 0.1F);
    requireVerdict(uniform, true, "", "uniform d_min graph must be resident-eligible");
    std::vector<Synapse> irregular = uniform;
    irregular.pop_back();
    requireVerdict(std::move(irregular), false, "uniform fan-out",
                   "irregular fan-out must use the CPU fallback");
    std::vector<Synapse> mixed = uniform;
    mixed[0].delay = 2 * ring_delay;
    requireVerdict(std::move(mixed), false, "equal d_min",
                   "mixed delays must use the CPU fallback");
}

void checkHeterogeneous() {
    CpuWindowBackend cpu_backend;
    CudaWindowBackend cuda_backend;
    const auto cpu = makeHeterogeneousEngine();
    const auto cuda = makeHeterogeneousEngine();
    cpu->run(cpu_backend);
    cuda->run(cuda_backend);

    const auto cpu_log = cpu->spikeLog();
    const auto cuda_log = cuda->spikeLog();
    const bool logs_equal =
        std::equal(cpu_log.begin(), cpu_log.end(), cuda_log.begin(), cuda_log.end());
    if (!logs_equal || cpu->states().size() != cuda->states().size()) {
        throw std::runtime_error("heterogeneous CPU/GPU event logs differ");
    }
    for (std::size_t i = 0; i < cpu->states().size(); ++i) {
        if (!equalNumbers(cpu->states()[i], cuda->states()[i])) {
            throw std::runtime_error("heterogeneous CPU/GPU neuron states differ");
        }
    }
}

void checkProfile() {
    CudaWindowBackend backend;
    const GateRun run = runModel(0, 1, backend);
    gateRequire(run.profile.windows != 0, "the profiler counted no windows");
    gateRequire(run.profile.updates >= run.profile.candidates,
                "there were more thinning candidates than neuron updates");
    gateRequire(backend.windowCount() != 0, "the CUDA backend counted no windows");
    gateRequire(backend.smallWindowCount() != 0,
                "a 6-neuron model produced no small window, which cannot be right");
    gateRequire(!cudaDeviceName().empty(), "the backend cannot name the device it ran on");
}

}  // namespace Lumenar::Core::Kelm
