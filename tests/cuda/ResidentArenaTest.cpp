#include "kelm/cuda/ResidentArena.h"

#include <gtest/gtest.h>

#include <vector>

namespace Lumenar::Core::Kelm {

namespace {

std::vector<std::uint64_t> offsetsOf(const ResidentArena& arena) {
    return {arena.csr_targets,    arena.csr_values,    arena.device_states,  arena.device_random,
            arena.pending_times,  arena.pending_rates, arena.device_results, arena.fanout_counts,
            arena.fanout_offsets, arena.target_counts, arena.target_offsets, arena.target_cursors,
            arena.total_spikes,   arena.window_spikes, arena.fire_log,       arena.fire_overflow,
            arena.metrics,        arena.window_events, arena.first_bucket,   arena.second_bucket,
            arena.bytes};
}

// Offsets added up by hand from the records' sizes: 40 bytes a state, 152 a result, 16 a spike, 24
// an event and 48 an arrival.
TEST(ResidentArena, LaysItsSectionsOneBehindTheOther) {
    struct Case {
        std::uint64_t node_count, fanout, arrival_capacity, fire_capacity;
        std::vector<std::uint64_t> offsets;
    };
    for (const Case& c : {
             Case{1, 1, 1, 8, {0,   8,   16,  56,  64,  72,  80,  232, 240, 248, 256,
                               264, 272, 280, 288, 416, 424, 456, 480, 528, 576}},
             // An odd number of edges: half of it is rounded down.
             Case{3, 5, 10, 24, {0,   120,  240,  360,  384,  408,  432,  888,  912,  936, 960,
                                 984, 1008, 1016, 1024, 1408, 1416, 1448, 1688, 2168, 2648}},
             Case{7, 2, 14, 56, {0,    112,  224,  504,  560,  616,  672,  1736, 1792, 1848, 1904,
                                 1960, 2016, 2024, 2032, 2928, 2936, 2968, 3304, 3976, 4648}},
         }) {
        SCOPED_TRACE(testing::Message() << c.node_count << " neurons of fan-out " << c.fanout);
        const auto arena = ResidentArena::of(c.node_count, c.fanout);
        ASSERT_TRUE(arena.has_value());
        EXPECT_EQ(arena->arrival_capacity, c.arrival_capacity);
        EXPECT_EQ(arena->fire_capacity, c.fire_capacity);
        EXPECT_EQ(offsetsOf(*arena), c.offsets);
        for (const std::uint64_t offset : offsetsOf(*arena)) EXPECT_EQ(offset % 8, 0);
    }
}

TEST(ResidentArena, HasNoLayoutBeyondSixtyFourBits) {
    EXPECT_TRUE(ResidentArena::of(1 << 20, 1 << 10).has_value());
    EXPECT_FALSE(ResidentArena::of(std::uint64_t{1} << 32, std::uint64_t{1} << 32).has_value());
    EXPECT_FALSE(ResidentArena::of(std::uint64_t{1} << 61, 1).has_value());
    EXPECT_FALSE(ResidentArena::of(1, std::uint64_t{1} << 61).has_value());
    EXPECT_FALSE(ResidentArena::of(~std::uint64_t{0}, ~std::uint64_t{0}).has_value());
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
