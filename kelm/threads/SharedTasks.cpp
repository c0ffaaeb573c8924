#include "kelm/threads/SharedTasks.h"

namespace Lumenar::Core::Kelm {

SharedTasks::SharedTasks(std::size_t count, const std::function<void(std::size_t)>& task)
    : task_(task) {
    for (std::size_t i = 0; i < count; ++i) begun_[i].store(false, std::memory_order_relaxed);
    // The thread pool orders these writes too. With this store the order does not depend on it.
    returned_.store(0, std::memory_order_release);
}

void SharedTasks::run(std::size_t i) {
    (void)returned_.load(std::memory_order_acquire);
    if (begun_[i].exchange(true, std::memory_order_relaxed)) return;
    task_(i);
    returned_.fetch_add(1, std::memory_order_release);
}

void SharedTasks::finish() const { (void)returned_.load(std::memory_order_acquire); }

}  // namespace Lumenar::Core::Kelm
