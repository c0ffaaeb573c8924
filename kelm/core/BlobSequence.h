#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "kelm/core/Blob.h"

namespace Lumenar::Core {

/// A sequence: a 64-bit count, then that many images.
template <class Record>
void appendSequence(Blob& blob, const std::vector<Record>& records) {
    static_assert(std::is_trivially_copyable_v<Record>);
    appendU64(blob, records.size());
    appendBytes(blob, records.data(), records.size() * sizeof(Record));
}

/// Replaces `records` by a sequence. False for one that the remaining bytes cannot hold, before
/// storage is sized. Gaps come in as they stand; a reader that hands the records on clears them.
template <class Record>
[[nodiscard]] bool readSequence(BlobReader& in, std::vector<Record>& records) {
    static_assert(std::is_trivially_copyable_v<Record>);
    std::uint64_t count = 0;
    BlobView images;
    if (!in.readCount(sizeof(Record), count) || !in.readView(count * sizeof(Record), images)) {
        return false;
    }
    records.resize(static_cast<std::size_t>(count));
    if (!images.empty()) std::memcpy(records.data(), images.data(), images.size());
    return true;
}

/// Zeroes a gap of a record that was read.
template <std::size_t size>
void clearGap(std::uint8_t (&gap)[size]) {
    std::memset(gap, 0, size);
}

}  // namespace Lumenar::Core
