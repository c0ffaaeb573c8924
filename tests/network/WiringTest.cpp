#include "kelm/network/Wiring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/Digest.h"
#include "kelm/network/WiringStream.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;
using Rule = ConnectionRule;
using Values = SynapseValues;
using Synapses = std::vector<Synapse>;

constexpr ModelTime ms = 1'000'000;
constexpr ModelTime delay = 1'500'000;

Rule distinct(const Rule& rule) {
    return rule.withoutSelfConnections().withoutMultipleConnections();
}

Synapses visited(const Wiring& wiring, NodeId first, NodeId end) {
    Synapses synapses;
    wiring.visit(first, end, [&](const Synapse& synapse) { synapses.push_back(synapse); });
    return synapses;
}

/// A list of synapses as bytes: source, target, weight, delay, sign.
Blob imageOf(const Synapses& synapses) {
    Blob image;
    for (const Synapse& synapse : synapses) {
        appendU64(image, synapse.source);
        appendU64(image, synapse.target);
        appendF32(image, synapse.weight);
        appendI64(image, synapse.delay);
        appendFlag(image, synapse.inhibitory);
    }
    return image;
}

Synapses synapsesOf(const SynapseGraph& graph) {
    Synapses synapses;
    for (EdgeId id = 0; id < graph.edgeCount(); ++id) synapses.push_back(graph.edge(id));
    return synapses;
}

TEST(Wiring, MakesTheNetworksOfAnotherImplementation) {
    struct Case {
        Projection projection;
        std::uint64_t count, digest;
    };
    const NeuronRange low = {0, 40}, high = {10, 50}, all = {0, 60};
    // From scripts/reference/wiring.py.
    const Case cases[] = {
        {{"one to one",
          {0, 20},
          {30, 20},
          Rule::oneToOne(),
          Values::uniform(0.5, 1.5),
          Values::uniform(1e6, 4e6),
          true},
         20,
         0xdc4aeed9089e8231},
        {{"all to all",
          {0, 12},
          {6, 14},
          Rule::allToAll().withoutSelfConnections(),
          0.25,
          Values::normal(2e6, 1e6).within(1e6, 5e6)},
         162,
         0xdc374466de81c3d3},
        {{"in-degree", low, high, Rule::fixedInDegree(7), Values::normal(0.5, 0.3).within(0, 1),
          Values::exponential(1.5e6).within(1e6, 1e7)},
         350,
         0x54db2d34eb1b34c3},
        {{"distinct in-degree", low, high, distinct(Rule::fixedInDegree(25)),
          Values::logNormal(-1.0, 0.5), delay},
         1250,
         0x2b01e86e29cada5b},
        {{"out-degree", low, {30, 30}, Rule::fixedOutDegree(9), Values::exponential(0.5), delay},
         360,
         0x38d628d1db8be19b},
        {{"distinct out-degree", all, all, distinct(Rule::fixedOutDegree(40)),
          Values::uniform(0, 1), delay},
         2400,
         0xe7128c242a8fea92},
        {{"total", low, high, Rule::fixedTotalNumber(500), 0.25, delay}, 500, 0x1cf07afa6d4da069},
        {{"total, others",
          {0, 5},
          {3, 6},
          Rule::fixedTotalNumber(500).withoutSelfConnections(),
          0.25,
          delay},
         500,
         0x00168dd4665b9ce8},
        {{"distinct total", low, high, distinct(Rule::fixedTotalNumber(600)), 0.25, delay},
         600,
         0x1d744feedeea745e},
        {{"dense total", low, high, distinct(Rule::fixedTotalNumber(1500)), 0.25, delay},
         1500,
         0x1872ab10a2bc6d36},
        {{"Bernoulli", all, all, Rule::bernoulli(0.3).withoutSelfConnections(), 0.25, delay},
         1051,
         0x2b08daf924db1fee},
        {{"rare Bernoulli", all, high, Rule::bernoulli(0.01), 0.25, delay},
         32,
         0xe0134130b8979e8a}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.projection.name);
        const SynapseGraph graph = Wiring(60, ms, {c.projection}, 77).build();
        EXPECT_EQ(graph.edgeCount(), c.count);
        EXPECT_EQ(digest(imageOf(synapsesOf(graph))), c.digest);
    }
}

/// A projection by a random rule that is possible between its ranges.
Projection generatedProjection(Draws& draws, std::uint64_t node_count, const std::string& name) {
    const auto range = [&] {
        const NodeId first = draws.below(node_count - 1);
        return NeuronRange{first, 2 + draws.below(node_count - first - 1)};
    };
    Projection made = {.name = name, .sources = range(), .targets = range()};
    const std::uint64_t sources = made.sources.count, targets = made.targets.count;
    switch (draws.below(6)) {
        case 0:
            made.targets.count = made.sources.count = std::min(sources, targets);
            made.rule = Rule::oneToOne();
            break;
        case 1:
            made.rule = Rule::allToAll();
            break;
        case 2:
            made.rule = Rule::fixedInDegree(draws.below(sources));
            break;
        case 3:
            made.rule = Rule::fixedOutDegree(draws.below(targets));
            break;
        case 4:
            made.rule = Rule::fixedTotalNumber(
                draws.below(sources * targets - std::min(sources, targets) + 1));
            break;
        default:
            made.rule = Rule::bernoulli(draws.oneOf({0.0, 1e-17, 0.02, 0.5, 1.0}));
    }
    if (made.rule.kind != Rule::Kind::one_to_one) made.rule.self_connections = draws.oneIn(2);
    made.rule.multiple_connections = draws.oneIn(2);
    made.weight = Values::uniform(0.0, 1.0);
    made.delay = Values::fromFunction([](NodeId source, NodeId target, std::uint64_t index) {
        return static_cast<double>(1 + source + 1000 * target + 1'000'000 * index);
    });
    made.inhibitory = draws.oneIn(2);
    return made;
}

void expectTheRule(const Projection& projection, const Synapses& synapses) {
    const Rule& rule = projection.rule;
    std::map<NodeId, std::uint64_t> entering, leaving;
    std::set<std::pair<NodeId, NodeId>> pairs;
    for (const Synapse& synapse : synapses) {
        EXPECT_TRUE(projection.sources.contains(synapse.source));
        EXPECT_TRUE(projection.targets.contains(synapse.target));
        EXPECT_EQ(synapse.inhibitory, projection.inhibitory);
        if (!rule.self_connections) {
            EXPECT_NE(synapse.source, synapse.target);
        }
        ++entering[synapse.target];
        ++leaving[synapse.source];
        pairs.insert({synapse.source, synapse.target});
    }
    const bool degree_or_number = rule.kind == Rule::Kind::fixed_in_degree ||
                                  rule.kind == Rule::Kind::fixed_out_degree ||
                                  rule.kind == Rule::Kind::fixed_total_number;
    if (!degree_or_number || !rule.multiple_connections) {
        EXPECT_EQ(pairs.size(), synapses.size());
    }
    std::uint64_t possible = projection.sources.count * projection.targets.count;
    for (NodeId node = 0; node < 100; ++node) {
        const bool both = projection.sources.contains(node) && projection.targets.contains(node);
        if (both && !rule.self_connections) --possible;
        if (rule.kind == Rule::Kind::fixed_in_degree && projection.targets.contains(node)) {
            EXPECT_EQ(entering[node], rule.count);
        }
        if (rule.kind == Rule::Kind::fixed_out_degree && projection.sources.contains(node)) {
            EXPECT_EQ(leaving[node], rule.count);
        }
    }
    if (rule.kind == Rule::Kind::all_to_all) {
        EXPECT_EQ(synapses.size(), possible);
    }
    if (rule.kind == Rule::Kind::fixed_total_number) {
        EXPECT_EQ(synapses.size(), rule.count);
    }
    if (rule.kind == Rule::Kind::one_to_one) {
        EXPECT_EQ(synapses.size(), projection.sources.count);
        for (const Synapse& synapse : synapses) {
            EXPECT_EQ(synapse.source - projection.sources.first,
                      synapse.target - projection.targets.first);
        }
    }
    if (rule.kind == Rule::Kind::bernoulli && rule.probability < 1e-9) {
        EXPECT_TRUE(synapses.empty());
    }
    if (rule.probability == 1.0) {
        EXPECT_EQ(synapses.size(), possible);
    }
}

TEST(Wiring, KeepsItsRulesAndMakesAnyPartAlone) {
    for (std::uint64_t seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Draws draws(seed);
        const std::uint64_t node_count = 2 + draws.below(30);
        std::vector<Projection> projections;
        Synapses whole;
        for (int i = 0; i < 3; ++i) {
            projections.push_back(
                generatedProjection(draws, node_count, std::string(1, static_cast<char>('a' + i))));
            // A projection alone has the synapses that it has beside others.
            const Wiring alone(node_count, {}, {projections.back()}, seed);
            const Synapses own = visited(alone, 0, node_count);
            expectTheRule(projections.back(), own);
            whole.insert(whole.end(), own.begin(), own.end());
        }
        const Wiring wiring(node_count, {}, projections, seed);
        EXPECT_EQ(imageOf(visited(wiring, 0, node_count)), imageOf(whole));

        // Every part has the whole network's synapses of its targets, in order.
        for (NodeId first = 0; first < node_count;) {
            const NodeId end = first + 1 + draws.below(node_count - first);
            Synapses part;
            std::copy_if(whole.begin(), whole.end(), std::back_inserter(part),
                         [&](const Synapse& synapse) {
                             return synapse.target >= first && synapse.target < end;
                         });
            EXPECT_EQ(imageOf(visited(wiring, first, end)), imageOf(part));
            first = end;
        }

        // The graph has them by source; a source's targets ascend in each projection.
        std::stable_sort(whole.begin(), whole.end(),
                         [](const Synapse& a, const Synapse& b) { return a.source < b.source; });
        SynapseGraph graph = wiring.build();
        EXPECT_EQ(graph.snapshot(), SynapseGraph(node_count, {}, whole).snapshot());
        const Synapses ordered = synapsesOf(Wiring(node_count, {}, {projections[0]}, seed).build());
        EXPECT_TRUE(std::is_sorted(ordered.begin(), ordered.end(), [](auto& a, auto& b) {
            return std::pair(a.source, a.target) < std::pair(b.source, b.target);
        }));
        if (HasFailure()) return;
    }
}

TEST(Wiring, DrawsEverySetOfPairsEquallyOften) {
    // Two sources, three targets, one pair excluded: 10 sets of two of the five pairs, and 10 of
    // three. The bounds are more than eight standard deviations wide.
    for (const std::uint64_t number : {2U, 3U}) {
        SCOPED_TRACE(number);
        std::map<std::set<std::pair<NodeId, NodeId>>, int> times;
        for (std::uint64_t seed = 0; seed < 10'000; ++seed) {
            const Wiring wiring(
                4, {}, {{"p", {0, 2}, {1, 3}, distinct(Rule::fixedTotalNumber(number)), 1.0, 1}},
                seed);
            std::set<std::pair<NodeId, NodeId>> pairs;
            wiring.visit(0, 4, [&](const Synapse& s) { pairs.insert({s.source, s.target}); });
            ++times[pairs];
        }
        EXPECT_EQ(times.size(), 10U);
        for (const auto& [pairs, count] : times) EXPECT_NEAR(count, 1000, 250);
    }
}

TEST(Wiring, CountsTheSynapsesOfATotalNumberByTheirPossiblePairs) {
    // With multiple connections each of the five pairs gets a fifth.
    std::map<std::pair<NodeId, NodeId>, int> times;
    const Wiring wiring(
        4, {},
        {{"p", {0, 2}, {1, 3}, Rule::fixedTotalNumber(50'000).withoutSelfConnections(), 1.0, 1}},
        3);
    wiring.visit(0, 4, [&](const Synapse& s) { ++times[{s.source, s.target}]; });
    EXPECT_EQ(times.size(), 5U);
    for (const auto& [pair, count] : times) EXPECT_NEAR(count, 10'000, 800);
}

TEST(Wiring, DrawsIntegersWithoutBias) {
    // Of [0, 3 * 2^62), a result from two thirds on comes as often as one of another third; the
    // remainder modulo the end would fall below a third twice as often.
    WiringStream stream(1, "integers", 0);
    constexpr std::uint64_t third = std::uint64_t{1} << 62;
    int times[3] = {};
    for (int i = 0; i < 30'000; ++i) ++times[stream.below(3 * third) / third];
    for (const int count : times) EXPECT_NEAR(count, 10'000, 700);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(stream.below(1), 0U);
}

TEST(Wiring, DrawsTheDistributions) {
    struct Case {
        const char* name;
        Values values;
        double mean, deviation, low, high;
    };
    const double ln2 = std::log(2.0);
    const Case cases[] = {
        {"uniform", Values::uniform(2.0, 5.0), 3.5, std::sqrt(0.75), 2.0, 5.0},
        {"normal", Values::normal(10.0, 2.0).within(0.0, 20.0), 10.0, 2.0, 0.0, 20.0},
        {"exponential", Values::exponential(3.0), 3.0, 3.0, 0.0, 60.0},
        // Mean exp(mu + sigma^2 / 2), variance mean^2 * (exp(sigma^2) - 1).
        {"lognormal", Values::logNormal(0.0, std::sqrt(ln2)), std::sqrt(2.0), std::sqrt(2.0), 0.0,
         100.0},
        // The half normal, not the normal with half of the weight on 1.
        {"cut normal", Values::normal(1.0, 1.0).within(1.0, 50.0),
         1.0 + std::sqrt(2.0 / 3.14159265), std::sqrt(1.0 - 2.0 / 3.14159265), 1.0, 8.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        constexpr int count = 40'000;
        double sum = 0.0, squares = 0.0, least = 1e9, most = 0.0;
        const Wiring wiring(200, {}, {{"p", {0, 200}, {0, 200}, Rule::allToAll(), c.values, 1}}, 9);
        wiring.visit(0, 200, [&](const Synapse& s) {
            sum += s.weight;
            squares += (s.weight - c.mean) * (s.weight - c.mean);
            least = std::min<double>(least, s.weight);
            most = std::max<double>(most, s.weight);
        });
        EXPECT_NEAR(sum / count, c.mean, 0.05 * c.deviation);
        EXPECT_NEAR(std::sqrt(squares / count), c.deviation, 0.1 * c.deviation);
        EXPECT_GE(least, c.low);
        EXPECT_LE(most, c.high);
    }
}

TEST(Wiring, TakesValuesFromArraysInTheOrderOfItsVisit) {
    for (const Rule& rule :
         {Rule::oneToOne(), Rule::allToAll().withoutSelfConnections(), Rule::fixedInDegree(3),
          distinct(Rule::fixedOutDegree(3)), Rule::fixedTotalNumber(17)}) {
        const std::uint64_t count = rule.kind == Rule::Kind::all_to_all           ? 21
                                    : rule.kind == Rule::Kind::fixed_total_number ? 17
                                    : rule.kind == Rule::Kind::one_to_one         ? 5
                                                                                  : 15;
        SCOPED_TRACE(count);
        std::vector<double> weights, delays;
        for (std::uint64_t i = 0; i < count; ++i) {
            weights.push_back(static_cast<double>(i));
            delays.push_back(static_cast<double>(100 + i) + 0.5);
        }
        const Wiring wiring(
            9, {},
            {{"p", {0, 5}, {1, 5}, rule, Values::fromArray(weights), Values::fromArray(delays)}},
            1);
        const Synapses whole = visited(wiring, 0, 9);
        ASSERT_EQ(whole.size(), count);
        for (std::uint64_t i = 0; i < count; ++i) {
            EXPECT_EQ(whole[i].weight, static_cast<float>(i));
            EXPECT_EQ(whole[i].delay, static_cast<ModelTime>(101 + i));  // halves are rounded up
        }
        const Synapses part = visited(wiring, 3, 9);
        ASSERT_FALSE(part.empty());
        for (const Synapse& synapse : part) {
            EXPECT_EQ(synapse.target, whole[static_cast<std::size_t>(synapse.weight)].target);
        }
    }
}

TEST(Wiring, RefusesWhatCannotBe) {
    const auto making = [](Projection projection) {
        if (projection.name.empty()) projection.name = "p";
        return [projection] { Wiring(10, ms, {projection}, 1); };
    };
    const auto ruled = [&](const Rule& rule, NeuronRange sources = {0, 4},
                           NeuronRange targets = {2, 8}) {
        return making({"", sources, targets, rule, 0.5, delay});
    };
    const auto weighted = [&](const Values& weight, const Rule& rule = Rule::allToAll()) {
        return making({"", {0, 2}, {2, 3}, rule, weight, delay});
    };
    const auto delayed = [&](const Values& values) {
        return making({"", {0, 2}, {2, 3}, Rule::allToAll(), 0.5, values});
    };
    const std::vector<double> five(5, 0.5), six = {0.5, 0.5, -1.0, 0.5, 0.5, 0.5};
    const std::string p = "projection \"p\": ";
    const Projection good = {"p", {0, 2}, {2, 3}, Rule::allToAll(), 0.5, delay};
    expectRefusals<std::invalid_argument>({
        {"projection \"\": the name is empty",
         [] {
             Wiring(10, ms, {{"", {}, {}, Rule::allToAll(), 0.5, delay}}, 1);
         }},
        {p + "the name is taken",
         [&] {
             Wiring(10, ms, {good, good}, 1);
         }},
        {"a wiring of 4294967296 neurons has more than 4294967295",
         [] { Wiring(std::uint64_t{1} << 32, ms, {}, 1); }},
        {p + "5 sources from neuron 6 on are not in a network of 10 neurons",
         ruled(Rule::allToAll(), {6, 5})},
        {p + "18446744073709551615 targets from neuron 2 on are not in a network of 10 neurons",
         ruled(Rule::allToAll(), {0, 4}, {2, ~std::uint64_t{0}})},
        {p + "one-to-one cannot connect 4 sources to 8 targets", ruled(Rule::oneToOne())},
        {p + "one-to-one of neurons to themselves has only self-connections",
         ruled(Rule::oneToOne().withoutSelfConnections(), {1, 3}, {1, 3})},
        {p + "fixed in-degree 4 exceeds the 3 possible sources of neuron 2",
         ruled(distinct(Rule::fixedInDegree(4)))},
        {p + "fixed in-degree 5 exceeds the 4 possible sources of neuron 2",
         ruled(Rule::fixedInDegree(5).withoutMultipleConnections())},
        {p + "fixed in-degree 1 exceeds the 0 possible sources of neuron 2",
         ruled(Rule::fixedInDegree(1), {0, 0})},
        {p + "fixed out-degree 8 exceeds the 7 possible targets of neuron 2",
         ruled(distinct(Rule::fixedOutDegree(8)))},
        {p + "fixed out-degree 1 exceeds the 0 possible targets of neuron 3",
         ruled(Rule::fixedOutDegree(1).withoutSelfConnections(), {3, 1}, {3, 1})},
        {p + "fixed total number 31 exceeds the 30 possible pairs",
         ruled(distinct(Rule::fixedTotalNumber(31)))},
        {p + "fixed total number 1 exceeds the 0 possible pairs",
         ruled(Rule::fixedTotalNumber(1).withoutSelfConnections(), {3, 1}, {3, 1})},
        {p + "fixed in-degree makes more than 281474976710656 synapses",
         ruled(Rule::fixedInDegree(~std::uint64_t{0} / 8 + 1))},
        {p + "fixed total number makes more than 281474976710656 synapses",
         ruled(Rule::fixedTotalNumber(281474976710657))},
        {p + "Bernoulli probability 1.5 is not in [0, 1]", ruled(Rule::bernoulli(1.5))},
        {p + "Bernoulli probability nan is not in [0, 1]", ruled(Rule::bernoulli(not_a_number))},
        {p + "the weight is missing", weighted({})},
        {p + "the delay is missing", delayed({})},
        {p + "weight -0.5 is not in [0, 3.4028234663852886e+38]", weighted(-0.5)},
        {p + "weight nan is not in [0, 3.4028234663852886e+38]", weighted(not_a_number)},
        {p + "weight 0.5 is not in [0.6, 1]", weighted(Values(0.5).within(0.6, 1.0))},
        {p + "delay 1.5 is not in [1e+06, 2251799813685248]", delayed(1.5)},
        {p + "weight may be drawn below 0; limit it with within()",
         weighted(Values::normal(1.0, 0.1))},
        {p + "weight may be drawn below 0; limit it with within()",
         weighted(Values::uniform(-0.1, 1.0))},
        {p + "delay may be drawn below 1e+06; limit it with within()",
         delayed(Values::exponential(5e6))},
        {p + "weight distribution (1, 0.5) must have low <= high",
         weighted(Values::uniform(1.0, 0.5))},
        {p + "weight distribution (0, inf) must have finite parameters",
         weighted(Values::logNormal(0.0, infinity))},
        {p + "weight distribution (0, 0) must have a positive mean",
         weighted(Values::exponential(0.0))},
        {p + "weight distribution (0, -1) must have a standard deviation >= 0",
         weighted(Values::normal(0.0, -1.0).within(0.0, 1.0))},
        {p + "weight is never drawn within [2, 3]",
         weighted(Values::uniform(0.0, 1.0).within(2.0, 3.0))},
        {p + "weight cannot be within [nan, 1]",
         weighted(Values::uniform(0.0, 1.0).within(not_a_number, 1.0))},
        {p + "delay cannot be within [3e+06, 2e+06]", delayed(Values(2e6).within(3e6, 2e6))},
        {p + "weight of a Bernoulli rule cannot be an array",
         weighted(Values::fromArray(six), Rule::bernoulli(0.5))},
        {p + "weight array has 5 values for 6 synapses", weighted(Values::fromArray(five))},
        {p + "weight -1 at index 2 is not in [0, 3.4028234663852886e+38]",
         weighted(Values::fromArray(six))},
        {p + "weight function is empty", weighted(Values::fromFunction({}))},
    });
    expectThrows<InvalidSynapse>([] { Wiring(10, 0, {}, 1); },
                                 "network min_delay must be positive");

    // Known only when the values are made.
    const auto building = [&](const Values& weight) {
        return [weight] {
            Wiring(10, ms, {{"p", {0, 2}, {2, 3}, Rule::allToAll(), weight, delay}}, 1).build();
        };
    };
    expectRefusals<std::invalid_argument>(
        {{p + "weight had 1000 draws outside [100, 101] from neuron 0 to neuron 2",
          building(Values::normal(0.0, 1.0).within(100.0, 101.0))},
         {p + "weight -1 from neuron 1 to neuron 4 is not in [0, 3.4028234663852886e+38]",
          building(Values::fromFunction([](NodeId source, NodeId target, std::uint64_t) {
              return source == 1 && target == 4 ? -1.0 : 1.0;
          }))}});
    const Wiring wiring(10, ms, {good}, 1);
    expectThrows<std::out_of_range>(
        [&] { visited(wiring, 4, 11); },
        "targets from 4 to below 11 are not in a network of 10 neurons");
    EXPECT_NO_THROW(ruled(distinct(Rule::fixedInDegree(3)))());
    EXPECT_NO_THROW(ruled(Rule::fixedInDegree(3), {0, 4}, {2, 0})());
    EXPECT_NO_THROW(ruled(distinct(Rule::fixedTotalNumber(30)))());
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
