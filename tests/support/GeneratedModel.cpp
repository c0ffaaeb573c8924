#include "tests/support/GeneratedModel.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "kelm/core/PortableMath.h"
#include "kelm/core/ShardRanges.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/engine/ParameterTable.h"
#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

Kernel::Neuron generateNeuron(Draws& draws, ModelTime d_min) {
    Kernel::Neuron neuron;
    neuron.tau_membrane = draws.timeBetween(1, 20 * d_min);
    neuron.tau_adaptation =
        draws.chance(15) ? neuron.tau_membrane : draws.timeBetween(1, 100 * d_min);
    neuron.refractory_period = draws.timeBetween(d_min / 8 + 1, 3 * d_min);
    neuron.adaptation_increment = draws.between(0.0, 1.5);
    if (draws.chance(20)) neuron.input_coupling = draws.between(-0.5, 0.5);
    if (draws.chance(30)) neuron.reset_value = draws.oneOf({-0.0, -0.5, 0.25, 1.0});
    neuron.trace_epsilon = draws.oneOf({0.0, 1e-15, 1e-15, 1e-3});
    neuron.hard_refractory = !draws.chance(30);
    neuron.non_leaky = draws.chance(10);
    return neuron;
}

/// Rates are chosen in spikes per window, so that windows of any length have spikes.
Kernel::Firing generateFiring(Draws& draws, ModelTime d_min, bool hard_refractory) {
    const double windows_per_s = 1e9 / static_cast<double>(d_min);
    Kernel::Firing firing;
    firing.base_rate = draws.between(0.005, 0.5) * windows_per_s;
    // A window holds eight spikes; only a hard refractory period allows a rate of six.
    if (draws.chance(15)) firing.base_rate = (hard_refractory ? 6.0 : 2.5) * windows_per_s;
    if (draws.chance(10)) firing.base_rate = 0.0;
    firing.gain = draws.between(0.2, 2.0);
    firing.threshold = draws.between(-0.5, 1.0);
    firing.adaptation_weight = draws.oneOf({0.0, 0.5, 1.0, 1.7});
    firing.rate_scale = draws.oneOf({1.0, 1.0, 0.5, 2.0});
    firing.max_rate = firing.base_rate * draws.between(1.0, 40.0) + windows_per_s;
    if (!hard_refractory) firing.max_rate = std::min(firing.max_rate, 4.0 * windows_per_s);
    firing.spare_flag = draws.chance(10);
    return firing;
}

Synapse generateSynapse(Draws& draws, const GeneratedModel& model) {
    Synapse synapse;
    synapse.source = draws.below(model.node_count);
    synapse.target = draws.chance(8) ? synapse.source : draws.below(model.node_count);
    synapse.weight = static_cast<float>(draws.between(0.0, 1.2));
    if (draws.chance(5)) synapse.weight = 0.0F;
    synapse.delay = model.d_min;
    if (draws.chance(50)) synapse.delay = draws.timeBetween(model.d_min, 6 * model.d_min);
    // Beyond the ring of a calendar.
    if (draws.chance(2)) synapse.delay = draws.timeBetween(4095, 5000) * model.d_min;
    synapse.inhibitory = draws.chance(25);
    synapse.enabled = !draws.chance(5);
    return synapse;
}

void generateSynapses(Draws& draws, GeneratedModel& model, bool resident, bool fans) {
    std::uint64_t fanout = resident ? 1 + draws.below(6) : 0;
    if (fans) fanout = 1 + draws.below(40);
    // Half of the models have edge ids in another order than the sources.
    const bool by_source = fanout != 0 && draws.chance(50);
    const std::uint64_t count =
        fanout != 0 ? fanout * model.node_count : draws.below(6 * model.node_count + 1);
    for (std::uint64_t i = 0; i < count; ++i) {
        const bool parallel = i != 0 && draws.chance(10);
        Synapse synapse = generateSynapse(draws, model);
        if (parallel) {
            synapse.source = model.synapses.back().source;
            synapse.target = model.synapses.back().target;
        }
        if (fanout != 0) synapse.source = by_source ? i / fanout : i % model.node_count;
        if (fans) {
            // A few neurons keep mixed delays, signs and switches.
            if (synapse.source % 5 != 0) {
                synapse.inhibitory = synapse.source % 4 == 0;
                synapse.delay = model.d_min * (1 + static_cast<ModelTime>(synapse.source % 3));
                synapse.enabled = true;
            }
            synapse.weight /= static_cast<float>(fanout);
        }
        if (resident) {
            synapse.delay = model.d_min;
            synapse.enabled = true;
        }
        model.synapses.push_back(synapse);
    }
    model.declares_d_min = count == 0 || draws.chance(50);
    if (!model.declares_d_min) model.synapses[draws.below(count)].delay = model.d_min;
}

void generateInputs(Draws& draws, GeneratedModel& model, std::int64_t windows) {
    const std::uint64_t count = draws.below(static_cast<std::uint64_t>(3 * windows));
    for (std::uint64_t i = 0; i < count; ++i) {
        Event event;
        event.kind = draws.oneOf({EventKind::input, EventKind::perturbation, EventKind::delivery});
        event.time = draws.timeBetween(0, model.horizon + model.d_min);
        if (draws.chance(25)) event.time = draws.timeBetween(0, windows) * model.d_min;
        event.target = draws.below(model.node_count);
        if (i != 0 && draws.chance(25)) {
            event.time = model.inputs.back().time;
            if (draws.chance(50)) event.target = model.inputs.back().target;
        }
        event.value = draws.between(-1.5, 1.5);
        event.source = 1'000'000 + draws.below(3);
        event.cause = draws.next();
        model.inputs.push_back(event);
    }
}

/// Sets one parameter to a limit of its range. No window has more than a few thousand candidates,
/// and no value becomes a NaN, because the bits of a NaN are not promised.
void makeExtreme(Draws& draws, const GeneratedModel& model, Kernel::Neuron& neuron,
                 Kernel::Firing& firing) {
    constexpr ModelTime exact = ModelTime{1} << 53;  // doubles keep all integers up to here
    constexpr double least = 5e-324;
    const ModelTime d_min = model.d_min;
    const auto time = [&] {
        return draws.oneOf<ModelTime>(
            {1, 2, d_min, exact - 1, exact, exact + 1, exact << 8, last_model_time});
    };
    const auto small = [&] { return draws.oneOf({0.0, -0.0, least, -least, 1e-310, 1e-300}); };
    switch (draws.below(13)) {
        case 0:
            neuron.tau_membrane = time();
            break;
        case 1:
            neuron.tau_adaptation = time();
            break;
        case 2:
            neuron.tau_adaptation = neuron.tau_membrane - draws.timeBetween(0, 1);
            break;
        case 3:
            neuron.refractory_period = draws.oneIn(3) ? time() : draws.timeBetween(0, d_min);
            break;
        case 4:
            neuron.adaptation_increment =
                draws.oneIn(2) ? small() : draws.oneOf({-0.5, 1e30, 1e300});
            break;
        case 5:
            neuron.reset_value = draws.oneIn(2) ? small() : draws.oneOf({-1e30, 1e30, -1e300});
            break;
        case 6:
            neuron.trace_epsilon = draws.oneOf({0.0, least, 1e-300, 0.5, 1e30});
            break;
        case 7:
            firing.rate_scale = 1.0;
            firing.base_rate = draws.oneOf({0.0, 1e-290, 1e-30, firing.max_rate, 1e290});
            break;
        case 8:
            firing.gain = draws.oneOf({0.0, least, 30.0, 1e30, 1e300});
            break;
        case 9:
            firing.threshold = draws.oneOf({least, -30.0, 30.0, -1e300, 1e300});
            break;
        case 10:
            firing.adaptation_weight = draws.oneOf({0.0, -0.0, least, -0.3, 1e30, 1e300});
            break;
        case 11:
            firing.max_rate = draws.oneOf({least, 1e-3, firing.base_rate, firing.base_rate / 2});
            break;
        default:
            // The same product from other factors, and high rates in windows of few ns.
            firing.rate_scale = draws.oneOf({1e-280, 1e280, 1e-150});
            firing.base_rate = std::min(firing.base_rate, firing.max_rate) / firing.rate_scale;
            if (d_min <= 1000) firing.max_rate = 1e12;
            break;
    }
}

void makeExtreme(Draws& draws, GeneratedModel& model) {
    for (std::uint64_t n = 0; n < model.node_count; ++n) {
        for (std::uint64_t changes = draws.below(4); changes != 0; --changes) {
            makeExtreme(draws, model, model.neurons[n], model.firings[n]);
        }
    }
    // With input coupling, a few large inputs would leave the range of doubles.
    const bool large = draws.oneIn(2);
    for (Kernel::Neuron& neuron : model.neurons) {
        if (large) neuron.input_coupling = 0.0;
    }
    for (Synapse& synapse : model.synapses) {
        if (!draws.oneIn(6)) continue;
        synapse.weight = large ? draws.oneOf({1.4e-45F, 100.0F, 1e30F, 3.4028235e38F})
                               : draws.oneOf({1.4e-45F, 1.1754944e-38F, 3.0F});
    }
    for (Event& input : model.inputs) {
        if (draws.oneIn(8)) {
            input.value = large ? draws.oneOf({5e-324, -40.0, 1e30, -1e30})
                                : draws.oneOf({5e-324, -0.0, 1e-300, -3.0});
        }
        // A time or a target that is refused or has no effect.
        if (draws.oneIn(60)) input.time = draws.oneOf<ModelTime>({-1, last_model_time});
        if (draws.oneIn(60)) input.target = model.node_count;
    }
}

/// Places windows, delays and inputs anywhere in the range of model time. A neuron fires a few
/// times up to the horizon.
void makeBoundless(Draws& draws, GeneratedModel& model) {
    const auto duration = [&] { return durations[draws.below(std::size(durations))]; };
    const auto moment = [&] { return moments[draws.below(std::size(moments))]; };
    model.d_min = draws.oneIn(3) ? 1'000'000 : duration();
    model.declares_d_min = true;
    model.horizon = duration();
    const double rate = 1e10 / static_cast<double>(model.horizon);
    for (std::uint64_t n = 0; n < model.node_count; ++n) {
        Kernel::Neuron& neuron = model.neurons[n];
        neuron.tau_membrane = draws.oneIn(4) ? moment() : duration();
        neuron.tau_adaptation = duration();
        neuron.refractory_period = moment();
        model.firings[n] = {.base_rate = rate, .gain = 1.0, .max_rate = 4.0 * rate};
    }
    for (Synapse& synapse : model.synapses) synapse.delay = std::max(model.d_min, duration());
    for (Event& input : model.inputs) input.time = moment();
}

/// Stretches a run: each window of the horizon becomes one `pace` in ns. Between bursts a neuron
/// fires about once per pace, after an input as often as its windows allow.
void makeFar(Draws& draws, GeneratedModel& model) {
    const std::int64_t paces = model.horizon / model.d_min + 1;
    ModelTime pace = model.d_min << draws.below(20);
    // Times that doubles cannot hold exactly, up to deliveries past the last model time.
    if (draws.oneIn(2)) pace = (ModelTime{1} << (54 + draws.below(9))) / paces;
    if (draws.oneIn(8)) pace = last_model_time / paces;
    pace = std::max(pace, model.d_min);
    model.horizon = pace * paces;
    if (last_model_time - model.horizon > model.d_min) {
        model.horizon += draws.timeBelow(static_cast<std::uint64_t>(model.d_min));
    }
    for (std::uint64_t n = 0; n < model.node_count; ++n) {
        Kernel::Neuron& neuron = model.neurons[n];
        Kernel::Firing& firing = model.firings[n];
        neuron.non_leaky = false;
        neuron.tau_membrane = std::min(neuron.tau_membrane, 3 * model.d_min);
        if (draws.oneIn(3)) neuron.tau_adaptation = draws.timeBetween(1, pace);
        firing.rate_scale = 1.0;
        const double crowd = 1.0 + static_cast<double>(model.node_count) / 6.0;
        firing.base_rate = draws.between(0.02, 0.5) / crowd * 1e9 / static_cast<double>(pace);
        firing.max_rate = draws.between(0.5, 3.0) * 1e9 / static_cast<double>(model.d_min);
        firing.max_rate = std::max(firing.max_rate, firing.base_rate);
        firing.threshold = draws.between(0.0, 0.2);
        firing.gain =
            Kernel::kernelLog(firing.max_rate / firing.base_rate) * draws.between(0.3, 1.1) + 0.1;
    }
    for (Synapse& synapse : model.synapses) {
        // Keep a synapse with the smallest delay.
        if (synapse.delay > model.d_min && draws.oneIn(5)) {
            synapse.delay = draws.timeBetween(model.d_min, pace * 2);
        }
    }
    for (Event& input : model.inputs) {
        const ModelTime far = input.time / model.d_min;
        if (far <= paces) input.time = std::min(far, paces - 1) * pace + input.time % model.d_min;
    }
}

}  // namespace

SynapseGraph GeneratedModel::graph() const {
    return SynapseGraph(node_count, declares_d_min ? std::optional(d_min) : std::nullopt, synapses);
}

SynapseGraph GeneratedModel::graph(const IRankGroup& ranks) const {
    return shareOf(ranks, node_count, declares_d_min ? std::optional(d_min) : std::nullopt,
                   synapses);
}

GeneratedModel generateModel(std::uint64_t seed, const ModelTraits& traits) {
    Draws draws(splitmixOutput(seed));
    GeneratedModel model;
    model.seed = seed;
    model.node_count = 1 + draws.below(traits.max_neurons);
    // A multiple of a block of device threads.
    if (traits.resident && model.node_count > 128 && draws.oneIn(2)) {
        model.node_count -= model.node_count % 128;
    }
    model.d_min = draws.oneOf<ModelTime>({1'000'000, 3'000'000, 250'000, 1'234'567, 977, 16});
    if (traits.extreme && draws.oneIn(4)) model.d_min = draws.oneOf<ModelTime>({1, 2, 16, 1000});
    const std::int64_t windows = draws.timeBetween(1, traits.max_windows);
    model.horizon = windows * model.d_min;
    if (!traits.resident) model.horizon += draws.timeBetween(0, model.d_min - 1);
    model.run_seed = draws.next();
    for (std::uint64_t n = 0; n < model.node_count; ++n) {
        const bool again = n != 0 && traits.alike;
        model.neurons.push_back(again ? model.neurons[0] : generateNeuron(draws, model.d_min));
        model.firings.push_back(
            again ? model.firings[0]
                  : generateFiring(draws, model.d_min, model.neurons[n].hard_refractory));
    }
    generateSynapses(draws, model, traits.resident, traits.fans);
    if (traits.external_events) generateInputs(draws, model, windows);
    if (traits.far) makeFar(draws, model);
    if (traits.extreme) makeExtreme(draws, model);
    if (traits.boundless) makeBoundless(draws, model);
    if (traits.alike) {
        std::fill(model.neurons.begin(), model.neurons.end(), model.neurons[0]);
        std::fill(model.firings.begin(), model.firings.end(), model.firings[0]);
    }
    return model;
}

GeneratedModel ringModel(std::uint64_t node_count, std::uint64_t fanout, ModelTime d_min,
                         std::int64_t windows) {
    GeneratedModel model;
    model.node_count = node_count;
    model.d_min = d_min;
    model.neurons.resize(node_count);
    model.firings.resize(node_count);
    model.run_seed = 3;
    model.horizon = windows * d_min;
    for (std::uint64_t i = 0; i < node_count * fanout; ++i) {
        const std::uint64_t step = 1 + i % fanout;
        Synapse& synapse = model.synapses.emplace_back();
        synapse.source = i / fanout;
        synapse.target = (synapse.source + step) % node_count;
        synapse.weight = 0.2F;
        synapse.inhibitory = step % 2 == 0;
        synapse.delay = d_min;
    }
    return model;
}

WindowEngine makeEngine(const GeneratedModel& model, std::unique_ptr<IEventStore> store) {
    return WindowEngine(model.graph(), model.neurons, model.firings, model.run_seed, model.horizon,
                        std::move(store));
}

WindowEngine makeEngine(const GeneratedModel& model, IRankGroup& ranks) {
    SynapseGraph graph = model.graph(ranks);
    const ParameterTable all(model.neurons, model.firings);
    ParameterTable own = all.part(graph.share()->begin, graph.share()->end);
    return WindowEngine(std::move(graph), std::move(own), model.run_seed, model.horizon, nullptr,
                        &ranks);
}

SynapseGraph shareOf(const IRankGroup& ranks, std::uint64_t node_count,
                     std::optional<ModelTime> min_delay, std::span<const Synapse> synapses) {
    const NodeId begin = Kernel::shardBegin(node_count, ranks.size(), ranks.rank());
    const NodeId end = Kernel::shardEnd(node_count, ranks.size(), ranks.rank());
    std::vector<EdgeId> edges;
    for (EdgeId id = 0; id < synapses.size(); ++id) {
        if (synapses[id].target >= begin && synapses[id].target < end) edges.push_back(id);
    }
    std::ranges::stable_sort(edges, {}, [&](EdgeId id) { return synapses[id].source; });
    std::vector<Synapse> own;
    for (const EdgeId id : edges) own.push_back(synapses[id]);
    return SynapseGraph::shareOf(node_count, min_delay, begin, end, own, edges);
}

void postInputs(const GeneratedModel& model, IEventSink& sink) {
    for (const Event& input : model.inputs) sink.post(input);
}

}  // namespace Lumenar::Core::Kelm::Testing
