#include "kelm/core/Digest.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Lumenar::Core::Kelm {

// The values of texts were computed with the digest of scripts/reference/kernel.py.
TEST(Digest, GivesTheValuesOfAnotherImplementation) {
    static_assert(digest("") == 1469598103934665603u);
    EXPECT_EQ(digest(std::vector<std::uint8_t>{}), 1469598103934665603u);
    EXPECT_EQ(digest("spontaneous"), 0x607457971493d7d0u);
    EXPECT_EQ(digest("stimulus"), 0xc9afb507b9b177c7u);
    // (0x14650fb0739d0383 ^ 0) * 0x100000001b3 modulo 2^64: a zero byte counts.
    EXPECT_EQ(digest(std::vector<std::uint8_t>{0}), 0x44bd2bd473ccf799u);
    EXPECT_EQ(digestByte(digest("spontaneou"), 's'), 0x607457971493d7d0u);
}

TEST(Digest, SeesATextAndARecordAsTheirUnsignedBytes) {
    const std::array<std::int64_t, 2> records{-2, 0x0102030405060708};
    const std::vector<std::uint8_t> bytes{0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                          0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
    EXPECT_EQ(digestImages(std::span<const std::int64_t>(records)), digest(bytes));
    EXPECT_EQ(digest(std::string(bytes.begin(), bytes.end())), digest(bytes));
}

}  // namespace Lumenar::Core::Kelm
