#include "fuzz/SoakModel.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <numeric>
#include <sstream>
#include <type_traits>
#include <utility>

#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm::Fuzzing {

namespace {

using namespace Testing;

constexpr const char* kind_names[kind_count] = {
    "plain",        "alike", "large", "resident", "extreme", "far", "composed", "composed-extreme",
    "composed-far",
};

/// Windows past the horizon for which the soak posts inputs.
constexpr ModelTime windows_behind = 4;

ModelKind drawKind(Draws& draws) {
    constexpr unsigned shares[kind_count] = {14, 14, 2, 12, 15, 13, 16, 7, 7};  // percent
    auto left = static_cast<unsigned>(draws.below(100));
    std::size_t kind = 0;
    while (left >= shares[kind]) left -= shares[kind++];
    return static_cast<ModelKind>(kind);
}

ModelTraits traitsOf(ModelKind kind, Draws& draws) {
    ModelTraits traits;
    traits.max_neurons = 40;
    traits.max_windows = 100;
    traits.alike = kind == ModelKind::alike || kind == ModelKind::resident ||
                   (kind != ModelKind::plain && draws.oneIn(3));
    traits.resident = kind == ModelKind::resident;
    traits.external_events = !traits.resident;
    traits.boundless = kind == ModelKind::extreme && draws.oneIn(4);
    traits.extreme = kind == ModelKind::extreme && !traits.boundless;
    traits.far = kind == ModelKind::far;
    // Enough to fill vectors and more than one block of device threads.
    if (draws.oneIn(8)) traits.max_neurons = 200;
    if (traits.resident) traits.max_windows = 25;
    if (traits.resident && draws.oneIn(12)) traits.max_neurons = 700;
    if (kind == ModelKind::large) {
        traits.max_neurons = 1500;
        traits.max_windows = 4;
    }
    traits.fans = !traits.resident && draws.oneIn(2);
    return traits;
}

ComposedTraits composedTraitsOf(ModelKind kind, Draws& draws, bool counts_spikes) {
    ComposedTraits traits;
    traits.max_neurons = draws.oneIn(8) ? 80 : 20;
    traits.max_windows = draws.oneIn(8) ? 200 : 60;
    traits.max_stops = 12;
    traits.counts_spikes = counts_spikes;
    traits.extreme = kind == ModelKind::composed_extreme;
    traits.far = kind == ModelKind::composed_far;
    traits.fans = draws.oneIn(4);
    return traits;
}

/// Removes as many items as possible, in ranges whose length halves each time. `without`: returns
/// the model without items [first, last).
template <class Without>
bool leaveOut(SoakModel& model, std::size_t count,
              const std::function<bool(const SoakModel&)>& differs, Without without) {
    bool smaller = false;
    for (std::size_t length = count; length != 0; length /= 2) {
        for (std::size_t first = 0; first < count;) {
            const std::size_t last = std::min(first + length, count);
            SoakModel candidate = without(model, first, last);
            if (candidate.network().node_count != 0 && differs(candidate)) {
                model = std::move(candidate);
                count -= last - first;
                smaller = true;
            } else {
                first = last;
            }
        }
    }
    return smaller;
}

/// Replaces `n` by the neuron's new number when only the neurons `kept`, ascending, remain. False
/// if the neuron does not remain.
bool renumber(NodeId& n, const std::vector<NodeId>& kept) {
    const auto place = std::lower_bound(kept.begin(), kept.end(), n);
    if (place == kept.end() || *place != n) return false;
    n = static_cast<NodeId>(place - kept.begin());
    return true;
}

/// Removes the items for which `keep` returns false. `keep` may change the others.
template <class Items, class Keep>
void keepItems(Items& items, Keep keep) {
    Items left;
    for (auto& item : items) {
        if (keep(item)) left.push_back(std::move(item));
    }
    items = std::move(left);
}

/// Reduces a network to some neurons, the synapses among them and their inputs.
void keepNeurons(GeneratedModel& network, const std::vector<NodeId>& kept) {
    for (std::size_t i = 0; i < kept.size(); ++i) {
        network.neurons[i] = network.neurons[kept[i]];
        network.firings[i] = network.firings[kept[i]];
    }
    network.node_count = kept.size();
    network.neurons.resize(kept.size());
    network.firings.resize(kept.size());
    keepItems(network.synapses, [&](Synapse& synapse) {
        return renumber(synapse.source, kept) && renumber(synapse.target, kept);
    });
    keepItems(network.inputs, [&](Event& input) { return renumber(input.target, kept); });
}

/// Reduces a runtime in the same way. Its steps keep their neuron numbers.
void keepNeurons(ComposedModel& model, const std::vector<NodeId>& kept) {
    keepNeurons(model.network, kept);
    for (std::size_t i = 0; i < kept.size(); ++i) {
        model.phase.bindings[i] = model.phase.bindings[kept[i]];
        if (kept[i] < model.memberships.size()) model.memberships[i] = model.memberships[kept[i]];
    }
    model.phase.bindings.resize(kept.size());
    const auto last = std::lower_bound(kept.begin(), kept.end(), model.memberships.size());
    model.memberships.resize(static_cast<std::size_t>(last - kept.begin()));
    const auto keepTargets = [&](auto& channels) {
        keepItems(channels, [&](auto& channel) {
            keepItems(channel.targets, [&](NodeId& n) { return renumber(n, kept); });
            return !channel.targets.empty();
        });
    };
    keepTargets(model.channels);
    keepTargets(model.prediction.channels);
}

template <class Items>
void eraseRange(Items& items, std::size_t first, std::size_t last) {
    items.erase(items.begin() + static_cast<std::ptrdiff_t>(first),
                items.begin() + static_cast<std::ptrdiff_t>(last));
}

SoakModel withHorizon(const SoakModel& model, ModelTime horizon) {
    SoakModel shorter = model;
    shorter.network().horizon = horizon;
    for (ComposedModel::Step& step : shorter.composed.steps) {
        if (step.until) step.until = std::min(*step.until, horizon);
    }
    return shorter;
}

/// Sets parameters to their defaults, neuron by neuron, or for all neurons at once if they must
/// stay alike.
bool makePlain(SoakModel& model, const std::function<bool(const SoakModel&)>& differs) {
    bool plainer = false;
    const auto reset = [&](auto member, auto records) {
        const auto& list = model.network().*records;
        using Record = typename std::decay_t<decltype(list)>::value_type;
        const auto usual = Record().*member;
        for (std::size_t n = 0; n < (model.network().*records).size(); ++n) {
            SoakModel candidate = model;
            auto& candidates = candidate.network().*records;
            const auto before = candidates[n].*member;
            if (std::memcmp(&before, &usual, sizeof usual) == 0) continue;
            const bool all = model.isComposed() || model.kind == ModelKind::resident;
            for (std::size_t i = 0; i < candidates.size(); ++i) {
                if (all || i == n) candidates[i].*member = usual;
            }
            if (!differs(candidate)) continue;
            model = std::move(candidate);
            plainer = true;
        }
    };
    for (const auto member : {&Kernel::Neuron::tau_membrane, &Kernel::Neuron::tau_adaptation,
                              &Kernel::Neuron::refractory_period}) {
        reset(member, &GeneratedModel::neurons);
    }
    for (const auto member :
         {&Kernel::Neuron::adaptation_increment, &Kernel::Neuron::input_coupling,
          &Kernel::Neuron::reset_value, &Kernel::Neuron::trace_epsilon}) {
        reset(member, &GeneratedModel::neurons);
    }
    reset(&Kernel::Neuron::hard_refractory, &GeneratedModel::neurons);
    reset(&Kernel::Neuron::non_leaky, &GeneratedModel::neurons);
    for (const auto member :
         {&Kernel::Firing::gain, &Kernel::Firing::threshold, &Kernel::Firing::adaptation_weight,
          &Kernel::Firing::rate_scale, &Kernel::Firing::max_rate}) {
        reset(member, &GeneratedModel::firings);
    }
    return plainer;
}

/// Whether all deliveries of a model lie well before the end of time. Ranks refuse others.
bool endsEarly(const SoakModel& model) {
    ModelTime longest = model.window();
    for (const Synapse& synapse : model.network().synapses) {
        longest = std::max(longest, synapse.delay);
    }
    // The last window may begin right before the end of the run.
    return model.end() <= last_model_time - model.window() &&
           model.end() + model.window() <= last_model_time - longest;
}

/// Tries once to leave out each part. False if nothing could be left out.
bool shrinkOnce(SoakModel& model, const std::function<bool(const SoakModel&)>& differs) {
    bool smaller = false;
    const auto attempt = [&](SoakModel candidate) {
        if (!differs(candidate)) return false;
        model = std::move(candidate);
        return smaller = true;
    };
    // Half of the horizon first, then ever smaller pieces down to one window.
    for (ModelTime cut = model.network().horizon / 2; cut >= model.window(); cut /= 2) {
        while (model.network().horizon > cut &&
               attempt(withHorizon(model, model.network().horizon - cut))) {
        }
    }
    if (model.isComposed()) {
        for (unsigned part = 1; part < all_parts; part *= 2) {
            if ((model.composed.parts & part) == 0) continue;
            SoakModel candidate = model;
            candidate.composed.parts &= ~part;
            attempt(std::move(candidate));
        }
        smaller |= leaveOut(model, model.composed.steps.size(), differs,
                            [](SoakModel from, std::size_t first, std::size_t last) {
                                eraseRange(from.composed.steps, first, last);
                                return from;
                            });
    }
    smaller |= leaveOut(model, model.cuts.size(), differs,
                        [](SoakModel from, std::size_t first, std::size_t last) {
                            eraseRange(from.cuts, first, last);
                            return from;
                        });
    smaller |= leaveOut(model, model.moments.size(), differs,
                        [](SoakModel from, std::size_t first, std::size_t last) {
                            eraseRange(from.moments, first, last);
                            return from;
                        });
    smaller |= leaveOut(model, model.network().inputs.size(), differs,
                        [](SoakModel from, std::size_t first, std::size_t last) {
                            eraseRange(from.network().inputs, first, last);
                            return from;
                        });
    smaller |= leaveOut(model, model.network().node_count, differs,
                        [](SoakModel from, std::size_t first, std::size_t last) {
                            std::vector<NodeId> kept(from.network().node_count);
                            std::iota(kept.begin(), kept.end(), NodeId{0});
                            eraseRange(kept, first, last);
                            if (from.isComposed()) {
                                keepNeurons(from.composed, kept);
                            } else {
                                keepNeurons(from.network(), kept);
                            }
                            return from;
                        });
    smaller |= leaveOut(model, model.network().synapses.size(), differs,
                        [](SoakModel from, std::size_t first, std::size_t last) {
                            eraseRange(from.network().synapses, first, last);
                            return from;
                        });
    return smaller;
}

}  // namespace

const char* nameOf(ModelKind kind) { return kind_names[static_cast<std::size_t>(kind)]; }

std::optional<ModelKind> kindNamed(std::string_view name) {
    const auto* found = std::find(std::begin(kind_names), std::end(kind_names), name);
    if (found == std::end(kind_names)) return std::nullopt;
    return static_cast<ModelKind>(found - std::begin(kind_names));
}

ModelTime SoakModel::window() const { return network().graph().dMin().value_or(1); }

ModelTime SoakModel::end() const {
    const ModelTime horizon = network().horizon;
    if (isComposed()) return horizon;
    return window() > (last_model_time - horizon) / windows_behind
               ? horizon
               : horizon + windows_behind * window();
}

SoakModel generateSoakModel(std::uint64_t seed, std::optional<ModelKind> kind) {
    Draws draws(seed ^ 0x50a4);
    SoakModel model;
    model.seed = seed;
    const ModelKind drawn = drawKind(draws);
    model.kind = kind.value_or(drawn);
    const bool counts_spikes = draws.oneIn(3);
    if (model.isComposed()) {
        model.composed =
            generateComposedModel(seed, composedTraitsOf(model.kind, draws, counts_spikes));
    } else {
        model.network() = generateModel(seed, traitsOf(model.kind, draws));
    }
    // These models lack what ranks refuse. The others have all of it.
    model.spreads = seed % 4 == 1 && model.kind != ModelKind::resident && endsEarly(model);
    if (model.spreads) model.composed.parts &= ~(learning_part | one_process_part);
    const auto anyTime = [&] {
        return draws.timeBelow(static_cast<std::uint64_t>(model.network().horizon));
    };
    // A device does not take a run with observations as a whole.
    if (!model.isComposed() && model.kind != ModelKind::resident && draws.oneIn(3)) {
        const ModelTime window = model.network().d_min;
        for (std::uint64_t left = draws.below(12); left != 0; --left) {
            const ModelTime time = anyTime();
            model.moments.push_back(draws.oneIn(4) ? time / window * window : time);
        }
    }
    // A checkpoint does not hold the spikes that wait for the recorder's next spike count.
    if (model.isComposed() && counts_spikes) return model;
    for (std::uint64_t left = draws.below(5); left != 0; --left) {
        const ModelTime time = anyTime();
        model.cuts.push_back({time, draws.next()});
    }
    std::sort(model.cuts.begin(), model.cuts.end(),
              [](const Cut& a, const Cut& b) { return a.time < b.time; });
    return model;
}

SoakModel shrunk(SoakModel model, const std::function<bool(const SoakModel&)>& differs) {
    // A network that loses its last synapse must keep its window length.
    SoakModel declared = model;
    declared.network().d_min = model.window();
    declared.network().declares_d_min = true;
    if (differs(declared)) model = std::move(declared);
    while (shrinkOnce(model, differs)) {
    }
    while (makePlain(model, differs)) {
    }
    return model;
}

std::string SoakModel::text() const {
    const GeneratedModel& net = network();
    std::ostringstream out;
    out << nameOf(kind) << " model of seed " << seed << ": " << net.node_count << " neurons, "
        << net.synapses.size() << " synapses, " << net.inputs.size() << " inputs, "
        << (isComposed() ? composed.steps.size() : 0) << " steps, " << cuts.size()
        << " cuts, horizon " << net.horizon << " ns, windows of " << window() << " ns"
        << (net.declares_d_min ? "" : " (by the synapses)") << ", run seed " << net.run_seed
        << (spreads ? ", also on ranks" : "") << '\n'
        << std::hexfloat;
    for (std::uint64_t n = 0; n < net.node_count; ++n) {
        const Kernel::Neuron& neuron = net.neurons[n];
        const Kernel::Firing& firing = net.firings[n];
        out << "  neuron " << n << ": tau " << neuron.tau_membrane << ' ' << neuron.tau_adaptation
            << ", refractory " << neuron.refractory_period
            << (neuron.hard_refractory ? " hard" : " soft") << (neuron.non_leaky ? ", no leak" : "")
            << ", increment " << neuron.adaptation_increment << ", coupling "
            << neuron.input_coupling << ", reset " << neuron.reset_value << ", epsilon "
            << neuron.trace_epsilon << ", rate " << firing.base_rate << " x " << firing.rate_scale
            << " up to " << firing.max_rate << ", gain " << firing.gain << ", threshold "
            << firing.threshold << ", adaptation weight " << firing.adaptation_weight << '\n';
    }
    for (const Synapse& synapse : net.synapses) {
        out << "  synapse " << synapse.source << " to " << synapse.target << ": weight "
            << (synapse.inhibitory ? "-" : "") << synapse.weight << ", delay " << synapse.delay
            << (synapse.enabled ? "" : ", off") << '\n';
    }
    for (const Event& input : net.inputs) {
        out << "  input at " << input.time << " to " << input.target << ": " << input.value
            << ", kind " << static_cast<int>(input.kind) << '\n';
    }
    if (isComposed()) {
        out << "  parts " << composed.parts << '\n';
        for (const ComposedModel::Step& step : composed.steps) {
            out << "  " << step.what;
            if (step.until) out << " to " << *step.until;
            out << '\n';
        }
    }
    for (const ModelTime moment : moments) out << "  observed at " << moment << '\n';
    for (const Cut& cut : cuts) out << "  cut at " << cut.time << '\n';
    return out.str();
}

}  // namespace Lumenar::Core::Kelm::Fuzzing
