#include "kelm/threads/ThreadedCpuBackend.h"

#include <algorithm>
#include <utility>

#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/lanes/LaneCpuBackend.h"
#include "kelm/threads/SharedTasks.h"
#include "kelm/threads/SharedWindow.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::size_t part_items_per_thread = 512;

std::size_t threadCount(std::uint64_t wanted) {
    if (wanted > ThreadedCpuBackend::max_threads) {
        throw InvalidThreadCount(
            InvalidThreadCount::tooMany(wanted, ThreadedCpuBackend::max_threads));
    }
    // More threads than oneTBB allows would only give a warning on standard error.
    const std::size_t allowed = std::max<std::size_t>(
        tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism), 1);
    return wanted == 0 ? allowed : std::min(static_cast<std::size_t>(wanted), allowed);
}

/// Not inlined, so that a window of few items does not pay for its stack frame.
[[gnu::noinline]] void share(const SharedWindow::Task& task, IWindowBackend& pieces,
                             std::size_t threads, tbb::task_arena& arena) {
    SharedWindow window(task, pieces, threads);
    try {
        // Isolated: the cancellation of an outer task group must not end the window early. Workers
        // get the calling thread's floating-point environment, which the engine has checked,
        // instead of the one in which the arena was made.
        tbb::task_group_context context(tbb::task_group_context::isolated,
                                        tbb::task_group_context::fp_settings);
        arena.execute([&] {
            tbb::parallel_for(
                std::size_t{0}, std::min(threads, task.work.size()),
                [&](std::size_t own) { window.drain(own); }, tbb::simple_partitioner(), context);
        });
    } catch (...) {
        // Pieces do not throw, so oneTBB had no memory for a task. The tasks that had begun have
        // returned. This thread computes the rest.
        window.drain(0);
    }
    window.finish();
}

}  // namespace

struct ThreadedCpuBackend::Arena {
    explicit Arena(std::size_t threads) : arena(static_cast<int>(threads)) { arena.initialize(); }

    tbb::task_arena arena;
};

class ThreadedCpuBackend::Team final : public IShardTeam {
public:
    explicit Team(ThreadedCpuBackend& backend) : backend_(backend) {}

    std::size_t shardsFor(std::size_t neurons) const override {
        const std::size_t worth = neurons / std::max<std::size_t>(backend_.threshold_, 1);
        return std::clamp<std::size_t>(worth, 1, backend_.threads_);
    }
    std::size_t threshold() const override { return backend_.threshold_; }
    IWindowBackend& backend() override { return *backend_.pieces_; }
    void run(std::size_t count, const std::function<void(std::size_t)>& task) override {
        SharedTasks tasks(count, task);
        try {
            tbb::task_group_context context(tbb::task_group_context::isolated,
                                            tbb::task_group_context::fp_settings);
            backend_.arena_->arena.execute([&] {
                tbb::parallel_for(
                    std::size_t{0}, count, [&](std::size_t i) { tasks.run(i); },
                    tbb::static_partitioner(), context);
            });
        } catch (...) {
            // As above: oneTBB had no memory for a task.
            for (std::size_t i = 0; i < count; ++i) tasks.run(i);
        }
        tasks.finish();
    }

private:
    ThreadedCpuBackend& backend_;
};

ThreadedCpuBackend::ThreadedCpuBackend(std::unique_ptr<IWindowBackend>&& pieces,
                                       std::uint64_t threads, std::size_t threshold)
    : pieces_(std::move(pieces)),
      scalar_(dynamic_cast<CpuWindowBackend*>(pieces_.get()) != nullptr),
      threads_(threadCount(threads)),
      threshold_(threshold),
      arena_(threads_ > 1 ? std::make_unique<Arena>(threads_) : nullptr),
      team_(threads_ > 1 ? std::make_unique<Team>(*this) : nullptr) {}

ThreadedCpuBackend::ThreadedCpuBackend(std::uint64_t threads, std::size_t threshold)
    : ThreadedCpuBackend(std::make_unique<CpuWindowBackend>(), threads, threshold) {}

ThreadedCpuBackend::ThreadedCpuBackend(const LaneCpuBackend& pieces, std::uint64_t threads,
                                       std::size_t threshold)
    : ThreadedCpuBackend(std::make_unique<LaneCpuBackend>(pieces), threads, threshold) {}

ThreadedCpuBackend::~ThreadedCpuBackend() = default;

void ThreadedCpuBackend::processWindow(const std::span<const WindowWork>& work,
                                       const std::span<const Kernel::WindowEvent>& events,
                                       ModelTime window_end, ModelTime horizon,
                                       const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                       const std::span<Kernel::WindowResult>& results) {
    if (arena_ == nullptr || work.size() < threshold_ || work.size() < 2) {
        // A virtual call would cost a window of one item a tenth of its time.
        if (scalar_) {
            processItems(work, events, window_end, horizon, results);
        } else {
            pieces_->processWindow(work, events, window_end, horizon, neuron, firing, results);
        }
        return;
    }
    share({work, events, window_end, horizon, neuron, firing, results}, *pieces_, threads_,
          arena_->arena);
}

std::size_t ThreadedCpuBackend::partItems() const {
    return threads_ == 1 ? pieces_->partItems() : threads_ * part_items_per_thread;
}

}  // namespace Lumenar::Core::Kelm
