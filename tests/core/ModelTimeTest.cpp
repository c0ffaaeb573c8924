#include "kelm/core/ModelTime.h"

#include <gtest/gtest.h>

#include <optional>

#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

TEST(ModelTime, AddsUpToTheEndsOfItsRangeAndThrowsBeyond) {
    constexpr ModelTime last = 9223372036854775807;
    constexpr ModelTime first = -last - 1;
    struct Case {
        ModelTime time, duration;
        std::optional<ModelTime> sum;
    };
    for (const auto& [time, duration, sum] :
         {Case{1'500'000, 2'000'000, 3'500'000}, Case{last, 0, last}, Case{last - 1, 1, last},
          Case{last, 1, {}}, Case{last, first, -1}, Case{first + 1, -1, first}, Case{first, -1, {}},
          Case{first, 1, first + 1}}) {
        SCOPED_TRACE(testing::Message() << time << " + " << duration);
        const auto add = [t = time, d = duration] { return addTime(t, d); };
        if (sum) {
            EXPECT_EQ(add(), *sum);
        } else {
            Testing::expectThrows<TimeOverflow>(add, "KELM model time overflow");
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
