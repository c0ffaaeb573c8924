#include <gtest/gtest.h>

#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/runtime/InjectionTrace.h"
#include "kelm/runtime/InterventionState.h"
#include "kelm/runtime/Perturbation.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/RecordingSink.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

constexpr auto activation = PerturbationKind::activation;
constexpr auto inhibition = PerturbationKind::inhibition;

TEST(Perturbation, PostsAnEventPerTargetAndReversesTheSignOfAnInhibitionExactly) {
    struct Case {
        PerturbationKind kind;
        double strength, value;
    };
    for (const Case& c : {Case{activation, -1.5, -1.5}, Case{activation, -0.0, -0.0},
                          Case{inhibition, -1.5, 1.5}, Case{inhibition, 0.0, -0.0}}) {
        SCOPED_TRACE(c.strength);
        RecordingSink sink;
        const std::vector<std::uint64_t> ids{70, 71, 72};
        EXPECT_EQ(postPerturbation({99, 40, c.kind, c.strength, {4, 0, 4}}, 5, sink), ids);
        Event event{.time = 40, .kind = EventKind::perturbation, .value = c.value, .cause = 99};
        std::vector<Event> expected;
        for (const NodeId neuron : {4U, 0U, 4U}) {
            event.source = event.target = neuron;
            expected.push_back(event);
        }
        EXPECT_TRUE(sameImages<Event>(sink.events, expected));
    }
}

TEST(Perturbation, IsRefusedForItsFirstFault) {
    RecordingSink sink;
    const auto posting = [&](PerturbationKind kind, double strength, std::vector<NodeId> targets) {
        return [=, &sink] { postPerturbation({0, 0, kind, strength, targets}, 3, sink); };
    };
    constexpr auto unknown = static_cast<PerturbationKind>(2);
    const char* const strength = "perturbation strength must be finite";
    expectRefusals<InvalidIntervention>(
        {{strength, posting(unknown, not_a_number, {})},
         {strength, posting(inhibition, -infinity, {9})},
         {"this KELM runtime step supports activation and inhibition perturbations; phase, "
          "synaptic and forced-spike events need their typed commit handlers",
          posting(unknown, 1.0, {})},
         {"perturbation names no neuron", posting(activation, 1.0, {})}},
        [&] { EXPECT_TRUE(sink.events.empty()); });
    expectThrows<InvalidIntervention>(posting(activation, 1.0, {2, 1, 3, 0}),
                                      "perturbation target is outside the graph");
    EXPECT_EQ(sink.events.size(), 2U);
}

TEST(InterventionState, StartsNeutralAndRefusesGainsByMechanism) {
    InterventionState state;
    const char* const unknown = "intervention names no mechanism";
    const char* const not_finite = "intervention gain must be finite";
    const char* const negative =
        "intervention gain of oscillators and prediction must not be negative";
    expectRefusals<InvalidIntervention>({{unknown, [&] { state.setGain(9, not_a_number); }},
                                         {unknown, [&] { state.setOff(9, true); }},
                                         {not_finite, [&] { state.setGain(1, -infinity); }},
                                         {not_finite, [&] { state.setGain(8, not_a_number); }},
                                         {negative, [&] { state.setGain(1, -0.5); }},
                                         {negative, [&] { state.setGain(4, -0.5); }}});
    for (std::size_t m = 0; m < 9; ++m) {
        EXPECT_TRUE(state.mechanism_gain[m] == 1.0 && !state.mechanism_off[m]);
        const double gain = m == 1 || m == 4 ? -0.0 : -0.5;
        state.setGain(m, gain);
        state.setOff(m, true);
        EXPECT_TRUE(state.mechanism_gain[m] == gain && state.mechanism_off[m]);
        state.setOff(m, false);
        EXPECT_FALSE(state.mechanism_off[m]);
    }
}

TEST(InjectionTrace, StoresValidInjections) {
    InjectionTrace trace;
    const char* const text = "invalid trace injection";
    expectRefusals<std::invalid_argument>({{text, [&] { trace.record("", 7, 1.0); }},
                                           {text, [&] { trace.record("eye", -1, 1.0); }},
                                           {text, [&] { trace.record("eye", 7, infinity); }}});
    EXPECT_TRUE(trace.records().empty());
    trace.record("eye", 0, -0.5);
    EXPECT_EQ(trace.records()[0].value, -0.5);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
