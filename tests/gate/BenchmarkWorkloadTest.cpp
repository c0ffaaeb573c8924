#include "gate/BenchmarkWorkload.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <tuple>

#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

TEST(BenchmarkWorkload, IsTheNetworkOfTheReport) {
    const BenchmarkWorkload workload = buildBenchmarkWorkload();
    EXPECT_EQ(workload.neuron_count, 100000U);
    EXPECT_EQ(workload.min_delay, 1000000);
    EXPECT_EQ(workload.horizon, 200000000);
    EXPECT_EQ(
        workload.neuron,
        (Kernel::Neuron{10000000, 100000000, 2000000, 0.5, 0.0, 0.0, 1e-15, true, false, {}}));
    EXPECT_EQ(workload.firing, (Kernel::Firing{5.0, 2.0, 0.0, 1.0, 1.0, 1000000.0, false, {}}));
    ASSERT_EQ(workload.synapses.size(), 1600000U);
    // Computed by hand from 131 + 7 * source + 131 * place, modulo 100000.
    using Edge = std::tuple<std::size_t, NodeId, NodeId>;
    for (const auto& [edge, source, target] :
         {Edge{0, 0, 131}, Edge{15, 0, 2096}, Edge{16, 1, 138}, Edge{1599984, 99999, 124},
          Edge{1599999, 99999, 2089}}) {
        const Synapse& synapse = workload.synapses[edge];
        EXPECT_EQ(std::tuple(edge, synapse.source, synapse.target),
                  std::tuple(edge, source, target));
        EXPECT_EQ(std::tuple(synapse.weight, synapse.delay), std::tuple(0.02F, 1000000));
    }
}

TEST(BenchmarkWorkload, RefusesMoreSynapsesThanAListCanHold) {
    BenchmarkScale scale;
    // 16 times this wraps to 16.
    scale.neuron_count = std::numeric_limits<std::uint64_t>::max() / 16 + 2;
    Testing::expectThrows<std::length_error>(
        [&] { buildBenchmarkWorkload(scale); },
        "the benchmark network has more synapses than a list can hold");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
