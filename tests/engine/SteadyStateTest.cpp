// Counts what the program allocates, so it stands in a program of its own.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"

namespace {

std::uint64_t allocation_count = 0;

void* countedAllocation(std::size_t size) {
    ++allocation_count;
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

}  // namespace

void* operator new(std::size_t size) { return countedAllocation(size); }
void* operator new[](std::size_t size) { return countedAllocation(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

namespace Lumenar::Core::Kelm {

namespace {

/// Only counts windows; with it a run also makes the copy of a window's spikes.
class CountingHook : public IWindowCommit {
public:
    void commit(ModelTime, ModelTime, std::span<const SpikeRecord>, SynapseGraph&) override {}
};

/// A ring in which some spikes travel further than a calendar's ring reaches.
SynapseGraph busyRing(std::uint64_t node_count, ModelTime d_min) {
    std::vector<Synapse> synapses;
    for (NodeId n = 0; n < node_count; ++n) {
        for (NodeId step = 1; step <= 4; ++step) {
            Synapse synapse;
            synapse.source = n;
            synapse.target = (n + step) % node_count;
            synapse.weight = 0.2F;
            synapse.inhibitory = step % 2 == 0;
            synapse.delay = step == 4 ? 4500 * d_min : static_cast<ModelTime>(step) * d_min;
            synapses.push_back(synapse);
        }
    }
    return SynapseGraph(node_count, d_min, std::move(synapses));
}

TEST(WindowEngineSteadyState, AllocatesNothingWindowByWindow) {
    constexpr ModelTime d_min = 1'000'000;
    constexpr ModelTime warm_up = 20'000 * d_min;
    constexpr ModelTime horizon = 60'000 * d_min;
    Kernel::Firing firing;
    firing.base_rate = 40.0;
    firing.gain = 1.0;
    WindowEngine engine(busyRing(40, d_min), Kernel::Neuron(), firing, 5, horizon);
    CountingHook hook;
    engine.setHooks(nullptr, &hook, nullptr);
    CpuWindowBackend cpu;
    engine.run(cpu, warm_up);
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
