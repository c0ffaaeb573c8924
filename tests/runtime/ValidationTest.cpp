#include "kelm/runtime/Validation.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

struct Model {
    Kernel::Neuron neuron;
    Kernel::Firing firing;
    ModelTime window = 1'000'000;
    std::optional<ModelTime> horizon = 10'000'000'000;
};

/// Findings as "E text" or "W text", one a line.
std::string linesOf(const std::vector<Finding>& findings) {
    std::string lines;
    for (const Finding& finding : findings) {
        lines += finding.severity == Finding::Severity::error ? "E " : "W ";
        lines += finding.text + "\n";
    }
    return lines;
}

TEST(Validation, NamesValueUnitAndRuleOfEachFinding) {
    struct Case {
        std::function<void(Model&)> change;
        std::string findings;
    };
    const auto nothing = [](Model&) {};
    const Case cases[]{
        {nothing, ""},
        {[](Model& m) { m.firing.base_rate = not_a_number; },
         "E base_rate is nan Hz, but must be finite\n"},
        {[](Model& m) { m.firing.base_rate = -2.5; },
         "E base_rate is -2.5 Hz, but must not be negative\n"},
        {[](Model& m) { m.firing.rate_scale = -infinity; },
         "E rate_scale is -inf, but must be finite\n"},
        {[](Model& m) { m.firing.gain = -1.0; }, "E gain is -1, but must not be negative\n"},
        {[](Model& m) { m.firing.threshold = infinity; },
         "E threshold is inf, but must be finite\n"},
        {[](Model& m) { m.firing.adaptation_weight = not_a_number; },
         "E adaptation_weight is nan, but must be finite\n"},
        {[](Model& m) { m.firing.max_rate = infinity; },
         "E max_rate is inf Hz, but must be finite\n"},
        {[](Model& m) { m.firing.max_rate = 0.0; }, "E max_rate is 0 Hz, but must be positive\n"},
        {[](Model& m) { m.firing.base_rate = 20.0, m.firing.max_rate = 10.0; },
         "E max_rate is 10 Hz, but must not lie below base_rate * rate_scale, 20 Hz\n"},
        {[](Model& m) { m.firing.rate_scale = 0.0; },
         "W base_rate * rate_scale is 0 Hz, so that no input makes the neuron fire\n"},

        {[](Model& m) { m.neuron.tau_membrane = -10'000'000; },
         "E tau_membrane is -10000000 ns, but must be at least 1 ns\n"},
        {[](Model& m) { m.neuron.tau_membrane = 0, m.neuron.non_leaky = true; }, ""},
        {[](Model& m) { m.neuron.tau_adaptation = 0; },
         "E tau_adaptation is 0 ns, but must be at least 1 ns\n"},
        {[](Model& m) { m.neuron.tau_adaptation = 0, m.neuron.adaptation_increment = 0.0; }, ""},
        {[](Model& m) { m.neuron.tau_membrane = 10, m.neuron.tau_adaptation = 100; },
         "W tau_membrane is 10 ns, which is below 100 ns: times are in ns, 1 ms is 1000000\n"},
        {[](Model& m) { m.neuron.refractory_period = -1; },
         "E refractory_period is -1 ns, but must be at least 0 ns\n"},
        {[](Model& m) { m.neuron.refractory_period = 2, m.firing.max_rate = 50.0; },
         "W refractory_period is 2 ns, which is below 1000 ns: times are in ns, 1 ms is 1000000\n"},
        {[](Model& m) { m.neuron.adaptation_increment = not_a_number; },
         "E adaptation_increment is nan, but must be finite\n"},
        {[](Model& m) { m.neuron.input_coupling = infinity; },
         "E input_coupling is inf, but must be finite\n"},
        {[](Model& m) { m.neuron.reset_value = not_a_number; },
         "E reset_value is nan, but must be finite\n"},
        {[](Model& m) { m.neuron.trace_epsilon = -1e-15; },
         "E trace_epsilon is -1e-15, but must not be negative\n"},

        {[](Model& m) { m.window = 0; }, "E window is 0 ns, but must be at least 1 ns\n"},
        {[](Model& m) { m.window = 999, m.horizon.reset(); },
         "W window is 999 ns, which is below 1000 ns: times are in ns, 1 ms is 1000000\n"},
        {[](Model& m) { m.horizon = 0; }, "E horizon is 0 ns, but must be at least 1 ns\n"},
        {[](Model& m) { m.window = 1'000, m.horizon = 1'000'000'000'000; },
         "W window is 1000 ns, so that a run to 1000000000000 ns takes 1000000000 windows\n"},
        {[](Model& m) { m.window = 1'000, m.horizon = 1'000'000'000'000 - 1; }, ""},

        {[](Model& m) { m.neuron.refractory_period = 0; },
         "W max_rate is 1e+06 Hz, at which a window of 1000000 ns holds about 1000 spikes after a "
         "rest of 0 ns each, and a result holds at most 8\n"},
        {[](Model& m) { m.neuron.refractory_period = 0, m.firing.max_rate = infinity; },
         "E max_rate is inf Hz, but must be finite\n"},
        {[](Model& m) { m.neuron.refractory_period = 0, m.firing.max_rate = 1e300; },
         "W max_rate is 1e+300 Hz, at which a window of 1000000 ns holds about 1000000000000000000 "
         "spikes after a rest of 0 ns each, and a result holds at most 8\n"},
        {[](Model& m) { m.neuron.hard_refractory = false, m.firing.max_rate = 2'000.0; },
         "W max_rate is 2000 Hz, at which a window of 1000000 ns holds about 2 spikes after a rest "
         "of 0 ns each, and a result holds at most 8\n"},
        {[](Model& m) { m.neuron.refractory_period = 0, m.firing.max_rate = 1'000.0; }, ""},
        // Eight periods fit exactly once a ninth spike has its place.
        {[](Model& m) { m.neuron.refractory_period = 125'000; }, ""},
        {[](Model& m) { m.neuron.refractory_period = 124'999, m.window = 1'000'001; },
         "W max_rate is 1e+06 Hz, at which a window of 1000001 ns holds about 7 spikes after a "
         "rest of 124999 ns each, and a result holds at most 8\n"},
        {[](Model& m) { m.firing.gain = -1.0, m.window = -5; },
         "E gain is -1, but must not be negative\nE window is -5 ns, but must be at least 1 ns\n"},
    };
    for (const Case& c : cases) {
        Model model;
        c.change(model);
        EXPECT_EQ(linesOf(validate(model.neuron, model.firing, model.window, model.horizon)),
                  c.findings);
    }
}

TEST(Validation, FindsDelaysThatLackAUnit) {
    std::vector<Synapse> synapses(4);
    for (Synapse& synapse : synapses) synapse = {.source = 2, .target = 1, .delay = 1'000};
    EXPECT_TRUE(validate(SynapseGraph(3, std::nullopt, synapses)).empty());
    synapses[1].delay = 1;
    synapses[3].delay = 999;
    const std::vector<Finding> findings = validate(SynapseGraph(3, std::nullopt, synapses));
    EXPECT_EQ(linesOf(findings),
              "W 2 of 4 synapses have a delay below 1000 ns, first synapse 1 (2 to 1) of 1 ns: "
              "times are in ns, 1 ms is 1000000\n");
    ASSERT_EQ(findings.size(), 1);
    EXPECT_EQ(findings[0].field, "delay");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
