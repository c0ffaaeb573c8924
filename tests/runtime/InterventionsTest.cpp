#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/events/BucketEventStore.h"
#include "kelm/runtime/InjectionTrace.h"
#include "kelm/runtime/InterventionState.h"
#include "kelm/runtime/Perturbation.h"
#include "tests/runtime/RecordingSink.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::expectSameEvents;
using Testing::expectThrows;
using Testing::RecordingSink;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr auto activation = PerturbationKind::activation;
constexpr auto inhibition = PerturbationKind::inhibition;
constexpr auto unknown_kind = static_cast<PerturbationKind>(2);

Event perturbationEvent(ModelTime time, NodeId neuron, double value, std::uint64_t cause) {
    Event event;
    event.time = time;
    event.kind = EventKind::perturbation;
    event.source = neuron;
    event.target = neuron;
    event.value = value;
    event.cause = cause;
    return event;
}

TEST(Perturbation, PostsAnEventPerTargetInTheirOrder) {
    RecordingSink sink;
    const std::vector<std::uint64_t> ids{70, 71, 72};
    EXPECT_EQ(postPerturbation({99, 40, activation, 2.5, {4, 0, 4}}, 5, sink), ids);
    expectSameEvents(sink.events,
                     {perturbationEvent(40, 4, 2.5, 99), perturbationEvent(40, 0, 2.5, 99),
                      perturbationEvent(40, 4, 2.5, 99)});
}

TEST(Perturbation, ReversesTheSignOfAnInhibitionExactly) {
    struct Case {
        PerturbationKind kind;
        double strength, value;
    };
    for (const Case& c :
         {Case{activation, -1.5, -1.5}, Case{activation, -0.0, -0.0}, Case{inhibition, 1.5, -1.5},
          Case{inhibition, -1.5, 1.5}, Case{inhibition, 0.0, -0.0}, Case{inhibition, -0.0, 0.0},
          Case{inhibition, 0x1p-1074, -0x1p-1074}}) {
        SCOPED_TRACE(c.strength);
        RecordingSink sink;
        postPerturbation({0, 1, c.kind, c.strength, {2}}, 3, sink);
        expectSameEvents(sink.events, {perturbationEvent(1, 2, c.value, 0)});
    }
}

TEST(Perturbation, IsRefusedForItsFirstFault) {
    const char* const strength = "perturbation strength must be finite";
    const char* const kind =
        "this KELM runtime step supports activation and inhibition perturbations; phase, synaptic "
        "and forced-spike events need their typed commit handlers";
    const char* const target = "perturbation target is outside the graph";
    struct Case {
        const char* text;
        Perturbation perturbation;
        std::size_t posted;
    };
    for (const Case& c : {Case{strength, {0, 0, unknown_kind, not_a_number, {}}, 0},
                          Case{strength, {0, 0, inhibition, -infinity, {9}}, 0},
                          Case{kind, {0, 0, unknown_kind, 1.0, {}}, 0},
                          Case{kind, {0, 0, static_cast<PerturbationKind>(255), 1.0, {1}}, 0},
                          Case{"perturbation names no neuron", {0, 0, activation, 1.0, {}}, 0},
                          Case{target, {0, 0, activation, 1.0, {3, 0}}, 0},
                          Case{target, {0, 0, activation, 1.0, {2, 1, 3, 0}}, 2}}) {
        SCOPED_TRACE(c.text);
        RecordingSink sink;
        expectThrows<InvalidIntervention>([&] { postPerturbation(c.perturbation, 3, sink); },
                                          c.text);
        EXPECT_EQ(sink.events.size(), c.posted);
    }
}

TEST(Perturbation, LeavesARefusalOfItsTimeToTheStore) {
    BucketEventStore store(10, 16);
    store.post({});
    std::vector<Event> events;
    ModelTime start = 0;
    ModelTime end = 0;
    ASSERT_TRUE(store.take(10, events, start, end));
    expectThrows<LookaheadViolation>(
        [&] {
            postPerturbation({0, 9, activation, 1.0, {0, 7}}, 3, store);
        },
        "KELM event inserted into an already processed window; d_min does not bound this edge");
    EXPECT_TRUE(store.isEmpty());
}

TEST(InterventionState, StartsNeutralAndChangesOneMechanismAtATime) {
    const InterventionState neutral;
    for (std::size_t m = 0; m < 9; ++m) {
        EXPECT_EQ(neutral.mechanism_gain[m], 1.0);
        EXPECT_FALSE(neutral.mechanism_off[m]);
        InterventionState state;
        state.setGain(m, 0.25);
        state.setOff(m, true);
        for (std::size_t other = 0; other < 9; ++other) {
            EXPECT_EQ(state.mechanism_gain[other], other == m ? 0.25 : 1.0);
            EXPECT_EQ(state.mechanism_off[other], other == m);
        }
        state.setOff(m, false);
        EXPECT_FALSE(state.mechanism_off[m]);
    }
}

TEST(InterventionState, RefusesAGainThatNoMechanismCouldBear) {
    InterventionState state;
    const char* const unknown = "intervention names no mechanism";
    const char* const not_finite = "intervention gain must be finite";
    expectThrows<InvalidIntervention>([&] { state.setGain(9, not_a_number); }, unknown);
    expectThrows<InvalidIntervention>([&] { state.setOff(9, true); }, unknown);
    const double lowest = -std::numeric_limits<double>::max();
    for (std::size_t m = 0; m < 9; ++m) {
        SCOPED_TRACE(m);
        expectThrows<InvalidIntervention>([&] { state.setGain(m, -infinity); }, not_finite);
        expectThrows<InvalidIntervention>([&] { state.setGain(m, not_a_number); }, not_finite);
        EXPECT_EQ(state.mechanism_gain[m], 1.0);
        if (m == InterventionState::oscillators || m == InterventionState::prediction) {
            expectThrows<InvalidIntervention>(
                [&] { state.setGain(m, lowest); },
                "intervention gain of oscillators and prediction must not be negative");
            EXPECT_EQ(state.mechanism_gain[m], 1.0);
            state.setGain(m, -0.0);
            EXPECT_TRUE(std::signbit(state.mechanism_gain[m]));
        } else {
            state.setGain(m, lowest);
            EXPECT_EQ(state.mechanism_gain[m], lowest);
        }
    }
}

TEST(InjectionTrace, KeepsWhatIsSoundInTheOrderOfTheCalls) {
    InjectionTrace trace;
    trace.record("eye", 7, -0.5);
    struct Case {
        const char* name;
        ModelTime time;
        double value;
    };
    for (const Case& c : {Case{"", 7, 1.0}, Case{"eye", -1, 1.0}, Case{"eye", 7, not_a_number},
                          Case{"eye", 7, infinity}}) {
        expectThrows<std::invalid_argument>([&] { trace.record(c.name, c.time, c.value); },
                                            "invalid trace injection");
    }
    // A record is what was asked for: going back in time is for the channel to refuse.
    trace.record("ear", 0, 0.0);
    ASSERT_EQ(trace.records().size(), 2U);
    EXPECT_EQ(trace.records()[0].name, "eye");
    EXPECT_EQ(trace.records()[0].time, 7);
    EXPECT_EQ(trace.records()[0].value, -0.5);
    EXPECT_EQ(trace.records()[1].name, "ear");
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
