#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>

#include "kelm/core/IRankGroup.h"

namespace Lumenar::Core::Kelm::Testing {

/// A call of a rank group that another rank will not join, because it has returned or thrown.
class RankLost : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Threads of this process as the ranks of a group.
///
/// A view from an earlier call points to freed memory, so that AddressSanitizer sees its use.
class ThreadRanks {
public:
    explicit ThreadRanks(std::uint32_t size) : size_(size) {}

    /// Calls `body` once for each rank, on threads of their own, and returns when all have
    /// returned. Rethrows the exception of the lowest rank, and a RankLost only if all exceptions
    /// are RankLost.
    void run(const std::function<void(IRankGroup&)>& body) const;

private:
    std::uint32_t size_;
};

}  // namespace Lumenar::Core::Kelm::Testing
