#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <type_traits>

namespace Lumenar::Core::Kelm::Testing {

/// Equality of two lists of records, byte for byte with their gaps.
template <class Record>
::testing::AssertionResult sameImages(std::span<const Record> actual,
                                      std::span<const Record> expected) {
    static_assert(std::is_trivially_copyable_v<Record>);
    if (actual.size() != expected.size()) {
        return ::testing::AssertionFailure()
               << actual.size() << " records instead of " << expected.size();
    }
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const auto* a = reinterpret_cast<const std::uint8_t*>(&actual[i]);
        const auto* b = reinterpret_cast<const std::uint8_t*>(&expected[i]);
        const auto [at, other] = std::mismatch(a, a + sizeof(Record), b);
        if (at == a + sizeof(Record)) continue;
        return ::testing::AssertionFailure() << "record " << i << " differs at offset " << at - a
                                             << ": " << +*at << " instead of " << +*other;
    }
    return ::testing::AssertionSuccess();
}

}  // namespace Lumenar::Core::Kelm::Testing
