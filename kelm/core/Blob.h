#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <vector>

// The encoding of state as bytes: fields follow one another, little-endian, without gaps, names or
// checksum. The first eight bytes are a tag, which names the class and the version of its format.

namespace Lumenar::Core::Kelm {

static_assert(std::endian::native == std::endian::little,
              "blobs hold memory images, which are little-endian");

/// The bytes of a snapshot.
using Blob = std::vector<std::uint8_t>;

/// A view of bytes of a blob.
using BlobView = std::span<const std::uint8_t>;

/// An eight-byte tag.
struct BlobTag {
    /// Takes up to eight characters and pads them with zeros.
    template <std::size_t size>
    explicit constexpr BlobTag(const char (&text)[size]) {
        static_assert(size <= 9, "a tag holds eight bytes");
        std::copy_n(text, size - 1, bytes);
    }
    char bytes[8] = {};
};

inline void appendBytes(Blob& blob, const void* bytes, std::size_t length) {
    if (length == 0) return;
    const std::size_t end = blob.size();
    blob.resize(end + length);
    std::memcpy(blob.data() + end, bytes, length);
}
inline void appendTag(Blob& blob, const BlobTag& tag) { appendBytes(blob, tag.bytes, 8); }
inline void appendU8(Blob& blob, std::uint8_t value) { blob.push_back(value); }
inline void appendFlag(Blob& blob, bool value) { blob.push_back(value ? 1 : 0); }
inline void appendU32(Blob& blob, std::uint32_t value) { appendBytes(blob, &value, 4); }
inline void appendU64(Blob& blob, std::uint64_t value) { appendBytes(blob, &value, 8); }
inline void appendI64(Blob& blob, std::int64_t value) { appendBytes(blob, &value, 8); }
inline void appendF32(Blob& blob, float value) { appendBytes(blob, &value, 4); }
inline void appendF64(Blob& blob, double value) { appendBytes(blob, &value, 8); }

/// A record, byte for byte, with its gaps.
template <class Record>
void appendImage(Blob& blob, const Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    appendBytes(blob, &record, sizeof(Record));
}

/// Records, without a count.
template <class Record>
void appendImages(Blob& blob, std::span<const Record> records) {
    static_assert(std::is_trivially_copyable_v<Record>);
    appendBytes(blob, records.data(), records.size_bytes());
}
/// A sequence: a 64-bit count, then that many records.
template <class Record>
void appendSequence(Blob& blob, std::span<const Record> records) {
    appendU64(blob, records.size());
    appendImages(blob, records);
}
template <class Record, class Allocator>
void appendSequence(Blob& blob, const std::vector<Record, Allocator>& records) {
    appendSequence(blob, std::span<const Record>(records));
}
/// A blob inside a blob: a 64-bit length, then the bytes.
inline void appendNested(Blob& blob, BlobView inner) {
    appendU64(blob, inner.size());
    appendBytes(blob, inner.data(), inner.size());
}

/// Reads the fields of a blob in order. A read that does not fit returns false and does not move
/// the cursor. The reader does not own the bytes.
class BlobReader {
public:
    explicit BlobReader(BlobView bytes) : bytes_(bytes) {}

    std::size_t remaining() const { return bytes_.size() - cursor_; }
    bool atEnd() const { return cursor_ == bytes_.size(); }

    /// Reads this tag. False for any other bytes.
    [[nodiscard]] bool expectTag(const BlobTag& tag) {
        if (remaining() < 8 || std::memcmp(bytes_.data() + cursor_, tag.bytes, 8) != 0) {
            return false;
        }
        cursor_ += 8;
        return true;
    }
    [[nodiscard]] bool readU8(std::uint8_t& value) { return read(&value, 1); }
    [[nodiscard]] bool readU32(std::uint32_t& value) { return read(&value, 4); }
    [[nodiscard]] bool readU64(std::uint64_t& value) { return read(&value, 8); }
    [[nodiscard]] bool readI64(std::int64_t& value) { return read(&value, 8); }
    [[nodiscard]] bool readF32(float& value) { return read(&value, 4); }
    [[nodiscard]] bool readF64(double& value) { return read(&value, 8); }
    /// Reads a byte that must be 0 or 1.
    [[nodiscard]] bool readFlag(bool& value) {
        if (remaining() < 1 || bytes_[cursor_] > 1) return false;
        value = bytes_[cursor_] != 0;
        ++cursor_;
        return true;
    }
    /// Reads `length` bytes as a view into the blob.
    [[nodiscard]] bool readView(std::uint64_t length, BlobView& view) {
        if (length > remaining()) return false;
        view = bytes_.subspan(cursor_, static_cast<std::size_t>(length));
        cursor_ += view.size();
        return true;
    }
    /// Reads a blob inside the blob, as appendNested writes it.
    [[nodiscard]] bool readNested(BlobView& inner) {
        const std::size_t before = cursor_;
        std::uint64_t length = 0;
        if (readU64(length) && readView(length, inner)) return true;
        cursor_ = before;
        return false;
    }
    /// Reads a record with its gaps. Neither is checked.
    template <class Record>
    [[nodiscard]] bool readImage(Record& record) {
        static_assert(std::is_trivially_copyable_v<Record>);
        return read(&record, sizeof(Record));
    }
    /// Reads `count` records. False, before memory is allocated, for a count that the remaining
    /// bytes cannot hold.
    template <class Record, class Allocator>
    [[nodiscard]] bool readImages(std::uint64_t count, std::vector<Record, Allocator>& records) {
        static_assert(std::is_trivially_copyable_v<Record>);
        if (count > remaining() / sizeof(Record)) return false;
        records.resize(static_cast<std::size_t>(count));
        return count == 0 || read(records.data(), records.size() * sizeof(Record));
    }
    /// Reads a sequence of records, as appendSequence writes it. False as above. The gaps are read
    /// as they are; the caller clears them.
    template <class Record, class Allocator>
    [[nodiscard]] bool readSequence(std::vector<Record, Allocator>& records) {
        const std::size_t before = cursor_;
        std::uint64_t count = 0;
        if (readU64(count) && readImages(count, records)) return true;
        cursor_ = before;
        return false;
    }
    /// Reads a 64-bit count of items of at least `item_bytes` each. False for a count that the
    /// remaining bytes cannot hold, so the caller may allocate memory for it.
    [[nodiscard]] bool readCount(std::size_t item_bytes, std::uint64_t& count) {
        const std::size_t before = cursor_;
        if (readU64(count) && count <= remaining() / item_bytes) return true;
        cursor_ = before;
        return false;
    }

private:
    bool read(void* value, std::size_t width) {
        if (remaining() < width) return false;
        std::memcpy(value, bytes_.data() + cursor_, width);
        cursor_ += width;
        return true;
    }

    BlobView bytes_;
    std::size_t cursor_ = 0;
};

}  // namespace Lumenar::Core::Kelm
