#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Lumenar::Core::Kelm {

/// What a run has done so far. Goes into blobs byte for byte.
struct WindowProfile {
    std::uint64_t windows = 0;     ///< windows committed
    std::uint64_t deliveries = 0;  ///< events taken from the store, candidates included
    std::uint64_t updates = 0;     ///< inputs applied plus candidates evaluated
    std::uint64_t candidates = 0;  ///< candidates evaluated
    std::uint64_t accepted = 0;    ///< candidates accepted as spikes

    friend bool operator==(const WindowProfile&, const WindowProfile&) = default;
};
static_assert(std::is_trivially_copyable_v<WindowProfile> &&
              std::is_standard_layout_v<WindowProfile>);
static_assert(sizeof(WindowProfile) == 40);
static_assert(offsetof(WindowProfile, deliveries) == 8);
static_assert(offsetof(WindowProfile, updates) == 16);
static_assert(offsetof(WindowProfile, candidates) == 24);
static_assert(offsetof(WindowProfile, accepted) == 32);

}  // namespace Lumenar::Core::Kelm
