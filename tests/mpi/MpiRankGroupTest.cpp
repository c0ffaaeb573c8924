// Runs on all ranks of a job at once: `mpiexec -n 3 kelm-mpi-tests 3`.

#include "kelm/mpi/MpiRankGroup.h"

#include <gtest/gtest.h>
#include <mpi.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "kelm/mpi/MpiCommunicator.h"
#include "kelm/mpi/MpiProcess.h"
#include "kelm/mpi/RankBuild.h"
#include "kelm/mpi/SlotCapacity.h"
#include "tests/ranks/ExpectExchanges.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(MpiRankGroup, ExchangesBytes) {
    MpiRankGroup group = MpiRankGroup::world();
    expectExchanges(group, 1, 80, 100'000);
}

TEST(MpiRankGroup, SplitsLongContributions) {
    // Every contribution of more than 1000 bytes goes in pieces.
    for (const std::size_t limit : {0UL, MpiRankGroup::max_message_bytes + 1}) {
        expectThrows<std::invalid_argument>([&] { MpiRankGroup::world(0, limit); },
                                            "a message limit must be in [1, 2147483647]");
    }
    MpiRankGroup group = MpiRankGroup::world(0, 1000);
    group.share(Blob(group.rank() == 0 ? 5055 : 0));
    EXPECT_EQ(group.statistics().collectives, 6U) << "56 bytes in the slot, and five pieces";
    expectExchanges(group, 2, 50, 20'000);
}

TEST(MpiRankGroup, WorksOnACommunicatorOfTheCaller) {
    int world_rank = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &world_rank);
    MpiCommunicator half;
    MPI_Comm_split(MPI_COMM_WORLD, world_rank % 2, -world_rank, &half.handle);
    {
        MpiRankGroup group(half);
        // Both groups at once.
        MpiRankGroup all = MpiRankGroup::world();
        for (std::uint64_t i = 0; i < 5; ++i) {
            expectExchanges(group, i, 5, 1000);
            expectExchanges(all, i, 5, 1000);
        }
    }
    MPI_Comm_free(&half.handle);
}

TEST(MpiRankGroup, SharesInOneCollectiveOnceTheSlotsHaveGrown) {
    MpiRankGroup group = MpiRankGroup::world();
    /// Collectives of `count` shares of up to `bytes` bytes, of which the last rank sends all.
    const auto collectives = [&](std::size_t bytes, int count) {
        const std::uint64_t before = group.statistics().collectives;
        const Blob blob(group.rank() + 1 == group.size() ? bytes : 0);
        for (int i = 0; i < count; ++i) group.share(blob);
        return group.statistics().collectives - before;
    };
    EXPECT_EQ(collectives(55, 2), 2U);
    EXPECT_EQ(collectives(56, 1), 2U);
    EXPECT_EQ(collectives(119, 2), 2U) << "a slot of 128 bytes with length and flag";
    EXPECT_EQ(collectives(1'000'000, 2), 4U) << "too long for slots";
    EXPECT_EQ(collectives(119, 1), 1U);
    EXPECT_EQ(collectives(0, 2 * SlotCapacity::period), 2U * SlotCapacity::period);
    const std::uint64_t sent = group.statistics().sent_bytes;
    group.share({});
    EXPECT_EQ(group.statistics().sent_bytes - sent, 64U) << "the slots have shrunk";
}

TEST(MpiRankGroup, RefusesRanksThatDiffer) {
    int last = 0;
    int rank = 0;
    MPI_Comm_size(MPI_COMM_WORLD, &last);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    --last;
    if (last == 0) return;  // one rank differs from nothing
    const std::string name = "rank " + std::to_string(last);
    const bool differs = rank == last;
    expectThrows<std::runtime_error>(
        [&] { MpiRankGroup::world(differs ? 0xabc : 1); },
        name + " has model fingerprint 0000000000000abc, and rank 0 has 0000000000000001");
    expectThrows<std::runtime_error>([&] { MpiRankGroup::world(0, differs ? 10 : 20); },
                                     name + " has message limit 10, and rank 0 has 20");
    MpiRankGroup group = MpiRankGroup::world();
    expectExchanges(group, 3, 3, 100);
}

TEST(RankBuild, NamesTheFirstDifference) {
    RankBuild builds[] = {thisBuild(1, 2), thisBuild(1, 2), thisBuild(5, 2)};
    EXPECT_EQ(differenceOf({builds, 2}), "");
    EXPECT_EQ(differenceOf(builds),
              "rank 2 has model fingerprint 0000000000000005, and rank 0 has "
              "0000000000000001");
    std::strcpy(builds[0].version, "1.5");
    std::strcpy(builds[1].version, "1.6");
    EXPECT_EQ(differenceOf(builds), "rank 1 has kelm version 1.6, and rank 0 has 1.5");
    builds[1].byte_order = 0x0807060504030201;
    EXPECT_EQ(differenceOf(builds),
              "rank 1 has byte order 0807060504030201, and rank 0 has 0102030405060708");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

/// Takes the number of ranks as an argument: if mpiexec is of another MPI, each rank is alone.
int main(int argc, char** argv) {
    const Lumenar::Core::Kelm::MpiProcess process;
    int size = 0;
    int rank = 0;
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    if (rank != 0) GTEST_FLAG_SET(brief, true);
    testing::InitGoogleTest(&argc, argv);
    if (argc != 2 || size != std::atoi(argv[1])) {
        std::fprintf(stderr, "usage: mpiexec -n RANKS kelm-mpi-tests RANKS; this job has %d\n",
                     size);
        return 2;
    }
    return RUN_ALL_TESTS();
}
