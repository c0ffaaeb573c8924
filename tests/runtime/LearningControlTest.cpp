#include "kelm/runtime/LearningControl.h"

#include <gtest/gtest.h>

#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

using Changes = std::vector<WeightChange>;

WeightChange proposal(EdgeId edge, double delta, ModelTime time) {
    WeightChange change;
    change.edge = edge;
    change.time = time;
    change.delta = delta;
    change.context.pre_last_spike = 11;
    change.context.post_last_spike = 22;
    change.context.rule_kind = PlasticityRuleKind::pair;
    return change;
}

TEST(LearningControl, RefusesBadWeightsUnknownSynapsesAndAGateThatGoesBack) {
    SynapseGraph graph(2, std::nullopt, std::vector<Synapse>(2, {.weight = 0.5F, .delay = 1}));
    const Blob before = graph.snapshot();
    LearningControl control(2, 2);
    const auto apply = [&graph](LearningControl& to, const Changes& changes, ModelTime window_end) {
        return [=, &to, &graph] { return to.applyChanges(graph, changes, window_end); };
    };
    const char* const no_synapse = "KELM synapse EdgeId is out of range";
    expectThrows<InvalidSynapse>(apply(control, {proposal(0, not_a_number, 1)}, 1),
                                 "synapse weight magnitude must be finite and >= 0");
    expectThrows<SynapseRoutingViolation>(apply(control, {proposal(2, 0.5, 1)}, 1), no_synapse);
    EXPECT_EQ(graph.snapshot(), before);
    // Other counts than the graph's matter only to a proposal for a missing neuron or synapse.
    for (LearningControl other : {LearningControl(3, 2), LearningControl(2, 3),
                                  LearningControl(1, 1), LearningControl(0, 2)}) {
        EXPECT_FALSE(control.restore(other.snapshot()));
        EXPECT_EQ(apply(other, {}, 0)(), LearningStatistics());
        if (other.synapseStates().size() == 1) {
            EXPECT_EQ(apply(other, {proposal(0, 0.125, 1)}, 1)().applied, 1U);
            expectThrows<SynapseRoutingViolation>(apply(other, {proposal(1, 0.5, 1)}, 1),
                                                  no_synapse);
        }
    }
    LearningControl groupless(0, 2);
    expectThrows<InvalidLearningControl>(apply(groupless, {proposal(0, 0.5, 1)}, 1),
                                         "group query outside the network");
    groupless.setFrozen(0, true);
    EXPECT_EQ(apply(groupless, {proposal(0, 0.5, 1)}, 1)().frozen_out, 1U);
    // A fading synapse that the graph lacks.
    LearningControl fading(2, 2);
    fading.setFastWeights(true, 5, 0.0);
    apply(fading, {proposal(1, 0.25, 1)}, 2)();
    SynapseGraph smaller(2, std::nullopt, {Synapse{.delay = 1}});
    expectThrows<SynapseRoutingViolation>([&] { fading.applyChanges(smaller, {}, 3); }, no_synapse);

    control.setModulator([](ModelTime window_end) { return window_end > 1; });
    apply(control, {}, 2)();
    expectThrows<InvalidLearningControl>(apply(control, {}, 1), "learning gate moved back in time");
    EXPECT_EQ(control.modulatorHistory().size(), 1U);
}

TEST(LearningControl, RefusesBadSettingsWithoutAChange) {
    LearningControl control(3, 4);
    control.allowOnlyGroups({7});
    const Blob before = control.snapshot();
    constexpr std::uint32_t past_groups = 1'048'576;
    const std::vector<std::uint32_t> bad_groups{1, past_groups};
    const char* query = "group query outside the network";
    const char* group = "learning group id must be below 1048576";
    const char* rate = "journal rate must be in (0, 1]";
    const char* share = "consolidation rate must be in [0, 1]";
    const char* cap = "weight cap must be finite and >= 0";
    constexpr auto off = JournalMode::off;
    expectRefusals<InvalidLearningControl>(
        {{query, [&] { control.groupOf(3); }},
         {query, [&] { control.neuronAdmitted(3); }},
         {"learning group set for a neuron outside the network",
          [&] { control.setGroup(3, past_groups); }},
         {group, [&] { control.setGroup(2, past_groups); }},
         {group, [&] { control.setGroupEnabled(past_groups, true); }},
         {group, [&] { control.allowOnlyGroups(bad_groups); }},
         {"fast weight time constant must be positive",
          [&] { control.setFastWeights(true, 0, -1.0); }},
         {share, [&] { control.setFastWeights(true, 1, -0.1); }},
         {share, [&] { control.setFastWeights(true, 1, 1.1); }},
         {share, [&] { control.setFastWeights(true, 1, not_a_number); }},
         {"unknown journal mode", [&] { control.setJournal(static_cast<JournalMode>(3), 0.0); }},
         {rate, [&] { control.setJournal(off, 0.0); }},
         {rate, [&] { control.setJournal(off, 1.5); }},
         {rate, [&] { control.setJournal(off, not_a_number); }},
         {cap, [&] { control.setWeightCap(-1.0); }},
         {cap, [&] { control.setWeightCap(infinity); }},
         {"learning freeze index must be below 3", [&] { control.setFrozen(3, true); }}},
        [&] { EXPECT_EQ(control.snapshot(), before); });
}

/// Fields of a blob, with values that no setter takes or that a reader refuses or cleans.
struct Fields {
    EdgeId noted = 0;
    EdgeId pending = 0;
    std::uint8_t yes = 1;
    std::uint8_t junk = 0;
    ModelTime tau = 1'000'000;
    double share = 0.5;
    JournalMode mode = JournalMode::sampled;
    double rate = 0.5;
    double cap = 2.0;
};

/// The blob of a used object.
Blob usedBlob(const Fields& with = {}) {
    SynapseLearningState state{0.5, 0.25, 0.75, 1, 1};
    JournalEntry entry{with.noted, 1,   0.5, 0.75, 0.0,  0.25,
                       0.5,        0.5, 11,  22,   0.25, PlasticityRuleKind::pair};
    ModulatorSample sample{1, 1};
    FastWeightSettings fast{with.yes, {}, with.tau, with.share};
    fillGap(state.gap, with.junk);
    fillGap(entry.gap, with.junk);
    fillGap(sample.gap, with.junk);
    fillGap(fast.gap, with.junk);
    return blobOf(BlobTag("KELMLRN1"), 1UL, 1U, 1UL, state, 3UL, with.yes, with.yes, false, 1UL,
                  entry, 1UL, sample, 1UL, with.pending, fast, with.yes, with.yes, 2UL, 4U, 1U,
                  with.mode, with.rate, with.cap, with.yes, false, false, with.yes, 1UL);
}

TEST(LearningControl, BlobHoldsEveryFieldInItsPlace) {
    SynapseGraph graph(1, std::nullopt, {Synapse{.weight = 0.5F, .delay = 1}});
    LearningControl control(1, 1);
    control.setGroupEnabled(9, true);  // already the case
    control.allowOnlyGroups({1});
    control.allowAllGroups();
    EXPECT_EQ(control.snapshot(),
              blobOf(BlobTag("KELMLRN1"), 1UL, 0U, 1UL, SynapseLearningState(), 1UL, true, 0UL, 0UL,
                     0UL, 0UL, 500'000'000L, 0.0, false, true, 0UL, JournalMode::every, 1.0, 1.0,
                     true, false, false, false, 0UL));
    control.setModulator([](ModelTime) { return true; });
    control.setGroup(0, 1);
    control.setGroupEnabled(2, false);
    for (const bool on : {false, true}) {
        control.setLearningEnabled(on);
        EXPECT_EQ(control.groupAllows(1), on);
        EXPECT_FALSE(control.groupAllows(2));
    }
    control.allowOnlyGroups({4, 1});
    control.setFastWeights(true, 1'000'000, 0.5);
    control.setJournal(JournalMode::sampled, 0.5);
    control.setWeightCap(2.0);
    control.setFrozen(2, true);
    control.applyChanges(graph, Changes{proposal(0, 0.25, 1)}, 1);
    EXPECT_EQ(control.snapshot(), usedBlob());
}

TEST(LearningControl, RefusesBlobsOfAnotherNetworkAndCleansGapsAndFlags) {
    LearningControl control(1, 1);
    expectTakesAllOrNothing(control, usedBlob(),
                            {{"a noted edge outside the network", usedBlob({.noted = 1})},
                             {"a pending edge outside the network", usedBlob({.pending = 1})}});
    ASSERT_TRUE(control.restore(usedBlob({.yes = 0x54, .junk = 0xee})));
    EXPECT_EQ(control.snapshot(), usedBlob());
}

TEST(LearningControl, RunsUnderAnySettingsOfABlob) {
    struct Case {
        const char* fact;
        Fields fields;
        std::uint64_t kept;  ///< journal entries of an update, a consolidation and a decay
    };
    for (const Case& c :
         {Case{"as it was", {}, 1}, Case{"a mode without a name", {.mode = JournalMode(7)}, 3},
          Case{"a rate of 0", {.rate = 0.0}, 0}, Case{"a tiny rate", {.rate = 5e-324}, 0},
          Case{"a rate that is no number", {.rate = not_a_number}, 0},
          Case{"a negative rate", {.rate = -0.25}, 0}, Case{"a rate above 2", {.rate = 3.0}, 3},
          Case{"no time constant", {.tau = 0}, 1}, Case{"a fast part that grows", {.tau = -1}, 1},
          Case{"no share, so no consolidation", {.share = not_a_number}, 1},
          Case{"a cap that is no number", {.cap = not_a_number}, 1}}) {
        SCOPED_TRACE(c.fact);
        SynapseGraph graph(1, std::nullopt, {Synapse{.weight = 0.75F, .delay = 1}});
        LearningControl control(1, 1);
        ASSERT_TRUE(control.restore(usedBlob(c.fields)));
        EXPECT_EQ(control.applyChanges(graph, Changes{proposal(0, 0.125, 3)}, 4).applied, 1U);
        EXPECT_EQ(control.journal().size() - 1, c.kept);
    }
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
