#include "kelm/runtime/PlasticityEngine.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

using Changes = std::vector<WeightChange>;

constexpr PlasticityRule no_rule{};
constexpr PlasticityRule pair_rule{PlasticityRuleKind::pair, 0.01, 0.012, 0.0, 1.0};

TEST(PlasticityEngine, RefusesAConfigurationForItsFirstFault) {
    // Each row also has the faults of the rows below it, if they can occur together.
    constexpr PlasticityRule infinite{PlasticityRuleKind::none, -1.0, 0.0, 0.0, infinity};
    constexpr PlasticityRule undefined{PlasticityRuleKind::none, 0.0, 0.0, not_a_number, 1.0};
    constexpr PlasticityRule negative{PlasticityRuleKind::none, 0.0, -1e-300, 0.0, 1.0};
    const char* windows = "plasticity trace windows must be positive";
    const char* epsilon = "plasticity trace epsilon must be finite and >= 0";
    const char* not_finite = "plasticity amplitudes must be finite";
    const char* below_zero = "plasticity amplitudes must be non-negative";
    const auto building = [](TraceConfig trace, PlasticityRule exc, PlasticityRule inh) {
        return [=] { PlasticityEngine engine(1, trace, exc, inh); };
    };
    expectRefusals<InvalidPlasticity>(
        {{windows, building({0, 1, 1, -1.0}, infinite, infinite)},
         {windows, building({1, -5, 1, -1.0}, infinite, infinite)},
         {windows, building({1, 1, 0, -1.0}, infinite, infinite)},
         {epsilon, building({1, 1, 1, -1.0}, infinite, infinite)},
         {epsilon, building({1, 1, 1, not_a_number}, infinite, infinite)},
         {not_finite, building({1, 1, 1, 0.0}, infinite, negative)},
         {below_zero, building({1, 1, 1, 0.0}, negative, undefined)},
         {not_finite, building({1, 1, 1, 0.0}, no_rule, undefined)},
         {below_zero, building({1, 1, 1, 0.0}, no_rule, negative)}});
}

TEST(PlasticityEngine, RefusesSpikesThatItOrTheGraphCannotPlace) {
    SynapseGraph graph(2, std::nullopt, {Synapse{.target = 1, .delay = 1}});
    PlasticityEngine engine(2, TraceConfig(), pair_rule, no_rule);
    const char* const no_trace = "plasticity spike neuron is out of range";
    expectThrows<std::out_of_range>([&] { engine.recordSpike(2, 0); }, no_trace);
    engine.setChangeHook([](const WeightChangeContext&) { return not_a_number; });
    engine.recordSpike(0, 5);
    EXPECT_EQ(engine.takeChanges(graph).size(), 1U) << "the traces are 0, but a NaN is not";
    engine.recordSpike(0, 4);
    expectThrows<InvalidPlasticity>([&] { engine.takeChanges(graph); },
                                    "plasticity trace advanced into the past");

    // The neuron counts of engine and graph need not agree as long as each spike has its traces.
    PlasticityEngine wider(3, TraceConfig(), pair_rule, no_rule);
    wider.recordSpike(1, 5);
    EXPECT_TRUE(wider.takeChanges(graph).empty());
    wider.recordSpike(2, 6);
    expectThrows<SynapseRoutingViolation>([&] { wider.takeChanges(graph); },
                                          "KELM source NodeId is out of range");
    PlasticityEngine narrower(1, TraceConfig(), pair_rule, no_rule);
    SynapseGraph disabled(2, std::nullopt, {Synapse{.target = 1, .delay = 1, .enabled = false}});
    narrower.recordSpike(0, 5);
    EXPECT_TRUE(narrower.takeChanges(disabled).empty());
    narrower.recordSpike(0, 6);
    expectThrows<std::out_of_range>([&] { narrower.takeChanges(graph); }, no_trace);
}

WeightChange change(EdgeId edge, PlasticitySide side, NodeId post, std::uint8_t junk = 0) {
    WeightChange made;
    made.edge = edge;
    made.side = side;
    made.context.post_neuron = post;
    fillGap(made.gap, junk);
    fillGap(made.context.gap, junk);
    return made;
}

TEST(PlasticityEngine, BlobHoldsTracesThenSpikesThenProposals) {
    using enum PlasticitySide;
    const auto blob = [&](NodeId neuron, NodeId post, std::uint8_t junk = 0) {
        return blobOf(BlobTag("KELMPLS1"), 2UL, SpikeTrace{0.5, 0.25, 2.0, 3, 2},
                      SpikeTrace{0.75, 1.0, 3.0, 5, 4}, 2UL, SpikeRecord{9, neuron},
                      SpikeRecord{6, 0}, 2UL, change(1, target, 1, junk),
                      change(1, source, post, junk));
    };
    PlasticityEngine engine(2, TraceConfig(), no_rule, no_rule);
    engine.recordSpike(1, 77);
    const PlasticityEngine wider(3, TraceConfig(), no_rule, no_rule);
    expectTakesAllOrNothing(engine, blob(1, 0),
                            {{"another neuron count", wider.snapshot()},
                             {"a spike outside the network", blob(2, 0)},
                             {"a proposal outside the network", blob(1, 2)}});
    ASSERT_TRUE(engine.restore(blob(1, 0, 0xee)));
    EXPECT_EQ(engine.snapshot(), blob(1, 0)) << "gaps come back as zero";
    // Proposals that were not taken come with the next ones, in the same order.
    SynapseGraph graph(2, 1, {});
    EXPECT_TRUE(sameImages<WeightChange>(engine.takeChanges(graph),
                                         Changes{change(1, source, 0), change(1, target, 1)}));
    EXPECT_EQ(engine.traces()[0].last_spike, 6);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
