#include "gate/FeatureGates.h"

#include <cstdint>
#include <exception>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "gate/GateRequire.h"
#include "gate/GateRun.h"
#include "gate/ModelCatalogue.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::uint64_t first_seed = 1;
constexpr std::uint64_t last_seed = 3;

/// Calls check(index, seed) for each model below `models` and each of three seeds.
template <class Check>
void forEachCell(std::uint64_t models, Check check) {
    for (std::uint64_t index = 0; index < models; ++index) {
        for (std::uint64_t seed = first_seed; seed <= last_seed; ++seed) check(index, seed);
    }
}

KelmRuntime makePlainRuntime(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend) {
    GateModel model = buildModel(index);
    return makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, seed, model.horizon,
                           &backend);
}

void checkRestoreCell(std::uint64_t index, std::uint64_t seed, IWindowBackend& cpu,
                      IWindowBackend& cuda) {
    const std::string label = cellLabel("model", index, seed);
    const GateRun reference = runModel(index, seed, cpu);

    KelmRuntime frozen = makePlainRuntime(index, seed, cuda);
    frozen.run(frozen.horizon() / 2);
    const Blob bytes = frozen.checkpoint();

    KelmRuntime resumed = makePlainRuntime(index, seed, cuda);
    gateRequire(resumed.restore(bytes), "the engine snapshot was rejected");
    gateRequire(resumed.commitCount() == resumed.profile().windows,
                "the runtime lost its commit position during restore");
    resumed.run();

    const GateRun run = collectRun(resumed);
    gateRequire(run.log.size() == reference.log.size(),
                "a snapshot/restore in the middle changed the number of spikes" + label);
    for (std::size_t i = 0; i < run.log.size(); ++i) {
        gateRequire(
            run.log[i] == reference.log[i],
            "the resumed run diverged from the reference at spike " + std::to_string(i) + label);
    }
    for (std::size_t i = 0; i < run.states.size(); ++i) {
        gateRequire(equalBits(run.states[i], reference.states[i]),
                    "the resumed run ended in a different neuron state" + label);
    }
}

PlasticityConfig plasticConfig() {
    PlasticityConfig config;
    config.trace.tau_pre = 20'000'000;
    config.trace.tau_post = 20'000'000;
    config.trace.tau_coincidence = 200'000'000;
    config.trace.epsilon = 1e-15;
    config.excitatory.kind = PlasticityRuleKind::pair;
    config.excitatory.a_potentiation = 0.01;
    config.excitatory.a_depression = 0.012;
    config.excitatory.a_coincidence = 0.01;
    config.excitatory.scale = 1.0;
    config.inhibitory = config.excitatory;
    config.enabled = true;
    return config;
}

/// The weight changes of a plastic run.
struct PlasticRun {
    double total_change = 0.0;  ///< over the journal, in its order
    double weight_sum = 0.0;    ///< over the synapses, in EdgeId order
};

PlasticRun runPlastic(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend) {
    GateModel model = buildModel(index);
    KelmRuntime runtime = makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, seed,
                                          model.horizon, &backend, nullptr, plasticConfig());
    runtime.run();
    const LearningControl* learning = runtime.learningControl();
    gateRequire(learning != nullptr, "the runtime did not construct its learning control");

    PlasticRun run;
    for (const JournalEntry& entry : learning->journal()) {
        run.total_change += entry.weight_after - entry.weight_before;
    }
    const SynapseGraph& graph = runtime.graph();
    for (EdgeId id = 0; id < graph.edgeCount(); ++id) {
        run.weight_sum += static_cast<double>(graph.edge(id).weight);
    }
    return run;
}

PhaseConfig phaseConfig(std::uint64_t index, std::uint64_t node_count) {
    PhaseConfig config;
    Oscillator oscillator;
    oscillator.id = 0;
    oscillator.frequency = static_cast<double>(index) + 7.0;
    oscillator.phase = 0.2;
    oscillator.amplitude = 1.0;
    config.oscillators.push_back(oscillator);
    for (std::uint64_t i = 0; i < node_count; ++i) {
        PhaseBinding binding;
        binding.oscillator = 0;
        binding.polarity = 0;
        binding.strength = static_cast<double>(i % 3) * 0.03 + 0.2;
        binding.phase_offset = 0.1;
        config.bindings.push_back({binding});
    }
    return config;
}

GateRun runPhase(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend) {
    GateModel model = buildModel(index);
    PhaseConfig phase = phaseConfig(index, model.graph.nodeCount());
    KelmRuntime runtime =
        makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, seed, model.horizon,
                        &backend, nullptr, PlasticityConfig(), std::move(phase));
    runtime.run();
    return collectRun(runtime);
}

/// Makes a phase run. The text of its failure gets the cell and the backend.
GateRun runPhaseNamed(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend,
                      const std::string& label, const char* place) {
    try {
        return runPhase(index, seed, backend);
    } catch (const std::exception& failure) {
        throw std::runtime_error(failure.what() + label + place);
    }
}

/// A composed run, and the counts of its recorder.
struct ComposedRun {
    GateRun run;
    std::size_t samples = 0;
    std::size_t spikes = 0;
};

KelmRuntime makeComposedRuntime(IWindowBackend& backend) {
    constexpr std::uint64_t composed_model = 3;
    constexpr std::uint64_t composed_seed = 7;
    GateModel model = buildModel(composed_model);

    RecorderConfig recorder;
    recorder.record_spikes = true;
    recorder.causal = true;
    recorder.sample_interval = 2'000'000;
    recorder.sample_kinds = {SampleKind::membrane};

    InputChannelSpec vision;
    vision.name = "vision";
    vision.targets = {0, 2, 4};
    vision.delay = 250'000;
    vision.gain = 0.8;

    ErrorChannel position;
    position.name = "visual.position";
    position.targets.resize(model.graph.nodeCount());
    std::iota(position.targets.begin(), position.targets.end(), NodeId{0});
    position.precision = 1.0;
    position.strength = 0.6;
    position.clamp = 1.0;
    PredictionConfig prediction;
    prediction.channels.push_back(std::move(position));

    return makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, composed_seed,
                           model.horizon, &backend, nullptr, PlasticityConfig(), std::nullopt,
                           std::move(recorder), {std::move(vision)}, std::move(prediction));
}

ComposedRun runComposed(IWindowBackend& backend) {
    KelmRuntime runtime = makeComposedRuntime(backend);
    runtime.inject("vision", 3'000'000, 0.5);
    runtime.prediction()->observeValue(0, 1.0, 0.0, 3'000'000);
    Perturbation activation;
    activation.cause = 17;
    activation.time = 5'000'000;
    activation.kind = PerturbationKind::activation;
    activation.strength = 0.4;
    activation.targets = {1};
    runtime.perturb(activation);
    runtime.run();
    return {collectRun(runtime), runtime.recorder()->samples().size(),
            runtime.recorder()->spikes().size()};
}

}  // namespace

void checkRestore() {
    CpuWindowBackend cpu;
    CudaWindowBackend cuda;
    forEachCell(5, [&](std::uint64_t index, std::uint64_t seed) {
        checkRestoreCell(index, seed, cpu, cuda);
    });
}

void checkPlasticity() {
    CpuWindowBackend cpu_backend;
    CudaWindowBackend cuda_backend;
    forEachCell(6, [&](std::uint64_t index, std::uint64_t seed) {
        const std::string label = cellLabel("model", index, seed);
        const PlasticRun cpu = runPlastic(index, seed, cpu_backend);
        const PlasticRun cuda = runPlastic(index, seed, cuda_backend);
        gateRequire(cpu.total_change == cuda.total_change,
                    "the total weight change differs between backends" + label);
        gateRequire(cpu.weight_sum == cuda.weight_sum,
                    "the weights after plasticity differ between backends" + label);
        gateRequire(
            cpu.total_change != 0.0,
            "no weight changed at all, so the plasticity variant of the gate is vacuous" + label);
    });
}

void checkPhase() {
    CpuWindowBackend cpu_backend;
    CudaWindowBackend cuda_backend;
    forEachCell(4, [&](std::uint64_t index, std::uint64_t seed) {
        const std::string label = cellLabel("phase model", index, seed);
        const GateRun cpu = runPhaseNamed(index, seed, cpu_backend, label, " on CPU");
        const GateRun cuda = runPhaseNamed(index, seed, cuda_backend, label, " on CUDA");
        gateRequire(equalLogs(cpu, cuda), "phase-modulated event logs differ" + label);
        gateRequire(cpu.hash == cuda.hash, "phase-modulated log hashes differ" + label);
        gateRequire(cpu.states.size() == cuda.states.size(),
                    "phase-modulated neuron counts differ" + label);
        for (std::size_t i = 0; i < cpu.states.size(); ++i) {
            gateRequire(equalBits(cpu.states[i], cuda.states[i]),
                        "phase-modulated neuron state differs" + label);
        }
    });
}

void checkComposed() {
    CpuWindowBackend cpu_backend;
    CudaWindowBackend cuda_backend;
    const ComposedRun cpu = runComposed(cpu_backend);
    const ComposedRun cuda = runComposed(cuda_backend);
    gateRequire(equalLogs(cpu.run, cuda.run), "composed runtime logs differ between CPU and CUDA");
    gateRequire(cpu.run.hash == cuda.run.hash,
                "composed runtime hashes differ between CPU and CUDA");
    for (std::size_t i = 0; i < cpu.run.states.size(); ++i) {
        gateRequire(equalBits(cpu.run.states[i], cuda.run.states[i]),
                    "composed runtime state differs between CPU and CUDA");
    }
    gateRequire(cpu.samples == cuda.samples && cpu.spikes == cuda.spikes && cpu.samples != 0,
                "composed runtime recorder differs or sampled nothing");
}

}  // namespace Lumenar::Core::Kelm
