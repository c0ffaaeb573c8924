#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <sstream>
#include <string>
#include <type_traits>

namespace Lumenar::Core::Kelm::Testing {

/// Names the first difference of two lists of records, byte for byte with their gaps: the record,
/// the offset in it, and the word there of either. Empty where there is none.
template <class Record>
std::string differenceOf(std::span<const Record> a, std::span<const Record> b) {
    static_assert(std::is_trivially_copyable_v<Record>);
    const auto x = std::as_bytes(a);
    const auto y = std::as_bytes(b);
    const auto same = std::mismatch(x.begin(), x.end(), y.begin(), y.end()).first - x.begin();
    const auto at = static_cast<std::size_t>(same);
    if (at == x.size() && at == y.size()) return {};
    const auto word = [at](std::span<const std::byte> bytes) {
        std::uint64_t value = 0;
        const std::span<const std::byte> rest = bytes.subspan(at / 8 * 8);
        if (!rest.empty()) std::memcpy(&value, rest.data(), std::min<std::size_t>(8, rest.size()));
        return value;
    };
    std::ostringstream text;
    text << at / sizeof(Record) << ", offset " << at % sizeof(Record) << ": 0x" << std::hex
         << word(x) << " vs 0x" << word(y) << std::dec << " (of " << a.size() << " vs " << b.size()
         << ')';
    return text.str();
}

template <class Record>
::testing::AssertionResult sameImages(std::span<const Record> actual,
                                      std::span<const Record> expected) {
    const std::string difference = differenceOf(actual, expected);
    if (difference.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "record " << difference;
}

}  // namespace Lumenar::Core::Kelm::Testing
