#include "kelm/kernel/NeuronModel.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <vector>

#include "kelm/core/Digest.h"
#include "tests/support/Draws.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm::Kernel {

using Testing::Draws;
using Testing::sameBits;

/// The arguments of the formulas of one neuron.
struct Subject {
    State state;
    Neuron neuron;
    Firing firing;

    double hazardAt(ModelTime time, double drive) const {
        const Traces traces = tracesAfter(state, neuron, decayInterval(state.last_update, time));
        return Kernel::hazardAt(state, traces, NeuronModel(neuron, firing), time, drive);
    }
    double boundOn(ModelTime from, ModelTime to, double drive_bound) const {
        return hazardUpperBound(state, neuron, firing, from, to, drive_bound);
    }
};

/// The neurons of scripts/reference/kernel.py. refractory_until is 0.
Subject drawSubject(Draws& draws) {
    Subject s;
    s.state.membrane = draws.between(-3.0, 5.0);
    s.state.adaptation = draws.between(-1.0, 4.0);
    s.state.last_update = draws.timeBelow(std::uint64_t{1} << 55);
    s.neuron.tau_membrane = 1000 + draws.timeBelow(20000000);
    s.neuron.tau_adaptation = 1000 + draws.timeBelow(200000000);
    s.neuron.trace_epsilon = draws.oneIn(2) ? draws.between(0.0, 0.05) : 1e-15;
    s.neuron.hard_refractory = !draws.oneIn(2);
    s.neuron.non_leaky = draws.oneIn(8);
    s.firing.base_rate = draws.between(0.1, 300.0);
    s.firing.gain = draws.between(0.1, 4.0);
    s.firing.threshold = draws.between(-1.0, 1.0);
    s.firing.adaptation_weight = draws.between(0.0, 2.0);
    s.firing.rate_scale = draws.between(0.5, 2.0);
    s.firing.max_rate = draws.between(100.0, 1e6);
    return s;
}

// Digest of 4000 neurons from a second implementation (scripts/reference/kernel.py). Some times are
// past 2^53 ns, where the interval of a decay depends on the order of rounding.
TEST(NeuronModel, GivesTheBitsOfAnotherImplementation) {
    Draws draws(2);
    std::vector<double> values;
    for (int i = 0; i < 4000; ++i) {
        Subject s = drawSubject(draws);
        const ModelTime from = s.state.last_update + draws.timeBelow(1000000);
        const ModelTime to = from + 1 + draws.timeBelow(100000000);
        s.state.refractory_until = from - 1000000 + draws.timeBelow(3000000);
        const double drive = draws.between(-1.0, 1.0);
        const ModelTime time = from + draws.timeBelow(100000000);
        s.neuron.input_coupling = draws.between(-0.5, 0.5);
        const double input = draws.between(-2.0, 2.0);
        State advanced = s.state;
        advanceTraces(advanced, s.neuron, from);
        ASSERT_EQ(advanced.last_update, from);
        values.insert(values.end(), {advanced.membrane, advanced.adaptation,
                                     netDriveAt(s.state, s.neuron, s.firing, to),
                                     s.hazardAt(time, drive), s.boundOn(from, to, drive)});
        applyInput(advanced, s.neuron, input);
        values.push_back(advanced.membrane);
    }
    EXPECT_EQ(digestImages(std::span<const double>(values)), 0x8ab8abcc4edb2222U);
}

TEST(NeuronModel, ATraceDecaysAndDiesOnceItIsBelowEpsilon) {
    constexpr ModelTime tau = 10000000;
    struct Case {
        double value, interval;
        ModelTime tau;
        double epsilon, decayed;
    };
    for (const auto& [value, interval, time_constant, epsilon, decayed] : {
             Case{1.0, 1e7, tau, 1e-15, 0.36787944117144233},
             Case{-1e-15, 1e7, tau, 1e-15, 0.0},
             Case{3e-15, 1e7, tau, 1e-15, 1.1036383235143268e-15},
             Case{1.0, 1e7, tau, 0.36787944117144233, 0.36787944117144233},  // epsilon itself
             Case{1e-16, 0.0, tau, 1e-15, 1e-16},  // no interval: unchanged, also below epsilon
             Case{-0.0, 1e7, tau, 1e-15, -0.0},
             Case{1.0, 1.0, 0, 1e-15, 0.0},
         }) {
        EXPECT_TRUE(sameBits(decayTrace(value, interval, time_constant, epsilon), decayed));
    }
}

TEST(NeuronModel, AHardRefractoryTimeEndsAtItsInstantAndASoftOneHasNoEffect) {
    Subject s;
    s.state.refractory_until = 100;
    EXPECT_EQ(s.hazardAt(99, 0.0), 0.0);
    EXPECT_EQ(s.hazardAt(100, 0.0), 0.5);
    EXPECT_EQ(s.boundOn(0, 99, 0.0), 0.0);
    EXPECT_TRUE(sameBits(s.boundOn(0, 100, 0.0), fromBits(0x3fe0000000000048)));
    s.neuron.hard_refractory = false;
    EXPECT_EQ(s.hazardAt(99, 0.0), 0.5);
    EXPECT_GT(s.boundOn(0, 99, 0.0), 0.0);
    // The traces' part of a drive is never -0.0.
    s.state.membrane = -0.0;
    EXPECT_TRUE(sameBits(netDriveAt(s.state, s.neuron, s.firing, 0), 0.0));
}

TEST(NeuronModel, TheHazardIsExponentialUpToItsCeiling) {
    const Firing defaults;
    EXPECT_TRUE(sameBits(hazardOf(defaults, 0.0), 0.5));
    EXPECT_TRUE(sameBits(hazardOf(defaults, 1000.0), 999999.9999999997));
    EXPECT_TRUE(sameBits(hazardOf(defaults, infinity()), 999999.9999999997));
    EXPECT_TRUE(sameBits(hazardOf(defaults, quietNan()), 999999.9999999997))
        << "a NaN exponent settles for the ceiling";
    EXPECT_TRUE(sameBits(hazardOf(defaults, -infinity()), 0.0));
    EXPECT_TRUE(sameBits(hazardOf({.base_rate = 0.0}, 1000.0), 0.0));
    EXPECT_TRUE(sameBits(hazardOf({.rate_scale = -0.0}, 1000.0), 0.0));
    EXPECT_TRUE(isNan(hazardOf({.base_rate = -1.0}, 0.0))) << "no candidate can follow from it";
}

TEST(NeuronModel, ASpikeResetsAdaptsAndStartsARefractoryTimeThatStaysInRange) {
    struct Case {
        ModelTime period, time, until;
    };
    for (const Case& c : {Case{30, 70, 100}, Case{last_model_time, 1000, last_model_time},
                          Case{first_model_time, -1000, first_model_time}}) {
        State state{.membrane = 3.0, .adaptation = 0.5, .last_update = 70};
        const Neuron neuron{
            .refractory_period = c.period, .adaptation_increment = 0.25, .reset_value = -1.0};
        applySpike(state, neuron, c.time);
        EXPECT_EQ(state.membrane, -1.0);
        EXPECT_EQ(state.adaptation, 0.75);
        EXPECT_EQ(state.refractory_until, c.until);
        EXPECT_EQ(state.last_update, 70);
    }
}

}  // namespace Lumenar::Core::Kelm::Kernel
