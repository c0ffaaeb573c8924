#include "kelm/core/ModelTime.h"

#include <gtest/gtest.h>

#include <optional>

#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

TEST(ModelTime, AddsUpToTheEndsOfItsRangeAndThrowsBeyond) {
    constexpr ModelTime last = 9223372036854775807;
    constexpr ModelTime first = -last - 1;
    struct Case {
        const char* fact;
        ModelTime time, duration;
        std::optional<ModelTime> sum;
    };
    for (const Case& c : {
             Case{"an ordinary sum", 1'500'000, 2'000'000, 3'500'000},
             Case{"nothing added at the end", last, 0, last},
             Case{"the last sum that fits", last - 1, 1, last},
             Case{"one past the end", last, 1, std::nullopt},
             Case{"a negative duration at the upper end", last, -1, last - 1},
             Case{"the whole range downward", last, first, -1},
             Case{"the least sum that fits", first + 1, -1, first},
             Case{"one before the beginning", first, -1, std::nullopt},
             Case{"a positive duration at the lower end", first, 1, first + 1},
         }) {
        SCOPED_TRACE(c.fact);
        const auto sum = [&] { return addTime(c.time, c.duration); };
        if (c.sum) {
            EXPECT_EQ(sum(), *c.sum);
        } else {
            Testing::expectThrows<TimeOverflow>(sum, "KELM model time overflow");
        }
    }
}

TEST(ModelTime, AWindowHoldsTheInstantAtWhichItStartsAndNotItsEnd) {
    constexpr ModelTime d_min = 1'000'000;
    EXPECT_EQ(windowIndex(999'999, d_min), 0);
    EXPECT_EQ(windowIndex(1'000'000, d_min), 1);
    EXPECT_EQ(windowIndex(9223372036854775807, 1), 9223372036854775807);
    EXPECT_EQ(windowIndex(-1, d_min), 0) << "the division truncates toward zero";
}

}  // namespace Lumenar::Core::Kelm
