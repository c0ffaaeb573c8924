#include "kelm/core/IRankGroup.h"

#include <algorithm>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include "kelm/core/FailureImage.h"

namespace Lumenar::Core::Kelm {

// So that a rank without memory can say so.
IRankGroup::IRankGroup() { message_.reserve(1); }

std::span<const BlobView> IRankGroup::share(BlobView own) { return send(own, Step::share); }

std::span<const BlobView> IRankGroup::collect(BlobView own) {
    send({}, Step::collect);
    return collectBytes(own);
}

std::span<const BlobView> IRankGroup::swap(std::span<const Blob> outgoing) {
    send({}, Step::swap);
    return swapBytes(outgoing);
}

std::span<const BlobView> IRankGroup::send(BlobView own, Step step) {
    agreed_ = nullptr;  // the ranks have gone on after it
    message_.assign(own.begin(), own.end());
    message_.push_back(static_cast<std::uint8_t>(step));
    views_.resize(size());
    const std::span<const BlobView> all = shareBytes(message_);
    std::optional<std::uint32_t> other;
    for (std::uint32_t r = 0; r < all.size(); ++r) {
        views_[r] = all[r].first(all[r].size() - 1);
        const auto of_rank = static_cast<Step>(all[r].back());
        if (of_rank == Step::fail) throwReceived(views_[r]);
        if (of_rank != step && !other) other = r;
    }
    // No rank goes on: each one has made another call than some other rank.
    if (!other) return views_;
    try {
        refuseCalls(*other);
    } catch (...) {
        agreed_ = std::current_exception();
        throw;
    }
}

void IRankGroup::refuseCalls(std::uint32_t rank) {
    throw std::logic_error("the ranks of a network have made different calls: see rank " +
                           std::to_string(rank));
}

bool IRankGroup::all(bool own) {
    const std::uint8_t flag = own ? 1 : 0;
    return std::ranges::all_of(shareRecord(flag), [](std::uint8_t other) { return other == 1; });
}

std::optional<std::uint32_t> IRankGroup::firstDifferent(BlobView own) {
    const auto others = share(own);
    for (std::uint32_t r = 1; r < others.size(); ++r) {
        if (!std::ranges::equal(others[r], others[0])) return r;
    }
    return std::nullopt;
}

bool IRankGroup::allHave(BlobView own) {
    const std::string_view text(reinterpret_cast<const char*>(own.data()), own.size());
    Blob digest;
    appendU64(digest, std::hash<std::string_view>()(text));
    return !firstDifferent(digest);
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
    constexpr auto step = static_cast<std::uint8_t>(Step::fail);
    try {
        message_ = failureImage(failure);
        message_.push_back(step);
    } catch (const std::bad_alloc&) {
        message_.assign(1, step);
    }
    const std::span<const BlobView> all = shareBytes(message_);
    for (std::uint32_t r = 0; r < rank(); ++r) {
        if (all[r].back() == step) throwReceived(all[r].first(all[r].size() - 1));
    }
    agreed_ = failure;
    std::rethrow_exception(failure);
}

}  // namespace Lumenar::Core::Kelm
