#include "tests/ranks/ThreadRanks.h"

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Lumenar::Core::Kelm::Testing {

namespace {

/// What a rank gives to a call: one blob for all ranks, or one for each.
using Contribution = std::vector<Blob>;

/// One call of all ranks.
struct Round {
    explicit Round(std::size_t ranks) : contributions(ranks) {}

    bool complete() const { return arrived == contributions.size(); }

    std::vector<Contribution> contributions;  ///< by rank; constant once the round is complete
    std::size_t arrived = 0;
};

class Meeting {
public:
    explicit Meeting(std::uint32_t ranks) : round_(std::make_shared<Round>(ranks)) {}

    /// Returns the contributions of all ranks. Throws RankLost if one of them has left.
    std::shared_ptr<const Round> join(std::uint32_t rank, Contribution own) {
        std::unique_lock lock(mutex_);
        const std::shared_ptr<Round> round = round_;
        const auto requireAll = [&] {
            if (!round->complete() && left_) {
                throw RankLost("rank " + std::to_string(*left_) + " has left the group");
            }
        };
        requireAll();
        const std::size_t ranks = round->contributions.size();
        round->contributions[rank] = std::move(own);
        ++round->arrived;
        if (round->complete()) {
            round_ = std::make_shared<Round>(ranks);
            changed_.notify_all();
        }
        changed_.wait(lock, [&] { return round->complete() || left_; });
        requireAll();
        return round;
    }

    /// A rank makes no more calls.
    void leave(std::uint32_t rank) {
        const std::lock_guard lock(mutex_);
        if (!left_) left_ = rank;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<Round> round_;       ///< the round that is not complete
    std::optional<std::uint32_t> left_;  ///< the first rank that has left
};

class ThreadRank final : public IRankGroup {
public:
    ThreadRank(std::uint32_t rank, std::uint32_t size, Meeting& meeting)
        : rank_(rank), size_(size), meeting_(meeting) {}

    std::uint32_t rank() const override { return rank_; }
    std::uint32_t size() const override { return size_; }

private:
    std::span<const BlobView> shareBytes(BlobView own) override {
        return receive([&] { return Contribution(1, {own.begin(), own.end()}); });
    }
    std::span<const BlobView> collectBytes(BlobView own) override {
        const auto all = shareBytes(own);
        return rank_ == 0 ? all : std::span<const BlobView>();
    }
    std::span<const BlobView> swapBytes(std::span<const Blob> outgoing) override {
        if (outgoing.size() != size_) throw std::logic_error("swap needs a blob for each rank");
        return receive([&] { return Contribution(outgoing.begin(), outgoing.end()); });
    }

    template <class Copy>
    std::span<const BlobView> receive(Copy&& copy) {
        // First, so that AddressSanitizer sees the use of a view of an earlier call here, too.
        views_.clear();
        received_ = {};
        const auto round = meeting_.join(rank_, copy());
        for (const Contribution& other : round->contributions) {
            // Copies, because each rank frees its views at a time of its own.
            received_.push_back(other[other.size() == 1 ? 0 : rank_]);
        }
        for (const Blob& blob : received_) views_.push_back(blob);
        return views_;
    }

    std::uint32_t rank_;
    std::uint32_t size_;
    Meeting& meeting_;
    std::vector<Blob> received_;
    std::vector<BlobView> views_;
};

bool isRankLost(const std::exception_ptr& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (const RankLost&) {
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace

void ThreadRanks::run(const std::function<void(IRankGroup&)>& body) const {
    Meeting meeting(size_);
    std::vector<std::exception_ptr> thrown(size_);
    std::vector<std::thread> threads;
    for (std::uint32_t rank = 0; rank < size_; ++rank) {
        threads.emplace_back([&, rank] {
            ThreadRank group(rank, size_, meeting);
            try {
                body(group);
            } catch (...) {
                thrown[rank] = std::current_exception();
            }
            meeting.leave(rank);
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::exception_ptr first;
    for (const std::exception_ptr& other : thrown) {
        if (other && (!first || (isRankLost(first) && !isRankLost(other)))) first = other;
    }
    if (first) std::rethrow_exception(first);
}

}  // namespace Lumenar::Core::Kelm::Testing
