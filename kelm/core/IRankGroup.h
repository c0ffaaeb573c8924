#pragma once

#include <cstdint>
#include <cstring>
#include <exception>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"

namespace Lumenar::Core::Kelm {

/// The processes (ranks) that hold one network together. All ranks make the same calls in the same
/// order; a call returns when the contributions it needs have come. The views that a call returns
/// are valid until the next call. A lost rank ends the program.
///
/// A rank that fails between two calls tells the others in the place of its next one, so they do
/// not wait for it: see together().
class IRankGroup {
public:
    IRankGroup();
    virtual ~IRankGroup() = default;

    /// Number of this rank, and of all ranks.
    virtual std::uint32_t rank() const = 0;
    virtual std::uint32_t size() const = 0;

    // If some ranks have failed before one of these three calls, it throws what the lowest of them
    // has thrown. It throws std::logic_error if another rank makes another one of them.

    /// Sends `own` to all ranks. Returns what each rank has sent, by rank.
    std::span<const BlobView> share(BlobView own);
    /// Sends `own` to rank 0. Returns there what each rank has sent, by rank; nothing elsewhere.
    std::span<const BlobView> collect(BlobView own);
    /// Sends outgoing[r] to rank r. Returns what each rank has sent to this one, by rank.
    std::span<const BlobView> swap(std::span<const Blob> outgoing);

    /// Calls task(), which may call the group, on every rank. Returns what it returns. If it throws
    /// on some rank, all ranks throw what the lowest of these has thrown.
    template <class Task>
    std::invoke_result_t<Task> together(Task task) {
        agreed_ = nullptr;
        try {
            if constexpr (std::is_void_v<std::invoke_result_t<Task>>) {
                task();
                send({}, Step::end);
            } else {
                auto result = task();
                send({}, Step::end);
                return result;
            }
        } catch (...) {
            fail(std::current_exception());
        }
    }
    /// share() of one record of each rank. Throws std::logic_error if a rank has sent other bytes.
    template <class Record>
    std::vector<Record> shareRecord(const Record& own) {
        Blob bytes;
        appendImage(bytes, own);
        // What the ranks have agreed on must not fail on one of them afterwards.
        std::vector<Record> all;
        all.reserve(size());
        for (const BlobView from : share(bytes)) {
            if (from.size() != sizeof own) refuseCalls(static_cast<std::uint32_t>(all.size()));
            std::memcpy(&all.emplace_back(), from.data(), sizeof own);
        }
        return all;
    }
    /// Throws the std::logic_error of ranks that have made different calls. `rank`: another one.
    [[noreturn]] static void refuseCalls(std::uint32_t rank);

    /// Whether `own` is true on all ranks.
    bool all(bool own);
    /// The first rank whose bytes differ from those of rank 0.
    std::optional<std::uint32_t> firstDifferent(BlobView own);
    /// Whether all ranks have the same bytes. They may be many: only a digest is sent.
    bool allHave(BlobView own);
    /// Throws the std::logic_error of different calls if a rank has another record than rank 0.
    template <class Record>
    void requireSame(const Record& own) {
        Blob bytes;
        appendImage(bytes, own);
        if (const auto rank = firstDifferent(bytes)) refuseCalls(*rank);
    }

    /// Ends together() of all ranks with `failure`, unless all of them know it already.
    [[noreturn]] void fail(const std::exception_ptr& failure);
    /// All ranks know that `failure` ends what they do together.
    void agreeOn(std::exception_ptr failure) { agreed_ = std::move(failure); }

private:
    // The calls of the same names, without failures. They throw nothing.
    virtual std::span<const BlobView> shareBytes(BlobView own) = 0;
    virtual std::span<const BlobView> collectBytes(BlobView own) = 0;
    virtual std::span<const BlobView> swapBytes(std::span<const Blob> outgoing) = 0;

    /// What a rank does, the last byte of a message.
    enum class Step : std::uint8_t { share, collect, swap, end, fail };

    std::span<const BlobView> send(BlobView own, Step step);
    [[noreturn]] void throwReceived(BlobView image);

    Blob message_;                 ///< to share: bytes, then a Step
    std::vector<BlobView> views_;  ///< of what is shared, without steps
    std::exception_ptr agreed_;    ///< the last failure that all ranks know
};

/// Calls task() together with the other ranks, if there are any.
template <class Task>
std::invoke_result_t<Task> onEachRank(IRankGroup* ranks, Task task) {
    return ranks == nullptr ? task() : ranks->together(std::move(task));
}

}  // namespace Lumenar::Core::Kelm
