#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"

namespace Lumenar::Core::Kelm::Testing {

/// The images of the values, one behind the other.
template <class... Values>
Blob blobOf(const Values&... values) {
    static_assert((std::is_trivially_copyable_v<Values> && ...));
    Blob blob;
    (appendBytes(blob, &values, sizeof(values)), ...);
    return blob;
}

/// The bytes with those at `offset` replaced by the image of `value`.
template <class Value>
Blob withValueAt(Blob blob, std::size_t offset, Value value) {
    static_assert(std::is_trivially_copyable_v<Value>);
    std::memcpy(blob.data() + offset, &value, sizeof(value));
    return blob;
}

/// Expects `object` to refuse each of the forgeries, every truncation of `sound`, another tag and a
/// byte behind the end, and to be as it was then. Wherever a bit is changed, or eight bytes become
/// a count without end, it takes all of the blob or nothing. At last it takes `sound` itself.
template <class Object>
void expectTakesAllOrNothing(Object& object, const Blob& sound,
                             const std::vector<std::pair<std::string, Blob>>& forgeries) {
    const Blob before = object.snapshot();
    const auto expectRefused = [&](BlobView blob, const std::string& fact) {
        EXPECT_FALSE(object.restore(blob)) << fact;
        EXPECT_EQ(object.snapshot(), before) << fact;
    };
    for (const auto& [fact, blob] : forgeries) expectRefused(blob, fact);
    for (std::size_t length = 0; length < sound.size(); ++length) {
        expectRefused(BlobView(sound).first(length), "cut to " + std::to_string(length));
    }
    Blob longer = sound;
    longer.push_back(0);
    expectRefused(longer, "a byte behind the end");
    for (std::size_t offset = 0; offset < sound.size(); ++offset) {
        const std::size_t width = std::min<std::size_t>(8, sound.size() - offset);
        for (int change = 0; change <= 8; ++change) {
            SCOPED_TRACE("offset " + std::to_string(offset) + ", change " + std::to_string(change));
            Blob changed = sound;
            if (change < 8) changed[offset] ^= static_cast<std::uint8_t>(1 << change);
            if (change == 8) std::memset(changed.data() + offset, 0xff, width);
            Object other = object;
            Object again = object;
            const bool taken = other.restore(changed);
            ASSERT_FALSE(taken && offset < 8) << "another tag";
            ASSERT_TRUE(!taken || again.restore(other.snapshot()));
            ASSERT_EQ(other.snapshot(), taken ? again.snapshot() : before);
        }
    }
    EXPECT_TRUE(object.restore(sound)) << "the forgeries fail for what was forged";
    EXPECT_EQ(object.snapshot(), sound);
}

}  // namespace Lumenar::Core::Kelm::Testing
