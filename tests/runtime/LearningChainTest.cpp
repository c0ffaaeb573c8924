// Plasticity, learning control and homeostasis on the spikes of each window, in the order of a
// runtime, compared with a plain form of their rules.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/runtime/Homeostasis.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/PermutedTeam.h"
#include "tests/support/PlainLearning.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

using Kind = PlasticityRuleKind;
using Contexts = std::vector<WeightChangeContext>;

constexpr ModelTime millisecond = 1'000'000;

/// With self-loops, parallel synapses, neurons without a synapse, and synapses that are disabled.
/// Some graphs also have synapses that are not routed; the others are sorted by source.
SynapseGraph drawGraph(Draws& draws, std::uint64_t neurons) {
    std::vector<Synapse> edges(1 + draws.below(30), Synapse{.delay = millisecond});
    for (Synapse& edge : edges) {
        edge.source = draws.below(neurons);
        edge.target = draws.below(neurons);
        edge.weight = static_cast<float>(draws.below(9)) / 8.0F;  // a mean may equal a cap
        edge.inhibitory = draws.oneIn(3);
        edge.enabled = !draws.oneIn(6);
    }
    const bool sorted = draws.oneIn(2);
    if (sorted) std::ranges::stable_sort(edges, {}, &Synapse::source);
    SynapseGraph graph(neurons, std::nullopt, edges);
    Blob stored = graph.snapshot();  // a synapse's last byte is its routed flag
    for (std::size_t i = 0; i < edges.size(); ++i) stored[97 + 63 * i] = sorted || !draws.oneIn(8);
    EXPECT_TRUE(graph.restore(stored));
    return graph;
}

void drawSettings(Draws& draws, LearningControl& control, std::uint64_t neurons) {
    const auto group = static_cast<std::uint32_t>(draws.below(4));
    control.setGroup(draws.below(neurons), group);
    control.setGroupEnabled(3 - group, draws.oneIn(2));
    if (draws.oneIn(3)) control.allowOnlyGroups({2, group, 0});
    if (draws.oneIn(3)) control.allowAllGroups();
    control.setLearningEnabled(!draws.oneIn(6));
    for (std::uint32_t i = 0; i < 3; ++i) control.setFrozen(i, draws.oneIn(8));
    control.setWeightCap(draws.between(0.2, 2.0));
    const double rate = draws.oneOf({1.0, 0.4, 0.25, 5e-18});
    control.setJournal(static_cast<JournalMode>(draws.below(3)), rate);
    const double share = draws.oneOf({0.0, 0.25, 1.0});
    const ModelTime tau = 1 + draws.timeBelow(5 * millisecond);
    control.setFastWeights(!draws.oneIn(3), tau, share);
}

/// Stores each context. The factor is 0 in some cases.
PlasticityEngine::ChangeHook thirdFactor(Contexts& seen) {
    return [&seen](const WeightChangeContext& context) {
        seen.push_back(context);
        return context.factor - 1.0;
    };
}

TEST(LearningChain, AgreesToTheBitWithThePlainRules) {
    OscillatorBank bank({{7, 3.0, 0.5, 1.0}, {9, 11.0, 0.25, 1.0}});
    bank.setMemberships({{9, 7}, {7}, {}, {7, 9}});
    const PlasticityRule rules[] = {
        {}, {Kind::pair, 0.3, 0.25, 0.5, 0.75}, {Kind::coincidence, 0.5, 0.5, 0.1, 0.75}};
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        Draws draws(seed);
        const std::uint64_t neurons = 1 + draws.below(6);
        SynapseGraph graph = drawGraph(draws, neurons);
        TraceConfig config;
        if (draws.oneIn(2)) config.tau_post = 3'000'000;
        if (draws.oneIn(2)) config.tau_coincidence = 3'000'000;
        // Some traces of one spike decay to exactly this value.
        if (draws.oneIn(2)) config.epsilon = std::exp(-250'001.0 / 3e6);
        const PlasticityRule& excitatory = rules[draws.below(3)];
        const PlasticityRule& inhibitory = rules[1 + draws.below(2)];
        PlasticityEngine engine(neurons, config, excitatory, inhibitory);
        LearningControl control(neurons, graph.edgeCount());
        Homeostasis homeostasis;
        HomeostasisConfig cap{false, 0.5};
        PermutedTeam team(1 + seed % 7);
        const WorkParts parts(&team);
        PlainLearning plain{control, bank, config, {excitatory, inhibitory}, graph};
        Contexts seen[2];
        const bool hooked = draws.oneIn(2);
        if (hooked) plain.hook = thirdFactor(seen[0]);
        std::vector<ModulatorSample> history;
        int asked = 0;
        const auto isOpenAt = [](ModelTime window_end) { return window_end % 3 != 0; };
        // Past 2^53 ns the difference of two rounded times is not the rounded difference.
        ModelTime start = seed % 3 == 0 ? (ModelTime{1} << 60) + 1 : 0;
        for (int window = 0; window < 60; ++window) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", window " + std::to_string(window));
            start += (1 + draws.timeBelow(3)) * millisecond;
            const ModelTime end = start + millisecond;
            if (draws.oneIn(6)) drawSettings(draws, control, neurons);
            // Few different times, so that every tie occurs, also two equal spikes.
            std::vector<SpikeRecord> spikes(draws.below(8));
            for (SpikeRecord& spike : spikes) {
                spike = {start + draws.oneOf<ModelTime>({0, 1, 250'001, 750'003}),
                         draws.below(neurons)};
                engine.recordSpike(spike.neuron, spike.time);
            }
            // New objects continue from the blobs of the old ones, with hooks of their own.
            PlasticityEngine next_engine(neurons, config, excitatory, inhibitory);
            LearningControl next_control(neurons, graph.edgeCount());
            const bool gated = seed % 2 == 0 && window < 50;
            const bool open = !gated || isOpenAt(end);
            next_engine.setBank(&bank);
            if (hooked) next_engine.setChangeHook(thirdFactor(seen[1]));
            if (gated) {
                next_control.setModulator([&](ModelTime at) {
                    ++asked;
                    return isOpenAt(at);
                });
            }
            ASSERT_TRUE(next_engine.restore(engine.snapshot()));
            ASSERT_TRUE(next_control.restore(control.snapshot()));
            engine = std::move(next_engine);
            control = std::move(next_control);
            if (gated && (history.empty() || (history.back().open != 0) != open)) {
                history.push_back({end, open, {}});
            }

            std::vector<WeightChange> changes(3);  // must be replaced
            engine.takeChanges(graph, changes, parts);
            ASSERT_TRUE(sameImages<WeightChange>(changes, plain.takeChanges(spikes)));
            ASSERT_TRUE(sameImages<SpikeTrace>(engine.traces(), plain.traces));
            ASSERT_TRUE(sameImages<WeightChangeContext>(seen[1], seen[0]));

            // Perhaps one more proposal, which no spike made. It may be out of order, or for a
            // synapse that is not routed.
            if (draws.oneIn(2)) {
                changes.emplace_back().edge = draws.below(graph.edgeCount());
                changes.back().time = end - draws.timeBelow(millisecond);
                changes.back().delta = draws.oneIn(4) ? 0.0 : draws.between(-0.4, 0.5);
            }
            const LearningStatistics counts = plain.applyChanges(changes, end, open);
            ASSERT_EQ(control.applyChanges(graph, changes, end, parts), counts);
            ASSERT_TRUE(sameImages<JournalEntry>(control.journal(), plain.journal));
            ASSERT_TRUE(sameImages<SynapseLearningState>(control.synapseStates(), plain.states));
            ASSERT_TRUE(sameImages<ModulatorSample>(control.modulatorHistory(), history));
            ASSERT_TRUE(sameImages<EdgeId>(control.pendingEdges(), plain.pending));

            cap.enabled = draws.oneIn(3);
            if (draws.oneIn(20)) cap.cap = static_cast<double>(1 + draws.below(6)) / 8.0;
            // A new object on a graph that another one has visited, and a second one beside it.
            if (draws.oneIn(20)) homeostasis = Homeostasis();
            if (draws.oneIn(20)) {
                ASSERT_EQ(Homeostasis().apply(graph, {true, 1e6}), 0U);
            }
            SynapseGraph whole = graph;
            const std::uint64_t scaled = cap.enabled ? plain.scale(cap.cap) : 0;
            ASSERT_EQ(homeostasis.apply(graph, cap, parts), scaled);
            ASSERT_EQ(applyHomeostasis(whole, cap), scaled);
            ASSERT_EQ(graph.snapshot(), plain.graph.snapshot());
            ASSERT_EQ(whole.snapshot(), plain.graph.snapshot());
        }
        ASSERT_EQ(asked, seed % 2 == 0 ? 50 : 0) << "the gate is called once per window";
    }
}

/// What can be seen after learning from a spike at 5 ms, from three more, and from `changes`.
std::string learnOn(const WorkParts& parts, ModelTime second_spikes, const Blob& control_blob,
                    const std::vector<WeightChange>& changes) {
    constexpr NodeId neurons = 5;
    std::vector<Synapse> edges;
    for (NodeId n = 0; n < 2 * neurons; ++n) {
        edges.push_back({.source = n % neurons,
                         .target = (3 * n + 1) % neurons,
                         .weight = 0.5F,
                         .delay = millisecond});
    }
    SynapseGraph graph(neurons, millisecond, edges);
    PlasticityEngine engine(neurons, {}, {.kind = Kind::pair, .a_potentiation = 0.5}, {});
    LearningControl control(neurons, graph.edgeCount());
    EXPECT_EQ(control.restore(control_blob), !control_blob.empty());
    std::vector<WeightChange> proposed;
    std::string seen;
    try {
        engine.recordSpike(0, 5 * millisecond);
        engine.takeChanges(graph, proposed, parts);
        for (const NodeId n : {0U, 2U, 4U}) engine.recordSpike(n, second_spikes);
        engine.takeChanges(graph, proposed, parts);
        control.applyChanges(graph, changes, 20 * millisecond, parts);
    } catch (const std::exception& failure) {
        seen = failure.what();
    }
    for (const Blob& blob : {engine.snapshot(), control.snapshot(), graph.snapshot()}) {
        seen.append(blob.begin(), blob.end());
    }
    return seen;
}

TEST(LearningChain, LeavesTheSameAfterAFailureInAnyNumberOfParts) {
    std::vector<WeightChange> good(8);
    for (EdgeId id = 0; id < good.size(); ++id) {
        good[id].edge = id;
        good[id].delta = 0.125;
    }
    const auto spoilt = [&good](std::size_t place, EdgeId edge, double delta) {
        std::vector<WeightChange> changes = good;
        changes[place].edge = edge;
        changes[place].delta = delta;
        return changes;
    };
    LearningControl fading(5, 10);
    fading.setFastWeights(true, millisecond, 1.0);
    Blob growing = fading.snapshot();
    // A time constant of -1 lets the fading part, which is 0 after consolidation, grow to NaN.
    std::fill(growing.end() - 55, growing.end() - 47, std::uint8_t{0xff});
    Blob unsound = fading.snapshot();
    // The states of the synapses begin at byte 44: the fading part of synapse 5 is NaN.
    std::fill_n(unsound.begin() + 44 + 5 * 32 + 8, 8, std::uint8_t{0xff});
    unsound[44 + 5 * 32 + 24] = 1;
    struct Case {
        const char* fact;
        ModelTime spike;
        Blob control;
        std::vector<WeightChange> changes;
        bool fails = true;
    };
    for (const Case& c : {Case{"a spike into the past", 4 * millisecond, {}, good},
                          Case{"a change of NaN", 6 * millisecond, {}, spoilt(5, 5, not_a_number)},
                          Case{"an unknown synapse", 6 * millisecond, {}, spoilt(7, 10, 0.1)},
                          Case{"one out of order", 6 * millisecond, {}, spoilt(6, 2, 0.1), false},
                          Case{"a fading part of NaN", 6 * millisecond, growing, good},
                          Case{"a state of NaN", 6 * millisecond, unsound, good}}) {
        SCOPED_TRACE(c.fact);
        const std::string expected = learnOn({}, c.spike, c.control, c.changes);
        EXPECT_EQ(expected.starts_with("KELMPLS1"), !c.fails);
        for (const std::size_t count : {2U, 3U, 5U}) {
            PermutedTeam team(count);
            EXPECT_TRUE(learnOn(WorkParts(&team), c.spike, c.control, c.changes) == expected)
                << count << " parts";
        }
    }
}

TEST(Homeostasis, RefusesABadCapWhereItIsOn) {
    SynapseGraph graph(1, std::nullopt, {Synapse{.weight = 0.75F, .delay = 1}});
    Homeostasis homeostasis;
    for (const double cap : {0.0, -1.0, infinity, not_a_number}) {
        const char* const text = "homeostasis cap must be finite and > 0";
        expectRefusals<InvalidPlasticity>({{text,
                                            [&] {
                                                applyHomeostasis(graph, {true, cap});
                                            }},
                                           {text, [&] {
                                                homeostasis.apply(graph, {true, cap});
                                            }}});
        EXPECT_EQ(homeostasis.apply(graph, {false, cap}), 0U);
    }
    EXPECT_EQ(homeostasis.apply(graph, {true, 0.5}), 1U) << "the refusals lose no neuron";
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
