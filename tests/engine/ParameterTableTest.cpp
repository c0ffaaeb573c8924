#include "kelm/engine/ParameterTable.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(ParameterTable, KeepsEachPairOnceByItsBits) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    std::vector<Kernel::Neuron> neurons(7);
    std::vector<Kernel::Firing> firings(7);
    neurons[2].reset_value = neurons[5].reset_value = -0.0;
    firings[3].gain = firings[5].gain = 2.0;
    const ParameterTable table(neurons, firings);
    EXPECT_EQ(table.neuronCount(), 7U);
    EXPECT_EQ(table.entries().size(), 4U);
    EXPECT_TRUE(table.isHeterogeneous());
    for (NodeId n = 0; n < 7; ++n) {
        const std::uint32_t expected[] = {0, 0, 1, 2, 0, 3, 0};
        EXPECT_EQ(table.indexOf(n), expected[n]) << n;
        EXPECT_EQ(table[n].neuron, neurons[n]) << n;
        EXPECT_EQ(table[n].firing, firings[n]) << n;
    }
    // Other bits can be equal numbers, and the same bits can be other numbers.
    firings.assign(7, {});
    EXPECT_FALSE(ParameterTable(neurons, firings).isUniform());
    EXPECT_FALSE(ParameterTable(neurons, firings).isHeterogeneous());
    const ParameterTable not_numbers(2, {.reset_value = nan}, {});
    EXPECT_TRUE(not_numbers.isUniform());
    EXPECT_TRUE(not_numbers.isHeterogeneous());
    EXPECT_FALSE(ParameterTable(1, {.reset_value = nan}, {}).isHeterogeneous());
}

TEST(ParameterTable, LeavesOutPopulationsWithoutNeuronsAndRefusesTooMany) {
    const std::vector<Population> populations{
        {"none", 0, {.reset_value = 1.0}, {}}, {"two", 2, {}, {.gain = 3.0}}, {"one", 1, {}, {}}};
    const ParameterTable table(populations);
    ASSERT_EQ(table.entries().size(), 2U);
    EXPECT_EQ(table[1].firing.gain, 3.0);
    EXPECT_EQ(table[2].firing, Kernel::Firing());
    const ParameterTable none{std::span<const Population>(populations).first(1)};
    EXPECT_EQ(none.neuronCount(), 0U);
    EXPECT_EQ(none.entries()[0].neuron, Kernel::Neuron());
    expectThrows<WindowEngineError>(
        [] {
            ParameterTable(
                std::vector<Population>{{"", 5, {}, {}}, {"", ~std::uint64_t{4}, {}, {}}});
        },
        "per-neuron parameter count does not match graph");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
