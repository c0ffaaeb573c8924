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

}  // namespace Lumenar::Core::Kelm
