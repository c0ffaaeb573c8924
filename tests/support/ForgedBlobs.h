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
#include "kelm/core/Gap.h"

namespace Lumenar::Core::Kelm::Testing {

/// The images of the values, one after the other.
template <class... Values>
Blob blobOf(const Values&... values) {
    static_assert((std::is_trivially_copyable_v<Values> && ...));
    Blob blob;
    (appendBytes(blob, &values, sizeof(values)), ...);
    return blob;
}

/// A copy of the bytes, with the image of `value` at `offset`.
template <class Value>
Blob withValueAt(Blob blob, std::size_t offset, Value value) {
    static_assert(std::is_trivially_copyable_v<Value>);
    std::memcpy(blob.data() + offset, &value, sizeof(value));
    return blob;
}

/// Puts into a gap what only bytes from outside can put there.
template <std::size_t size>
void fillGap(Gap<size>& gap, std::uint8_t byte) {
    std::memset(static_cast<void*>(&gap), byte, size);
}

/// Expects `object` to refuse each of the forgeries, every truncation of `sound`, another tag and a
/// byte after the end, and to stay as it was. It must then accept `sound` itself. The fuzzers test
/// arbitrary bytes.
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
    expectRefused(longer, "an extra byte at the end");
    expectRefused(withValueAt(sound, 0, ~std::uint64_t{0}), "another tag");
    EXPECT_TRUE(object.restore(sound)) << "without a forgery the bytes are valid";
    EXPECT_EQ(object.snapshot(), sound);
}

}  // namespace Lumenar::Core::Kelm::Testing
