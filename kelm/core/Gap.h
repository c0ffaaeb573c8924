#pragma once

#include <cstddef>
#include <cstdint>

namespace Lumenar::Core::Kelm {

/// The `size` bytes between two fields of a record, or behind its last one. They carry nothing and
/// are always zero, so that equal records have equal bytes.
///
/// No value converts to a gap: a brace initialisation that leaves the gap out does not compile, and
/// so cannot shift the values behind it. Write `{}` in the gap's place, or name the fields.
template <std::size_t size>
class Gap {
public:
    friend constexpr bool operator==(const Gap&, const Gap&) = default;

private:
    std::uint8_t bytes_[size] = {};
};

/// Zeroes the gap of a record whose bytes come from outside.
template <std::size_t size>
constexpr void clearGap(Gap<size>& gap) {
    gap = {};
}

}  // namespace Lumenar::Core::Kelm
