#include "kelm/engine/WindowHooks.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "kelm/engine/WindowEngine.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/NaiveEventStore.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

using Trace = std::vector<std::string>;

std::string text(const Event& event) {
    std::ostringstream line;
    line << (event.kind == EventKind::candidate ? "candidate " : "delivery ") << event.source
         << "->" << event.target << " at " << event.time;
    return line.str();
}

/// Writes down what the engine asks of it.
class TracingStore : public NaiveEventStore {
public:
    explicit TracingStore(Trace& trace) : NaiveEventStore(10), trace_(trace) {}

    std::uint64_t post(const Event& event) override {
        const std::uint64_t id = NaiveEventStore::post(event);
        trace_.push_back("post " + std::to_string(id) + ": " + text(event));
        return id;
    }
    bool cancel(std::uint64_t id) override {
        const bool pending = NaiveEventStore::cancel(id);
        trace_.push_back("cancel " + std::to_string(id) + (pending ? "" : ", too late"));
        return pending;
    }

private:
    Trace& trace_;
};

/// Writes down every call and what the engine shows at that moment.
class TracingHooks : public IWindowPrepare, public IWindowCommit, public IWindowObserver {
public:
    explicit TracingHooks(Trace& trace) : trace_(trace) {}

    void prepare(ModelTime start, ModelTime end, std::span<WindowWork> work,
                 SynapseGraph& graph) override {
        EXPECT_EQ(&graph, &engine->graph());
        std::ostringstream line;
        line << "prepare " << start << " to " << end << ':';
        for (WindowWork& item : work) {
            line << ' ' << item.neuron << " (" << item.event_count << " events, pending "
                 << item.pending_time << ')';
            item.drive.base = 0.25;
        }
        trace_.push_back(line.str() + engineState());
        if (throws_in_prepare) throw Fault();
    }
    void commit(ModelTime start, ModelTime end, std::span<const SpikeRecord> spikes,
                SynapseGraph& graph) override {
        EXPECT_EQ(&graph, &engine->graph());
        // The look at the log sorts it, which must not change the spikes that are handed over.
        const std::string state = engineState();
        std::ostringstream line;
        line << "commit " << start << " to " << end << ':';
        for (const SpikeRecord& spike : spikes) {
            line << ' ' << spike.neuron << '@' << spike.time;
        }
        trace_.push_back(line.str() + state);
        if (throws_in_commit) throw Fault();
    }
    void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {
        ADD_FAILURE() << "the engine calls the other form";
    }
    void observe(const Event& event, std::span<const Kernel::State>, std::span<const ModelTime>,
                 SynapseGraph&) override {
        trace_.push_back("observe " + std::to_string(event.time));
    }

    struct Fault {};

    WindowEngine* engine = nullptr;
    bool throws_in_prepare = false;
    bool throws_in_commit = false;

private:
    /// The mark that the scripted backend leaves on the membrane of neuron 0, and the spikes so
    /// far.
    std::string engineState() const {
        std::ostringstream line;
        line << "; mark " << engine->states()[0].membrane << ", " << engine->spikeLog().size()
             << " spikes";
        return line.str();
    }

    Trace& trace_;
};

Synapse synapse(NodeId source, NodeId target, ModelTime delay) {
    Synapse result;
    result.source = source;
    result.target = target;
    result.weight = 0.5F;
    result.delay = delay;
    return result;
}

Event eventAt(ModelTime time, NodeId target) {
    Event event;
    event.time = time;
    event.target = target;
    return event;
}

/// Three neurons that do what a script says: in the first window neuron 0 fires once and neuron 2
/// twice, and both are given a candidate.
class WindowHooksTest : public testing::Test {
protected:
    WindowHooksTest() {
        hooks.engine = &engine;
        engine.setHooks(&hooks, &hooks, &hooks);
        engine.post(eventAt(5, 2));
        engine.post(eventAt(3, 0));
        engine.post(eventAt(3, 0));
        trace.clear();
    }

    Kernel::WindowResult play(const WindowWork& item, ModelTime window_end) {
        EXPECT_EQ(item.drive.base, 0.25);
        trace.push_back("compute " + std::to_string(item.neuron));
        if (window_end == 10 && item.neuron == 0) {
            Kernel::WindowResult result = spikingResult(item, {8});
            result.state.membrane = 1.0;
            result.next_candidate = 12;
            return result;
        }
        Kernel::WindowResult result = quietResult(item);
        if (window_end == 10) {
            result = spikingResult(item, {6, 9});
            result.next_candidate = 35;
        }
        if (window_end == 30) result.next_candidate = 37;
        return result;
    }

    static Kernel::Firing silentFiring() {
        Kernel::Firing firing;
        firing.base_rate = 0.0;
        return firing;
    }

    Trace trace;
    TracingHooks hooks{trace};
    WindowEngine engine{
        SynapseGraph(3, 10, {synapse(0, 1, 10), synapse(0, 2, 15), synapse(2, 0, 10)}),
        Kernel::Neuron(),
        silentFiring(),
        1,
        50,
        std::make_unique<TracingStore>(trace)};
    ScriptedBackend backend{[this](const WindowWork& item, const Kernel::WindowEvent*,
                                   ModelTime window_end) { return play(item, window_end); }};
};

TEST_F(WindowHooksTest, AreCalledAtTheirPlacesInTheOrderOfAWindow) {
    for (const ModelTime time : {45, 10, 7}) engine.declareObserverEvent(eventAt(time, 0));
    engine.run(backend);
    const Trace expected = {
        "prepare 0 to 10: 0 (2 events, pending -1) 2 (1 events, pending -1); mark 0, 0 spikes",
        "compute 0",
        "compute 2",
        // By neuron, then by time of the spike, then by synapse; the candidate comes last.
        "post 3: delivery 0->1 at 18",
        "post 4: delivery 0->2 at 23",
        "post 5: candidate 0->0 at 12",
        "post 6: delivery 2->0 at 16",
        "post 7: delivery 2->0 at 19",
        "post 8: candidate 2->2 at 35",
        "commit 0 to 10: 0@8 2@6 2@9; mark 1, 3 spikes",
        "observe 7",
        "prepare 10 to 20: 0 (3 events, pending 12) 1 (1 events, pending -1); mark 1, 3 spikes",
        "compute 0",
        "compute 1",
        "cancel 5, too late",
        "commit 10 to 20:; mark 1, 3 spikes",
        "observe 10",
        "prepare 20 to 30: 2 (1 events, pending 35); mark 1, 3 spikes",
        "compute 2",
        "cancel 8",
        "post 9: candidate 2->2 at 37",
        "commit 20 to 30:; mark 1, 3 spikes",
        "prepare 30 to 40: 2 (1 events, pending 37); mark 1, 3 spikes",
        "compute 2",
        "cancel 9, too late",
        "commit 30 to 40:; mark 1, 3 spikes",
        "observe 45",
    };
    EXPECT_EQ(trace, expected);
    EXPECT_EQ(engine.profile(), (WindowProfile{4, 9, 0, 0, 0}));
}

TEST_F(WindowHooksTest, ThatThrowEndTheRunWhereItStands) {
    hooks.throws_in_prepare = true;
    EXPECT_THROW(engine.run(backend), TracingHooks::Fault);
    EXPECT_EQ(engine.profile(), WindowProfile());
    EXPECT_EQ(engine.states()[0].membrane, 0.0);
    EXPECT_EQ(trace.size(), 1);
}

TEST_F(WindowHooksTest, ThatThrowInCommitFindTheWindowCommitted) {
    hooks.throws_in_commit = true;
    EXPECT_THROW(engine.run(backend), TracingHooks::Fault);
    EXPECT_EQ(engine.profile(), (WindowProfile{1, 3, 0, 0, 0}));
    EXPECT_EQ(engine.states()[0].membrane, 1.0);
    EXPECT_EQ(engine.spikeLog().size(), 3);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
