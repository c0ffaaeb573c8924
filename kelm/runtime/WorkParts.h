#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <vector>

#include "kelm/core/ShardRanges.h"
#include "kelm/engine/IShardTeam.h"

namespace Lumenar::Core::Kelm {

/// Divides work among the threads of a team. Without a team the calling thread does all of it.
class WorkParts {
public:
    WorkParts() = default;
    /// `team`: borrowed, or null.
    explicit WorkParts(IShardTeam* team) : team_(team) {}

    /// The number of parts for so much work, at least 1. A unit takes about as long as an event of
    /// a window.
    std::size_t countFor(std::uint64_t work) const {
        return team_ == nullptr ? 1 : team_->shardsFor(static_cast<std::size_t>(work));
    }

    /// Calls task(part) for each part below `count`, which is a result of countFor, side by side.
    /// Throws what the first part that fails throws, after all of them have ended.
    template <class Task>
    void run(std::size_t count, Task task) const {
        if (count == 1) return task(std::size_t{0});
        std::vector<std::exception_ptr> failures(count);
        team_->run(count, [&](std::size_t part) {
            try {
                task(part);
            } catch (...) {
                failures[part] = std::current_exception();
            }
        });
        for (const std::exception_ptr& failure : failures) {
            if (failure) std::rethrow_exception(failure);
        }
    }

    /// The same for parts of equal size of items 0 to `items` - 1: calls task(part, first, end).
    template <class Task>
    void runRanges(std::size_t count, std::size_t items, Task task) const {
        const auto parts = static_cast<std::uint32_t>(count);
        run(count, [&](std::size_t part) {
            const auto place = static_cast<std::uint32_t>(part);
            task(part, static_cast<std::size_t>(Kernel::shardBegin(items, parts, place)),
                 static_cast<std::size_t>(Kernel::shardEnd(items, parts, place)));
        });
    }

private:
    IShardTeam* team_ = nullptr;
};

}  // namespace Lumenar::Core::Kelm
