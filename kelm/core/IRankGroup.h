#pragma once

#include <cstdint>
#include <span>

#include "kelm/core/Blob.h"

namespace Lumenar::Core::Kelm {

/// The processes (ranks) that hold one network together. All ranks make the same calls in the same
/// order; a call returns when the contributions it needs have come. The views that a call returns
/// are valid until the next call. A lost rank ends the program, so no call throws but
/// std::bad_alloc.
class IRankGroup {
public:
    virtual ~IRankGroup() = default;

    /// Number of this rank, and of all ranks.
    virtual std::uint32_t rank() const = 0;
    virtual std::uint32_t size() const = 0;

    /// Sends `own` to all ranks. Returns what each rank has sent, by rank.
    virtual std::span<const BlobView> share(BlobView own) = 0;
    /// Sends `own` to rank 0. Returns there what each rank has sent, by rank; nothing elsewhere.
    virtual std::span<const BlobView> collect(BlobView own) = 0;
    /// Sends outgoing[r] to rank r. Returns what each rank has sent to this one, by rank.
    virtual std::span<const BlobView> swap(std::span<const Blob> outgoing) = 0;
};

}  // namespace Lumenar::Core::Kelm
