#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <type_traits>

namespace Lumenar::Core::Kelm::Testing {

/// Equality of two lists of records, byte for byte with their gaps.
template <class Record>
::testing::AssertionResult sameImages(std::span<const Record> actual,
                                      std::span<const Record> expected) {
    static_assert(std::is_trivially_copyable_v<Record>);
    const auto a = std::as_bytes(actual);
    const auto b = std::as_bytes(expected);
    const auto same = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
    const auto at = static_cast<std::size_t>(same);
    if (at == a.size() && at == b.size()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << actual.size() << " records for " << expected.size() << ", equal up to record "
           << at / sizeof(Record) << ", offset " << at % sizeof(Record);
}

}  // namespace Lumenar::Core::Kelm::Testing
