#include "kelm/runtime/Homeostasis.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::Draws;
using Testing::expectThrows;

Synapse synapse(NodeId source, NodeId target, float weight) {
    Synapse made;
    made.source = source;
    made.target = target;
    made.weight = weight;
    made.delay = 1'000'000;
    return made;
}

std::vector<std::uint32_t> weightBits(const SynapseGraph& graph) {
    std::vector<std::uint32_t> bits;
    for (EdgeId id = 0; id < graph.edgeCount(); ++id) {
        bits.push_back(std::bit_cast<std::uint32_t>(graph.edge(id).weight));
    }
    return bits;
}

std::vector<std::uint32_t> bitsOf(const std::vector<float>& weights) {
    std::vector<std::uint32_t> bits;
    for (const float weight : weights) bits.push_back(std::bit_cast<std::uint32_t>(weight));
    return bits;
}

/// Neuron 0 has a mean of 0.5, neuron 1 none, neuron 2 a mean of 0.25 over three.
SynapseGraph smallGraph() {
    SynapseGraph graph(3, std::nullopt,
                       {synapse(0, 0, 0.75F), synapse(1, 2, 0.5F), synapse(2, 0, 0.25F),
                        synapse(1, 2, 0.25F), synapse(0, 2, 0.0F)});
    graph.setEnabled(2, false);  // counts like any other
    return graph;
}

TEST(Homeostasis, ScalesANeuronAboveTheCapAndNoOther) {
    struct Case {
        double cap;
        std::uint64_t scaled;
        std::vector<float> weights;
    };
    const auto scaled = [](double weight, double factor) {
        return static_cast<float>(weight * factor);
    };
    const double third = 0.3 / 0.5;
    const double fifth0 = 0.2 / 0.5;
    const double fifth2 = 0.2 / 0.25;
    for (const Case& c :
         {Case{0.5, 0, {0.75F, 0.5F, 0.25F, 0.25F, 0.0F}},  // exactly the mean
          Case{0.3, 1, {scaled(0.75, third), 0.5F, scaled(0.25, third), 0.25F, 0.0F}},
          Case{0.2,
               2,
               {scaled(0.75, fifth0), scaled(0.5, fifth2), scaled(0.25, fifth0),
                scaled(0.25, fifth2), 0.0F}}}) {
        SCOPED_TRACE(c.cap);
        SynapseGraph whole = smallGraph();
        EXPECT_EQ(applyHomeostasis(whole, {true, c.cap}), c.scaled);
        EXPECT_EQ(weightBits(whole), bitsOf(c.weights));
        SynapseGraph tracked = smallGraph();
        EXPECT_EQ(Homeostasis().apply(tracked, {true, c.cap}), c.scaled);
        EXPECT_EQ(weightBits(tracked), bitsOf(c.weights));
    }
}

TEST(Homeostasis, RefusesABadCapAtEachCallButOnlyWhereItIsOn) {
    for (const double cap : {0.0, -1.0, std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN()}) {
        SCOPED_TRACE(cap);
        SynapseGraph graph = smallGraph();
        Homeostasis homeostasis;
        const char* text = "homeostasis cap must be finite and > 0";
        expectThrows<InvalidPlasticity>([&] { applyHomeostasis(graph, {true, cap}); }, text);
        expectThrows<InvalidPlasticity>([&] { homeostasis.apply(graph, {true, cap}); }, text);
        EXPECT_EQ(applyHomeostasis(graph, {false, cap}), 0U);
        EXPECT_EQ(homeostasis.apply(graph, {false, cap}), 0U);
        EXPECT_EQ(weightBits(graph), weightBits(smallGraph()));
        EXPECT_EQ(homeostasis.apply(graph, {true, 0.3}), 1U) << "the refusal cost no neuron";
    }
}

TEST(Homeostasis, LooksAtNoNeuronWhoseWeightsStayed) {
    SynapseGraph graph = smallGraph();
    Homeostasis homeostasis;
    EXPECT_EQ(homeostasis.apply(graph, {true, 1.0}), 0U);
    graph.setWeight(1, 4.0F);
    std::vector<NodeId> changed;
    graph.takeReweightedTargets(changed);  // hides neuron 2 from it
    EXPECT_EQ(homeostasis.apply(graph, {true, 1.0}), 0U);
    graph.setWeight(3, 0.25F);
    EXPECT_EQ(homeostasis.apply(graph, {true, 1.0}), 1U);
}

TEST(Homeostasis, TrackedFormAgreesToTheBitWithTheWholeWalk) {
    std::uint64_t rescaled = 0;
    for (std::uint64_t seed = 1; seed <= 10; ++seed) {
        SCOPED_TRACE(seed);
        Draws draws(seed);
        const std::uint64_t neurons = 1 + draws.below(12);
        std::vector<Synapse> edges;
        for (std::uint64_t i = draws.below(80); i > 0; --i) {
            edges.push_back(synapse(draws.below(neurons), draws.below(neurons),
                                    static_cast<float>(draws.between(0.0, 2.0))));
        }
        SynapseGraph whole(neurons, 1'000'000, edges);
        SynapseGraph tracked = whole;
        Homeostasis homeostasis;
        HomeostasisConfig config{true, 0.7};
        for (int step = 0; step < 200; ++step) {
            SCOPED_TRACE(step);
            bool quiet = config.enabled;
            for (std::uint64_t i = edges.empty() ? 0 : draws.below(4); i > 0; --i) {
                const EdgeId id = draws.below(edges.size());
                const float weight = static_cast<float>(draws.between(0.0, 2.0));
                whole.setWeight(id, weight);
                tracked.setWeight(id, weight);
                quiet = false;
            }
            // What else may happen between two windows.
            config.enabled = !draws.oneIn(10);
            if (draws.oneIn(20)) {
                config.cap = draws.between(0.2, 1.5);
                quiet = false;
            }
            if (draws.oneIn(20)) {
                // Other weights by way of a snapshot, as a checkpoint brings them.
                SynapseGraph other(neurons, 1'000'000, edges);
                ASSERT_TRUE(whole.restore(other.snapshot()));
                ASSERT_TRUE(tracked.restore(other.snapshot()));
                quiet = false;
            }
            // A new one meets a graph that was asked before.
            if (draws.oneIn(20)) homeostasis = Homeostasis();
            const std::uint64_t scaled = applyHomeostasis(whole, config);
            ASSERT_EQ(homeostasis.apply(tracked, config), scaled);
            ASSERT_EQ(weightBits(tracked), weightBits(whole));
            if (quiet) rescaled += scaled;
        }
    }
    EXPECT_GT(rescaled, 0U) << "no neuron missed the cap by a rounding step";
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
