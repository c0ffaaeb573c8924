// Fails every allocation of a rank, one at a time, in what the ranks do together. All ranks must
// throw, and none may wait for another.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <new>
#include <numeric>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/network/Wiring.h"
#include "kelm/runtime/KelmRuntime.h"
#include "kelm/runtime/MakeRuntime.h"
#include "tests/faults/FailingAllocation.h"
#include "tests/ranks/ThreadRanks.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

constexpr NodeId neurons = 12;
constexpr ModelTime window = 1'000'000;  // ns
constexpr ModelTime horizon = 8 * window;

/// A group whose own allocations do not fail.
class SafeGroup final : public IRankGroup {
public:
    explicit SafeGroup(IRankGroup& inner) : inner_(inner) {}

    std::uint32_t rank() const override { return inner_.rank(); }
    std::uint32_t size() const override { return inner_.size(); }

private:
    std::span<const BlobView> shareBytes(BlobView own) override {
        const SafeAllocations safe;
        return inner_.share(own);
    }
    std::span<const BlobView> collectBytes(BlobView own) override {
        const SafeAllocations safe;
        return inner_.collect(own);
    }
    std::span<const BlobView> swapBytes(std::span<const Blob> outgoing) override {
        const SafeAllocations safe;
        return inner_.swap(outgoing);
    }

    IRankGroup& inner_;
};

const Wiring& wiring() {
    static const Wiring wiring(neurons, window,
                               {{.name = "all",
                                 .sources = {0, neurons},
                                 .targets = {0, neurons},
                                 .rule = ConnectionRule::fixedInDegree(4),
                                 .weight = 0.2,
                                 .delay = SynapseValues::uniform(1e6, 3e6)}},
                               5);
    return wiring;
}

RuntimeOptions options(IRankGroup& ranks) {
    RuntimeOptions options;
    options.ranks = &ranks;
    options.horizon = horizon;
    options.populations = {{"firing", 10, Kernel::Neuron(), {.base_rate = 200.0}},
                           spikeSources("given", 2)};
    options.given_spikes = {{window, 10}, {2 * window, 11}};
    options.recorder =
        RecorderConfig{.sample_interval = 3 * window, .sample_kinds = {SampleKind::spike_counts}};
    options.prediction = PredictionConfig{.channels = {{.name = "error", .targets = {2, 9}}}};
    return options;
}

std::unique_ptr<KelmRuntime> build(IRankGroup& ranks) {
    return makeRuntime(wiring().buildShare(ranks), options(ranks),
                       std::make_unique<CpuWindowBackend>());
}

using Arrange = std::function<std::unique_ptr<KelmRuntime>(IRankGroup&)>;
using Act = std::function<void(std::unique_ptr<KelmRuntime>&, IRankGroup&)>;

std::uint64_t failures = 0;

/// Whether allocation `n` of rank `failing` in `act` came. Expects that all ranks throw, or none.
bool runsOut(std::uint32_t failing, std::uint64_t n, const Arrange& arrange, const Act& act) {
    bool came = false;
    int thrown = 0;
    constexpr int size = 2;
    ThreadRanks(size).run([&](IRankGroup& inner) {
        SafeGroup ranks(inner);
        std::unique_ptr<KelmRuntime> runtime = arrange(ranks);
        std::optional<SafeAllocations> safe;
        if (ranks.rank() != failing) safe.emplace();
        ranks.share({});
        if (!safe) failAllocation(n);
        bool threw = false;
        try {
            act(runtime, ranks);
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        if (!safe) came = failNoAllocation();
        const auto all = ranks.shareRecord(threw ? 1 : 0);
        if (ranks.rank() == 0) thrown = std::accumulate(all.begin(), all.end(), 0);
        if (runtime == nullptr) return;
        // The runtimes go on together, or all refuse to.
        bool runs = true;
        try {
            runtime->run();
        } catch (const RefusedCall&) {
            runs = false;
        }
        EXPECT_EQ(ranks.all(runs), runs);
    });
    // A sort does without memory for its copies, and nothing is thrown then.
    EXPECT_TRUE(thrown == 0 || (came && thrown == size))
        << thrown << " ranks have thrown at allocation " << n << " of rank " << failing;
    failures += thrown != 0;
    return came;
}

void failEach(const char* what, const Arrange& arrange, const Act& act) {
    SCOPED_TRACE(what);
    failures = 0;
    for (std::uint32_t rank = 0; rank < 2; ++rank) {
        for (std::uint64_t n = 0; runsOut(rank, n, arrange, act); ++n) {
            if (testing::Test::HasFailure()) return;
        }
    }
    EXPECT_GT(failures, 4U);
}

}  // namespace

TEST(RankFaults, OutOfMemoryReachesAllRanks) {
    wiring();
    const Arrange ran = [](IRankGroup& ranks) {
        std::unique_ptr<KelmRuntime> runtime = build(ranks);
        runtime->run(4 * window);
        return runtime;
    };
    failEach(
        "share", [](IRankGroup&) { return nullptr; },
        [](auto&, IRankGroup& ranks) { wiring().buildShare(ranks); });
    const SynapseGraph graph = wiring().build();
    failEach(
        "share of a graph", [](IRankGroup&) { return nullptr; },
        [&](auto&, IRankGroup& ranks) { SynapseGraph::scatter(&graph, ranks); });
    const std::vector<Kernel::Neuron> parameters(neurons);
    const std::vector<Kernel::Firing> firings(neurons);
    failEach(
        "engine", [](IRankGroup&) { return nullptr; },
        [&](auto&, IRankGroup& ranks) {
            std::optional<SafeAllocations> safe(std::in_place);
            SynapseGraph share = wiring().buildShare(ranks);
            ParameterTable own =
                ParameterTable(parameters, firings).part(share.share()->begin, share.share()->end);
            safe.reset();
            const WindowEngine engine(std::move(share), std::move(own), 1, horizon, nullptr,
                                      &ranks);
        });
    // Arguments are made by each rank alone.
    failEach(
        "runtime", [](IRankGroup&) { return nullptr; },
        [](auto& runtime, IRankGroup& ranks) {
            std::optional<SafeAllocations> safe(std::in_place);
            SynapseGraph share = wiring().buildShare(ranks);
            RuntimeOptions settings = options(ranks);
            auto backend = std::make_unique<CpuWindowBackend>();
            safe.reset();
            runtime = makeRuntime(std::move(share), std::move(settings), std::move(backend));
        });
    failEach("run", build, [](auto& runtime, IRankGroup&) { runtime->run(); });
    failEach("checkpoint", ran, [](auto& runtime, IRankGroup&) { runtime->checkpoint(); });
    Blob checkpoint;
    ThreadRanks(1).run([&](IRankGroup& ranks) { checkpoint = ran(ranks)->checkpoint(); });
    failEach("restore", build,
             [&](auto& runtime, IRankGroup&) { EXPECT_TRUE(runtime->restore(checkpoint)); });
    failEach("states and spikes", ran, [](auto& runtime, IRankGroup&) {
        runtime->statesAt(4 * window);
        runtime->logHash();
        runtime->takeSpikes();
    });
    failEach("reseed", ran, [](auto& runtime, IRankGroup&) { runtime->reseed(7); });
}

}  // namespace Lumenar::Core::Kelm::Testing
