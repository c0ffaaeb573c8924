#pragma once

#include <cstddef>
#include <cstdint>

namespace Lumenar::Core::Kelm {

/// Unused bytes between two fields of a record, or after its last one. They are always zero, so
/// equal records have equal bytes.
///
/// No value converts to a gap, so a list of values in braces that leaves the gap out does not
/// compile. Write `{}` for the gap, or name the fields.
template <std::size_t size>
class Gap {
public:
    friend constexpr bool operator==(const Gap&, const Gap&) = default;

private:
    std::uint8_t bytes_[size] = {};
};

/// Zeroes the gap of a record that was read or that a caller has passed.
template <std::size_t size>
constexpr void clearGap(Gap<size>& gap) {
    gap = {};
}

}  // namespace Lumenar::Core::Kelm
