#pragma once

#include <atomic>
#include <cstddef>
#include <functional>

namespace Lumenar::Core::Kelm {

/// Tasks that several threads run, each task once. run() may be called on several threads at once.
/// A task sees the writes before the constructor, and a thread that calls finish() after the calls
/// of run() have returned sees the writes of the tasks.
class SharedTasks {
public:
    static constexpr std::size_t max_tasks = 1024;

    /// `count`: at most max_tasks. `task` is borrowed.
    SharedTasks(std::size_t count, const std::function<void(std::size_t)>& task);

    /// Runs task `i` unless it was begun before.
    void run(std::size_t i);
    /// Call after every run() has returned.
    void finish() const;

private:
    const std::function<void(std::size_t)>& task_;
    std::atomic<bool> begun_[max_tasks];  ///< those of the tasks are in use
    std::atomic<std::size_t> returned_ = 0;
};

}  // namespace Lumenar::Core::Kelm
