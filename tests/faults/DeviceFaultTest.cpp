// Every call of every kind of work on a device fails once. The failure has the right class and
// text, nothing stays allocated on the host or on the device, and the engine is unchanged.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "compare/RunImage.h"
#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/cuda/ShardQueue.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "tests/faults/FailingAllocation.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

/// A piece of work on a device, ready to be done.
struct DeviceWork {
    std::function<void()> act;
    /// Checks what a failed `act` has left.
    std::function<void()> expectUntouched;
};

struct Way {
    const char* name;
    std::function<DeviceWork()> arrange;
    /// The calls, as a regular expression: each call's name and a semicolon. A star is a sort or a
    /// scan, whose failure is the library's own.
    std::string calls;
    /// Calls that the expression permits and that must occur.
    std::vector<std::string> among = {};
};

struct Reason {
    int status;
    std::string text;
};

class DeviceFault : public EmulatedDeviceTest {
protected:
    // Without worker threads: a thread that one call starts would allocate for all later ones.
    DeviceFault() { Emulation::setWorkers(1); }

    /// The name of the call that failed, from the exception.
    static std::string nameOf(const std::exception& failure, const std::string& reason) {
        const std::string text = failure.what();
        if (typeid(failure) == typeid(std::runtime_error) && text == reason) return "*";
        const std::string head = "CUDA ";
        const std::string tail = ": " + reason;
        const bool whole = text.starts_with(head) && text.ends_with(tail);
        if (typeid(failure) != typeid(WindowEngineError) || !whole) {
            ADD_FAILURE() << typeid(failure).name() << ": " << text;
            return "?";
        }
        return text.substr(head.size(), text.size() - head.size() - tail.size());
    }

    /// Makes each call of `way` fail once, and returns the names of the calls in order.
    static std::string failEach(const Way& way, const Reason& reason) {
        way.arrange().act();  // allocates what the process keeps
        std::string calls;
        std::string name;
        name.reserve(256);
        for (std::uint64_t n = 0;; ++n) {
            const std::int64_t blocks = liveBlocks();
            name.clear();
            {
                const DeviceWork work = way.arrange();
                const std::uint64_t before = Emulation::operationCount();
                Emulation::failOperation(n, reason.status);
                try {
                    work.act();
                } catch (const std::exception& failure) {
                    Emulation::failNothing();
                    name.assign(nameOf(failure, reason.text));
                    work.expectUntouched();
                }
                Emulation::failNothing();
                if (name.empty()) {
                    EXPECT_EQ(Emulation::operationCount() - before, n) << "no error";
                    return calls;
                }
            }
            EXPECT_EQ(liveBlocks(), blocks) << name;
            EXPECT_EQ(Emulation::liveAllocations(), 0U) << name;
            calls += name + ";";
            if (HasFailure()) return calls;
        }
    }

    /// A lively network of the shape that runs whole on a device.
    static GeneratedModel ring() {
        GeneratedModel model = ringModel(12, 3, 1'000'000, 5);
        for (Kernel::Firing& firing : model.firings) firing.base_rate = 400.0;
        return model;
    }

    /// An engine that runs window by window on the device. A failed window leaves the engine as the
    /// windows before it did, and another engine can use the backend.
    DeviceWork windows(const GeneratedModel& model) {
        struct Subject {
            CudaWindowBackend device;
            WindowEngine engine;
        };
        const std::shared_ptr<Subject> subject(new Subject{{}, makeEngine(model)});
        postInputs(model, subject->engine);
        return {[=] { subject->engine.run(subject->device); },
                [=, this] {
                    WindowEngine reference = makeEngine(model);
                    postInputs(model, reference);
                    const std::uint64_t done = subject->engine.profile().windows;
                    for (ModelTime end = 0; reference.profile().windows < done;) {
                        reference.run(cpu_, end += model.d_min);
                    }
                    EXPECT_EQ(committed(subject->engine), committed(reference));
                    WindowEngine next = makeEngine(model);
                    postInputs(model, next);
                    next.run(subject->device);
                    reference.run(cpu_);
                    EXPECT_EQ(firstDifference(imageOf(next), imageOf(reference)), "");
                }};
    }

    /// The parts of an engine that an unfinished window does not change. The store is none of them:
    /// it has handed the window's events out.
    static Blob committed(WindowEngine& engine) {
        RunImage image = imageOf(engine);
        Blob blob;
        appendSequence(blob, image.states);
        appendSequence(blob, image.random_states);
        appendSequence(blob, image.log);
        appendImage(blob, image.profile);
        return blob;
    }

    /// An engine whose whole run is offered to the device. `prepared`: the arena is allocated.
    DeviceWork offer(bool prepared) {
        struct Subject {
            CudaWindowBackend device;
            WindowEngine engine;
        };
        const GeneratedModel model = ring();
        const std::shared_ptr<Subject> subject(new Subject{{}, makeEngine(model)});
        if (prepared) subject->device.prepareResident(subject->engine.graph(), model.fanout());
        const auto act = [=] {
            EXPECT_TRUE(tryResidentRunFrom(subject->device, subject->engine, 1));
        };
        return {act, [=, this] {
                    WindowEngine reference = makeEngine(model);
                    EXPECT_EQ(subject->engine.snapshot(), reference.snapshot());
                    EXPECT_TRUE(subject->engine.isPristine());
                    // The device accepts the run when it is offered again.
                    act();
                    reference.run(cpu_);
                    EXPECT_EQ(committed(subject->engine), committed(reference));
                }};
    }

    CpuWindowBackend cpu_;
};

TEST_F(DeviceFault, IsReportedByItsCallAndLeavesNothingBehind) {
    // Some windows need more room than all before them: for items, or for events alone.
    GeneratedModel many = generateModel(11, {24, 12});
    for (const ModelTime window : {4, 6, 6, 6}) {
        for (NodeId n = 0; n < many.node_count; ++n) {
            many.inputs.push_back(
                {.time = window * many.d_min, .kind = EventKind::input, .target = n, .value = 0.1});
        }
    }
    const std::string window = "upload work;(upload events;)?launch;synchronise;download results;";
    const std::string resident =
        "upload resident targets;upload resident values;upload resident RNG;"
        "clear resident spikes;clear resident fire overflow;clear resident metrics;"
        "clear resident active count;launch resident initialization;synchronise resident "
        "initialization;"
        "(clear resident window spikes;(convert resident bucket;)?process resident window;"
        "count resident fan-out;clear resident target counts;count resident targets;"
        "download window spike count;((alloc temporary memory;)?[*];[*];"
        "clear resident target cursors;emit resident fan-out;sort resident target segments;)?){5}"
        "synchronise resident recurrence;download resident spikes;download fire overflow;"
        "free temporary memory;alloc temporary memory;[*];download resident fire log;download "
        "resident states;download resident final RNG;"
        "download resident pending times;download resident pending bounds;"
        "download resident metrics;download resident future bucket;free temporary memory;";
    const Way ways[] = {
        {"window by window",
         [&] { return windows(many); },
         "alloc work;alloc results;alloc events;" + window +
             "((free work;free results;alloc work;alloc results;)?(free events;alloc events;)?" +
             window + ")+",
         {";free work;free results;", ";download results;free events;"}},
        {"arena",
         [] {
             const auto device = std::make_shared<CudaWindowBackend>();
             device->prepareResident(SynapseGraph(2, 10, {}), 2);
             return DeviceWork{[=] { device->prepareResident(SynapseGraph(3, 10, {}), 2); }, [] {}};
         },
         "free resident arena;alloc resident arena;"},
        {"whole run", [this] { return offer(false); }, "alloc resident arena;" + resident},
        {"whole run, prepared", [this] { return offer(true); }, resident},
        {"recurrence",
         [] {
             const auto device = std::make_shared<CudaWindowBackend>();
             const GeneratedModel model = ring();
             return DeviceWork{[=] {
                                   SynapseGraph graph = model.graph();
                                   runResidentRecurrence(*device, graph, 3, 4, model.neurons[0],
                                                         model.firings[0], model.d_min,
                                                         model.horizon, model.run_seed);
                               },
                               [] {}};
         },
         "alloc resident arena;" + resident},
        {"shard queue",
         [] {
             const GeneratedModel model = ring();
             return DeviceWork{[=] {
                                   SynapseGraph graph = model.graph();
                                   runShardQueue(graph, 3, 20, 3, model.neurons[0],
                                                 model.firings[0], model.d_min, model.horizon);
                               },
                               [] {}};
         },
         "alloc shard counts;alloc shard offsets;alloc local/cross counts;alloc CSR targets;"
         "alloc CSR values;alloc shard window events;alloc shard states;alloc shard RNG;"
         "alloc shard results;alloc processed target count;alloc shard queues;"
         "upload CSR targets;upload CSR values;clear shard states;upload shard RNG;"
         "clear processed target count;clear shard counts;clear local/cross counts;"
         "launch shard count;download shard counts;download local/cross counts;"
         "upload shard offsets;clear shard cursors;launch shard fan-out;"
         "alloc temporary memory;[*];"
         "launch shard event conversion;launch shard target processing;"
         "synchronise shard fan-out;download shard queues;download shard results;"
         "download processed target count;free temporary memory;free shard queues;free processed "
         "target count;"
         "free shard results;free shard RNG;free shard states;free shard window events;"
         "free CSR values;free CSR targets;free local/cross counts;free shard offsets;"
         "free shard counts;"},
    };
    const Reason reasons[] = {{2, "out of memory"}, {719, "emulated device failure"}};
    for (const Way& way : ways) {
        for (const Reason& reason : reasons) {
            SCOPED_TRACE(std::string(way.name) + ", " + reason.text);
            const std::string calls = failEach(way, reason);
            const testing::Matcher<std::string> as_told = testing::MatchesRegex(way.calls);
            EXPECT_TRUE(as_told.Matches(calls)) << calls;
            for (const std::string& part : way.among)
                EXPECT_NE(calls.find(part), calls.npos) << part;
            RecordProperty(std::string(way.name) + ", " + reason.text,
                           static_cast<int>(std::count(calls.begin(), calls.end(), ';')));
        }
    }
}

// A device that fails for good, between two pieces of work.
TEST_F(DeviceFault, IsReportedWhenTheDeviceIsGone) {
    const DeviceWork work = windows(generateModel(11, {24, 12}));
    Emulation::setPresent(false);
    try {
        work.act();
        FAIL();
    } catch (const WindowEngineError& failure) {
        EXPECT_STREQ(failure.what(), "CUDA alloc work: no CUDA-capable device is detected");
    }
    Emulation::setPresent(true);
    work.expectUntouched();
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
