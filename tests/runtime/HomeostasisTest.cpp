#include "kelm/runtime/Homeostasis.h"

#include <gtest/gtest.h>

#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

TEST(Homeostasis, RefusesABadCapAtEachCallButOnlyWhereItIsOn) {
    for (const double cap : {0.0, -1.0, infinity, not_a_number}) {
        SynapseGraph graph(1, std::nullopt, {Synapse{.weight = 0.75F, .delay = 1}});
        Homeostasis homeostasis;
        const HomeostasisConfig bad{true, cap};
        const char* text = "homeostasis cap must be finite and > 0";
        expectRefusals<InvalidPlasticity>({{text, [&] { applyHomeostasis(graph, bad); }},
                                           {text, [&] { homeostasis.apply(graph, bad); }}});
        EXPECT_EQ(applyHomeostasis(graph, {false, cap}), 0U);
        EXPECT_EQ(homeostasis.apply(graph, {false, cap}), 0U);
        EXPECT_EQ(graph.edge(0).weight, 0.75F);
        EXPECT_EQ(homeostasis.apply(graph, {true, 0.5}), 1U) << "the refusal cost no neuron";
        graph.setWeight(0, 0.75F);
        std::vector<NodeId> changed;
        graph.takeReweightedTargets(changed);  // hides the neuron from it
        EXPECT_EQ(homeostasis.apply(graph, {true, 0.5}), 0U) << "it looks where weights were set";
    }
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
