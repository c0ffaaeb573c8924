#include "kelm/runtime/Validation.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kelm/core/FailureDetail.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr ModelTime shortest_time_constant = 100;
constexpr ModelTime shortest_time = 1'000;
constexpr ModelTime many_windows = 1'000'000'000;
constexpr double ns_per_second = 1e9;
/// Expected spikes of a window at the ceiling. At 1 a window holds more than a result holds once in
/// a million.
constexpr double many_spikes = 1.0;
constexpr double most_spikes = 1e18;  ///< named in a text; a larger count may be no ModelTime

/// Collects findings on one neuron.
class Findings {
public:
    void error(const char* field, std::string text) {
        add(Finding::Severity::error, field, std::move(text));
    }
    void warning(const char* field, std::string text) {
        add(Finding::Severity::warning, field, std::move(text));
    }
    /// "`field` is `value` `unit`, `rule`"
    template <class Value>
    static std::string sentence(const char* field, Value value, const char* unit,
                                const std::string& rule) {
        return std::string(field) + " is " + decimal(value) + (*unit ? " " : "") + unit + ", " +
               rule;
    }

    /// Whether the number is finite; an error if not.
    bool finite(const char* field, double value, const char* unit) {
        if (std::isfinite(value)) return true;
        error(field, sentence(field, value, unit, "but must be finite"));
        return false;
    }
    void notNegative(const char* field, double value, const char* unit) {
        if (finite(field, value, unit) && value < 0.0) {
            error(field, sentence(field, value, unit, "but must not be negative"));
        }
    }
    /// A time of at least `least` ns. One that is shorter than `shortest` may lack its unit.
    void time(const char* field, ModelTime value, ModelTime least, ModelTime shortest) {
        if (value < least) {
            error(field,
                  sentence(field, value, "ns", "but must be at least " + decimal(least) + " ns"));
        } else if (value > 0 && value < shortest) {
            warning(field, sentence(field, value, "ns",
                                    "which is below " + decimal(shortest) +
                                        " ns: times are in ns, 1 ms is 1000000"));
        }
    }

    std::vector<Finding> take() && { return std::move(findings_); }

private:
    void add(Finding::Severity severity, const char* field, std::string text) {
        findings_.push_back({severity, field, std::move(text)});
    }

    std::vector<Finding> findings_;
};

void checkNeuron(Findings& findings, const Kernel::Neuron& neuron) {
    // A trace that does not decay, or that no spike raises, does not read its time constant.
    if (!neuron.non_leaky) {
        findings.time("tau_membrane", neuron.tau_membrane, 1, shortest_time_constant);
    }
    if (neuron.adaptation_increment != 0.0) {
        findings.time("tau_adaptation", neuron.tau_adaptation, 1, shortest_time_constant);
    }
    findings.time("refractory_period", neuron.refractory_period, 0, shortest_time);
    findings.finite("adaptation_increment", neuron.adaptation_increment, "");
    findings.finite("input_coupling", neuron.input_coupling, "");
    findings.finite("reset_value", neuron.reset_value, "");
    // A negative one makes the bound of a drive too small.
    findings.notNegative("trace_epsilon", neuron.trace_epsilon, "");
}

void checkFiring(Findings& findings, const Kernel::Firing& firing) {
    findings.notNegative("base_rate", firing.base_rate, "Hz");
    findings.notNegative("rate_scale", firing.rate_scale, "");
    // A bound is the hazard at the largest drive, which a negative gain would make the smallest.
    findings.notNegative("gain", firing.gain, "");
    findings.finite("threshold", firing.threshold, "");
    findings.finite("adaptation_weight", firing.adaptation_weight, "");
    if (!findings.finite("max_rate", firing.max_rate, "Hz")) return;
    const double rate = firing.base_rate * firing.rate_scale;
    if (firing.max_rate <= 0.0) {
        findings.error("max_rate", Findings::sentence("max_rate", firing.max_rate, "Hz",
                                                      "but must be positive"));
    } else if (firing.max_rate < rate) {
        findings.error("max_rate",
                       Findings::sentence("max_rate", firing.max_rate, "Hz",
                                          "but must not lie below base_rate * rate_scale, " +
                                              decimal(rate) + " Hz"));
    }
    if (rate == 0.0) {
        findings.warning("base_rate",
                         "base_rate * rate_scale is 0 Hz, so that no input makes the neuron fire");
    }
}

void checkWindow(Findings& findings, const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                 ModelTime window, std::optional<ModelTime> horizon) {
    findings.time("window", window, 1, shortest_time);
    if (horizon && *horizon < 1) findings.time("horizon", *horizon, 1, 1);
    if (window < 1) return;
    if (horizon && *horizon / window >= many_windows) {
        findings.warning("window",
                         Findings::sentence("window", window, "ns",
                                            "so that a run to " + decimal(*horizon) + " ns takes " +
                                                decimal(*horizon / window) + " windows"));
    }
    if (neuron.refractory_period < 0) return;  // an error already
    // With a refractory period R, spikes come at most at 1 / (1 / max_rate + R), and at most one in
    // each R.
    const bool refractory = neuron.hard_refractory && neuron.refractory_period > 0;
    const ModelTime rest = refractory ? neuron.refractory_period : 0;
    if (refractory && (window - 1) / rest < Kernel::max_window_spikes) return;
    if (!(firing.max_rate > 0.0) || !std::isfinite(firing.max_rate)) return;
    if (firing.base_rate * firing.rate_scale == 0.0) return;
    const double spikes =
        static_cast<double>(window) / (ns_per_second / firing.max_rate + static_cast<double>(rest));
    if (!(spikes > many_spikes)) return;
    const auto count = static_cast<ModelTime>(std::min(spikes, most_spikes));
    findings.warning("max_rate", Findings::sentence("max_rate", firing.max_rate, "Hz",
                                                    "at which a window of " + decimal(window) +
                                                        " ns holds about " + decimal(count) +
                                                        " spikes after a rest of " + decimal(rest) +
                                                        " ns each, and a result holds at most " +
                                                        std::to_string(Kernel::max_window_spikes)));
}

/// Synapses whose delay is below shortest_time, and the first of them.
struct ShortDelays {
    std::uint64_t count = 0;
    EdgeId first = ~EdgeId{0};
    NodeId source = 0;
    NodeId target = 0;
    ModelTime delay = 0;  ///< ns

    void add(EdgeId id, const Synapse& synapse) {
        add({1, id, synapse.source, synapse.target, synapse.delay});
    }
    void add(const ShortDelays& other) {
        const std::uint64_t sum = count + other.count;
        if (other.first < first) *this = other;
        count = sum;
    }
};

}  // namespace

std::vector<Finding> validate(const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                              ModelTime window, std::optional<ModelTime> horizon) {
    Findings findings;
    checkNeuron(findings, neuron);
    checkFiring(findings, firing);
    checkWindow(findings, neuron, firing, window, horizon);
    return std::move(findings).take();
}

std::vector<Finding> validate(const SynapseGraph& network, IRankGroup* ranks) {
    ShortDelays found;
    for (EdgeId id = network.edgeCount(); id-- > 0;) {
        const Synapse synapse = network.edge(id);
        if (synapse.delay < shortest_time) found.add(network.networkEdge(id), synapse);
    }
    if (ranks != nullptr) {
        const ShortDelays own = std::exchange(found, {});
        for (const ShortDelays& other : ranks->shareRecord(own)) found.add(other);
    }
    if (found.count == 0) return {};
    return {{Finding::Severity::warning, "delay",
             std::to_string(found.count) + " of " + std::to_string(network.networkEdgeCount()) +
                 " synapses have a delay below " + decimal(shortest_time) + " ns, first synapse " +
                 std::to_string(found.first) + " (" + std::to_string(found.source) + " to " +
                 std::to_string(found.target) + ") of " + decimal(found.delay) +
                 " ns: times are in ns, 1 ms is 1000000"}};
}

}  // namespace Lumenar::Core::Kelm
