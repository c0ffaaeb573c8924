// Counts what the program allocates, so it stands in a program of its own.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "tests/support/GeneratedModel.h"

namespace {

std::uint64_t allocation_count = 0;

}  // namespace

// Arrays are allocated through these as well.
void* operator new(std::size_t size) {
    ++allocation_count;
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    ++allocation_count;
    const auto unit = static_cast<std::size_t>(alignment);
    void* block = std::aligned_alloc(unit, (size / unit + 1) * unit);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }

namespace Lumenar::Core::Kelm {

namespace {

/// Only counts windows; with it a run also makes the copy of a window's spikes.
class CountingHook : public IWindowCommit {
public:
    void commit(ModelTime, ModelTime, std::span<const SpikeRecord>, SynapseGraph&) override {}
};

TEST(WindowEngineSteadyState, AllocatesNothingWindowByWindow) {
    constexpr ModelTime d_min = 1'000'000;
    Testing::GeneratedModel model = Testing::ringModel(40, 4, d_min, 60'000);
    for (Synapse& synapse : model.synapses) {
        // Some spikes travel further than a calendar's ring reaches.
        const NodeId step = (synapse.target + 40 - synapse.source) % 40;
        synapse.delay = step == 4 ? 4500 * d_min : static_cast<ModelTime>(step) * d_min;
    }
    Kernel::Firing firing;
    firing.base_rate = 40.0;
    firing.gain = 1.0;
    WindowEngine engine(model.graph(), Kernel::Neuron(), firing, 5, model.horizon);
    CountingHook hook;
    engine.setHooks(nullptr, &hook, nullptr);
    CpuWindowBackend cpu;
    engine.run(cpu, 20'000 * d_min);
    const WindowProfile warm = engine.profile();
    const std::uint64_t before = allocation_count;
    engine.run(cpu);
    const std::uint64_t allocations = allocation_count - before;
    const std::uint64_t windows = engine.profile().windows - warm.windows;
    const std::uint64_t spikes = engine.profile().accepted - warm.accepted;
    // The log doubles now and then, and a run's working storage finds its size once; anything that
    // allocated by window, neuron or event would be seen tens of thousands of times.
    EXPECT_GT(windows, 30'000);
    EXPECT_GT(spikes, 20'000);
    EXPECT_LT(allocations, 100);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
