#include "kelm/runtime/LearningControl.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::expectThrows;
using Testing::sameBits;
using Testing::sameImages;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr ModelTime millisecond = 1'000'000;

/// Three neurons, four synapses: two into neuron 1, one into neuron 2, one into neuron 0.
SynapseGraph makeGraph(float weight = 0.5F) {
    std::vector<Synapse> edges(4);
    const NodeId ends[4][2] = {{0, 1}, {2, 1}, {1, 2}, {2, 0}};
    for (std::size_t i = 0; i < 4; ++i) {
        edges[i].source = ends[i][0];
        edges[i].target = ends[i][1];
        edges[i].weight = weight;
        edges[i].delay = millisecond;
    }
    return SynapseGraph(3, std::nullopt, edges);
}

WeightChange proposal(EdgeId edge, double delta, ModelTime time = millisecond) {
    WeightChange change;
    change.edge = change.context.edge = edge;
    change.time = change.context.time = time;
    change.delta = delta;
    change.context.pre_last_spike = 11;
    change.context.post_last_spike = 22;
    change.context.rule_kind = PlasticityRuleKind::pair;
    return change;
}

using Changes = std::vector<WeightChange>;

/// One proposal of 0.125 for each synapse.
Changes everySynapse(ModelTime time = millisecond) {
    Changes changes;
    for (EdgeId edge = 0; edge < 4; ++edge) changes.push_back(proposal(edge, 0.125, time));
    return changes;
}

double weightOf(const SynapseGraph& graph, EdgeId edge) {
    return static_cast<double>(graph.edge(edge).weight);
}

double narrowed(double weight) { return static_cast<double>(static_cast<float>(weight)); }

struct Learner {
    explicit Learner(SynapseGraph network = makeGraph())
        : graph(std::move(network)), control(graph.nodeCount(), graph.edgeCount()) {}

    LearningStatistics apply(const Changes& changes, ModelTime window_end = 2 * millisecond) {
        return control.applyChanges(graph, changes, window_end);
    }

    SynapseGraph graph;
    LearningControl control;
};

JournalEntry entry(JournalKind kind, EdgeId edge, ModelTime time, double weight_before,
                   double weight_after, const SynapseLearningState& before,
                   const SynapseLearningState& after, std::optional<double> delta = {}) {
    JournalEntry made;
    made.kind = kind;
    made.edge = edge;
    made.time = time;
    made.weight_before = weight_before;
    made.weight_after = weight_after;
    made.fast_before = before.fast;
    made.fast_after = after.fast;
    made.slow_before = before.slow;
    made.slow_after = after.slow;
    if (delta) {
        made.pre_last_spike = 11;
        made.post_last_spike = 22;
        made.delta = *delta;
        made.rule_kind = PlasticityRuleKind::pair;
    }
    return made;
}

SynapseLearningState parts(double slow, double fast = 0.0) {
    SynapseLearningState state;
    state.slow = slow;
    state.fast = fast;
    return state;
}

::testing::AssertionResult sameJournal(const LearningControl& control,
                                       const std::vector<JournalEntry>& expected) {
    return sameImages<JournalEntry>(control.journal(), expected);
}

TEST(LearningControl, AddsAProposalToTheLastingPartAndWritesTheCappedWeight) {
    struct Case {
        const char* fact;
        float weight;
        double delta;
        double slow;
    };
    for (const Case& c :
         {Case{"in between", 0.3F, 0.1, 0.1 + static_cast<double>(0.3F)},
          Case{"above the cap", 0.5F, 0.75, 1.0}, Case{"below zero", 0.5F, -0.75, 0.0},
          Case{"nothing proposed", 0.5F, 0.0, 0.5}, Case{"from above the cap", 3.0F, -0.5, 1.0}}) {
        SCOPED_TRACE(c.fact);
        Learner learner(makeGraph(c.weight));
        const LearningStatistics statistics = learner.apply({proposal(2, c.delta)});
        EXPECT_EQ(statistics, (LearningStatistics{1, 0, 0, 0, 0, 0}));
        EXPECT_TRUE(sameBits(weightOf(learner.graph, 2), narrowed(c.slow)));
        EXPECT_EQ(learner.graph.lastChange(2), millisecond);
        EXPECT_EQ(learner.graph.lastChange(1), 0);
        const double before = static_cast<double>(c.weight);
        EXPECT_TRUE(sameJournal(
            learner.control, {entry(JournalKind::update, 2, millisecond, before, narrowed(c.slow),
                                    parts(before), parts(c.slow), c.delta)}));
    }
}

TEST(LearningControl, AWeightMovedByAnotherIsTakenUpByTheLastingPart) {
    Learner learner;
    learner.control.setFastWeights(true, 500 * millisecond, 0.0);
    learner.apply({proposal(0, 0.125)}, millisecond);
    learner.graph.setWeight(0, 0.25F);
    const std::size_t past = learner.control.journal().size();
    learner.apply({proposal(0, 0.0625, 3 * millisecond)}, 3 * millisecond);
    const std::vector<JournalEntry> journal(learner.control.journal().begin(),
                                            learner.control.journal().end());
    ASSERT_EQ(past, 1U);
    EXPECT_TRUE(sameImages<JournalEntry>(
        std::span(journal).subspan(past),
        std::vector{entry(JournalKind::external, 0, 3 * millisecond, 0.625, 0.25, parts(0.5, 0.125),
                          parts(0.125, 0.125)),
                    entry(JournalKind::update, 0, 3 * millisecond, 0.25, 0.3125,
                          parts(0.125, 0.125), parts(0.125, 0.1875), 0.0625)}));
}

TEST(LearningControl, AProposalIsStoppedByFreezeThenGroupThenGateAndCountedOnce) {
    struct Case {
        const char* fact;
        bool frozen, group_off, gate_closed;
        LearningStatistics statistics;
    };
    for (const Case& c : {Case{"nothing", false, false, false, {4, 0, 0, 0, 0, 0}},
                          Case{"gate", false, false, true, {0, 0, 4, 0, 0, 0}},
                          Case{"group", false, true, false, {2, 2, 0, 0, 0, 0}},
                          Case{"group and gate", false, true, true, {0, 2, 2, 0, 0, 0}},
                          Case{"all three", true, true, true, {0, 0, 0, 4, 0, 0}}}) {
        SCOPED_TRACE(c.fact);
        Learner learner;
        learner.control.setFrozen(0, c.frozen);
        learner.control.setGroup(1, 3);
        learner.control.setGroupEnabled(3, !c.group_off);
        if (c.gate_closed) learner.control.setModulator([](ModelTime) { return false; });
        EXPECT_EQ(learner.apply(everySynapse()), c.statistics);
        EXPECT_EQ(learner.control.journal().size(), c.statistics.applied);
        for (EdgeId edge = 0; edge < 4; ++edge) {
            const bool learned =
                c.statistics.applied == 4 || (c.statistics.applied == 2 && edge > 1);
            EXPECT_EQ(weightOf(learner.graph, edge), learned ? 0.625 : 0.5) << edge;
        }
    }
}

TEST(LearningControl, TheTargetsGroupDecides) {
    struct Case {
        const char* fact;
        void (*set)(LearningControl&);
        std::vector<EdgeId> learning;
    };
    for (const Case& c : {
             Case{"a group that was never switched may learn",
                  [](LearningControl&) {},
                  {0, 1, 2, 3}},
             Case{"one group off", [](LearningControl& l) { l.setGroupEnabled(5, false); }, {2, 3}},
             Case{"off and on again",
                  [](LearningControl& l) {
                      l.setGroupEnabled(5, false);
                      l.setGroupEnabled(5, true);
                  },
                  {0, 1, 2, 3}},
             Case{"the last group off, those between untouched",
                  [](LearningControl& l) { l.setGroupEnabled(1'048'575, false); },
                  {0, 1, 2}},
             Case{"all off", [](LearningControl& l) { l.setLearningEnabled(false); }, {}},
             Case{"only some",
                  [](LearningControl& l) {
                      l.allowOnlyGroups({1'048'575, 5});
                  },
                  {0, 1, 3}},
             Case{"only some, one of them off",
                  [](LearningControl& l) {
                      l.allowOnlyGroups({1'048'575, 5});
                      l.setGroupEnabled(5, false);
                  },
                  {3}},
             Case{"none", [](LearningControl& l) { l.allowOnlyGroups({}); }, {}},
             Case{"a restriction lifted",
                  [](LearningControl& l) {
                      l.allowOnlyGroups({});
                      l.allowAllGroups();
                  },
                  {0, 1, 2, 3}},
         }) {
        SCOPED_TRACE(c.fact);
        Learner learner;
        learner.control.setGroup(1, 5);
        learner.control.setGroup(0, 1'048'575);
        c.set(learner.control);
        const LearningStatistics statistics = learner.apply(everySynapse());
        EXPECT_EQ(statistics.applied, c.learning.size());
        EXPECT_EQ(statistics.blocked_by_group, 4 - c.learning.size());
        std::vector<EdgeId> learned;
        for (const JournalEntry& noted : learner.control.journal()) learned.push_back(noted.edge);
        EXPECT_EQ(learned, c.learning);
    }
}

TEST(LearningControl, SwitchingGroupsBackLeavesNoTrace) {
    LearningControl control(3, 4);
    control.setGroupEnabled(9, true);
    control.allowOnlyGroups({1});
    control.allowAllGroups();
    EXPECT_EQ(control.snapshot(), LearningControl(3, 4).snapshot());
}

TEST(LearningControl, TheGateIsAskedOncePerWindowAndItsChangesAreHistory) {
    Learner learner;
    std::vector<ModelTime> asked;
    bool open = true;
    learner.control.setModulator([&](ModelTime window_end) {
        asked.push_back(window_end);
        return open;
    });
    std::vector<std::uint64_t> gated;
    ModelTime end = 0;
    for (const bool answer : {true, true, false, false, true}) {
        open = answer;
        end += millisecond;
        // Windows without proposals are asked for as well.
        gated.push_back(
            learner.apply(end == 4 * millisecond ? Changes() : everySynapse(), end).gated);
    }
    EXPECT_EQ(asked, (std::vector<ModelTime>{millisecond, 2 * millisecond, 3 * millisecond,
                                             4 * millisecond, 5 * millisecond}));
    EXPECT_EQ(gated, (std::vector<std::uint64_t>{0, 0, 4, 0, 0}));
    const std::vector<ModulatorSample> history{
        {millisecond, 1, {}}, {3 * millisecond, 0, {}}, {5 * millisecond, 1, {}}};
    EXPECT_TRUE(sameImages<ModulatorSample>(learner.control.modulatorHistory(), history));

    open = false;
    expectThrows<InvalidLearningControl>([&] { learner.apply({}, 4 * millisecond); },
                                         "learning gate moved back in time");
    EXPECT_TRUE(sameImages<ModulatorSample>(learner.control.modulatorHistory(), history));
    learner.apply({}, 6 * millisecond);
    learner.control.setModulator({});
    EXPECT_EQ(learner.apply(everySynapse(), 7 * millisecond).applied, 4U)
        << "without a gate its history closes nothing";
}

TEST(LearningControl, FreezesStopProposalsAndOneOfThemTheFading) {
    struct Case {
        std::uint32_t index;
        LearningStatistics statistics;
    };
    for (const Case& c :
         {Case{0, {0, 0, 0, 4, 4, 0}}, Case{1, {0, 0, 0, 4, 0, 0}}, Case{2, {4, 0, 0, 0, 4, 0}}}) {
        SCOPED_TRACE(c.index);
        Learner learner;
        learner.control.setFastWeights(true, 500 * millisecond, 0.0);
        learner.apply(everySynapse(), 2 * millisecond);
        learner.control.setFrozen(c.index, true);
        EXPECT_EQ(learner.apply(everySynapse(3 * millisecond), 4 * millisecond), c.statistics);
        learner.control.setFrozen(c.index, false);
        EXPECT_EQ(learner.apply(everySynapse(5 * millisecond), 6 * millisecond),
                  (LearningStatistics{4, 0, 0, 0, 4, 0}));
    }
}

TEST(LearningControl, AFadingPartFadesOverEachSpanExactlyOnce) {
    const ModelTime tau = 40 * millisecond;
    const ModelTime spike = 1'300'000;
    // The windows of a run; those in which nothing happened are never seen.
    for (const std::vector<ModelTime>& ends :
         {std::vector<ModelTime>{2 * millisecond, 3 * millisecond, 9 * millisecond},
          std::vector<ModelTime>{9 * millisecond}}) {
        SCOPED_TRACE(ends.size());
        Learner learner;
        learner.control.setFastWeights(true, tau, 0.0);
        double fast = 0.125;
        ModelTime from = spike;
        for (const ModelTime end : ends) {
            const bool first = end == ends.front();
            EXPECT_EQ(learner.apply(first ? Changes{proposal(0, 0.125, spike)} : Changes{}, end),
                      (LearningStatistics{first ? 1U : 0U, 0, 0, 0, 1, 0}));
            fast = std::exp(-static_cast<double>(end - from) / static_cast<double>(tau)) * fast;
            from = end;
            const SynapseLearningState& state = learner.control.synapseStates()[0];
            EXPECT_TRUE(sameBits(state.fast, fast));
            EXPECT_EQ(state.slow, 0.5);
            EXPECT_TRUE(sameBits(weightOf(learner.graph, 0), narrowed(fast + 0.5)));
            EXPECT_EQ(learner.graph.lastChange(0), end);
            EXPECT_EQ(learner.apply({}, end), LearningStatistics()) << "the span is spent";
        }
        EXPECT_NEAR(fast, 0.125 * std::exp(-7.7 / 40.0), 1e-15);
    }
}

TEST(LearningControl, SynapsesFadeByTheirOwnSpansInTheOrderOfFirstTouch) {
    Learner learner;
    const ModelTime tau = 40 * millisecond;
    learner.control.setFastWeights(true, tau, 0.0);
    learner.apply({proposal(2, 0.125, 1 * millisecond), proposal(3, 0.0, 1 * millisecond)},
                  2 * millisecond);
    learner.apply({proposal(0, 0.125, 2'250'000), proposal(1, 0.125, 2'750'000),
                   proposal(2, 0.125, 2'750'000)},
                  3 * millisecond);
    const std::vector<EdgeId> touched{2, 3, 0, 1};
    EXPECT_EQ(std::vector<EdgeId>(learner.control.pendingEdges().begin(),
                                  learner.control.pendingEdges().end()),
              touched);
    std::vector<EdgeId> faded;
    for (const JournalEntry& noted : learner.control.journal()) {
        if (noted.kind == JournalKind::decay) faded.push_back(noted.edge);
    }
    EXPECT_EQ(faded, (std::vector<EdgeId>{2, 2, 0, 1})) << "a part of 0 costs one test, no entry";
    const auto factor = [&](double span) { return std::exp(-span / static_cast<double>(tau)); };
    const auto fast = [&](EdgeId edge) { return learner.control.synapseStates()[edge].fast; };
    EXPECT_TRUE(sameBits(fast(0), factor(750e3) * 0.125));
    EXPECT_TRUE(sameBits(fast(1), factor(250e3) * 0.125));
    EXPECT_TRUE(sameBits(fast(2), factor(250e3) * (0.125 + factor(1e6) * 0.125)));
}

TEST(LearningControl, AShareOfTheFadingPartBecomesLastingBeforeTheRestFades) {
    for (const double rate : {0.25, 1.0}) {
        SCOPED_TRACE(rate);
        Learner learner;
        learner.control.setFastWeights(true, 40 * millisecond, rate);
        EXPECT_EQ(learner.apply({proposal(0, 0.125)}), (LearningStatistics{1, 0, 0, 0, 1, 1}));
        const double share = 0.125 * rate;
        const double fast = std::exp(-1.0 / 40.0) * (0.125 - share);
        const double slow = share + 0.5;
        EXPECT_TRUE(
            sameJournal(learner.control,
                        {entry(JournalKind::update, 0, millisecond, 0.5, 0.625, parts(0.5),
                               parts(0.5, 0.125), 0.125),
                         entry(JournalKind::consolidation, 0, 2 * millisecond, 0.625, 0.625,
                               parts(0.5, 0.125), parts(slow, 0.125 - share)),
                         entry(JournalKind::decay, 0, 2 * millisecond, 0.625, narrowed(fast + slow),
                               parts(slow, 0.125 - share), parts(slow, fast))}));
        EXPECT_EQ(learner.apply({}, 3 * millisecond).decayed, rate == 1.0 ? 0U : 1U);
    }
}

TEST(LearningControl, WithoutFastWeightsAFadingPartStandsStill) {
    Learner learner;
    learner.control.setFastWeights(true, 40 * millisecond, 0.0);
    learner.apply({proposal(0, 0.125)});
    const double fast = learner.control.synapseStates()[0].fast;
    learner.control.setFastWeights(false, 40 * millisecond, 0.0);
    EXPECT_EQ(learner.apply({proposal(0, 0.125, 3 * millisecond)}, 9 * millisecond),
              (LearningStatistics{1, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(sameBits(learner.control.synapseStates()[0].fast, fast));
    EXPECT_TRUE(sameBits(weightOf(learner.graph, 0), narrowed(fast + 0.625)));
}

TEST(LearningControl, TheCapBoundsBothPartsAndTheWeight) {
    struct Case {
        const char* fact;
        bool fast_weights;
        double cap, delta;
        double slow, fast, weight;
    };
    for (const Case& c : {Case{"lasting part", false, 0.75, 9.0, 0.75, 0.0, 0.75},
                          Case{"fading part upward", true, 0.75, 9.0, 0.5, 0.75, 0.75},
                          Case{"fading part downward", true, 0.75, -9.0, 0.5, -0.75, 0.0},
                          Case{"a cap of 0", false, 0.0, 0.25, 0.0, 0.0, 0.0},
                          Case{"a cap of 0 with fast weights", true, 0.0, 0.25, 0.0, 0.0, 0.0},
                          Case{"a cap above 1", false, 8.0, 4.0, 4.5, 0.0, 4.5}}) {
        SCOPED_TRACE(c.fact);
        Learner learner;
        learner.control.setWeightCap(c.cap);
        learner.control.setFastWeights(c.fast_weights, 500 * millisecond, 0.0);
        learner.apply({proposal(0, c.delta)}, millisecond);
        EXPECT_EQ(learner.control.synapseStates()[0].slow, c.slow);
        EXPECT_EQ(learner.control.synapseStates()[0].fast, c.fast);
        EXPECT_EQ(weightOf(learner.graph, 0), c.weight);
    }
}

TEST(LearningControl, TheJournalKeepsOneOfEachRoundedStride) {
    struct Case {
        JournalMode mode;
        double rate;
        std::vector<int> kept;  ///< of entries 0 to 9
        std::uint64_t counted;  ///< entries that the stride has seen
    };
    const std::vector<int> all{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    for (const Case& c :
         {Case{JournalMode::off, 0.25, {}, 0}, Case{JournalMode::every, 0.25, all, 0},
          Case{JournalMode::sampled, 1.0, all, 0}, Case{JournalMode::sampled, 0.25, {0, 4, 8}, 10},
          Case{JournalMode::sampled, 0.4, {0, 3, 6, 9}, 10},  // 2.5 becomes 3
          Case{JournalMode::sampled, 5e-324, {0}, 10}}) {
        SCOPED_TRACE(c.rate);
        Learner learner;
        learner.control.setJournal(c.mode, c.rate);
        Learner twin;
        for (int i = 0; i < 10; ++i) {
            // The place in the stride travels in the blob.
            if (i == 6) {
                ASSERT_TRUE(twin.control.restore(learner.control.snapshot()));
            }
            Learner& current = i < 6 ? learner : twin;
            EXPECT_EQ(current.apply({proposal(0, 0.0, i)}).applied, 1U);
        }
        std::vector<int> kept;
        for (const JournalEntry& noted : twin.control.journal()) {
            kept.push_back(static_cast<int>(noted.time));
        }
        EXPECT_EQ(kept, c.kept);
        Blob counter;
        appendU64(counter, c.counted);
        const Blob blob = twin.control.snapshot();
        EXPECT_EQ(Blob(blob.end() - 8, blob.end()), counter);
    }
}

TEST(LearningControl, PassesOverSynapsesThatAreNotRouted) {
    Learner learner;
    learner.control.setFastWeights(true, 40 * millisecond, 0.5);
    learner.apply(everySynapse());
    Blob unrouted = learner.graph.snapshot();
    unrouted[35 + 1 * 63 + 62] = 0;
    ASSERT_TRUE(learner.graph.restore(unrouted));
    EXPECT_EQ(learner.apply(everySynapse(3 * millisecond), 4 * millisecond),
              (LearningStatistics{3, 0, 0, 0, 3, 3}));
    EXPECT_EQ(learner.graph.lastChange(1), 2 * millisecond);
}

TEST(LearningControl, RefusesWhatTheGraphCannotHold) {
    Learner learner;
    const Blob before = learner.graph.snapshot();
    expectThrows<InvalidSynapse>([&] { learner.apply({proposal(0, not_a_number)}); },
                                 "synapse weight magnitude must be finite and >= 0");
    expectThrows<SynapseRoutingViolation>([&] { learner.apply({proposal(4, 0.5)}); },
                                          "KELM synapse EdgeId is out of range");
    EXPECT_EQ(learner.graph.snapshot(), before);
    EXPECT_TRUE(learner.control.journal().empty());
    for (LearningControl other : {LearningControl(2, 4), LearningControl(3, 3)}) {
        expectThrows<InvalidLearningControl>(
            [&] { other.applyChanges(learner.graph, {}, millisecond); },
            "learning control and graph differ in size");
    }
}

TEST(LearningControl, RefusesBadSettingsAndStaysAsItWas) {
    LearningControl control(3, 4);
    control.setGroup(1, 7);
    control.allowOnlyGroups({7});
    const Blob before = control.snapshot();
    const char* group = "learning group id must be below 1048576";
    const char* rate = "journal rate must be in (0, 1]";
    const char* consolidation = "consolidation rate must be in [0, 1]";
    const char* cap = "weight cap must be finite and >= 0";
    struct Case {
        const char* text;
        std::function<void()> set;
    };
    for (const Case& c :
         {Case{"group query outside the network", [&] { control.groupOf(3); }},
          Case{"group query outside the network", [&] { control.neuronAdmitted(3); }},
          Case{"learning group set for a neuron outside the network",
               [&] { control.setGroup(3, 1'048'576); }},
          Case{group, [&] { control.setGroup(2, 1'048'576); }},
          Case{group, [&] { control.setGroupEnabled(1'048'576, true); }},
          Case{group,
               [&] {
                   control.allowOnlyGroups({1, 1'048'576});
               }},
          Case{"fast weight time constant must be positive",
               [&] { control.setFastWeights(true, 0, -1.0); }},
          Case{consolidation, [&] { control.setFastWeights(true, 1, -0.1); }},
          Case{consolidation, [&] { control.setFastWeights(true, 1, 1.1); }},
          Case{consolidation, [&] { control.setFastWeights(true, 1, not_a_number); }},
          Case{"unknown journal mode",
               [&] { control.setJournal(static_cast<JournalMode>(3), 0.0); }},
          Case{rate, [&] { control.setJournal(JournalMode::off, 0.0); }},
          Case{rate, [&] { control.setJournal(JournalMode::off, 1.5); }},
          Case{rate, [&] { control.setJournal(JournalMode::off, not_a_number); }},
          Case{cap, [&] { control.setWeightCap(-1.0); }},
          Case{cap, [&] { control.setWeightCap(infinity); }},
          Case{cap, [&] { control.setWeightCap(not_a_number); }},
          Case{"learning freeze index must be below 3", [&] { control.setFrozen(3, true); }}}) {
        expectThrows<InvalidLearningControl>(c.set, c.text);
        EXPECT_EQ(control.snapshot(), before) << c.text;
    }
}

void appendGap(Blob& blob, int bytes) {
    for (int i = 0; i < bytes; ++i) appendU8(blob, 0);
}

TEST(LearningControl, BlobOfANewObjectHoldsItsStartValues) {
    Blob expected;
    appendTag(expected, BlobTag("KELMLRN1"));
    appendU64(expected, 2);  // groups
    appendU32(expected, 0);
    appendU32(expected, 0);
    appendU64(expected, 1);  // synapse states
    appendGap(expected, 32);
    appendU64(expected, 1);  // group switches
    appendU8(expected, 1);
    appendU64(expected, 0);  // journal
    appendU64(expected, 0);  // history
    appendU64(expected, 0);  // pending edges
    appendGap(expected, 8);  // fast weights off, and a gap
    appendI64(expected, 500'000'000);
    appendF64(expected, 0.0);
    appendU8(expected, 0);
    appendU8(expected, 1);
    appendU64(expected, 0);  // allowed groups
    appendU8(expected, 1);
    appendF64(expected, 1.0);
    appendF64(expected, 1.0);
    appendU8(expected, 1);
    appendGap(expected, 3);
    appendU64(expected, 0);
    EXPECT_EQ(LearningControl(2, 1).snapshot(), expected);
}

/// A learner with something in every field of its blob.
Learner usedLearner() {
    Learner learner;
    learner.control.setModulator([](ModelTime window_end) { return window_end < 9 * millisecond; });
    learner.control.setGroup(2, 2);
    learner.control.setGroupEnabled(1, false);
    learner.control.allowOnlyGroups({4, 0});
    learner.control.setFastWeights(true, 40 * millisecond, 0.25);
    learner.control.setJournal(JournalMode::sampled, 0.5);
    learner.control.setWeightCap(2.0);
    learner.control.setFrozen(2, true);
    learner.apply({proposal(0, 0.125)});
    return learner;
}

constexpr std::size_t states_at = 8 + (8 + 3 * 4) + 8;
constexpr std::size_t switches_at = states_at + 4 * 32 + 8;
constexpr std::size_t journal_at = switches_at + 2;
constexpr std::size_t history_at = journal_at + 8 + 2 * 96;
constexpr std::size_t pending_at = history_at + 8 + 16;
constexpr std::size_t fast_at = pending_at + 8 + 8;
constexpr std::size_t allowed_at = fast_at + 24 + 2;
constexpr std::size_t mode_at = allowed_at + 8 + 2 * 4;
constexpr std::size_t rate_at = mode_at + 1;
constexpr std::size_t cap_at = rate_at + 8;

TEST(LearningControl, BlobOfAUsedObjectHoldsEveryFieldInItsPlace) {
    const Learner learner = usedLearner();
    const LearningControl& control = learner.control;
    Blob expected;
    appendTag(expected, BlobTag("KELMLRN1"));
    appendU64(expected, 3);
    for (const std::uint32_t group : {0U, 0U, 2U}) appendU32(expected, group);
    appendU64(expected, 4);
    const SynapseLearningState& state = control.synapseStates()[0];
    appendF64(expected, state.slow);
    appendF64(expected, state.fast);
    appendF64(expected, weightOf(learner.graph, 0));
    appendU8(expected, 1);
    appendU8(expected, 1);
    appendGap(expected, 6 + 3 * 32);
    appendU64(expected, 2);
    appendU8(expected, 1);
    appendU8(expected, 0);
    appendU64(expected, 2);
    ASSERT_EQ(control.journal().size(), 2U) << "entries 0 and 2 of three";
    for (const JournalEntry& noted : control.journal()) {
        appendU64(expected, 0);
        appendI64(expected, noted.time);
        for (const double value : {noted.weight_before, noted.weight_after, noted.fast_before,
                                   noted.fast_after, noted.slow_before, noted.slow_after}) {
            appendF64(expected, value);
        }
        const bool update = noted.kind == JournalKind::update;
        appendI64(expected, update ? 11 : 0);
        appendI64(expected, update ? 22 : 0);
        appendF64(expected, update ? 0.125 : 0.0);
        appendU8(expected, update ? 1 : 0);
        appendU8(expected, update ? 0 : 1);
        appendGap(expected, 6);
    }
    appendU64(expected, 1);
    appendI64(expected, 2 * millisecond);
    appendU8(expected, 1);
    appendGap(expected, 7);
    appendU64(expected, 1);
    appendU64(expected, 0);
    appendU8(expected, 1);
    appendGap(expected, 7);
    appendI64(expected, 40 * millisecond);
    appendF64(expected, 0.25);
    appendU8(expected, 1);
    appendU8(expected, 1);
    appendU64(expected, 2);
    appendU32(expected, 4);
    appendU32(expected, 0);
    appendU8(expected, 2);
    appendF64(expected, 0.5);
    appendF64(expected, 2.0);
    appendU8(expected, 1);
    for (const bool frozen : {false, false, true}) appendFlag(expected, frozen);
    appendU64(expected, 3);
    EXPECT_EQ(control.snapshot(), expected);
    ASSERT_EQ(expected.size(), cap_at + 8 + 1 + 3 + 8);
}

TEST(LearningControl, ARestoredTwinGoesOnToTheBitUnderItsOwnGate) {
    Learner learner = usedLearner();
    Learner twin;
    std::size_t asked = 0;
    twin.control.setModulator([&](ModelTime window_end) {
        ++asked;
        return window_end < 9 * millisecond;
    });
    ASSERT_TRUE(twin.graph.restore(learner.graph.snapshot()));
    ASSERT_TRUE(twin.control.restore(learner.control.snapshot()));
    for (ModelTime end = 3 * millisecond; end < 14 * millisecond; end += millisecond) {
        SCOPED_TRACE(end);
        if (end == 6 * millisecond) {
            learner.graph.setWeight(0, 0.25F);
            twin.graph.setWeight(0, 0.25F);
        }
        const Changes changes = everySynapse(end - 300'000);
        ASSERT_EQ(twin.apply(changes, end), learner.apply(changes, end));
        ASSERT_EQ(twin.graph.snapshot(), learner.graph.snapshot());
        ASSERT_EQ(twin.control.snapshot(), learner.control.snapshot());
    }
    EXPECT_EQ(asked, 11U);
    EXPECT_EQ(twin.control.modulatorHistory().size(), 2U);
}

template <class Value>
Blob with(Blob blob, std::size_t offset, Value value) {
    std::memcpy(blob.data() + offset, &value, sizeof(value));
    return blob;
}

TEST(LearningControl, RefusesEveryTruncationAndForgeryAndStaysAsItWas) {
    const Blob sound = usedLearner().control.snapshot();
    Learner learner;
    learner.control.setGroup(0, 9);
    learner.apply({proposal(1, 0.25)});
    const Blob before = learner.control.snapshot();
    for (std::size_t length = 0; length < sound.size(); ++length) {
        ASSERT_FALSE(learner.control.restore(BlobView(sound.data(), length))) << length;
        ASSERT_EQ(learner.control.snapshot(), before) << length;
    }
    constexpr std::uint64_t endless = ~std::uint64_t{0};
    Blob longer = sound;
    longer.push_back(0);
    struct Case {
        const char* fact;
        Blob blob;
    };
    for (const Case& c :
         {Case{"a byte behind the end", longer}, Case{"another tag", with(sound, 7, '2')},
          Case{"groups without end", with(sound, 8, endless)},
          Case{"synapses without end", with(sound, states_at - 8, endless)},
          Case{"switches without end", with(sound, switches_at - 8, endless)},
          Case{"a journal that wraps around", with(sound, journal_at, endless / 96 + 2)},
          Case{"a history without end", with(sound, history_at, endless)},
          Case{"pending edges without end", with(sound, pending_at, endless)},
          Case{"allowed groups without end", with(sound, allowed_at, endless)},
          Case{"an entry outside the network", with(sound, journal_at + 8 + 96, std::uint64_t{4})},
          Case{"a pending edge outside the network", with(sound, pending_at + 8, std::uint64_t{4})},
          Case{"another neuron count", LearningControl(2, 4).snapshot()},
          Case{"another synapse count", LearningControl(3, 5).snapshot()}}) {
        EXPECT_FALSE(learner.control.restore(c.blob)) << c.fact;
        EXPECT_EQ(learner.control.snapshot(), before) << c.fact;
    }
    EXPECT_TRUE(learner.control.restore(sound)) << "the forgeries fail for what was forged";
}

TEST(LearningControl, GapsComeBackAsZeroAndFlagsAsOne) {
    const Blob sound = usedLearner().control.snapshot();
    Blob odd = sound;
    for (const std::size_t offset :
         {states_at + 31, switches_at, journal_at + 8 + 95, history_at + 8 + 15, fast_at,
          fast_at + 7, allowed_at - 2, allowed_at - 1, cap_at + 8, cap_at + 11}) {
        odd[offset] ^= 0x54;
    }
    ASSERT_NE(odd, sound);
    LearningControl control(3, 4);
    ASSERT_TRUE(control.restore(odd));
    EXPECT_EQ(control.snapshot(), sound);
}

TEST(LearningControl, RunsUnderWhateverSettingsABlobBrings) {
    const Blob sound = usedLearner().control.snapshot();
    constexpr std::size_t tau_at = fast_at + 8;
    struct Case {
        const char* fact;
        Blob blob;
        std::uint64_t entries;  ///< of six that are offered, of which the first is number 3
        bool refused_weight;
    };
    for (const Case& c :
         {Case{"as it was", sound, 3, false},
          Case{"a mode without a name keeps all", with(sound, mode_at, std::uint8_t{7}), 6, false},
          Case{"a rate of 0", with(sound, rate_at, 0.0), 0, false},
          Case{"a tiny rate", with(sound, rate_at, 5e-324), 0, false},
          Case{"a rate that is no number", with(sound, rate_at, not_a_number), 0, false},
          Case{"a negative rate", with(sound, rate_at, -0.25), 0, false},
          Case{"a rate above 2", with(sound, rate_at, 3.0), 6, false},
          Case{"no time constant", with(sound, tau_at, std::int64_t{0}), 3, false},
          Case{"a fast part that grows", with(sound, tau_at, std::int64_t{-1}), 3, false},
          Case{"a share that is no number", with(sound, tau_at + 8, not_a_number), 2, false},
          Case{"a cap that is no number", with(sound, cap_at, not_a_number), 3, false},
          Case{"a cap below 0: the high end wins", with(sound, cap_at, -1.0), 0, true},
          Case{"a flag of 5", with(sound, fast_at, std::uint8_t{5}), 3, false},
          Case{"a state with odd flags", with(sound, states_at + 24, std::uint16_t{0xfffe}), 3,
               false}}) {
        SCOPED_TRACE(c.fact);
        Learner learner;
        learner.graph = usedLearner().graph;
        ASSERT_TRUE(learner.control.restore(c.blob));
        const std::size_t entries = learner.control.journal().size();
        const auto run = [&] {
            // Two proposals, each consolidated and faded.
            return learner.apply(
                {proposal(0, 0.125, 3 * millisecond), proposal(3, 0.125, 3 * millisecond)},
                4 * millisecond);
        };
        if (c.refused_weight) {
            expectThrows<InvalidSynapse>(run, "synapse weight magnitude must be finite and >= 0");
            continue;
        }
        EXPECT_EQ(run().applied, 2U);
        EXPECT_EQ(learner.control.journal().size() - entries, c.entries);
    }
}

TEST(LearningControl, AForgedBlobMayNameAPendingEdgeTwice) {
    Learner learner = usedLearner();
    Blob blob = learner.control.snapshot();
    const std::uint64_t again = 0;
    blob = with(blob, pending_at, std::uint64_t{2});
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&again);
    blob.insert(blob.begin() + pending_at + 8, bytes, bytes + 8);
    ASSERT_TRUE(learner.control.restore(blob));
    EXPECT_EQ(learner.apply({}, 3 * millisecond).decayed, 1U) << "the first mention spent the span";
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
