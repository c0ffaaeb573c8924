// Shares that ranks get from each other, against the same network in one graph.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/FailureDetail.h"
#include "kelm/core/Failures.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/core/ShardRanges.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/network/SynapseColumns.h"
#include "kelm/network/SynapseGraph.h"
#include "tests/ranks/ThreadRanks.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

/// The last one is more than a generated model has neurons.
constexpr std::uint32_t sizes[] = {1, 2, 3, 7, 26};

/// Synapses in columns of their own.
struct Columns {
    std::vector<NodeId> sources;
    std::vector<NodeId> targets;
    std::vector<float> weights;
    std::vector<ModelTime> delays;
    std::vector<std::uint8_t> inhibitory;

    explicit Columns(std::span<const Synapse> synapses) {
        for (const Synapse& synapse : synapses) {
            sources.push_back(synapse.source);
            targets.push_back(synapse.target);
            weights.push_back(synapse.weight);
            delays.push_back(synapse.delay);
            inhibitory.push_back(synapse.inhibitory ? 1 : 0);
        }
    }
    SynapseColumns all() const { return {sources, targets, weights, delays, inhibitory}; }
    /// Those from `first` to below `end`.
    SynapseColumns part(std::size_t first, std::size_t end) const {
        const auto cut = [&](const auto& column) {
            return std::span(column).subspan(first, end - first);
        };
        return {cut(sources), cut(targets), cut(weights), cut(delays), cut(inhibitory)};
    }
};

/// Divides `count` synapses among ranks, to some of which it gives none. Returns the ends.
std::vector<std::size_t> drawParts(Draws& draws, std::size_t count, std::uint32_t size) {
    std::vector<std::size_t> ends(size, count);
    for (std::uint32_t r = 0; r + 1 < size; ++r) ends[r] = draws.below(count + 1);
    std::ranges::sort(ends);
    return ends;
}

SynapseColumns partOf(const Columns& columns, std::span<const std::size_t> ends,
                      std::uint32_t rank) {
    return columns.part(rank == 0 ? 0 : ends[rank - 1], ends[rank]);
}

/// Expects the synapses of `whole` that enter the rank's range, by source, and all their fields.
void expectShareOf(const SynapseGraph& whole, const SynapseGraph& share, IRankGroup& ranks) {
    const NodeId begin = Kernel::shardBegin(whole.nodeCount(), ranks.size(), ranks.rank());
    const NodeId end = Kernel::shardEnd(whole.nodeCount(), ranks.size(), ranks.rank());
    std::vector<EdgeId> edges;
    for (EdgeId id = 0; id < whole.edgeCount(); ++id) {
        if (whole.target(id) >= begin && whole.target(id) < end) edges.push_back(id);
    }
    std::ranges::stable_sort(edges, {}, [&](EdgeId id) { return whole.source(id); });
    ASSERT_TRUE(share.share().has_value());
    EXPECT_EQ(share.share()->begin, begin);
    EXPECT_EQ(share.share()->end, end);
    EXPECT_TRUE(std::ranges::equal(share.share()->network_edges, edges)) << "EdgeIds";
    const Blob blob = share.collectSnapshot(ranks);
    if (ranks.rank() == 0) {
        EXPECT_TRUE(blob == whole.snapshot()) << "fields";
    }
}

struct Outcome {
    std::string failure;
    Blob blob;
};

/// Runs a model on a graph or share. The snapshot is on rank 0.
Outcome run(const GeneratedModel& model, SynapseGraph graph, IRankGroup* ranks) {
    ParameterTable parameters(model.neurons, model.firings);
    if (graph.share()) parameters = parameters.part(graph.share()->begin, graph.share()->end);
    WindowEngine engine(std::move(graph), std::move(parameters), model.run_seed, model.horizon,
                        nullptr, ranks);
    postInputs(model, engine);
    CpuWindowBackend backend;
    Outcome outcome;
    try {
        engine.run(backend);
    } catch (const WindowEngineError& failure) {
        outcome.failure = failure.what();
    }
    outcome.blob = engine.snapshot();
    return outcome;
}

/// A model's graph with all that a graph can hold besides.
SynapseGraph drawGraph(Draws& draws, GeneratedModel& model) {
    if (draws.oneIn(3)) {
        for (Synapse& synapse : model.synapses) {
            if (draws.oneIn(2)) synapse.reserved_b = draws.timeBelow(9);
        }
    }
    SynapseGraph graph = model.graph();
    if (draws.oneIn(3)) graph.setTransmissionEnabled(draws.oneIn(2), false);
    for (EdgeId id = 0; id < graph.edgeCount(); ++id) {
        if (draws.oneIn(9)) graph.setWeight(id, 0.5F);
        if (draws.oneIn(9)) graph.lastChange(id) = draws.timeBelow(1000);
    }
    if (model.declares_d_min && draws.oneIn(2)) {
        // Only a snapshot can hold synapses that are not routed.
        Blob blob = graph.snapshot();
        for (EdgeId id = 0; id < graph.edgeCount(); ++id) {
            if (draws.oneIn(5)) blob[35 + 63 * id + 62] = 0;
        }
        EXPECT_TRUE(graph.restore(blob));
    }
    return graph;
}

}  // namespace

TEST(SharesOfGraph, AreScatteredByRankZero) {
    for (std::uint64_t seed = 0; seed < 24; ++seed) {
        GeneratedModel model = generateModel(seed, {.fans = seed % 2 == 0});
        Draws draws(seed);
        const SynapseGraph whole = drawGraph(draws, model);
        const Outcome expected = run(model, whole, nullptr);
        for (const std::uint32_t size : sizes) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", ranks " + std::to_string(size));
            ThreadRanks(size).run([&](IRankGroup& ranks) {
                const bool has_graph = ranks.rank() == 0;
                SynapseGraph share = SynapseGraph::scatter(has_graph ? &whole : nullptr, ranks);
                expectShareOf(whole, share, ranks);
                const Outcome outcome = run(model, std::move(share), &ranks);
                EXPECT_EQ(outcome.failure, expected.failure);
                if (has_graph) {
                    EXPECT_TRUE(outcome.blob == expected.blob);
                }
            });
            if (HasFailure()) return;
        }
    }
}

TEST(SharesOfGraph, AreBuiltFromColumnsOfAllRanks) {
    for (std::uint64_t seed = 0; seed < 24; ++seed) {
        GeneratedModel model = generateModel(seed, {.fans = seed % 2 == 0});
        for (Synapse& synapse : model.synapses) synapse.enabled = true;
        const Columns columns(model.synapses);
        const SynapseGraph whole = model.graph();
        const Outcome expected = run(model, whole, nullptr);
        Draws draws(seed);
        for (const std::uint32_t size : sizes) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", ranks " + std::to_string(size));
            const std::vector<std::size_t> ends = drawParts(draws, model.synapses.size(), size);
            const std::optional<ModelTime> min_delay =
                model.declares_d_min ? std::optional(model.d_min) : std::nullopt;
            ThreadRanks(size).run([&](IRankGroup& ranks) {
                SynapseGraph share = SynapseGraph::buildShare(
                    model.node_count, min_delay, partOf(columns, ends, ranks.rank()), ranks);
                expectShareOf(whole, share, ranks);
                const Outcome outcome = run(model, std::move(share), &ranks);
                EXPECT_EQ(outcome.failure, expected.failure);
                if (ranks.rank() == 0) {
                    EXPECT_TRUE(outcome.blob == expected.blob);
                }
            });
            if (HasFailure()) return;
        }
    }
}

// One rank has more synapses than it sends at a time; the last ones come behind those of the
// others.
TEST(SharesOfGraph, ComeInBlocks) {
    constexpr std::size_t counts[] = {(1U << 18) + 9, 0, 1000};
    Draws draws(1);
    std::vector<Synapse> synapses(counts[0] + counts[2]);
    for (Synapse& synapse : synapses) {
        synapse = {.source = draws.below(50), .target = draws.below(50), .weight = 0.5F};
        synapse.delay = draws.timeBetween(1, 1000);
    }
    const Columns columns(synapses);
    const SynapseGraph whole(50, std::nullopt, columns.all());
    const std::vector<std::size_t> ends = {counts[0], counts[0], synapses.size()};
    ThreadRanks(3).run([&](IRankGroup& ranks) {
        SynapseColumns part = partOf(columns, ends, ranks.rank());
        part.weights = 0.5F;
        expectShareOf(whole, SynapseGraph::buildShare(50, std::nullopt, part, ranks), ranks);
    });
}

namespace {

/// What a construction refuses, and the synapse that it names.
template <class Build>
std::string refusalOf(Build build) {
    try {
        build();
    } catch (const InvalidSynapse& failure) {
        const FailureDetail* detail = failure.detail();
        return failure.what() + (detail == nullptr ? "" : "; " + detail->text());
    }
    return "nothing refused";
}

void putFault(Draws& draws, Columns& columns, std::uint64_t node_count) {
    const std::size_t i = draws.below(columns.sources.size());
    switch (draws.below(6)) {
        case 0:
            columns.sources[i] = node_count;
            break;
        case 1:
            columns.targets[i] = node_count + draws.below(2);
            break;
        case 2:
            columns.weights[i] = draws.oneOf({-1.0F, static_cast<float>(not_a_number)});
            break;
        case 3:
            columns.delays[i] = 0;
            break;
        case 4:
            columns.delays[i] = 999;
            break;
        default:
            columns.inhibitory[i] = 2;
            break;
    }
}

}  // namespace

TEST(SharesOfGraph, RefuseOnAllRanksTheFirstFaultOfTheNetwork) {
    for (std::uint64_t seed = 0; seed < 60; ++seed) {
        Draws draws(seed);
        const std::uint64_t node_count = draws.below(10);
        std::vector<Synapse> synapses(1 + draws.below(40));
        for (Synapse& synapse : synapses) {
            synapse.source = draws.below(node_count + 1) % std::max<std::uint64_t>(node_count, 1);
            synapse.delay = 1000;
        }
        Columns columns(synapses);
        for (std::uint64_t i = 1 + draws.below(4); i > 0; --i) {
            putFault(draws, columns, node_count);
        }
        const std::optional<ModelTime> min_delay = draws.oneOf<ModelTime>({1000, 1000, 1, 0});
        const std::string expected =
            refusalOf([&] { SynapseGraph(node_count, min_delay, columns.all()); });
        for (const std::uint32_t size : sizes) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", ranks " + std::to_string(size));
            const std::vector<std::size_t> ends = drawParts(draws, synapses.size(), size);
            ThreadRanks(size).run([&](IRankGroup& ranks) {
                EXPECT_EQ(refusalOf([&] {
                              SynapseGraph::buildShare(node_count, min_delay,
                                                       partOf(columns, ends, ranks.rank()), ranks);
                          }),
                          expected);
                ranks.share({});  // the ranks can go on together
            });
        }
    }
}

TEST(SharesOfGraph, RefuseOnAllRanksWhatCannotBeDivided) {
    Columns columns(std::vector<Synapse>(4));  // delays below 1
    const SynapseGraph whole(5, 1, {});
    ThreadRanks(3).run([&](IRankGroup& ranks) {
        SynapseColumns part = columns.all();
        if (ranks.rank() == 2) part.targets = part.targets.first(3);
        expectThrows<InvalidSynapse>([&] { SynapseGraph::buildShare(5, 0, part, ranks); },
                                     "synapse column targets has 3 values for 4 sources");
        expectThrows<std::invalid_argument>(
            [&] { SynapseGraph::scatter(ranks.rank() == 0 ? nullptr : &whole, ranks); },
            "rank 0 has no graph to scatter");
        const SynapseGraph share = SynapseGraph::scatter(&whole, ranks);
        expectThrows<std::invalid_argument>([&] { SynapseGraph::scatter(&share, ranks); },
                                            "the graph to scatter is a share");
    });
}

}  // namespace Lumenar::Core::Kelm::Testing
