#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "bench/ItemTime.h"
#include "gate/BenchmarkWorkload.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/threads/ThreadedCpuBackend.h"

// Windows of few items on the reference backend and on two threads, cut from a window of the
// benchmark network at 50 spikes/s. "stay" measures windows below the threshold one after another;
// the difference to the reference is the cost of the threshold check. "wake" has no threshold and
// keeps the calling thread busy for 300 us before each window, as an engine does, so that the
// workers sleep. The threshold belongs at the size from which it is faster than the reference.

namespace Lumenar::Core::Kelm {

namespace {

/// Keeps the last window.
class LastWindow final : public IWindowBackend {
public:
    const char* name() override { return "last window"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        work_.assign(work.begin(), work.end());
        events_.assign(events.begin(), events.end());
        window_end_ = window_end;
        horizon_ = horizon;
        CpuWindowBackend().processWindow(work, events, window_end, horizon, neuron, firing,
                                         results);
    }
    bool tryResidentRun(WindowEngine&) override { return false; }

    /// Computes the first items of the window again.
    void repeat(std::size_t items, IWindowBackend& backend,
                std::vector<Kernel::WindowResult>& results) const {
        backend.processWindow(std::span(work_).first(items), events_, window_end_, horizon_, {}, {},
                              std::span(results).first(items));
    }

    std::size_t itemCount() const { return work_.size(); }

private:
    std::vector<WindowWork> work_;
    std::vector<Kernel::WindowEvent> events_;
    ModelTime window_end_ = 0;
    ModelTime horizon_ = 0;
};

const LastWindow& windowOfTheNetwork() {
    static const LastWindow window = [] {
        BenchmarkWorkload workload =
            buildBenchmarkWorkload({.neuron_count = 20'000, .base_rate = 50.0});
        WindowEngine engine(
            SynapseGraph(workload.neuron_count, workload.min_delay, std::move(workload.synapses)),
            workload.neuron, workload.firing, benchmark_seed, workload.horizon);
        LastWindow last;
        engine.run(last, 10 * workload.min_delay);
        return last;
    }();
    return window;
}

std::size_t itemsOf(benchmark::State& state) {
    const auto items = static_cast<std::size_t>(state.range(0));
    if (items > windowOfTheNetwork().itemCount()) {
        throw std::logic_error("the network's window has too few items");
    }
    return items;
}

template <class Backend>
void stay(benchmark::State& state) {
    const std::size_t items = itemsOf(state);
    Backend backend;
    std::vector<Kernel::WindowResult> results(items);
    for (auto turn : state) {
        windowOfTheNetwork().repeat(items, backend, results);
        benchmark::ClobberMemory();
    }
    reportItemTime(state, state.iterations() * static_cast<std::int64_t>(items));
}

void wake(benchmark::State& state, std::uint64_t threads) {
    using Clock = std::chrono::steady_clock;
    const std::size_t items = itemsOf(state);
    ThreadedCpuBackend backend(threads, 0);
    std::vector<Kernel::WindowResult> results(items);
    for (auto turn : state) {
        const Clock::time_point idle_until = Clock::now() + std::chrono::microseconds(300);
        while (Clock::now() < idle_until) {
        }
        const Clock::time_point start = Clock::now();
        windowOfTheNetwork().repeat(items, backend, results);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(stay<CpuWindowBackend>)->Name("window/stay/cpu")->Arg(1)->Arg(4)->Arg(16);
BENCHMARK(stay<ThreadedCpuBackend>)->Name("window/stay/threads")->Arg(1)->Arg(4)->Arg(16);
BENCHMARK_CAPTURE(wake, cpu, 1)
    ->Name("window/wake/cpu")
    ->RangeMultiplier(2)
    ->Range(128, 8192)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(wake, threads, 2)
    ->Name("window/wake/threads")
    ->RangeMultiplier(2)
    ->Range(128, 8192)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

}  // namespace Lumenar::Core::Kelm
