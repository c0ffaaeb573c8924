#include "kelm/runtime/Fingerprint.h"

#include <bit>
#include <cmath>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/core/IRankGroup.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr BlobTag format_tag("KELMFPR1");
constexpr std::uint64_t canonical_nan = 0x7ff8000000000000;
constexpr std::uint32_t canonical_nan_f32 = 0x7fc00000;

constexpr unsigned inhibitory_bit = 1;
constexpr unsigned enabled_bit = 2;
constexpr unsigned routed_bit = 4;
constexpr unsigned changed_bit = 8;

void addList(Fingerprint& print, std::span<const NodeId> nodes) {
    print.addU64(nodes.size());
    for (const NodeId node : nodes) print.addU64(node);
}

void addRule(Fingerprint& print, const PlasticityRule& rule) {
    print.addU8(static_cast<std::uint8_t>(rule.kind));
    print.addF64(rule.a_potentiation);
    print.addF64(rule.a_depression);
    print.addF64(rule.a_coincidence);
    print.addF64(rule.scale);
}

void addRun(Fingerprint& print, std::uint64_t length, const Kernel::Neuron& neuron,
            const Kernel::Firing& firing) {
    print.addU64(length);
    addSettings(print, neuron);
    addSettings(print, firing);
}

/// The digest of one neuron's parameters. Equal parameters have equal ones, also with NaNs.
std::uint64_t printOf(const Kernel::Neuron& neuron, const Kernel::Firing& firing) {
    Fingerprint print;
    addRun(print, 1, neuron, firing);
    return print.value();
}

template <class Settings>
void addOptional(Fingerprint& print, const std::optional<Settings>& settings) {
    print.addFlag(settings.has_value());
    if (settings) addSettings(print, *settings);
}

/// One run for neighbours whose parameters have equal digests.
void addParameters(Fingerprint& print, const ParameterTable& parameters) {
    std::vector<std::uint64_t> entry_prints;
    for (const ParameterTable::Entry& entry : parameters.entries()) {
        entry_prints.push_back(printOf(entry.neuron, entry.firing));
    }
    NodeId first = 0;
    while (first < parameters.neuronCount()) {
        const std::uint64_t one = entry_prints[parameters.indexOf(first)];
        NodeId end = parameters.isUniform() ? parameters.neuronCount() : first + 1;
        while (end < parameters.neuronCount() && entry_prints[parameters.indexOf(end)] == one) {
            ++end;
        }
        addRun(print, end - first, parameters[first].neuron, parameters[first].firing);
        first = end;
    }
    print.addU64(0);
}

}  // namespace

void Fingerprint::addF32(float value) {
    addU32(std::isnan(value) ? canonical_nan_f32 : std::bit_cast<std::uint32_t>(value));
}

void Fingerprint::addF64(double value) {
    addU64(std::isnan(value) ? canonical_nan : std::bit_cast<std::uint64_t>(value));
}

void addSettings(Fingerprint& print, const Kernel::Neuron& neuron) {
    print.addI64(neuron.tau_membrane);
    print.addI64(neuron.tau_adaptation);
    print.addI64(neuron.refractory_period);
    print.addF64(neuron.adaptation_increment);
    print.addF64(neuron.input_coupling);
    print.addF64(neuron.reset_value);
    print.addF64(neuron.trace_epsilon);
    print.addFlag(neuron.hard_refractory);
    print.addFlag(neuron.non_leaky);
}

void addSettings(Fingerprint& print, const Kernel::Firing& firing) {
    print.addF64(firing.base_rate);
    print.addF64(firing.gain);
    print.addF64(firing.threshold);
    print.addF64(firing.adaptation_weight);
    print.addF64(firing.rate_scale);
    print.addF64(firing.max_rate);
}

namespace {

void addNetwork(Fingerprint& print, SynapseGraph& network, std::uint64_t edge_count) {
    print.addU64(network.nodeCount());
    const std::optional<ModelTime> window = network.dMin();
    print.addFlag(window.has_value());
    if (window) print.addI64(*window);
    print.addFlag(network.transmissionEnabled(false));
    print.addFlag(network.transmissionEnabled(true));
    print.addU64(edge_count);
}

void addSynapse(Fingerprint& print, const Synapse& synapse, bool routed) {
    const bool changed = synapse.last_change != 0;
    print.addU64(synapse.source);
    print.addU64(synapse.target);
    print.addF32(synapse.weight);
    print.addI64(synapse.delay);
    print.addU8(static_cast<std::uint8_t>((synapse.inhibitory ? inhibitory_bit : 0) |
                                          (synapse.enabled ? enabled_bit : 0) |
                                          (routed ? routed_bit : 0) | (changed ? changed_bit : 0)));
    if (changed) print.addI64(synapse.last_change);
}

}  // namespace

void addSettings(Fingerprint& print, SynapseGraph& network) {
    addNetwork(print, network, network.edgeCount());
    for (EdgeId id = 0; id < network.edgeCount(); ++id) {
        addSynapse(print, network.edge(id), network.isRouted(id));
    }
}

void addSettings(Fingerprint& print, const PlasticityConfig& plasticity) {
    print.addFlag(plasticity.enabled);
    if (!plasticity.enabled) return;
    print.addI64(plasticity.trace.tau_pre);
    print.addI64(plasticity.trace.tau_post);
    print.addI64(plasticity.trace.tau_coincidence);
    print.addF64(plasticity.trace.epsilon);
    addRule(print, plasticity.excitatory);
    addRule(print, plasticity.inhibitory);
    print.addFlag(plasticity.homeostasis.enabled);
    print.addF64(plasticity.homeostasis.cap);
}

void addSettings(Fingerprint& print, const PhaseConfig& phase) {
    print.addU64(phase.oscillators.size());
    for (const Oscillator& oscillator : phase.oscillators) {
        print.addU32(oscillator.id);
        print.addF64(oscillator.frequency);
        print.addF64(oscillator.phase);
        print.addF64(oscillator.amplitude);
    }
    print.addU64(phase.bindings.size());
    for (const std::vector<PhaseBinding>& bindings : phase.bindings) {
        print.addU64(bindings.size());
        for (const PhaseBinding& binding : bindings) {
            print.addU32(binding.oscillator);
            print.addU8(binding.polarity);
            print.addF64(binding.strength);
            print.addF64(binding.phase_offset);
        }
    }
    print.addU64(phase.couplings.size());
    for (const OscillatorCoupling& coupling : phase.couplings) {
        print.addU32(coupling.source);
        print.addU32(coupling.target);
        print.addF64(coupling.strength);
    }
    print.addI64(phase.coupling_period);
}

void addSettings(Fingerprint& print, const RecorderConfig& recorder) {
    print.addFlag(recorder.record_spikes);
    print.addFlag(recorder.causal);
    print.addI64(recorder.sample_interval);
    // The order of the kinds and unknown kinds have no effect.
    std::uint32_t kinds = 0;
    for (const SampleKind kind : recorder.sample_kinds) {
        if (kind <= SampleKind::spike_counts) kinds |= 1U << static_cast<unsigned>(kind);
    }
    print.addU32(kinds);
}

void addSettings(Fingerprint& print, std::span<const InputChannelSpec> channels) {
    print.addU64(channels.size());
    for (const InputChannelSpec& channel : channels) {
        print.addText(channel.name);
        addList(print, channel.targets);
        print.addI64(channel.delay);
        print.addF64(channel.gain);
    }
}

void addSettings(Fingerprint& print, const PredictionConfig& prediction) {
    print.addU64(prediction.channels.size());
    for (const ErrorChannel& channel : prediction.channels) {
        print.addText(channel.name);
        addList(print, channel.targets);
        print.addF64(channel.precision);
        print.addF64(channel.strength);
        print.addF64(channel.clamp);
    }
    print.addU64(prediction.predictors.size());
    for (const std::optional<Predictor>& predictor : prediction.predictors) {
        print.addFlag(predictor.has_value());
        if (!predictor) continue;
        print.addU8(static_cast<std::uint8_t>(predictor->kind));
        addList(print, predictor->sources);
        print.addU64(predictor->weights.size());
        for (const double weight : predictor->weights) print.addF64(weight);
        print.addF64(predictor->bias);
    }
}

namespace {

/// What comes behind the network.
void addModel(Fingerprint& print, const ParameterTable& parameters, ModelTime horizon,
              const PlasticityConfig& plasticity, const std::optional<PhaseConfig>& phase,
              const std::optional<RecorderConfig>& recorder,
              std::span<const InputChannelSpec> input_channels,
              const std::optional<PredictionConfig>& prediction,
              std::span<const SpikeRecord> given_spikes) {
    addParameters(print, parameters);
    print.addI64(horizon);
    addSettings(print, plasticity);
    addOptional(print, phase);
    addOptional(print, recorder);
    addSettings(print, input_channels);
    addOptional(print, prediction);
    if (given_spikes.empty()) return;
    print.addU64(given_spikes.size());
    for (const SpikeRecord& spike : given_spikes) {
        print.addI64(spike.time);
        print.addU64(spike.neuron);
    }
}

}  // namespace

std::uint64_t fingerprint(SynapseGraph& network, const ParameterTable& parameters,
                          ModelTime horizon, const PlasticityConfig& plasticity,
                          const std::optional<PhaseConfig>& phase,
                          const std::optional<RecorderConfig>& recorder,
                          std::span<const InputChannelSpec> input_channels,
                          const std::optional<PredictionConfig>& prediction,
                          std::span<const SpikeRecord> given_spikes) {
    if (parameters.neuronCount() != network.nodeCount()) {
        throw WindowEngineError(WindowEngineError::parameter_count);
    }
    Fingerprint print;
    print.addTag(format_tag);
    addSettings(print, network);
    addModel(print, parameters, horizon, plasticity, phase, recorder, input_channels, prediction,
             given_spikes);
    return print.value();
}

std::uint64_t fingerprint(IRankGroup& ranks, SynapseGraph& share, const ParameterTable& parameters,
                          ModelTime horizon, const PlasticityConfig& plasticity,
                          const std::optional<PhaseConfig>& phase,
                          const std::optional<RecorderConfig>& recorder,
                          std::span<const InputChannelSpec> input_channels,
                          const std::optional<PredictionConfig>& prediction,
                          std::span<const SpikeRecord> given_spikes) {
    return ranks.together([&] {
        const auto addRest = [&](Fingerprint& print) {
            addModel(print, parameters, horizon, plasticity, phase, recorder, input_channels,
                     prediction, given_spikes);
        };
        Fingerprint print;
        print.addTag(format_tag);
        addNetwork(print, share, share.share()->edge_count);
        share.visitNetwork(ranks, [&](const Synapse& synapse, bool routed) {
            addSynapse(print, synapse, routed);
        });
        addRest(print);
        Fingerprint model;
        addRest(model);
        Blob own;
        appendU64(own, model.value());
        if (const auto rank = ranks.firstDifferent(own)) {
            throw InvalidModel(InvalidModel::otherOnRank("model", *rank));
        }
        // Only rank 0 has seen the synapses.
        return ranks.shareRecord(print.value()).front();
    });
}

std::uint64_t fingerprint(SynapseGraph& network, const Kernel::Neuron& neuron,
                          const Kernel::Firing& firing, ModelTime horizon,
                          const PlasticityConfig& plasticity,
                          const std::optional<PhaseConfig>& phase,
                          const std::optional<RecorderConfig>& recorder,
                          std::span<const InputChannelSpec> input_channels,
                          const std::optional<PredictionConfig>& prediction) {
    return fingerprint(network, ParameterTable(network.nodeCount(), neuron, firing), horizon,
                       plasticity, phase, recorder, input_channels, prediction);
}

std::uint64_t fingerprint(SynapseGraph& network, std::span<const Kernel::Neuron> neurons,
                          std::span<const Kernel::Firing> firings, ModelTime horizon,
                          const PlasticityConfig& plasticity,
                          const std::optional<PhaseConfig>& phase,
                          const std::optional<RecorderConfig>& recorder,
                          std::span<const InputChannelSpec> input_channels,
                          const std::optional<PredictionConfig>& prediction) {
    if (neurons.size() != network.nodeCount() || firings.size() != network.nodeCount()) {
        throw WindowEngineError(WindowEngineError::parameter_count);
    }
    return fingerprint(network, ParameterTable(neurons, firings), horizon, plasticity, phase,
                       recorder, input_channels, prediction);
}

}  // namespace Lumenar::Core::Kelm
