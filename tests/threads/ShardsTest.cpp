// Engines whose backend has a team of threads, against the engine on one thread: also where a
// window fails in the middle. The soak tests runs that end well.

#include <gtest/gtest.h>

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <tbb/global_control.h>

#include "kelm/core/Failures.h"
#include "kelm/core/RandomContext.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/threads/ThreadedCpuBackend.h"
#include "tests/support/ShardEdges.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr NodeId neurons = 60;
constexpr ModelTime window = 1'000'000;

/// Random synapses; those of every third neuron have one delay.
SynapseGraph drawGraph() {
    Runtime::RandomContext random(5);
    const auto stream = random.streamFor("graph", 0);
    std::vector<Synapse> synapses;
    for (NodeId source = 0; source < neurons; ++source) {
        for (int k = 0; k < 12; ++k) {
            const ModelTime delay =
                source % 3 == 0 ? 0 : static_cast<ModelTime>(random.next(stream) % window);
            synapses.push_back({.source = source,
                                .target = random.next(stream) % neurons,
                                .weight = 0.2F,
                                .delay = window + delay,
                                .inhibitory = random.next(stream) % 4 == 0});
        }
    }
    return SynapseGraph(neurons, window, std::move(synapses));
}

/// What can be seen of an engine after a run, and the text of the exception that ended it.
struct Seen {
    std::string failure;
    Blob blob;
    std::vector<std::uint64_t> streams;

    friend bool operator==(const Seen&, const Seen&) = default;
};

/// A run in which neuron `faulty` fires too often, if there is one.
Seen run(std::optional<NodeId> faulty, IWindowBackend& backend) {
    std::vector<Kernel::Firing> firings(neurons, {.base_rate = 300.0, .max_rate = 1000.0});
    std::vector<Kernel::Neuron> kinds(neurons);
    if (faulty) {
        // Nine spikes in a window are too many; with 4.5 on average they come after some windows.
        firings[*faulty] = {.base_rate = 4500.0, .gain = 0.0};
        kinds[*faulty].refractory_period = 1;
    }
    WindowEngine engine(drawGraph(), kinds, firings, 3, 200 * window);
    Seen seen;
    try {
        engine.run(backend);
    } catch (const WindowEngineError& error) {
        seen.failure = error.what();
    }
    seen.blob = engine.snapshot();
    for (NodeId n = 0; n < neurons; ++n) seen.streams.push_back(engine.spontaneousState(n));
    return seen;
}

class ShardsTest : public testing::Test {
protected:
    CpuWindowBackend cpu_;

private:
    tbb::global_control workers_{tbb::global_control::max_allowed_parallelism, 100};
};

TEST_F(ShardsTest, CommitsWhatLiesBeforeAFailureAndNothingBehindIt) {
    for (const NodeId faulty : {0U, 1U, 19U, 20U, 33U, 59U}) {
        const Seen expected = run(faulty, cpu_);
        ASSERT_NE(expected.failure, "") << "neuron " << faulty;
        for (const std::uint64_t threads : {2U, 3U, 7U, 60U, 100U}) {
            ThreadedCpuBackend backend(threads, 0);
            EXPECT_TRUE(run(faulty, backend) == expected)
                << "neuron " << faulty << ", " << threads << " threads";
        }
    }
}

/// Runs on the backends in turn. Between runs weights change and an event comes from outside.
Blob runInTurn(const std::vector<IWindowBackend*>& backends) {
    WindowEngine engine(drawGraph(), {}, {.base_rate = 300.0, .max_rate = 1000.0}, 3, 200 * window);
    ModelTime until = 0;
    for (IWindowBackend* backend : backends) {
        engine.run(*backend, until += 11 * window);
        const EdgeId edge = static_cast<EdgeId>(until / window) * 7;
        engine.graph().setWeight(edge, 0.1F + 0.01F * static_cast<float>(edge % 30));
        engine.graph().setEnabled(edge + 1, edge % 2 == 0);
        Event event;
        event.kind = EventKind::perturbation;
        event.time = until + 20 * window;
        event.target = edge % neurons;
        event.value = 0.5;
        engine.post(event);
    }
    engine.run(*backends.front());
    return engine.snapshot();
}

TEST_F(ShardsTest, DividesAndJoinsANetworkBetweenRuns) {
    ThreadedCpuBackend three(3, 0);
    ThreadedCpuBackend many(100, 0);
    EXPECT_TRUE(runInTurn({&three, &cpu_, &many, &three, &many, &cpu_, &three}) ==
                runInTurn({&cpu_, &cpu_, &cpu_, &cpu_, &cpu_, &cpu_, &cpu_}));
}

/// A prepare hook that changes weights, and twice the whole graph. After each change deliveries
/// form runs again, 16 windows later.
class GraphChange final : public IWindowPrepare {
public:
    void prepare(ModelTime start, ModelTime, std::span<WindowWork> work,
                 SynapseGraph& graph) override {
        if (work.empty()) return;
        if (start == 10 * window) {
            graph.prepareWriters(2, false);
            for (EdgeId id = 0; id < graph.edgeCount(); id += 5) graph.setWeight(1, id, 0.3F);
        }
        if (start >= 70 * window && start < 80 * window) {
            const float weight = 0.01F * static_cast<float>(start / window % 50);
            graph.setWeight(work.front().neuron * 12, weight);
        }
        if (start == 30 * window) graph = drawGraph();
        if (start == 60 * window) graph = SynapseGraph(graph);
    }
};

TEST_F(ShardsTest, FollowsAHookThatChangesTheGraph) {
    const auto runOn = [](IWindowBackend& backend) {
        WindowEngine engine(drawGraph(), {}, {.base_rate = 300.0, .max_rate = 1000.0}, 3,
                            200 * window);
        GraphChange change;
        engine.setHooks(&change, nullptr, nullptr);
        engine.run(backend, 100 * window);
        engine.setHooks(nullptr, nullptr, nullptr);
        engine.graph() = engine.graph();
        engine.run(backend);
        return engine.snapshot();
    };
    ThreadedCpuBackend three(3, 0);
    EXPECT_TRUE(runOn(three) == runOn(cpu_));
}

TEST_F(ShardsTest, LeaveTheBitsOfOnePieceAtEveryEdge) {
    for (const Testing::ShardEdge& edge : Testing::shardEdges()) {
        const Blob expected = runEdge(edge, cpu_);
        for (const std::uint64_t threads : {2U, 3U, 7U}) {
            ThreadedCpuBackend backend(threads, 0);
            EXPECT_TRUE(runEdge(edge, backend) == expected)
                << edge.fact << ", " << threads << " threads";
        }
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
