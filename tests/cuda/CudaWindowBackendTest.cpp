#include "kelm/cuda/CudaWindowBackend.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/network/SynapseGraph.h"
#include "tests/support/BackendParity.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// A window of `items` neurons. The first `events` of them get one input each.
struct Batch {
    std::size_t items, events;
};

/// Computes the window on `backend` and compares the results with the kernel's.
void run(CudaWindowBackend& backend, const Batch& batch) {
    constexpr ModelTime window_end = 1'000'000;
    constexpr ModelTime horizon = 50'000'000;
    std::vector<WindowWork> work(batch.items);
    std::vector<Kernel::WindowEvent> events(batch.events);
    for (std::uint32_t i = 0; i < batch.items; ++i) {
        work[i].neuron = work[i].rng = i;
        work[i].firing.base_rate = 500.0;
        work[i].pending_time = 300 * i;
        work[i].pending_bound = 600.0;
        if (i >= batch.events) continue;
        events[i].time = 1000 * i + 17;
        events[i].value = 0.5;
        work[i].first_event = i;
        work[i].event_count = 1;
    }
    std::vector<Kernel::WindowResult> results(batch.items);
    backend.processWindow(work, events, window_end, horizon, {}, {}, results);
    for (std::size_t i = 0; i < batch.items; ++i) {
        const Kernel::WindowResult expected =
            Kernel::processWindow(work[i], events.data(), window_end, horizon);
        ASSERT_EQ(std::memcmp(&results[i], &expected, sizeof expected), 0) << "item " << i;
    }
}

class CudaBackend : public EmulatedDeviceTest {};

TEST_F(CudaBackend, NeedsADeviceAndNamesIt) {
    const auto build = [] { CudaWindowBackend backend; };
    const char* const text =
        "no usable CUDA device; the CPU/GPU parity gate cannot be evaluated on this machine";
    // A failed query counts as no device.
    Emulation::failOperation(0, 999);
    expectThrows<WindowEngineError>(build, text);
    EXPECT_TRUE(cudaDeviceUsable());
    EXPECT_EQ(cudaDeviceName(), "host emulation");
    EXPECT_STREQ(CudaWindowBackend().name(), "cuda");
    for (const std::uint64_t operation : {0U, 1U}) {
        Emulation::failOperation(operation, 7);
        EXPECT_EQ(cudaDeviceName(), "unknown") << operation;
    }
    Emulation::setPresent(false);
    EXPECT_FALSE(cudaDeviceUsable());
    EXPECT_EQ(cudaDeviceName(), "unknown");
    expectThrows<WindowEngineError>(build, text);
}

TEST_F(CudaBackend, CountsWindowsAndThoseBelow32ItemsAndSkipsEmptyOnes) {
    CudaWindowBackend backend;
    std::uint64_t windows = 0;
    std::uint64_t small_windows = 0;
    for (const std::size_t items : {31U, 32U, 1U, 0U, 127U, 128U, 129U}) {
        windows += items == 0 ? 0 : 1;
        small_windows += items == 31 || items == 1 ? 1 : 0;
        SCOPED_TRACE(items);
        const std::uint64_t before = Emulation::operationCount();
        run(backend, {items, items / 2});
        EXPECT_EQ(backend.windowCount(), windows);
        EXPECT_EQ(backend.smallWindowCount(), small_windows);
        EXPECT_EQ(Emulation::operationCount() == before, items == 0);
    }
}

TEST_F(CudaBackend, ComputesTheBitsOfAKernelThatTakesEveryStep) {
    CudaWindowBackend backend;
    for (std::uint64_t seed = 1; seed <= 300; ++seed) {
        const DrawnCall call = drawCall(seed, 60, seed % 3 == 0);
        ASSERT_TRUE(sameImages<Kernel::WindowResult>(withOneNan(compute(backend, call)),
                                                     withOneNan(computePlainly(call))))
            << "seed " << seed;
    }
}

// Every batch needs two uploads, or one without events, and a launch, a synchronisation and a
// download. All other operations are releases and allocations.
TEST_F(CudaBackend, GrowsItsBuffersWhenABatchNeedsMoreAndKeepsThem) {
    struct Case {
        const char* fact;
        std::vector<Batch> before;
        Batch batch;
        std::uint64_t growth;
    };
    for (const Case& c :
         {Case{"first batch", {}, {5, 3}, 3}, Case{"first batch, no events", {}, {5, 0}, 3},
          Case{"no events with room for some", {{5, 3}}, {5, 0}, 0},
          Case{"as large as the largest", {{5, 3}, {1, 1}}, {5, 3}, 0},
          Case{"an event more", {{5, 3}}, {5, 4}, 2},
          Case{"one event after none", {{5, 0}}, {5, 1}, 0},
          Case{"two events after none", {{5, 0}}, {5, 2}, 2},
          Case{"an item and an event more", {{5, 3}}, {6, 4}, 6}}) {
        SCOPED_TRACE(c.fact);
        CudaWindowBackend backend;
        for (const Batch& batch : c.before) run(backend, batch);
        const std::uint64_t before = Emulation::operationCount();
        run(backend, c.batch);
        const std::uint64_t uploads = c.batch.events != 0 ? 2 : 1;
        EXPECT_EQ(Emulation::operationCount() - before, c.growth + uploads + 3);
    }
}

TEST_F(CudaBackend, ComputesABatchOfTheOldSizeAfterALargerOneHasFailed) {
    for (std::uint64_t operation = 0; operation < 11; ++operation) {
        SCOPED_TRACE(operation);
        CudaWindowBackend backend;
        run(backend, {5, 3});
        Emulation::failOperation(operation, 2);
        EXPECT_THROW(run(backend, {6, 4}), WindowEngineError);
        run(backend, {5, 3});
    }
}

TEST_F(CudaBackend, IsDestroyedWithoutAnExceptionWhenReleasesFail) {
    for (std::uint64_t operation = 0; operation < 4; ++operation) {
        SCOPED_TRACE(operation);
        {
            CudaWindowBackend backend;
            run(backend, {5, 3});
            backend.prepareResident(SynapseGraph(3, 10, {}), 2);
            EXPECT_EQ(Emulation::liveAllocations(), 4);
            Emulation::failOperation(operation, 7);
        }
        EXPECT_EQ(Emulation::liveAllocations(), 0);
    }
}

TEST_F(CudaBackend, PreparesTheResidentArenaOnceForEachNewSize) {
    CudaWindowBackend backend;
    const auto preparing = [&](std::uint64_t node_count, std::uint64_t fanout) {
        return [=, &backend] { backend.prepareResident(SynapseGraph(node_count, 10, {}), fanout); };
    };
    using Size = std::pair<std::uint64_t, std::uint64_t>;
    const auto expectOperations = [&](std::uint64_t node_count, std::uint64_t operations) {
        const std::uint64_t before = Emulation::operationCount();
        preparing(node_count, 2)();
        EXPECT_EQ(Emulation::operationCount() - before, operations) << node_count;
    };
    for (const auto& [node_count, operations] : {Size{2, 1}, {2, 0}, {3, 2}, {2, 0}, {3, 0}}) {
        expectOperations(node_count, operations);
    }
    const char* const dimensions = "invalid resident CUDA preparation dimensions";
    expectRefusals<WindowEngineError>(
        {{dimensions, preparing(0, 1)},
         {dimensions, preparing(1, 0)},
         {dimensions, preparing(3, ~std::uint64_t{0})},
         {"CUDA alloc resident arena: out of memory", preparing(3, std::uint64_t{1} << 55)}});
    expectOperations(3, 1);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
