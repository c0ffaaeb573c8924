#pragma once

#include <cstddef>
#include <functional>

namespace Lumenar::Core::Kelm {

class IWindowBackend;

/// Threads on which an engine advances its shards side by side, and a hook divides its work.
class IShardTeam {
public:
    virtual ~IShardTeam() = default;

    /// The most shards that an engine of this many neurons should have, at least 1. So many items,
    /// each as costly as an event of a window, are worth as many parts.
    virtual std::size_t shardsFor(std::size_t neurons) const = 0;
    /// Windows of fewer events are not worth a second thread. With 0 or 1 every window is.
    virtual std::size_t threshold() const = 0;
    /// Computes the parts of shards. Several threads call it at once. Its partItems() is not
    /// whole_window.
    virtual IWindowBackend& backend() = 0;
    /// Calls task(i) for each i below `count`, at most shardsFor, on any thread. Returns when all
    /// calls have returned. The calls see the writes of the caller, and the caller sees theirs.
    /// `task` must not throw, and this does not throw.
    virtual void run(std::size_t count, const std::function<void(std::size_t)>& task) = 0;
};

}  // namespace Lumenar::Core::Kelm
