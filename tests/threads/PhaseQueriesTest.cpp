#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

#include "kelm/runtime/OscillatorBank.h"

namespace Lumenar::Core::Kelm {
namespace {

// ThreadSanitizer reports any write of a query.
TEST(PhaseQueries, AnswerTwoThreadsAtOnce) {
    const OscillatorBank bank({{4, 7.25, 0.1, 1.0}});
    const double expected[] = {bank.phaseOf(4, 10), bank.phaseOf(4, 90'000'000)};
    std::atomic<int> started = 0;
    const auto countWrong = [&](std::uint64_t& wrong) {
        ++started;
        while (started < 2) std::this_thread::yield();
        for (int i = 0; i < 100'000; ++i) {
            if (bank.phaseOf(4, i % 2 == 0 ? 10 : 90'000'000) != expected[i % 2]) ++wrong;
        }
    };
    std::uint64_t wrong[2] = {};
    std::thread other(countWrong, std::ref(wrong[1]));
    countWrong(wrong[0]);
    other.join();
    EXPECT_EQ(wrong[0] + wrong[1], 0U);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
