#include "kelm/network/SynapseTable.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <vector>

namespace Lumenar::Core::Kelm {

namespace {

constexpr NodeId wide_node = std::uint64_t{1} << 32;
constexpr ModelTime long_delay = ModelTime{1} << 61;

bool sameSynapse(const Synapse& a, const Synapse& b) {
    return a.source == b.source && a.target == b.target &&
           std::bit_cast<std::uint32_t>(a.weight) == std::bit_cast<std::uint32_t>(b.weight) &&
           a.delay == b.delay && a.inhibitory == b.inhibitory && a.reserved_a == b.reserved_a &&
           a.reserved_b == b.reserved_b && a.last_change == b.last_change &&
           a.enabled == b.enabled && a.reserved_c == b.reserved_c && a.reserved_d == b.reserved_d;
}

/// Synapses at both sides of every limit of the compact columns.
std::vector<Synapse> limitSynapses() {
    Synapse compact;
    compact.source = wide_node - 1;
    compact.target = wide_node - 1;
    compact.delay = long_delay - 1;
    compact.weight = -0.0F;
    std::vector<Synapse> synapses(10, compact);
    synapses[1].source = wide_node;
    synapses[2].target = 0xffffffffffffffff;
    synapses[3].delay = long_delay;
    synapses[4].delay = last_model_time;
    synapses[5].reserved_a = 1;
    synapses[6].reserved_b = -1;
    synapses[7].reserved_c = 0;
    synapses[8].reserved_d = 7;
    synapses[9].last_change = -3;
    for (std::size_t i = 0; i < synapses.size(); ++i) {
        synapses[i].inhibitory = i % 2 == 0;
        synapses[i].enabled = i % 3 != 0;
    }
    return synapses;
}

}  // namespace

TEST(SynapseTable, ReturnsEverySynapseUnchangedInAnyOrder) {
    const std::vector<Synapse> kinds = limitSynapses();
    for (std::size_t start = 0; start < kinds.size(); ++start) {
        SynapseTable table;
        for (std::size_t i = 0; i < kinds.size(); ++i) {
            const std::size_t kind = (start + i) % kinds.size();
            table.append(kinds[kind], kind % 4 != 0);
            for (std::size_t id = 0; id <= i; ++id) {
                const Synapse& expected = kinds[(start + id) % kinds.size()];
                ASSERT_TRUE(sameSynapse(table[id], expected)) << start << ", " << i << ", " << id;
                ASSERT_EQ(table.source(id), expected.source);
                ASSERT_EQ(table.target(id), expected.target);
                ASSERT_EQ(table.isRouted(id), (start + id) % kinds.size() % 4 != 0);
            }
        }
    }
}

}  // namespace Lumenar::Core::Kelm
