#include "kelm/cuda/CudaWindowBackend.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ResidentArena.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;
namespace Emulation = Device::Emulation;

using Texts = std::vector<std::string>;

constexpr ModelTime window_end = 1'000'000;
constexpr ModelTime horizon = 50'000'000;

/// A window of `item_count` neurons with pending candidates, the first of which get an input each.
class Batch {
public:
    explicit Batch(std::size_t item_count, std::size_t event_count = 1)
        : work_(item_count), events_(event_count) {
        for (std::size_t i = 0; i < event_count; ++i) {
            events_[i].time = static_cast<ModelTime>(1000 * i + 17);
            events_[i].value = 0.5;
        }
        for (std::size_t i = 0; i < item_count; ++i) {
            work_[i].neuron = i;
            work_[i].rng = i;
            work_[i].firing.base_rate = 500.0;
            work_[i].pending_time = static_cast<ModelTime>(300 * i);
            work_[i].pending_bound = 600.0;
            work_[i].first_event = static_cast<std::uint32_t>(i < event_count ? i : 0);
            work_[i].event_count = i < event_count ? 1 : 0;
        }
    }

    /// Runs it on `backend` and compares the results with the kernel's own.
    void runOn(CudaWindowBackend& backend) const {
        std::vector<Kernel::WindowResult> results(work_.size());
        backend.processWindow(work_, events_, window_end, horizon, {}, {}, results);
        for (std::size_t i = 0; i < work_.size(); ++i) {
            const Kernel::WindowResult expected =
                Kernel::processWindow(work_[i], events_.data(), window_end, horizon);
            ASSERT_EQ(std::memcmp(&results[i], &expected, sizeof expected), 0) << "item " << i;
        }
    }

private:
    std::vector<WindowWork> work_;
    std::vector<Kernel::WindowEvent> events_;
};

class CudaWindowBackendTest : public EmulatedDeviceTest {};

TEST_F(CudaWindowBackendTest, NeedsADevice) {
    const char* const text =
        "no usable CUDA device; the CPU/GPU parity gate cannot be evaluated on this machine";
    Emulation::setPresent(false);
    expectThrows<WindowEngineError>([] { CudaWindowBackend backend; }, text);
    Emulation::setPresent(true);
    // A driver that cannot be asked counts as no device.
    Emulation::failOperation(0, 999);
    expectThrows<WindowEngineError>([] { CudaWindowBackend backend; }, text);
    EXPECT_NO_THROW(CudaWindowBackend());
}

TEST_F(CudaWindowBackendTest, QueriesTheDeviceWithoutThrowing) {
    EXPECT_TRUE(cudaDeviceUsable());
    EXPECT_EQ(cudaDeviceName(), "host emulation");
    for (const std::uint64_t operation : {0U, 1U}) {
        Emulation::failOperation(operation, 7);
        EXPECT_EQ(cudaDeviceName(), "unknown") << operation;
    }
    Emulation::setPresent(false);
    EXPECT_FALSE(cudaDeviceUsable());
    EXPECT_EQ(cudaDeviceName(), "unknown");
}

TEST_F(CudaWindowBackendTest, NamesTheCallThatFailed) {
    EXPECT_NO_THROW(checkCuda(0, "nothing"));
    expectThrows<WindowEngineError>([] { checkCuda(2, "alloc moon"); },
                                    "CUDA alloc moon: out of memory");
    expectThrows<WindowEngineError>([] { checkCuda(719, "synchronise"); },
                                    "CUDA synchronise: emulated device failure");
}

TEST_F(CudaWindowBackendTest, TouchesNoDeviceForAnEmptyBatch) {
    CudaWindowBackend backend;
    const std::uint64_t before = Emulation::operationCount();
    Batch(0).runOn(backend);
    EXPECT_EQ(Emulation::operationCount(), before);
    EXPECT_EQ(backend.windowCount(), 0);
}

TEST_F(CudaWindowBackendTest, CountsWindowsBelow32ItemsAsSmall) {
    CudaWindowBackend backend;
    struct Case {
        std::size_t items;
        std::uint64_t windows, small_windows;
    };
    for (const Case& c : {Case{31, 1, 1}, Case{32, 2, 1}, Case{1, 3, 2}, Case{0, 3, 2}}) {
        SCOPED_TRACE(c.items);
        Batch(c.items).runOn(backend);
        EXPECT_EQ(backend.windowCount(), c.windows);
        EXPECT_EQ(backend.smallWindowCount(), c.small_windows);
    }
}

TEST_F(CudaWindowBackendTest, ComputesBatchesThatDoNotFillABlock) {
    CudaWindowBackend backend;
    for (const std::size_t items : {1U, 127U, 128U, 129U, 1500U}) {
        SCOPED_TRACE(items);
        Batch(items, items / 2).runOn(backend);
    }
}

// Each list holds every device operation of the batch, in its order: what is not in it did not
// happen. So the lists also tell that buffers grow to exactly what is needed, and only then.
TEST_F(CudaWindowBackendTest, ReportsAFailureOfEachOperationAndGivesAllBack) {
    const Texts copies_and_launch = {"upload work", "upload events", "launch", "synchronise",
                                     "download results"};
    const Texts new_items = {"free work", "free results", "alloc work", "alloc results"};
    const Texts new_events = {"free events", "alloc events"};
    struct Case {
        const char* fact;
        std::optional<Batch> before;
        Batch batch;
        std::vector<Texts> operations;
    };
    for (const Case& c : {
             Case{"first batch",
                  std::nullopt,
                  Batch(5, 3),
                  {{"alloc work", "alloc results", "alloc events"}, copies_and_launch}},
             Case{"first batch without events",
                  std::nullopt,
                  Batch(5, 0),
                  {{"alloc work", "alloc results", "alloc events", "upload work", "launch",
                    "synchronise", "download results"}}},
             Case{"no events where there is room",
                  Batch(5, 3),
                  Batch(5, 0),
                  {{"upload work", "launch", "synchronise", "download results"}}},
             Case{"as large as ever", Batch(5, 3), Batch(5, 3), {copies_and_launch}},
             Case{"smaller", Batch(5, 3), Batch(4, 2), {copies_and_launch}},
             Case{"one item more", Batch(5, 3), Batch(6, 3), {new_items, copies_and_launch}},
             Case{"one event more", Batch(5, 3), Batch(5, 4), {new_events, copies_and_launch}},
             Case{"one event where there was none", Batch(5, 0), Batch(5, 1), {copies_and_launch}},
             Case{"two events where there was none",
                  Batch(5, 0),
                  Batch(5, 2),
                  {new_events, copies_and_launch}},
             Case{"more of both",
                  Batch(5, 3),
                  Batch(6, 4),
                  {new_items, new_events, copies_and_launch}},
         }) {
        SCOPED_TRACE(c.fact);
        Texts expected;
        for (const Texts& group : c.operations) {
            for (const std::string& what : group) {
                expected.push_back("CUDA " + what + ": out of memory");
            }
        }
        const auto arrange = [&] {
            // The one before is destroyed first, and must have left nothing.
            EXPECT_EQ(Emulation::liveAllocations(), 0);
            auto backend = std::make_unique<CudaWindowBackend>();
            if (c.before) c.before->runOn(*backend);
            return backend;
        };
        EXPECT_EQ(failuresOf(arrange, [&](auto& backend) { c.batch.runOn(*backend); }), expected);
    }
}

TEST_F(CudaWindowBackendTest, CanTryAgainAfterAFailure) {
    for (std::uint64_t operation = 0; operation < 11; ++operation) {
        SCOPED_TRACE(operation);
        CudaWindowBackend backend;
        Batch(5, 3).runOn(backend);
        Emulation::failOperation(operation, 2);
        EXPECT_THROW(Batch(6, 4).runOn(backend), WindowEngineError);
        Batch(5, 3).runOn(backend);
        Batch(6, 4).runOn(backend);
    }
}

TEST_F(CudaWindowBackendTest, IsDestroyedQuietlyWhereReleasesFail) {
    const SynapseGraph graph(3, 10, {});
    for (std::uint64_t operation = 0; operation < 4; ++operation) {
        SCOPED_TRACE(operation);
        {
            CudaWindowBackend backend;
            Batch(5, 3).runOn(backend);
            backend.prepareResident(graph, 2);
            EXPECT_EQ(Emulation::liveAllocations(), 4);
            Emulation::failOperation(operation, 7);
        }
        EXPECT_EQ(Emulation::liveAllocations(), 0);
    }
}

TEST_F(CudaWindowBackendTest, PreparesTheResidentArenaOnceForEachNewSize) {
    const SynapseGraph small(3, 10, {});
    const SynapseGraph large(4, 10, {});
    const auto prepared = [](const SynapseGraph& graph) {
        return [&graph] {
            auto backend = std::make_unique<CudaWindowBackend>();
            backend->prepareResident(graph, 2);
            return backend;
        };
    };
    const auto prepareLarge = [&](auto& backend) { backend->prepareResident(large, 2); };
    const auto none = [] { return std::make_unique<CudaWindowBackend>(); };
    EXPECT_EQ(failuresOf(none, prepareLarge), (Texts{"CUDA alloc resident arena: out of memory"}));
    EXPECT_EQ(failuresOf(prepared(small), prepareLarge),
              (Texts{"CUDA free resident arena: out of memory",
                     "CUDA alloc resident arena: out of memory"}));
    EXPECT_EQ(failuresOf(prepared(large), prepareLarge), Texts());
    EXPECT_EQ(
        failuresOf(prepared(large), [&](auto& backend) { backend->prepareResident(small, 2); }),
        Texts());
}

TEST_F(CudaWindowBackendTest, RefusesResidentDimensionsThatHoldNothing) {
    CudaWindowBackend backend;
    const char* const text = "invalid resident CUDA preparation dimensions";
    const std::uint64_t before = Emulation::operationCount();
    expectThrows<WindowEngineError>([&] { backend.prepareResident(SynapseGraph(0, 10, {}), 1); },
                                    text);
    expectThrows<WindowEngineError>([&] { backend.prepareResident(SynapseGraph(1, 10, {}), 0); },
                                    text);
    expectThrows<WindowEngineError>(
        [&] { backend.prepareResident(SynapseGraph(3, 10, {}), ~std::uint64_t{0}); }, text);
    EXPECT_EQ(Emulation::operationCount(), before);
    expectThrows<WindowEngineError>(
        [&] { backend.prepareResident(SynapseGraph(3, 10, {}), std::uint64_t{1} << 55); },
        "CUDA alloc resident arena: out of memory");
}

TEST_F(CudaWindowBackendTest, LeavesAnEngineAsItStoodBeforeTheWindowThatFailed) {
    const GeneratedModel model = generateModel(3);
    WindowEngine reference = makeEngine(model);
    postInputs(model, reference);
    CpuWindowBackend cpu;
    reference.run(cpu, model.horizon / 2);
    const RunImage expected = imageOf(reference);
    ASSERT_FALSE(expected.log.empty());

    std::uint64_t failures = 0;
    for (std::uint64_t operation = 0;; ++operation) {
        SCOPED_TRACE(operation);
        CudaWindowBackend backend;
        WindowEngine engine = makeEngine(model);
        postInputs(model, engine);
        engine.run(backend, model.horizon / 2);
        ASSERT_EQ(firstDifference(expected, imageOf(engine)), "");
        struct FirstWindowOnly : IWindowCommit {
            struct Reached {};
            void commit(ModelTime, ModelTime, std::span<const SpikeRecord>,
                        SynapseGraph&) override {
                throw Reached();
            }
        } first_window_only;
        engine.setHooks(nullptr, &first_window_only, nullptr);
        Emulation::failOperation(operation, 719);
        try {
            engine.run(backend);
        } catch (const FirstWindowOnly::Reached&) {
            break;
        } catch (const WindowEngineError&) {
            ++failures;
        }
        EXPECT_EQ(firstDifference(expected, imageOf(engine)), "");
    }
    // Copies, launch, wait and copy back at the least.
    EXPECT_GE(failures, 5);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
