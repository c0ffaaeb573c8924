#include "kelm/runtime/PlasticityEngine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <span>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/runtime/OscillatorBank.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::Draws;
using Testing::expectThrows;
using Testing::sameBits;

using Changes = std::span<const WeightChange>;

::testing::AssertionResult sameChanges(Changes actual, Changes expected) {
    return Testing::sameImages(actual, expected);
}

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

constexpr TraceConfig uneven_traces{20'000'000, 30'000'000, 200'000'000, 1e-15};
constexpr PlasticityRule no_rule{};
constexpr PlasticityRule pair_rule{PlasticityRuleKind::pair, 0.01, 0.012, 0.5, 0.75};
constexpr PlasticityRule coincidence_rule{PlasticityRuleKind::coincidence, 0.5, 0.5, 0.02, 0.75};

Synapse synapse(NodeId source, NodeId target, float weight = 0.5F, bool inhibitory = false) {
    Synapse made;
    made.source = source;
    made.target = target;
    made.weight = weight;
    made.delay = 1'000'000;
    made.inhibitory = inhibitory;
    return made;
}

/// A trace of 1 after `elapsed` ns, by the library's exponential.
double faded(ModelTime elapsed, ModelTime tau) {
    return std::exp(-static_cast<double>(elapsed) / static_cast<double>(tau));
}

std::vector<WeightChange> take(PlasticityEngine& engine, SynapseGraph& graph) {
    std::vector<WeightChange> changes;
    engine.takeChanges(graph, changes);
    return changes;
}

TEST(PlasticityEngine, PairRuleReadsTheOtherEndsTraceAndReportsItsCircumstances) {
    SynapseGraph graph(2, std::nullopt, {synapse(0, 1)});
    PlasticityEngine engine(2, uneven_traces, pair_rule, no_rule);

    engine.recordSpike(0, 1'000'000);
    EXPECT_TRUE(take(engine, graph).empty()) << "the target has no trace, so nothing is depressed";

    engine.recordSpike(1, 3'000'000);
    engine.recordSpike(0, 6'000'000);
    WeightChange potentiation;
    potentiation.time = potentiation.context.time = 3'000'000;
    potentiation.side = potentiation.context.side = PlasticitySide::target;
    potentiation.context.post_neuron = 1;
    potentiation.context.pre_last_spike = 1'000'000;
    potentiation.context.weight = 0.5;
    potentiation.context.factor = faded(2'000'000, uneven_traces.tau_pre);
    potentiation.context.rule_kind = PlasticityRuleKind::pair;
    potentiation.delta = (0.01 * potentiation.context.factor) * 0.75;
    WeightChange depression = potentiation;
    depression.time = depression.context.time = 6'000'000;
    depression.side = depression.context.side = PlasticitySide::source;
    depression.context.post_last_spike = 3'000'000;
    depression.context.factor = faded(3'000'000, uneven_traces.tau_post);
    depression.delta = (-0.012 * depression.context.factor) * 0.75;
    EXPECT_TRUE(sameChanges(take(engine, graph), std::vector{potentiation, depression}));

    const SpikeTrace& source = engine.traces()[0];
    EXPECT_TRUE(sameBits(
        source.pre,
        faded(3'000'000, uneven_traces.tau_pre) * faded(2'000'000, uneven_traces.tau_pre) + 1.0));
    EXPECT_EQ(source.updated, 6'000'000);
    EXPECT_EQ(source.last_spike, 6'000'000);
    EXPECT_EQ(engine.traces()[1].updated, 6'000'000) << "brought forward by its partner";
    EXPECT_EQ(engine.traces()[1].last_spike, 3'000'000);
}

TEST(PlasticityEngine, EachClassFollowsItsOwnRuleAndADisabledSynapseNone) {
    SynapseGraph graph(4, std::nullopt,
                       {synapse(0, 1, 0.5F, true), synapse(0, 2), synapse(0, 3), synapse(1, 0)});
    graph.setEnabled(2, false);
    PlasticityEngine engine(4, uneven_traces, no_rule, pair_rule);
    engine.recordSpike(1, 1'000'000);
    engine.recordSpike(0, 2'000'000);
    const std::vector<WeightChange> changes = take(engine, graph);
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].edge, 0U);
    EXPECT_EQ(changes[0].context.synapse_kind, 1);
    EXPECT_TRUE(sameBits(changes[0].delta, (-0.012 * faded(1'000'000, 30'000'000)) * 0.75));
    EXPECT_EQ(engine.traces()[2].updated, 2'000'000) << "without a rule, yet a partner";
    EXPECT_EQ(engine.traces()[3].updated, 0) << "across a disabled synapse there is no partner";
}

TEST(PlasticityEngine, AtOneTimeTheLowerNeuronGoesFirstAndTheHigherOneSeesIt) {
    SynapseGraph graph(2, std::nullopt, {synapse(0, 1), synapse(1, 0)});
    PlasticityEngine engine(2, uneven_traces, pair_rule, pair_rule);
    engine.recordSpike(1, 5'000'000);  // in the wrong order
    engine.recordSpike(0, 5'000'000);
    const std::vector<WeightChange> changes = take(engine, graph);
    ASSERT_EQ(changes.size(), 2U);
    EXPECT_EQ(changes[0].edge, 0U);
    EXPECT_EQ(changes[0].side, PlasticitySide::target);
    EXPECT_TRUE(sameBits(changes[0].delta, 0.01 * 0.75));
    EXPECT_EQ(changes[1].edge, 1U);
    EXPECT_EQ(changes[1].side, PlasticitySide::source);
    EXPECT_TRUE(sameBits(changes[1].delta, -0.012 * 0.75));
}

TEST(PlasticityEngine, ASpikeCountsInItsOwnProductButDoesNotPairWithItself) {
    struct Case {
        const char* fact;
        PlasticityRule rule;
        std::vector<double> first;   ///< factors of the first spike: source side, target side
        std::vector<double> second;  ///< the same, 10 ms later
    };
    const double coincidence = faded(10'000'000, uneven_traces.tau_coincidence) + 1.0;
    for (const Case& c : {Case{"coincidence",
                               coincidence_rule,
                               {1.0, 1.0},
                               {coincidence * coincidence, coincidence * coincidence}},
                          Case{"pair",
                               pair_rule,
                               {},
                               {faded(10'000'000, uneven_traces.tau_post),
                                faded(10'000'000, uneven_traces.tau_pre)}}}) {
        SCOPED_TRACE(c.fact);
        SynapseGraph graph(1, std::nullopt, {synapse(0, 0)});
        PlasticityEngine engine(1, uneven_traces, c.rule, no_rule);
        for (const auto& [time, factors] :
             {std::pair(ModelTime{0}, c.first), std::pair(ModelTime{10'000'000}, c.second)}) {
            engine.recordSpike(0, time);
            const std::vector<WeightChange> changes = take(engine, graph);
            ASSERT_EQ(changes.size(), factors.size());
            for (std::size_t i = 0; i < factors.size(); ++i) {
                EXPECT_EQ(static_cast<std::size_t>(changes[i].side), i);
                EXPECT_TRUE(sameBits(changes[i].context.factor, factors[i]));
            }
        }
    }
}

TEST(PlasticityEngine, CoincidenceAddsTheProductOfBothEndsWhicheverFires) {
    SynapseGraph graph(2, std::nullopt, {synapse(0, 1, 0.5F, true)});
    PlasticityEngine engine(2, uneven_traces, pair_rule, coincidence_rule);
    engine.recordSpike(0, 0);
    engine.recordSpike(1, 4'000'000);
    engine.recordSpike(0, 9'000'000);
    const std::vector<WeightChange> changes = take(engine, graph);
    ASSERT_EQ(changes.size(), 2U);
    const double source = faded(4'000'000, uneven_traces.tau_coincidence);
    EXPECT_TRUE(sameBits(changes[0].delta, (source * 0.02) * 0.75));
    const double source_again = faded(5'000'000, uneven_traces.tau_coincidence) * source + 1.0;
    const double target = faded(5'000'000, uneven_traces.tau_coincidence);
    EXPECT_TRUE(sameBits(changes[1].delta, ((source_again * target) * 0.02) * 0.75));
}

TEST(PlasticityEngine, ATraceBelowEpsilonBecomesAnExactZero) {
    const double rest = std::exp(-7.0);
    for (const auto& [epsilon, trace] :
         {std::pair(std::nextafter(rest, 1.0), 0.0), std::pair(rest, rest), std::pair(0.0, rest)}) {
        SCOPED_TRACE(epsilon);
        SynapseGraph graph(2, std::nullopt, {synapse(0, 1)});
        PlasticityEngine engine(2, {1'000'000, 1'000'000, 1'000'000, epsilon}, pair_rule, no_rule);
        engine.recordSpike(0, 0);
        engine.recordSpike(1, 7'000'000);
        EXPECT_EQ(take(engine, graph).size(), trace == 0.0 ? 0U : 1U);
        EXPECT_TRUE(sameBits(engine.traces()[0].pre, trace));
    }
}

// The same rules without any care for speed: every proposal is found by a walk over all synapses.
class NaivePlasticity {
public:
    NaivePlasticity(std::size_t neurons, TraceConfig config, PlasticityRule excitatory,
                    PlasticityRule inhibitory)
        : traces(neurons), config_(config), rules_{excitatory, inhibitory} {}

    std::vector<WeightChange> take(std::vector<SpikeRecord> spikes, const SynapseGraph& graph) {
        std::stable_sort(spikes.begin(), spikes.end(), [](const auto& a, const auto& b) {
            return std::pair(a.time, a.neuron) < std::pair(b.time, b.neuron);
        });
        std::vector<WeightChange> changes;
        for (const SpikeRecord& spike : spikes) {
            SpikeTrace& own = traces[spike.neuron];
            advance(own, spike.time);
            const auto is_product = [](const PlasticityRule& rule) {
                return rule.kind == PlasticityRuleKind::coincidence;
            };
            if (is_product(rules_[0]) || is_product(rules_[1])) own.coincidence += 1.0;
            for (const PlasticitySide side : {PlasticitySide::source, PlasticitySide::target}) {
                for (EdgeId id = 0; id < graph.edgeCount(); ++id) {
                    const Synapse& edge = graph.edge(id);
                    const bool is_source = side == PlasticitySide::source;
                    if ((is_source ? edge.source : edge.target) != spike.neuron) continue;
                    if (!edge.enabled) continue;
                    SpikeTrace& other = traces[is_source ? edge.target : edge.source];
                    advance(other, spike.time);
                    const PlasticityRule& rule = rules_[edge.inhibitory ? 1 : 0];
                    double factor = is_source ? other.post : other.pre;
                    double amplitude = is_source ? -rule.a_depression : rule.a_potentiation;
                    if (is_product(rule)) {
                        factor = own.coincidence * other.coincidence;
                        amplitude = rule.a_coincidence;
                    }
                    const double delta = (amplitude * factor) * rule.scale;
                    if (rule.kind == PlasticityRuleKind::none || delta == 0.0) continue;
                    WeightChange change;
                    change.edge = change.context.edge = id;
                    change.time = change.context.time = spike.time;
                    change.side = change.context.side = side;
                    change.delta = delta;
                    change.context.pre_neuron = edge.source;
                    change.context.post_neuron = edge.target;
                    change.context.pre_last_spike = traces[edge.source].last_spike;
                    change.context.post_last_spike = traces[edge.target].last_spike;
                    change.context.weight = static_cast<double>(edge.weight);
                    change.context.factor = factor;
                    change.context.synapse_kind = edge.inhibitory ? 1 : 0;
                    change.context.rule_kind = rule.kind;
                    changes.push_back(change);
                }
            }
            own.pre += 1.0;
            own.post += 1.0;
            own.last_spike = spike.time;
        }
        std::stable_sort(changes.begin(), changes.end(), [](const auto& a, const auto& b) {
            return std::tuple(a.edge, a.time, a.side) < std::tuple(b.edge, b.time, b.side);
        });
        return changes;
    }

    std::vector<SpikeTrace> traces;

private:
    void advance(SpikeTrace& trace, ModelTime time) const {
        const double elapsed = static_cast<double>(time) - static_cast<double>(trace.updated);
        for (const auto& [value, tau] :
             {std::pair(&trace.pre, config_.tau_pre), std::pair(&trace.post, config_.tau_post),
              std::pair(&trace.coincidence, config_.tau_coincidence)}) {
            if (*value == 0.0 || elapsed == 0.0) continue;
            *value = std::exp(-elapsed / static_cast<double>(tau)) * *value;
            if (config_.epsilon > std::fabs(*value)) *value = 0.0;
        }
        trace.updated = time;
    }

    TraceConfig config_;
    PlasticityRule rules_[2];
};

TEST(PlasticityEngine, AgreesToTheBitWithAWalkOverAllSynapses) {
    // Loops, parallel synapses, equal times and one spike twice, so that every tie occurs.
    std::size_t ties = 0;
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        Draws draws(seed);
        const std::uint64_t neurons = 1 + draws.below(9);
        std::vector<Synapse> edges;
        for (std::uint64_t i = draws.below(60); i > 0; --i) {
            edges.push_back(synapse(draws.below(neurons), draws.below(neurons),
                                    static_cast<float>(draws.between(0.0, 1.0)), draws.oneIn(3)));
            edges.back().enabled = !draws.oneIn(6);
        }
        SynapseGraph graph(neurons, 1'000'000, edges);
        TraceConfig config{20'000'000, 20'000'000, 20'000'000, 1e-15};
        if (draws.oneIn(2)) config.tau_post = 3'000'000;
        if (draws.oneIn(2)) config.tau_coincidence = 3'000'000;
        if (draws.oneIn(3)) config.epsilon = 0.1;
        const PlasticityRule rules[] = {pair_rule, coincidence_rule, no_rule};
        const PlasticityRule& excitatory = rules[draws.below(3)];
        const PlasticityRule& inhibitory = rules[draws.below(2)];
        PlasticityEngine engine(neurons, config, excitatory, inhibitory);
        NaivePlasticity naive(neurons, config, excitatory, inhibitory);
        std::vector<WeightChange> changes(3);  // what it held before must not show
        // Past 2^53 ns the difference of two rounded times is not the rounded difference.
        ModelTime start = seed % 3 == 0 ? (ModelTime{1} << 60) + 1 : 0;
        for (int window = 0; window < 30; ++window, start += 1'000'000) {
            SCOPED_TRACE(window);
            std::vector<SpikeRecord> spikes;
            for (std::uint64_t i = draws.below(8); i > 0; --i) {
                spikes.push_back({start + draws.timeBelow(4) * 250'001, draws.below(neurons)});
                engine.recordSpike(spikes.back().neuron, spikes.back().time);
            }
            engine.takeChanges(graph, changes);
            ASSERT_TRUE(sameChanges(changes, naive.take(spikes, graph)));
            ASSERT_TRUE(Testing::sameImages<SpikeTrace>(engine.traces(), naive.traces));
            for (std::size_t i = 1; i < changes.size(); ++i) {
                const WeightChange& a = changes[i - 1];
                const WeightChange& b = changes[i];
                ties += a.edge == b.edge && a.time == b.time && a.side == b.side ? 1 : 0;
            }
        }
    }
    EXPECT_GT(ties, 0U) << "no two proposals were equal by their key";
}

TEST(PlasticityEngine, HookSeesEveryProposalOfARuleAndMultipliesIt) {
    SynapseGraph graph(3, std::nullopt, {synapse(0, 1), synapse(2, 1, 0.25F, true)});
    PlasticityEngine engine(3, uneven_traces, pair_rule, no_rule);
    std::vector<WeightChangeContext> seen;
    double answer = -2.0;
    engine.setChangeHook([&](const WeightChangeContext& context) {
        seen.push_back(context);
        return answer;
    });
    engine.recordSpike(0, 0);
    engine.recordSpike(2, 0);
    EXPECT_TRUE(take(engine, graph).empty());
    ASSERT_EQ(seen.size(), 1U) << "the excitatory synapse, though its target has no trace yet";
    EXPECT_EQ(seen[0].factor, 0.0);

    engine.recordSpike(1, 2'000'000);
    const std::vector<WeightChange> changes = take(engine, graph);
    ASSERT_EQ(changes.size(), 1U);
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(std::memcmp(&seen[1], &changes[0].context, sizeof(WeightChangeContext)), 0);
    const double factor = faded(2'000'000, uneven_traces.tau_pre);
    EXPECT_TRUE(sameBits(changes[0].delta, ((0.01 * factor) * 0.75) * -2.0));

    answer = 0.0;
    engine.recordSpike(1, 3'000'000);
    EXPECT_TRUE(take(engine, graph).empty());

    answer = not_a_number;  // also of a proposal of 0: a NaN is not 0, and goes on
    engine.recordSpike(0, 900'000'000'000);
    const std::vector<WeightChange> undefined = take(engine, graph);
    ASSERT_EQ(undefined.size(), 1U);
    EXPECT_TRUE(std::isnan(undefined[0].delta));

    engine.setChangeHook({});
    engine.recordSpike(1, 900'000'000'000);
    EXPECT_TRUE(sameBits(take(engine, graph).at(0).delta, 0.01 * 0.75));
}

TEST(PlasticityEngine, ProposalsCarryTheFirstReportedPhaseOfEachEnd) {
    SynapseGraph graph(3, std::nullopt, {synapse(0, 1), synapse(2, 0)});
    OscillatorBank bank({{7, 3.0, 0.5, 1.0}, {9, 11.0, 0.25, 1.0}});
    bank.setMemberships({{9, 7}, {7}});  // none for neuron 2
    PlasticityEngine engine(3, uneven_traces, coincidence_rule, no_rule);
    engine.setBank(&bank);
    engine.recordSpike(1, 1'000'000);
    engine.recordSpike(2, 1'000'000);
    engine.recordSpike(0, 21'000'000);
    const std::vector<WeightChange> changes = take(engine, graph);
    ASSERT_EQ(changes.size(), 2U);
    EXPECT_TRUE(sameBits(changes[0].context.pre_phase, bank.phaseOf(9, 21'000'000)));
    EXPECT_TRUE(sameBits(changes[0].context.post_phase, bank.phaseOf(7, 21'000'000)));
    EXPECT_TRUE(sameBits(changes[1].context.pre_phase, 0.0));
    EXPECT_TRUE(sameBits(changes[1].context.post_phase, bank.phaseOf(9, 21'000'000)));

    engine.setBank(nullptr);
    engine.recordSpike(0, 22'000'000);
    for (const WeightChange& change : take(engine, graph)) {
        EXPECT_TRUE(sameBits(change.context.pre_phase, 0.0));
        EXPECT_TRUE(sameBits(change.context.post_phase, 0.0));
    }
}

TEST(PlasticityEngine, RefusesAConfigurationForItsFirstFault) {
    // Each row has the faults of all rows below it, as far as they go together.
    constexpr PlasticityRule infinite{PlasticityRuleKind::none, -1.0, 0.0, 0.0, infinity};
    constexpr PlasticityRule undefined{PlasticityRuleKind::none, 0.0, 0.0, not_a_number, 1.0};
    constexpr PlasticityRule negative{PlasticityRuleKind::none, 0.0, -1e-300, 0.0, 1.0};
    struct Case {
        const char* text;
        TraceConfig trace;
        PlasticityRule excitatory, inhibitory;
    };
    const char* windows = "plasticity trace windows must be positive";
    const char* epsilon = "plasticity trace epsilon must be finite and >= 0";
    const char* not_finite = "plasticity amplitudes must be finite";
    const char* below_zero = "plasticity amplitudes must be non-negative";
    for (const Case& c : {Case{windows, {0, 1, 1, -1.0}, infinite, infinite},
                          Case{windows, {1, -5, 1, -1.0}, infinite, infinite},
                          Case{windows, {1, 1, 0, -1.0}, infinite, infinite},
                          Case{epsilon, {1, 1, 1, -1.0}, infinite, infinite},
                          Case{epsilon, {1, 1, 1, not_a_number}, infinite, infinite},
                          Case{epsilon, {1, 1, 1, infinity}, infinite, infinite},
                          Case{not_finite, {1, 1, 1, 0.0}, infinite, negative},
                          Case{below_zero, {1, 1, 1, 0.0}, negative, undefined},
                          Case{not_finite, {1, 1, 1, 0.0}, no_rule, undefined},
                          Case{below_zero, {1, 1, 1, 0.0}, no_rule, negative}}) {
        expectThrows<InvalidPlasticity>(
            [&] { PlasticityEngine(1, c.trace, c.excitatory, c.inhibitory); }, c.text);
    }
}

TEST(PlasticityEngine, RefusesSpikesAndGraphsThatItCannotPlace) {
    SynapseGraph graph(2, std::nullopt, {synapse(0, 1)});
    PlasticityEngine engine(2, uneven_traces, pair_rule, no_rule);
    expectThrows<std::out_of_range>([&] { engine.recordSpike(2, 0); },
                                    "plasticity spike neuron is out of range");
    engine.recordSpike(0, 5'000'000);
    SynapseGraph wider(3, std::nullopt, {synapse(0, 2)});
    expectThrows<InvalidPlasticity>([&] { take(engine, wider); },
                                    "plasticity neuron count does not match graph");
    EXPECT_EQ(engine.traces()[0].updated, 0);
    take(engine, graph);
    engine.recordSpike(1, 4'999'999);
    expectThrows<InvalidPlasticity>([&] { take(engine, graph); },
                                    "plasticity trace advanced into the past");
}

/// An engine between recordSpike and takeChanges, with traces that are no round numbers.
PlasticityEngine usedEngine(SynapseGraph& graph) {
    PlasticityEngine engine(2, uneven_traces, coincidence_rule, pair_rule);
    engine.recordSpike(0, 1'000'000);
    engine.recordSpike(1, 3'000'000);
    take(engine, graph);
    engine.recordSpike(1, 5'000'000);
    engine.recordSpike(0, 4'000'000);
    return engine;
}

TEST(PlasticityEngine, BlobHoldsTracesThenSpikesThenProposals) {
    SynapseGraph graph(2, std::nullopt, {synapse(0, 1), synapse(1, 0)});
    const PlasticityEngine engine = usedEngine(graph);
    Blob expected;
    appendTag(expected, BlobTag("KELMPLS1"));
    appendU64(expected, 2);
    for (const SpikeTrace& trace : engine.traces()) {
        appendF64(expected, trace.pre);
        appendF64(expected, trace.post);
        appendF64(expected, trace.coincidence);
        appendI64(expected, trace.updated);
        appendI64(expected, trace.last_spike);
    }
    appendU64(expected, 2);
    appendI64(expected, 5'000'000);
    appendU64(expected, 1);
    appendI64(expected, 4'000'000);
    appendU64(expected, 0);
    appendU64(expected, 0);
    EXPECT_EQ(engine.snapshot(), expected);
}

/// A proposal as its 120 bytes, with junk in both gaps.
Blob proposalImage(EdgeId edge, ModelTime time, std::uint8_t side, NodeId pre, NodeId post,
                   std::uint8_t junk) {
    Blob image;
    appendU64(image, edge);
    appendI64(image, time);
    appendU8(image, side);
    for (int i = 0; i < 7; ++i) appendU8(image, junk);
    appendF64(image, 0.125);
    appendU64(image, edge);
    appendU64(image, pre);
    appendU64(image, post);
    appendI64(image, time);
    appendI64(image, 11);
    appendI64(image, 22);
    for (const double value : {0.5, 0.75, 1.0, 2.0}) appendF64(image, value);
    for (const std::uint8_t byte : {std::uint8_t{1}, std::uint8_t{2}, side}) appendU8(image, byte);
    for (int i = 0; i < 5; ++i) appendU8(image, junk);
    return image;
}

Blob withProposals(const Blob& blob, const std::vector<Blob>& images) {
    Blob longer(blob.begin(), blob.end() - 8);
    appendU64(longer, images.size());
    for (const Blob& image : images) appendBytes(longer, image.data(), image.size());
    return longer;
}

TEST(PlasticityEngine, ARestoredTwinGoesOnToTheBit) {
    SynapseGraph graph(2, std::nullopt, {synapse(0, 1), synapse(1, 0)});
    PlasticityEngine engine = usedEngine(graph);
    PlasticityEngine twin(2, uneven_traces, coincidence_rule, pair_rule);
    ASSERT_TRUE(twin.restore(engine.snapshot()));
    EXPECT_EQ(twin.snapshot(), engine.snapshot());
    const std::vector<WeightChange> expected = take(engine, graph);
    EXPECT_EQ(expected.size(), 4U);
    EXPECT_TRUE(sameChanges(take(twin, graph), expected));

    // Proposals that were not taken come out with the next ones, in their place.
    const Blob stored = withProposals(
        engine.snapshot(), {proposalImage(1, 8, 1, 1, 0, 0xee), proposalImage(1, 8, 0, 1, 0, 0xee),
                            proposalImage(0, 9, 1, 0, 1, 0xee)});
    ASSERT_TRUE(twin.restore(stored));
    EXPECT_EQ(twin.snapshot(), withProposals(engine.snapshot(), {proposalImage(1, 8, 1, 1, 0, 0),
                                                                 proposalImage(1, 8, 0, 1, 0, 0),
                                                                 proposalImage(0, 9, 1, 0, 1, 0)}))
        << "equal but for the gaps, which are zero";
    const std::vector<WeightChange> kept = take(twin, graph);
    ASSERT_EQ(kept.size(), 3U);
    EXPECT_EQ(kept[0].edge, 0U);
    EXPECT_EQ(kept[1].side, PlasticitySide::source);
    EXPECT_EQ(kept[2].side, PlasticitySide::target);
}

TEST(PlasticityEngine, RefusesEveryTruncationAndForgeryAndStaysAsItWas) {
    SynapseGraph graph(2, std::nullopt, {synapse(0, 1), synapse(1, 0)});
    const Blob sound =
        withProposals(usedEngine(graph).snapshot(), {proposalImage(0, 9, 1, 0, 1, 0)});
    PlasticityEngine engine(2, uneven_traces, coincidence_rule, pair_rule);
    engine.recordSpike(1, 77);
    const Blob before = engine.snapshot();
    for (std::size_t length = 0; length < sound.size(); ++length) {
        ASSERT_FALSE(engine.restore(BlobView(sound.data(), length))) << length;
        ASSERT_EQ(engine.snapshot(), before) << length;
    }

    constexpr std::size_t spikes_at = 16 + 2 * 40;
    constexpr std::size_t changes_at = spikes_at + 8 + 2 * 16;
    struct Case {
        const char* fact;
        std::size_t offset;
        std::uint64_t value;
    };
    for (const Case& c :
         {Case{"another tag", 0, 0x32534c504d4c454b}, Case{"another neuron count", 8, 1},
          Case{"a trace count without end", 8, ~std::uint64_t{0}},
          Case{"a spike count without end", spikes_at, ~std::uint64_t{0}},
          Case{"a spike outside the network", spikes_at + 16, 2},
          Case{"a proposal count that wraps around", changes_at, (~std::uint64_t{0}) / 120 + 2},
          Case{"a source outside the network", changes_at + 8 + 40, 2},
          Case{"a target outside the network", changes_at + 8 + 48, 2}}) {
        Blob forged = sound;
        std::memcpy(forged.data() + c.offset, &c.value, 8);
        EXPECT_FALSE(engine.restore(forged)) << c.fact;
        EXPECT_EQ(engine.snapshot(), before) << c.fact;
    }
    Blob longer = sound;
    longer.push_back(0);
    EXPECT_FALSE(engine.restore(longer));
    EXPECT_EQ(engine.snapshot(), before);
    EXPECT_TRUE(engine.restore(sound)) << "the forgeries fail for what was forged";
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
