#include <benchmark/benchmark.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "bench/ItemTime.h"
#include "kelm/kernel/WindowProcessing.h"

// The walk of one neuron through one window of 1 ms. Traces and random streams differ between
// neurons, so that branches are as hard to predict as in a run. One item is one neuron's window.

namespace Lumenar::Core::Kelm {

namespace {

constexpr ModelTime window_start = 1'000'000'000;
constexpr ModelTime window_end = window_start + 1'000'000;
constexpr ModelTime horizon = 10'000'000'000;

/// What happens to every neuron in its window.
struct Load {
    bool input = false;      ///< one synaptic input at a random time
    bool candidate = false;  ///< a pending candidate at a random time, with its wake-up
    std::int32_t phase_terms = 0;
};

struct Batch {
    std::vector<WindowWork> work;
    std::vector<Kernel::WindowEvent> events;
};

ModelTime randomInstant(std::uint64_t& rng) {
    return window_start + static_cast<ModelTime>(Kernel::drawUniform(rng) *
                                                 static_cast<double>(window_end - window_start));
}

void addPhaseTerms(PhaseDrive& drive, std::int32_t count) {
    drive.term_count = count;
    drive.bound = 0.02 * count;
    for (std::int32_t i = 0; i < count; ++i) {
        drive.terms[i] = {0.02, 0.1 * i, 2.5e-8 * (i + 1)};
    }
}

Batch buildBatch(const Load& load) {
    constexpr std::uint64_t neuron_count = 1024;
    Batch batch;
    std::uint64_t rng = 1;
    for (std::uint64_t n = 0; n < neuron_count; ++n) {
        WindowWork item;
        item.neuron = n;
        item.state.membrane = 0.1 * Kernel::drawUniform(rng);
        item.state.adaptation = 0.5 * Kernel::drawUniform(rng);
        item.state.last_update =
            window_start - static_cast<ModelTime>(2e7 * Kernel::drawUniform(rng));
        item.firing.base_rate = 5.0;
        item.firing.gain = 2.0;
        item.rng = splitmixOutput(n);
        addPhaseTerms(item.drive, load.phase_terms);
        item.pending_time = window_end + 1'000'000;
        // An upper bound of the hazard up to the window's end.
        item.pending_bound =
            Kernel::hazardUpperBound(item.state, item.parameters, item.firing,
                                     item.state.last_update, window_end, item.drive.bound);
        item.first_event = static_cast<std::uint32_t>(batch.events.size());
        if (load.candidate) {
            item.pending_time = randomInstant(rng);
            batch.events.push_back({item.pending_time, 0.0, true});
        }
        if (load.input) batch.events.push_back({randomInstant(rng), 0.02, false});
        item.event_count = static_cast<std::uint32_t>(batch.events.size()) - item.first_event;
        batch.work.push_back(item);
    }
    return batch;
}

/// A walk that stops at a fault would look fast.
void requireSound(const Batch& batch, const Load& load) {
    for (const WindowWork& item : batch.work) {
        const Kernel::WindowResult result =
            Kernel::processWindow(item, batch.events.data(), window_end, horizon);
        const std::uint32_t least = (load.input ? 1 : 0) + (load.candidate ? 1 : 0);
        if (result.bound_violation || result.updates < least) {
            throw std::logic_error("a walk did not do what it is measured for");
        }
    }
}

void walk(benchmark::State& state, const Load& load) {
    const Batch batch = buildBatch(load);
    requireSound(batch, load);
    std::vector<Kernel::WindowResult> results(batch.work.size());
    for (auto turn : state) {
        for (std::size_t i = 0; i < batch.work.size(); ++i) {
            results[i] =
                Kernel::processWindow(batch.work[i], batch.events.data(), window_end, horizon);
        }
        benchmark::ClobberMemory();
    }
    reportItemTime(state, state.iterations() * static_cast<std::int64_t>(batch.work.size()));
}

BENCHMARK_CAPTURE(walk, idle, Load{})->Name("processWindow/idle");
BENCHMARK_CAPTURE(walk, input, Load{true, false, 0})->Name("processWindow/input");
BENCHMARK_CAPTURE(walk, candidate, Load{false, true, 0})->Name("processWindow/candidate");
BENCHMARK_CAPTURE(walk, phase_1, Load{false, true, 1})->Name("processWindow/candidate/phase:1");
BENCHMARK_CAPTURE(walk, phase_8, Load{false, true, 8})->Name("processWindow/candidate/phase:8");

}  // namespace

}  // namespace Lumenar::Core::Kelm
