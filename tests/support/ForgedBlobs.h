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
/// byte behind the end, and to be as it was then. At last it takes `sound` itself. Bytes of any
/// kind are the fuzzers'.
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
    expectRefused(withValueAt(sound, 0, ~std::uint64_t{0}), "another tag");
    EXPECT_TRUE(object.restore(sound)) << "the forgeries fail for what was forged";
    EXPECT_EQ(object.snapshot(), sound);
}

}  // namespace Lumenar::Core::Kelm::Testing
