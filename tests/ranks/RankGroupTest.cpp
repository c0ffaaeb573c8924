#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelm/core/IRankGroup.h"
#include "tests/ranks/ThreadRanks.h"
#include "tests/support/Draws.h"

// What ranks do together, where some of them fail.

namespace Lumenar::Core::Kelm::Testing {

namespace {

/// A random program of exchanges in nested calls of together(), the same on every rank. Each step
/// begins with an exchange, or fails before it.
class Program {
public:
    /// `failing_steps`: by rank; a rank without one completes its steps.
    Program(IRankGroup& group, std::uint64_t seed,
            const std::vector<std::optional<std::uint64_t>>& failing_steps)
        : group_(group), draws_(seed), failing_(failing_steps[group.rank()]) {}

    /// What the rank has caught, and the steps at which it did.
    const std::vector<std::string>& run() {
        for (int i = 0; i < 6; ++i) {
            caught([&] { doTogether(0); });
        }
        return seen_;
    }

private:
    template <class Task>
    void caught(Task task) {
        // A failure leaves the program at different depths, so what follows is drawn anew.
        const std::uint64_t next = draws_.next();
        std::string text = "nothing";
        try {
            task();
        } catch (const std::bad_alloc&) {
            text = "no memory";
        } catch (const std::exception& failure) {
            text = failure.what();
        }
        seen_.push_back(text);
        draws_ = Draws(next);
        step_ = 1000 * ++round_;
    }
    void doTogether(int depth) {
        const int value = group_.together([&] {
            const std::uint64_t count = 1 + draws_.below(4);
            for (std::uint64_t i = 0; i < count; ++i) step(depth);
            return depth + 1;
        });
        EXPECT_EQ(value, depth + 1);
    }
    void step(int depth) {
        const std::uint64_t kind = draws_.below(6);
        if (failing_ == step_++) {
            if (step_ % 5 == 0) throw std::bad_alloc();
            throw std::out_of_range("rank " + std::to_string(group_.rank()));
        }
        if (kind == 0) {
            group_.collect(Blob(draws_.below(9)));
        } else if (kind == 1) {
            group_.swap(std::vector<Blob>(group_.size(), Blob(draws_.below(9))));
        } else {
            for (const BlobView other : group_.share(Blob(kind, 7))) EXPECT_EQ(other.size(), kind);
        }
        if (kind > 3 && depth < 3) doTogether(depth + 1);
        if (kind == 3 && depth < 2) caught([&] { doTogether(depth + 1); });
    }

    IRankGroup& group_;
    Draws draws_;
    std::optional<std::uint64_t> failing_;
    std::uint64_t step_ = 0;
    std::uint64_t round_ = 0;
    std::vector<std::string> seen_;
};

}  // namespace

TEST(RankGroup, NoticesTheEndOfWhatAnotherRankGoesOnWith) {
    ThreadRanks(2).run([](IRankGroup& group) {
        EXPECT_THROW(group.together([&] {
            if (group.rank() == 1) group.share({});
        }),
                     std::logic_error);
        group.share({});
    });
}

// A callback may keep an exception that all ranks know, and throw it again later.
TEST(RankGroup, AFailureThatIsThrownAgainReachesAllRanks) {
    ThreadRanks(2).run([](IRankGroup& group) {
        std::exception_ptr kept;
        try {
            group.together([&] {
                if (group.rank() == 1) throw std::runtime_error("of rank 1");
            });
        } catch (...) {
            kept = std::current_exception();
        }
        EXPECT_THROW(group.together([&] {
            if (group.rank() == 0) std::rethrow_exception(kept);
        }),
                     std::runtime_error);
    });
}

TEST(RankGroup, AllRanksThrowWhatTheFirstFailureThrows) {
    std::uint64_t failures = 0;
    for (std::uint64_t seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Draws draws(~seed);
        const auto size = static_cast<std::uint32_t>(1 + draws.below(5));
        std::vector<std::optional<std::uint64_t>> failing(size);
        for (std::optional<std::uint64_t>& step : failing) {
            if (draws.oneIn(2)) step = 1000 * draws.below(4) + draws.below(4);
        }
        std::vector<std::vector<std::string>> seen(size);
        ThreadRanks(size).run([&](IRankGroup& group) {
            seen[group.rank()] = Program(group, seed, failing).run();
            group.share({});
        });
        for (const auto& of_rank : seen) EXPECT_EQ(of_rank, seen[0]);
        // The failure of the first round is that of the earliest step, and there of the lowest
        // rank.
        const auto first = std::ranges::min_element(failing, [](const auto& a, const auto& b) {
            return a.value_or(1000) < b.value_or(1000);
        });
        const auto rank = first - failing.begin();
        const std::string expected =
            (first->value_or(1000) + 1) % 5 == 0 ? "no memory" : "rank " + std::to_string(rank);
        if (seen[0].front() == "nothing") continue;
        ++failures;
        EXPECT_EQ(seen[0].front(), expected);
    }
    EXPECT_GT(failures, 50U);
}

}  // namespace Lumenar::Core::Kelm::Testing
