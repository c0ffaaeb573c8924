#include "tests/support/GeneratedModel.h"

#include <algorithm>
#include <initializer_list>

#include "kelm/core/SplitMix64.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

/// Small choices from one seed; the same on every platform.
class Dice {
public:
    explicit Dice(std::uint64_t seed) : raw_(splitmixOutput(seed)) {}

    std::uint64_t word() {
        raw_ += splitmix_increment;
        return splitmixOutput(raw_);
    }
    /// In [0, count).
    std::uint64_t below(std::uint64_t count) { return word() % count; }
    /// In [low, high].
    std::int64_t between(std::int64_t low, std::int64_t high) {
        return low + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(high - low) + 1));
    }
    /// In [low, high).
    double real(double low, double high) {
        return low + (high - low) * (static_cast<double>(word() >> 11) * 0x1p-53);
    }
    bool chance(unsigned percent) { return below(100) < percent; }
    template <class T>
    T oneOf(std::initializer_list<T> values) {
        return values.begin()[below(values.size())];
    }

private:
    std::uint64_t raw_;
};

Kernel::Neuron generateNeuron(Dice& dice, ModelTime d_min) {
    Kernel::Neuron neuron;
    neuron.tau_membrane = dice.between(1, 20 * d_min);
    neuron.tau_adaptation = dice.chance(15) ? neuron.tau_membrane : dice.between(1, 100 * d_min);
    neuron.refractory_period = dice.between(d_min / 8 + 1, 3 * d_min);
    neuron.adaptation_increment = dice.real(0.0, 1.5);
    if (dice.chance(20)) neuron.input_coupling = dice.real(-0.5, 0.5);
    if (dice.chance(30)) neuron.reset_value = dice.oneOf({-0.0, -0.5, 0.25, 1.0});
    neuron.trace_epsilon = dice.oneOf({0.0, 1e-15, 1e-15, 1e-3});
    neuron.hard_refractory = !dice.chance(30);
    neuron.non_leaky = dice.chance(10);
    return neuron;
}

/// Rates are chosen in spikes per window, so that any window length sees something happen.
Kernel::Firing generateFiring(Dice& dice, ModelTime d_min, bool hard_refractory) {
    const double windows_per_s = 1e9 / static_cast<double>(d_min);
    Kernel::Firing firing;
    firing.base_rate = dice.real(0.005, 0.5) * windows_per_s;
    // Eight spikes a window is the limit; only a refractory period keeps a hot neuron within it.
    if (dice.chance(15)) {
        firing.base_rate = (hard_refractory ? 6.0 : 2.5) * windows_per_s;
    }
    if (dice.chance(10)) firing.base_rate = 0.0;
    firing.gain = dice.real(0.2, 2.0);
    firing.threshold = dice.real(-0.5, 1.0);
    firing.adaptation_weight = dice.oneOf({0.0, 0.5, 1.0, 1.7});
    firing.rate_scale = dice.oneOf({1.0, 1.0, 0.5, 2.0});
    firing.max_rate = firing.base_rate * dice.real(1.0, 40.0) + windows_per_s;
    if (!hard_refractory) firing.max_rate = std::min(firing.max_rate, 4.0 * windows_per_s);
    firing.spare_flag = dice.chance(10);
    return firing;
}

Synapse generateSynapse(Dice& dice, const GeneratedModel& model) {
    Synapse synapse;
    synapse.source = dice.below(model.node_count);
    synapse.target = dice.chance(8) ? synapse.source : dice.below(model.node_count);
    synapse.weight = static_cast<float>(dice.real(0.0, 1.2));
    if (dice.chance(5)) synapse.weight = 0.0F;
    synapse.delay = model.d_min;
    if (dice.chance(50)) synapse.delay = dice.between(model.d_min, 6 * model.d_min);
    // Beyond the reach of a calendar's ring.
    if (dice.chance(2)) synapse.delay = dice.between(4095, 5000) * model.d_min;
    synapse.inhibitory = dice.chance(25);
    synapse.enabled = !dice.chance(5);
    return synapse;
}

void generateSynapses(Dice& dice, GeneratedModel& model) {
    const std::uint64_t count = dice.below(6 * model.node_count + 1);
    for (std::uint64_t i = 0; i < count; ++i) {
        const bool parallel = !model.synapses.empty() && dice.chance(10);
        Synapse synapse = generateSynapse(dice, model);
        if (parallel) {
            synapse.source = model.synapses.back().source;
            synapse.target = model.synapses.back().target;
        }
        model.synapses.push_back(synapse);
    }
    model.declares_d_min = count == 0 || dice.chance(50);
    if (!model.declares_d_min) model.synapses[dice.below(count)].delay = model.d_min;
}

void generateInputs(Dice& dice, GeneratedModel& model, std::int64_t windows) {
    const std::uint64_t count = dice.below(static_cast<std::uint64_t>(3 * windows));
    for (std::uint64_t i = 0; i < count; ++i) {
        Event event;
        event.kind = dice.oneOf({EventKind::input, EventKind::perturbation, EventKind::delivery});
        event.time = dice.between(0, model.horizon + model.d_min);
        if (dice.chance(25)) event.time = dice.between(0, windows) * model.d_min;
        event.target = dice.below(model.node_count);
        if (i != 0 && dice.chance(25)) {
            event.time = model.inputs.back().time;
            if (dice.chance(50)) event.target = model.inputs.back().target;
        }
        event.value = dice.real(-1.5, 1.5);
        event.source = 1'000'000 + dice.below(3);
        event.cause = dice.word();
        model.inputs.push_back(event);
    }
}

}  // namespace

SynapseGraph GeneratedModel::graph() const {
    return SynapseGraph(node_count, declares_d_min ? std::optional(d_min) : std::nullopt, synapses);
}

GeneratedModel generateModel(std::uint64_t seed, const ModelTraits& traits) {
    Dice dice(seed);
    GeneratedModel model;
    model.seed = seed;
    model.node_count = 1 + dice.below(traits.max_neurons);
    model.d_min = dice.oneOf<ModelTime>({1'000'000, 3'000'000, 250'000, 1'234'567, 977, 16});
    const std::int64_t windows = dice.between(1, traits.max_windows);
    model.horizon = windows * model.d_min + dice.between(0, model.d_min - 1);
    model.run_seed = dice.word();
    for (std::uint64_t n = 0; n < model.node_count; ++n) {
        const bool again = n != 0 && traits.alike;
        model.neurons.push_back(again ? model.neurons[0] : generateNeuron(dice, model.d_min));
        model.firings.push_back(
            again ? model.firings[0]
                  : generateFiring(dice, model.d_min, model.neurons[n].hard_refractory));
    }
    generateSynapses(dice, model);
    if (traits.external_events) generateInputs(dice, model, windows);
    return model;
}

WindowEngine makeEngine(const GeneratedModel& model, std::unique_ptr<IEventStore> store) {
    return WindowEngine(model.graph(), model.neurons, model.firings, model.run_seed, model.horizon,
                        std::move(store));
}

void postInputs(const GeneratedModel& model, IEventSink& sink) {
    for (const Event& input : model.inputs) sink.post(input);
}

}  // namespace Lumenar::Core::Kelm::Testing
