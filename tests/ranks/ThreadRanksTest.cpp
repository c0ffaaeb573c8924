#include "tests/ranks/ThreadRanks.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "tests/ranks/ExpectExchanges.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(ThreadRanks, ExchangeBytes) {
    for (const std::uint32_t size : {1U, 2U, 3U, 7U}) {
        ThreadRanks(size).run([&](IRankGroup& group) {
            ASSERT_EQ(group.size(), size);
            expectExchanges(group, size, 100, 10'000);
        });
    }
}

/// Rank r of three runs body(group, r).
using Body = std::function<void(IRankGroup&, std::uint32_t)>;

/// Expects that the ranks end, and that this is thrown.
template <class Error>
void expectEnd(const Body& body, const std::string& text) {
    expectThrows<Error>([&] { ThreadRanks(3).run([&](IRankGroup& g) { body(g, g.rank()); }); },
                        text);
}

TEST(ThreadRanks, EndWhenARankIsLost) {
    expectEnd<std::logic_error>(
        [](IRankGroup& group, std::uint32_t rank) {
            group.share({});
            if (rank == 2) throw std::logic_error("of rank 2");
            group.share({});
        },
        "of rank 2");
    expectEnd<std::invalid_argument>(
        [](IRankGroup&, std::uint32_t rank) {
            throw std::invalid_argument("of rank " + std::to_string(rank));
        },
        "of rank 0");
    expectEnd<RankLost>(
        [](IRankGroup& group, std::uint32_t rank) {
            group.share({});
            if (rank != 1) group.collect({});
        },
        "rank 1 has left the group");
}

TEST(ThreadRanks, RefuseDifferentCalls) {
    expectEnd<std::logic_error>(
        [](IRankGroup& group, std::uint32_t rank) {
            if (rank == 1) {
                group.collect({});
            } else {
                group.share({});
            }
        },
        "the ranks of a network have made different calls: see rank 1");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
