#include "bench/runtime/ComposedCases.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/runtime/AllocationCount.h"
#include "bench/runtime/Figures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/runtime/KelmRuntime.h"
#include "kelm/runtime/MakeRuntime.h"

namespace Lumenar::Core::Kelm {

namespace {

/// The parts of one composition.
struct Parts {
    PlasticityConfig plasticity;
    std::optional<PhaseConfig> phase;
    std::optional<RecorderConfig> recorder;
    std::vector<InputChannelSpec> input_channels;
    std::optional<PredictionConfig> prediction;
};

KelmRuntime makeRuntime(const BenchmarkScale& scale, Parts parts, IWindowBackend& backend) {
    BenchmarkWorkload workload = buildBenchmarkWorkload(scale);
    return makeKelmRuntime(
        SynapseGraph(workload.neuron_count, workload.min_delay, std::move(workload.synapses)),
        workload.neuron, workload.firing, benchmark_seed, workload.horizon, &backend, nullptr,
        parts.plasticity, std::move(parts.phase), std::move(parts.recorder),
        std::move(parts.input_channels), std::move(parts.prediction));
}

/// Calls run() and returns its cost.
template <class Model, class Run>
Stretch measureStretch(const Model& model, Run run) {
    const WindowProfile before = model.profile();
    const std::uint64_t allocations = allocationCount();
    const double start = processorSeconds();
    run();
    Stretch stretch;
    stretch.cpu_seconds = processorSeconds() - start;
    stretch.allocations = allocationCount() - allocations;
    stretch.windows = model.profile().windows - before.windows;
    stretch.deliveries = model.profile().deliveries - before.deliveries;
    return stretch;
}

template <class Model>
void noteOutcome(Model& model, ComposedMeasurement& result) {
    result.spikes = model.spikeLog().size();
    result.log_hash = model.logHash();
    result.profile = model.profile();
}

/// Runs both halves. `before_half` gets the runtime and the start of the half in ns, and returns
/// the number of its calls.
template <class BeforeHalf>
ComposedMeasurement measureHalvesOf(KelmRuntime& runtime, ModelTime horizon,
                                    BeforeHalf before_half) {
    ComposedMeasurement result;
    for (int half = 0; half < 2; ++half) {
        const double start = processorSeconds();
        result.calls += before_half(runtime, half * (horizon / 2));
        result.call_seconds += processorSeconds() - start;
        result.halves[half] =
            measureStretch(runtime, [&] { runtime.run(half == 0 ? horizon / 2 : horizon); });
    }
    noteOutcome(runtime, result);
    return result;
}

template <class BeforeHalf>
ComposedMeasurement measureHalves(const BenchmarkScale& scale, Parts parts,
                                  BeforeHalf before_half) {
    CpuWindowBackend backend;
    KelmRuntime runtime = makeRuntime(scale, std::move(parts), backend);
    return measureHalvesOf(runtime, scale.horizon, before_half);
}

ComposedMeasurement measureHalves(const BenchmarkScale& scale, Parts parts) {
    return measureHalves(scale, std::move(parts),
                         [](KelmRuntime&, ModelTime) { return std::uint64_t{0}; });
}

/// Calls settle(runtime) before the first half.
template <class Settle>
ComposedMeasurement measureSettled(const BenchmarkScale& scale, Parts parts, Settle settle) {
    return measureHalves(scale, std::move(parts), [&](KelmRuntime& runtime, ModelTime start) {
        if (start == 0) settle(runtime);
        return std::uint64_t{0};
    });
}

ComposedMeasurement measureOptions(const BenchmarkScale& scale) {
    BenchmarkWorkload workload = buildBenchmarkWorkload(scale);
    const std::unique_ptr<KelmRuntime> runtime = makeRuntime(
        SynapseGraph(workload.neuron_count, workload.min_delay, std::move(workload.synapses)),
        {.seed = benchmark_seed,
         .horizon = workload.horizon,
         .neuron = workload.neuron,
         .firing = workload.firing},
        std::make_unique<CpuWindowBackend>());
    return measureHalvesOf(*runtime, scale.horizon,
                           [](KelmRuntime&, ModelTime) { return std::uint64_t{0}; });
}

ComposedMeasurement measureBareEngine(const BenchmarkScale& scale) {
    BenchmarkWorkload workload = buildBenchmarkWorkload(scale);
    CpuWindowBackend backend;
    WindowEngine engine(
        SynapseGraph(workload.neuron_count, workload.min_delay, std::move(workload.synapses)),
        workload.neuron, workload.firing, benchmark_seed, workload.horizon);
    ComposedMeasurement result;
    result.halves[0] = measureStretch(engine, [&] { engine.run(backend, scale.horizon / 2); });
    result.halves[1] = measureStretch(engine, [&] { engine.run(backend); });
    noteOutcome(engine, result);
    return result;
}

/// Every neuron is bound to the first `bindings` of eight oscillators.
PhaseConfig phaseConfig(std::uint64_t neuron_count, std::uint32_t bindings) {
    PhaseConfig config;
    for (std::uint32_t id = 0; id < 8; ++id) {
        Oscillator oscillator;
        oscillator.id = id;
        oscillator.frequency = 4.3 + 5.7 * id;
        oscillator.amplitude = 1.0;
        config.oscillators.push_back(oscillator);
    }
    config.bindings.resize(neuron_count);
    for (NodeId n = 0; n < neuron_count; ++n) {
        for (std::uint32_t id = 0; id < bindings; ++id) {
            PhaseBinding binding;
            binding.oscillator = id;
            binding.strength = 0.1;
            binding.phase_offset = static_cast<double>(n % 64) * 0.1;
            config.bindings[n].push_back(binding);
        }
    }
    return config;
}

PlasticityConfig pairRule() {
    PlasticityConfig config;
    config.excitatory.kind = PlasticityRuleKind::pair;
    config.excitatory.a_potentiation = 0.001;
    config.excitatory.a_depression = 0.001;
    config.enabled = true;
    return config;
}

PlasticityConfig withHomeostasis(PlasticityConfig config) {
    config.homeostasis.enabled = true;
    config.homeostasis.cap = 0.02;  // the initial weight of all synapses
    return config;
}

RecorderConfig recorderConfig(const BenchmarkScale& scale, bool samples) {
    RecorderConfig config;
    if (!samples) return config;
    config.sample_interval = scale.horizon / 20;
    config.sample_kinds = {SampleKind::membrane,        SampleKind::adaptation,
                           SampleKind::refractory_left, SampleKind::next_candidate,
                           SampleKind::spike_counts,    SampleKind::active_synapses};
    return config;
}

/// The neurons of channel `index` of `count`: together the channels reach every neuron once, in
/// ascending order.
std::vector<NodeId> targetsOf(std::uint64_t index, std::uint64_t count,
                              std::uint64_t neuron_count) {
    std::vector<NodeId> targets;
    const std::uint64_t end = (index + 1) * neuron_count / count;
    for (NodeId n = index * neuron_count / count; n < end; ++n) targets.push_back(n);
    return targets;
}

void requireNeurons(const BenchmarkScale& scale, std::uint64_t channels) {
    if (scale.neuron_count < channels) {
        throw std::invalid_argument("this case needs " + std::to_string(channels) + " neurons");
    }
}

/// `layers` sets of `count` error channels. Each set covers the network. The channels' strength is
/// divided by the layers, so every neuron's drive is the same in all cases except for rounding.
ComposedMeasurement measureErrors(const BenchmarkScale& scale, std::uint64_t count,
                                  std::uint64_t layers, std::uint64_t reports) {
    requireNeurons(scale, count);
    Parts parts;
    parts.prediction.emplace();
    for (std::uint64_t i = 0; i < count * layers; ++i) {
        ErrorChannel channel;
        channel.name = "error " + std::to_string(i);
        channel.targets = targetsOf(i % count, count, scale.neuron_count);
        channel.strength = 0.25 / static_cast<double>(layers);
        parts.prediction->channels.push_back(std::move(channel));
    }
    return measureHalves(scale, std::move(parts), [&](KelmRuntime& runtime, ModelTime start) {
        PredictionBank& bank = *runtime.prediction();
        for (std::uint64_t report = 1; report <= reports; ++report) {
            const double observed = static_cast<double>(report) / static_cast<double>(reports);
            for (std::size_t i = 0; i < bank.channels().size(); ++i) {
                bank.observeValue(i, observed, 0.0, start);
            }
        }
        return reports * count * layers;
    });
}

/// Input channels that together reach every neuron once, with four injections on each channel in
/// each half. Events and order are the same for any number of channels.
ComposedMeasurement measureInputs(const BenchmarkScale& scale, std::uint64_t count) {
    requireNeurons(scale, count);
    Parts parts;
    for (std::uint64_t i = 0; i < count; ++i) {
        InputChannelSpec spec;
        spec.name = "input " + std::to_string(i);
        spec.targets = targetsOf(i, count, scale.neuron_count);
        spec.gain = 0.5;
        parts.input_channels.push_back(std::move(spec));
    }
    return measureHalves(scale, std::move(parts), [&](KelmRuntime& runtime, ModelTime start) {
        std::uint64_t events = 0;
        for (ModelTime i = 0; i < 4; ++i) {
            // The half before may have processed the first window of this half.
            const ModelTime time = start + 2 * scale.min_delay + i * (scale.horizon / 10);
            for (std::uint64_t channel = 0; channel < count; ++channel) {
                const InputChannelSpec& spec = runtime.inputChannels()->spec(channel);
                events += runtime.inject(spec.name, time, 0.1).size();
            }
        }
        return events;
    });
}

/// Writes a checkpoint in the middle of a run and restores it into a second runtime, which must
/// then write the same bytes and leave the same log.
ComposedMeasurement measureCheckpoint(const BenchmarkScale& scale, const Parts& parts) {
    CpuWindowBackend backend;
    KelmRuntime runtime = makeRuntime(scale, parts, backend);
    ComposedMeasurement result;
    result.halves[0] = measureStretch(runtime, [&] { runtime.run(scale.horizon / 2); });
    runtime.spikeLog();  // sorts the log once, so that the checkpoint need not
    double start = processorSeconds();
    const Blob bytes = runtime.checkpoint();
    result.write_seconds = processorSeconds() - start;
    result.checkpoint_bytes = bytes.size();

    KelmRuntime restored = makeRuntime(scale, parts, backend);
    start = processorSeconds();
    const bool accepted = restored.restore(bytes);
    result.restore_seconds = processorSeconds() - start;
    if (!accepted || restored.checkpoint() != bytes) {
        throw std::runtime_error("a restored runtime does not write the same checkpoint");
    }
    result.halves[1] = measureStretch(restored, [&] { restored.run(); });
    runtime.run();
    if (restored.logHash() != runtime.logHash()) {
        throw std::runtime_error("a restored run differs from the original one");
    }
    noteOutcome(runtime, result);
    return result;
}

using Scale = BenchmarkScale;

Parts withPhase(const Scale& scale, std::uint32_t bindings) {
    Parts parts;
    parts.phase = phaseConfig(scale.neuron_count, bindings);
    return parts;
}

Parts withPlasticity(const PlasticityConfig& config) {
    Parts parts;
    parts.plasticity = config;
    return parts;
}

Parts withRecorder(const Scale& scale, bool samples) {
    Parts parts;
    parts.recorder = recorderConfig(scale, samples);
    return parts;
}

Parts withAll(const Scale& scale) {
    Parts parts = withPhase(scale, 1);
    parts.plasticity = pairRule();
    parts.recorder = recorderConfig(scale, true);
    return parts;
}

constexpr ComposedCase all_cases[] = {
    {"bare", "", false, "the engine without a runtime", measureBareEngine},
    {"empty", "bare", true, "a runtime without parts",
     [](const Scale& scale) { return measureHalves(scale, {}); }},
    {"options", "empty", true, "a runtime of makeRuntime", measureOptions},
    {"progress", "empty", true, "a runtime that reports its progress ten times a second",
     [](const Scale& scale) {
         return measureSettled(scale, {}, [](KelmRuntime& runtime) {
             runtime.setProgress([](const RunProgress&) {});
         });
     }},

    {"phase-1", "empty", false, "one phase binding per neuron",
     [](const Scale& scale) { return measureHalves(scale, withPhase(scale, 1)); }},
    {"phase-logged", "phase-1", true, "the same with a phase logged for each spike",
     [](const Scale& scale) {
         return measureSettled(scale, withPhase(scale, 1), [&](KelmRuntime& runtime) {
             runtime.oscillators()->setMemberships(
                 std::vector<std::vector<std::uint32_t>>(scale.neuron_count, {0}));
         });
     }},
    {"phase-8", "phase-1", false, "eight phase bindings per neuron",
     [](const Scale& scale) { return measureHalves(scale, withPhase(scale, 8)); }},

    {"pair", "empty", false, "pair rule on every synapse",
     [](const Scale& scale) { return measureHalves(scale, withPlasticity(pairRule())); }},
    {"pair-unnoted", "pair", true, "the same without a journal",
     [](const Scale& scale) {
         return measureSettled(scale, withPlasticity(pairRule()), [](KelmRuntime& runtime) {
             runtime.learningControl()->setJournal(JournalMode::off);
         });
     }},
    {"fading", "pair-unnoted", false, "the same with fading weights",
     [](const Scale& scale) {
         return measureSettled(scale, withPlasticity(pairRule()), [](KelmRuntime& runtime) {
             runtime.learningControl()->setJournal(JournalMode::off);
             runtime.learningControl()->setFastWeights(true, 50'000'000, 0.0);
         });
     }},
    {"homeostasis", "pair", false, "the pair rule with homeostasis at the initial weight",
     [](const Scale& scale) {
         return measureHalves(scale, withPlasticity(withHomeostasis(pairRule())));
     }},

    {"recorder", "empty", true, "every spike recorded",
     [](const Scale& scale) { return measureHalves(scale, withRecorder(scale, false)); }},
    {"samples", "recorder", true, "the same with 19 samples of all neurons",
     [](const Scale& scale) { return measureHalves(scale, withRecorder(scale, true)); }},

    {"errors-5", "empty", false, "5 error channels, 10 observations",
     [](const Scale& scale) { return measureErrors(scale, 5, 1, 1); }},
    {"errors-1000", "errors-5", true, "1000 error channels, 1000000 observations",
     [](const Scale& scale) { return measureErrors(scale, 1000, 1, 500); }},
    {"errors-50x20", "errors-5", false, "50 error channels on each neuron, 1000 in all",
     [](const Scale& scale) { return measureErrors(scale, 20, 50, 1); }},

    {"inputs-5", "empty", false, "5 input channels, 8 injections on each",
     [](const Scale& scale) { return measureInputs(scale, 5); }},
    {"inputs-1000", "inputs-5", true, "1000 input channels, the same events",
     [](const Scale& scale) { return measureInputs(scale, 1000); }},

    {"checkpoint", "empty", true, "a checkpoint of a runtime without parts",
     [](const Scale& scale) { return measureCheckpoint(scale, {}); }},
    {"checkpoint-all", "", false, "a checkpoint with learning, an oscillator binding and samples",
     [](const Scale& scale) { return measureCheckpoint(scale, withAll(scale)); }},
};

}  // namespace

std::span<const ComposedCase> composedCases() { return all_cases; }

KelmRuntime makeEmptyRuntime(const BenchmarkScale& scale, IWindowBackend& backend) {
    return makeRuntime(scale, {}, backend);
}

KelmRuntime makeFullRuntime(const BenchmarkScale& scale, IWindowBackend& backend) {
    return makeRuntime(scale, withAll(scale), backend);
}

}  // namespace Lumenar::Core::Kelm
