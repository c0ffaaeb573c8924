#include "kelm/core/IRankGroup.h"

#include <algorithm>
#include <new>
#include <utility>

#include "kelm/core/FailureImage.h"

namespace Lumenar::Core::Kelm {

// So that a rank without memory can say so.
IRankGroup::IRankGroup() { message_.reserve(1); }

std::span<const BlobView> IRankGroup::share(BlobView own) {
    agreed_ = nullptr;  // whoever has caught it goes on
    message_.assign(own.begin(), own.end());
    message_.push_back(0);
    views_.resize(size());
    const std::span<const BlobView> all = shareBytes(message_);
    for (std::size_t r = 0; r < all.size(); ++r) {
        views_[r] = all[r].first(all[r].size() - 1);
        if (all[r].back() != 0) throwReceived(views_[r]);
    }
    return views_;
}

std::span<const BlobView> IRankGroup::collect(BlobView own) {
    share({});
    return collectBytes(own);
}

std::span<const BlobView> IRankGroup::swap(std::span<const Blob> outgoing) {
    share({});
    return swapBytes(outgoing);
}

bool IRankGroup::all(bool own) {
    const std::uint8_t flag = own ? 1 : 0;
    const auto flags = share({&flag, 1});
    return std::ranges::all_of(
        flags, [](BlobView other) { return other.size() == 1 && other.front() == 1; });
}

std::optional<std::uint32_t> IRankGroup::firstDifferent(BlobView own) {
    const auto others = share(own);
    for (std::uint32_t r = 1; r < others.size(); ++r) {
        if (!std::ranges::equal(others[r], others[0])) return r;
    }
    return std::nullopt;
}

/// Throws the failure of another rank. `image`: empty from a rank without memory.
void IRankGroup::throwReceived(BlobView image) {
    try {
        if (image.empty()) throw std::bad_alloc();
        throwFailure(image);
    } catch (...) {
        agreed_ = std::current_exception();
        throw;
    }
}

void IRankGroup::fail(const std::exception_ptr& failure) {
    if (failure == agreed_) std::rethrow_exception(failure);
    try {
        message_ = failureImage(failure);
        message_.push_back(1);
    } catch (const std::bad_alloc&) {
        message_.assign(1, 1);
    }
    const std::span<const BlobView> all = shareBytes(message_);
    for (std::uint32_t r = 0; r < rank(); ++r) {
        if (all[r].back() != 0) throwReceived(all[r].first(all[r].size() - 1));
    }
    agreed_ = failure;
    std::rethrow_exception(failure);
}

}  // namespace Lumenar::Core::Kelm
