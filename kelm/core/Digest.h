#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

namespace Lumenar::Core::Kelm {

/// The digest of no bytes. It differs from the published offset basis of FNV.
inline constexpr std::uint64_t digest_start = 0x14650fb0739d0383;

/// Extends a digest by one byte. Source: FNV-1a, G. Fowler, L. C. Noll, K.-P. Vo, with the 64-bit
/// prime and another start value.
constexpr std::uint64_t digestByte(std::uint64_t hash, std::uint8_t byte) {
    return (hash ^ byte) * 0x100000001b3;
}

/// 64-bit digest of a byte sequence, or of one that continues a sequence with the digest `hash`.
constexpr std::uint64_t digest(std::span<const std::uint8_t> bytes,
                               std::uint64_t hash = digest_start) {
    for (const std::uint8_t byte : bytes) hash = digestByte(hash, byte);
    return hash;
}

/// 64-bit digest of a text's bytes, without a terminator.
constexpr std::uint64_t digest(std::string_view text) {
    std::uint64_t hash = digest_start;
    for (const char c : text) hash = digestByte(hash, static_cast<std::uint8_t>(c));
    return hash;
}

/// 64-bit digest of the bytes of records, which must have no unnamed padding. `hash` as above.
template <class Record>
std::uint64_t digestImages(std::span<const Record> records, std::uint64_t hash = digest_start) {
    static_assert(std::is_trivially_copyable_v<Record>);
    return digest(
        std::span(reinterpret_cast<const std::uint8_t*>(records.data()), records.size_bytes()),
        hash);
}

}  // namespace Lumenar::Core::Kelm
