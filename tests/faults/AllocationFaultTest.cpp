// Fails every allocation of an operation, one at a time. Nothing may leak, every object must be
// destructible, and the object must be as it was where this is promised.

#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "compare/BlobLayout.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ShardQueue.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowCalendar.h"
#include "kelm/events/BucketEventStore.h"
#include "kelm/runtime/InjectionTrace.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/faults/FailingAllocation.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

/// Whether `act` failed at its allocation `n`, counted from 0. Fails the test for any exception
/// other than std::bad_alloc.
template <class Act>
bool runsOut(std::uint64_t n, Act act) {
    std::string other;
    bool thrown = false;
    failAllocation(n);
    try {
        act();
    } catch (const std::bad_alloc&) {
        thrown = true;
    } catch (const std::exception& failure) {
        failNoAllocation();
        other = failure.what();
    }
    const bool came = failNoAllocation();
    EXPECT_EQ(other, "") << "at allocation " << n;
    EXPECT_EQ(came, thrown || !other.empty()) << "at allocation " << n;
    return came;
}

/// Allocations failed so far, for the report.
int failures = 0;

/// Calls `act` on a new subject from `arrange` each time. The first allocation fails, then the
/// second, and so on until `act` succeeds. `expectLeft` checks the subject after each failure.
template <class Arrange, class Act, class ExpectLeft>
void failEach(const char* what, Arrange arrange, Act act, ExpectLeft expectLeft) {
    SCOPED_TRACE(what);
    act(*arrange());  // makes the process's one-time allocations
    for (std::uint64_t n = 0;; ++n) {
        const std::int64_t before = liveBlocks();
        bool came = false;
        {
            auto subject = arrange();
            came = runsOut(n, [&] { act(*subject); });
            if (came) expectLeft(*subject);
        }
        ASSERT_EQ(liveBlocks(), before) << "at allocation " << n;
        if (!came) break;
        ++failures;
        if (testing::Test::HasFailure()) break;
    }
}

/// failEach for an operation after whose failure the object can only be destroyed.
template <class Arrange, class Act>
void expectClean(const char* what, Arrange arrange, Act act) {
    failEach(what, arrange, act, [](auto&) {});
}

/// failEach for an operation that changes nothing when it fails: the object's image stays the same,
/// and a second call of the operation succeeds.
template <class Arrange, class Act, class Image>
void expectUnchanged(const char* what, Arrange arrange, Act act, Image image) {
    auto subject = arrange();
    const Blob before = image(*subject);
    act(*subject);
    const Blob after = image(*subject);
    failEach(what, arrange, act, [&](auto& left) {
        EXPECT_EQ(image(left), before);
        act(left);
        EXPECT_EQ(image(left), after);
    });
}

class AllocationFault : public EmulatedDeviceTest {
protected:
    // One worker: a thread that a call starts would live on after the call.
    AllocationFault() { Emulation::setWorkers(1); }
    ~AllocationFault() override { RecordProperty("failed_allocations", failures); }

    CpuWindowBackend cpu_;
};

GeneratedModel smallModel(std::uint64_t seed) { return generateModel(seed, {10, 12}); }

TEST_F(AllocationFault, LeavesAGraphAsItWas) {
    const auto arrange = [] { return std::make_unique<SynapseGraph>(smallModel(3).graph()); };
    const auto image = [](const SynapseGraph& graph) { return graph.snapshot(); };

    // Synapses of every kind of column.
    std::vector<Synapse> rare = smallModel(3).synapses;
    ASSERT_GT(rare.size(), 4U);
    rare[1].last_change = 5;
    rare[2].reserved_d = 9;
    rare[3].delay = last_model_time;
    const Blob stored = SynapseGraph(smallModel(3).node_count, std::nullopt, rare).snapshot();
    expectClean(
        "construction", [&] { return std::make_unique<std::vector<Synapse>>(rare); },
        [](std::vector<Synapse>& synapses) {
            SynapseGraph graph(smallModel(3).node_count, std::nullopt, std::move(synapses));
            const SynapseGraph copy = graph;
        });
    expectUnchanged("snapshot", arrange, image, image);
    expectUnchanged(
        "restore", arrange, [&](SynapseGraph& graph) { EXPECT_TRUE(graph.restore(stored)); },
        image);

    // The routes in both directions, and the lists themselves.
    const auto routes = [](SynapseGraph& graph) {
        Blob blob = graph.snapshot();
        for (NodeId n = 0; n < graph.nodeCount(); ++n) {
            appendSequence(blob, graph.outgoing(n));
            appendSequence(blob, graph.incoming(n));
        }
        appendSequence(blob, graph.outOffsets());
        appendSequence(blob, graph.outEdges());
        return blob;
    };
    expectUnchanged("routes", arrange, routes, routes);
    expectUnchanged(
        "last change", arrange, [](SynapseGraph& graph) { graph.lastChange(1) = 17; }, image);
    const auto graph = arrange();
    const std::uint64_t allocations = allocationCount();
    EXPECT_EQ(ModelTime{graph->lastChange(1)}, 0);
    EXPECT_EQ(allocationCount(), allocations) << "a read allocates nothing";
}

TEST_F(AllocationFault, LeavesACalendarThatKeepsRunsAndItsGraphAsTheyWere) {
    static constexpr ModelTime d_min = 10;
    struct Subject {
        SynapseGraph graph{8, d_min, 320, [](EdgeId id) {
                               return Synapse{.source = id / 40, .target = id % 8, .delay = d_min};
                           }};
        WindowCalendar calendar{graph, d_min};
    };
    // One run in each of four windows: the next window with a run needs more memory.
    const auto arrange = [&] {
        auto subject = std::make_unique<Subject>();
        for (NodeId n = 0; n < 4; ++n) {
            subject->calendar.deliver(n, d_min * static_cast<ModelTime>(n));
        }
        return subject;
    };
    const auto image = [](Subject& subject) {
        Blob blob = subject.graph.snapshot();
        appendNested(blob, subject.calendar.snapshot());
        return blob;
    };
    Subject reweighted;
    reweighted.graph.setWeight(3, 0.5F);
    const Blob stored = reweighted.graph.snapshot();
    const int failures_before = failures;
    const struct {
        const char* what;
        std::function<void(Subject&)> act;
    } operations[] = {
        {"post a run", [](Subject& s) { s.calendar.deliver(5, 4 * d_min); }},
        {"set a weight", [](Subject& s) { s.graph.setWeight(7, 0.25F); }},
        {"restore", [&](Subject& s) { EXPECT_TRUE(s.graph.restore(stored)); }},
        {"move in", [](Subject& s) { s.graph = SynapseGraph(8, d_min, {}); }},
        {"move out",
         [](Subject& s) {
             SynapseGraph moved(std::move(s.graph));
             s.graph = std::move(moved);
         }},
    };
    for (const auto& operation : operations) {
        expectUnchanged(operation.what, arrange, operation.act, image);
    }
    EXPECT_GE(failures - failures_before, 2 * std::ssize(operations));
}

TEST_F(AllocationFault, LeavesAnEngineAsItWas) {
    const GeneratedModel model = smallModel(5);
    ASSERT_FALSE(model.inputs.empty());
    // At half of the horizon, with observations ahead. `own_store`: else the caller gives the
    // store.
    const auto arrange = [&](bool own_store) {
        std::unique_ptr<IEventStore> store;
        if (!own_store) store = std::make_unique<BucketEventStore>(model.d_min, 8);
        std::unique_ptr<WindowEngine> engine(new WindowEngine(makeEngine(model, std::move(store))));
        postInputs(model, *engine);
        for (const ModelTime part : {5, 4}) {
            engine->declareObserverEvent({.time = model.horizon / part});
        }
        engine->run(cpu_, model.horizon / 2);
        return engine;
    };
    const auto image = [](WindowEngine& engine) { return engine.snapshot(); };
    expectClean(
        "construction", [&] { return std::make_unique<GeneratedModel>(model); },
        [](GeneratedModel& m) { makeEngine(m); });
    expectClean(
        "reseed",
        [&] { return std::unique_ptr<WindowEngine>(new WindowEngine(makeEngine(model))); },
        [&](WindowEngine& engine) {
            engine.reseedInitialCandidates(std::vector<double>(model.node_count, 0.5));
        });
    for (const bool own_store : {true, false}) {
        const auto make = [&] { return arrange(own_store); };
        expectClean("run", make, [&](WindowEngine& engine) { engine.run(cpu_); });
        expectUnchanged("snapshot", make, image, image);
        expectUnchanged(
            "post", make,
            [&](WindowEngine& engine) {
                engine.post({.time = model.horizon + 1, .kind = EventKind::input});
            },
            image);
        expectUnchanged(
            "observation", make,
            [&](WindowEngine& engine) { engine.declareObserverEvent({.time = model.horizon - 1}); },
            image);
        auto later = make();
        later->run(cpu_);
        expectUnchanged(
            "restore", make,
            [stored = later->snapshot()](WindowEngine& engine) {
                EXPECT_TRUE(engine.restore(stored));
            },
            image);
    }
}

TEST_F(AllocationFault, EndsARunOnTheDeviceCleanly) {
    expectClean(
        "device",
        [] { return std::unique_ptr<WindowEngine>(new WindowEngine(makeEngine(smallModel(7)))); },
        [](WindowEngine& engine) {
            CudaWindowBackend device;
            engine.run(device);
        });
}

TEST_F(AllocationFault, LeavesAnEngineAsItWasInAWholeRunOnTheDevice) {
    struct Offer {
        CudaWindowBackend device;
        WindowEngine engine;
    };
    GeneratedModel model = ringModel(12, 3, 1'000'000, 6);
    for (Kernel::Firing& firing : model.firings) firing.base_rate = 400.0;
    expectUnchanged(
        "whole run",
        [&] {
            return std::unique_ptr<Offer>(new Offer{{}, makeEngine(model)});
        },
        [](Offer& offer) { EXPECT_TRUE(tryResidentRunFrom(offer.device, offer.engine, 1)); },
        [](Offer& offer) { return offer.engine.snapshot(); });
    expectClean(
        "shard queue", [&] { return std::make_unique<SynapseGraph>(model.graph()); },
        [&](SynapseGraph& graph) {
            runShardQueue(graph, 3, 20, 3, model.neurons[0], model.firings[0], model.d_min,
                          model.horizon);
        });
    EXPECT_EQ(Emulation::liveAllocations(), 0);
}

/// Performs the steps of a model up to `end`. Ignores refusals, but passes on std::bad_alloc.
void perform(const ComposedModel& model, std::size_t end, KelmRuntime& runtime) {
    for (std::size_t i = 0; i < end; ++i) {
        const ComposedModel::Step& step = model.steps[i];
        try {
            if (step.until) {
                runtime.run(*step.until);
            } else {
                step.act(runtime);
            }
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception&) {
            // A refusal, or a run that ends with an error of the model.
            if (step.until) return;
        }
    }
}

ComposedModel smallComposedModel(std::uint64_t seed) {
    return generateComposedModel(seed, {8, 16, 3});
}

TEST_F(AllocationFault, EndsARunOfAllPartsAtOnceCleanly) {
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        const ComposedModel model = smallComposedModel(seed);
        expectClean(
            "construction", [&] { return std::make_unique<int>(); },
            [&](int&) { model.build(cpu_); });
        expectClean(
            "run", [&] { return model.build(cpu_); },
            [&](KelmRuntime& runtime) { perform(model, model.steps.size(), runtime); });
    }
}

TEST_F(AllocationFault, LeavesARuntimeAsItWas) {
    const ComposedModel model = smallComposedModel(4);
    const ModelTime horizon = model.network.horizon;
    const auto arrange = [&] {
        auto runtime = model.build(cpu_);
        perform(model, model.steps.size() / 2, *runtime);
        runtime->run(horizon / 2);
        return runtime;
    };
    // Includes what no checkpoint holds: active groups and memberships of oscillators.
    const auto image = [&](KelmRuntime& runtime) {
        Blob blob = runtime.checkpoint();
        for (NodeId n = 0; n < model.network.node_count; ++n) {
            appendFlag(blob, runtime.learningControl()->neuronAdmitted(n));
            for (const PhaseSample& phase : runtime.oscillators()->neuronPhases(n, horizon)) {
                appendImage(blob, phase);
            }
        }
        return blob;
    };
    const std::uint32_t rhythm = model.phase.oscillators[0].id;
    const struct {
        const char* what;
        std::function<void(KelmRuntime&)> act;
    } operations[] = {
        {"checkpoint", [](KelmRuntime& r) { r.checkpoint(); }},
        {"spike log", [](KelmRuntime& r) { r.logHash(); }},
        {"group", [](KelmRuntime& r) { r.learningControl()->setGroupEnabled(900, false); }},
        {"groups",
         [](KelmRuntime& r) {
             r.learningControl()->allowOnlyGroups({9, 0, 5});
         }},
        {"memberships",
         [&](KelmRuntime& r) {
             r.oscillators()->setMemberships({{}, {rhythm}});
         }},
        {"coupling",
         [&](KelmRuntime& r) {
             r.oscillators()->configureCoupling({{rhythm, rhythm, 0.5}}, 1000);
         }},
        {"channel",
         [](KelmRuntime& r) {
             r.inputChannels()->addChannel({"a channel whose name takes memory", 1, {0}, 0, 1.0});
         }},
        {"predictor",
         [](KelmRuntime& r) {
             r.prediction()->setPredictor(0, {PredictorKind::explicit_readout, {0}, {1.0}});
         }},
        {"report", [](KelmRuntime& r) { r.prediction()->observeValue(0, 0.5, 0.1, 7); }},
        {"intervention", [](KelmRuntime& r) { r.interventions().note(7); }},
        {"cause", [](KelmRuntime& r) { r.recorder()->noteCause(1'000'000, {}); }},
        {"tape", [](KelmRuntime& r) { r.randomStreams().record("stimulus", 0); }},
        {"replay",
         [](KelmRuntime& r) {
             r.randomStreams().replay("learning", 0, std::vector<std::uint64_t>{1, 2, 3});
         }},
        {"perturbation",
         [&](KelmRuntime& r) {
             r.perturb({7, horizon + 1, PerturbationKind::activation, 0.5, {1}});
         }},
    };
    for (const auto& operation : operations) {
        expectUnchanged(operation.what, arrange, operation.act, image);
    }
    // The recorder keeps the cause of an observation even if the sample then fails.
    expectClean("sample", arrange, [&](KelmRuntime& r) {
        const std::vector<double> values(model.network.node_count, 0.25);
        SampleContext context;
        context.membrane = context.adaptation = values;
        context.oscillators = r.oscillators();
        r.recorder()->recordObservation({.time = 5, .kind = EventKind::observation}, context, {});
    });
    auto later = arrange();
    later->run(horizon);
    expectUnchanged(
        "restore", arrange,
        [stored = later->checkpoint()](KelmRuntime& r) { EXPECT_TRUE(r.restore(stored)); }, image);
}

TEST_F(AllocationFault, LeavesABankOfAnySizeAsItWas) {
    const auto image = [](const PredictionBank& bank) {
        Blob blob;
        for (const ErrorChannel& channel : bank.channels()) {
            appendBytes(blob, channel.name.data(), channel.name.size());
            appendSequence(blob, channel.targets);
        }
        for (NodeId n = 0; n < 3; ++n) appendF64(blob, bank.errorBound(n));
        return blob;
    };
    // Different sizes, so that each list is full once.
    for (int size = 0; size < 5; ++size) {
        expectUnchanged(
            "error channel",
            [&] {
                auto bank = std::make_unique<PredictionBank>();
                for (int i = 0; i < size; ++i) bank->addErrorChannel({std::to_string(i), {0, 2}});
                return bank;
            },
            [](PredictionBank& bank) {
                bank.addErrorChannel({"an error whose name takes memory", {0, 1, 1}});
            },
            image);
    }
}

std::uint64_t pendingEvents(KelmRuntime& runtime) {
    const BlobLayout layout(runtime.checkpoint());
    return numberAt(layout.bytes(), layout.begin("store") + 8 + 41);
}

// Events posted before the failure stay.
TEST_F(AllocationFault, LeavesAnInjectionOrAPerturbationPostedUpToATargetAndCanRepeatIt) {
    const ComposedModel model = smallComposedModel(4);
    const std::uint64_t none = pendingEvents(*model.build(cpu_));
    const std::string name = model.channels[0].name;
    const std::vector<NodeId>& targets = model.channels[0].targets;
    struct Subject {
        InjectionTrace trace;
        std::unique_ptr<KelmRuntime> runtime;
    };
    failEach(
        "injection",
        [&] {
            auto subject = std::make_unique<Subject>();
            subject->runtime = model.build(cpu_);
            subject->runtime->setInjectionTrace(&subject->trace);
            return subject;
        },
        [&](Subject& subject) { subject.runtime->inject(name, 1, 0.5); },
        [&](Subject& subject) {
            const InputChannelStats& stats = subject.runtime->inputChannels()->stats(0);
            const std::uint64_t counted = stats.injections;
            EXPECT_LE(counted, subject.trace.records().size());
            EXPECT_EQ(stats.events, 0U);
            const std::uint64_t posted = pendingEvents(*subject.runtime) - none;
            EXPECT_LT(posted, targets.size());
            EXPECT_EQ(subject.runtime->inject(name, 1, 0.5).size(), targets.size());
            EXPECT_EQ(stats.events, targets.size());
            EXPECT_EQ(stats.injections, counted + 1);
            EXPECT_EQ(pendingEvents(*subject.runtime), none + posted + targets.size());
        });
    // Enough events for the store to allocate between two of them.
    const Perturbation many{7, 1, PerturbationKind::activation, 0.5, std::vector<NodeId>(100, 1)};
    std::uint64_t most = 0;
    failEach(
        "perturbation", [&] { return model.build(cpu_); },
        [&](KelmRuntime& runtime) { runtime.perturb(many); },
        [&](KelmRuntime& runtime) {
            const std::uint64_t posted = pendingEvents(runtime) - none;
            EXPECT_LT(posted, many.targets.size());
            most = std::max(most, posted);
            EXPECT_EQ(runtime.perturb(many).size(), many.targets.size());
            EXPECT_EQ(pendingEvents(runtime), none + posted + many.targets.size());
        });
    EXPECT_GT(most, 0U);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
