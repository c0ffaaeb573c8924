#pragma once

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <type_traits>

#include "compare/Difference.h"

namespace Lumenar::Core::Kelm::Testing {

/// Equality of two lists of records byte for byte, gaps included.
template <class Record>
::testing::AssertionResult sameImages(std::span<const Record> actual,
                                      std::span<const Record> expected) {
    static_assert(std::is_trivially_copyable_v<Record>);
    const auto found = Compare::differenceOfBytes("record", std::as_bytes(actual),
                                                  std::as_bytes(expected), sizeof(Record), {});
    if (!found) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << found->place << ": " << found->difference.text();
}

}  // namespace Lumenar::Core::Kelm::Testing
