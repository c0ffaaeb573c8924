#include <benchmark/benchmark.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "bench/ItemTime.h"
#include "kelm/network/Wiring.h"

// The graph of 100000 neurons with 100 synapses each, built by rules. One item is one synapse.

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::uint64_t neuron_count = 100'000;
constexpr std::uint64_t degree = 100;
constexpr std::uint64_t synapse_count = neuron_count * degree;
constexpr ModelTime delay = 1'500'000;

Wiring wiringOf(const ConnectionRule& rule, const SynapseValues& weight,
                const SynapseValues& delays) {
    const NeuronRange all = {0, neuron_count};
    return Wiring(neuron_count, 1'000'000, {{"all", all, all, rule, weight, delays}}, 1);
}

/// Synapses in columns of full width.
struct Columns {
    std::vector<NodeId> sources, targets;
    std::vector<float> weights;
    std::vector<ModelTime> delays;
    std::vector<std::uint8_t> inhibitory;

    void resize(std::size_t count) {
        sources.resize(count);
        targets.resize(count);
        weights.resize(count);
        delays.resize(count);
        inhibitory.resize(count);
    }
    std::size_t size() const { return sources.size(); }
};

Columns sortedBySource(const Columns& columns) {
    std::vector<std::uint64_t> next(neuron_count);
    for (const NodeId source : columns.sources) ++next[source];
    std::uint64_t sum = 0;
    for (std::uint64_t& entry : next) sum += std::exchange(entry, sum);
    Columns sorted;
    sorted.resize(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const std::uint64_t place = next[columns.sources[i]]++;
        sorted.sources[place] = columns.sources[i];
        sorted.targets[place] = columns.targets[i];
        sorted.weights[place] = columns.weights[i];
        sorted.delays[place] = columns.delays[i];
        sorted.inhibitory[place] = columns.inhibitory[i];
    }
    return sorted;
}

/// What the rules are compared with: a copy of the columns and a counting sort by source.
void copyAndSort(benchmark::State& state) {
    Columns columns;
    columns.resize(synapse_count);
    std::size_t i = 0;
    wiringOf(ConnectionRule::fixedInDegree(degree), 0.1, delay)
        .visit(0, neuron_count, [&](const Synapse& synapse) {
            columns.sources[i] = synapse.source;
            columns.targets[i] = synapse.target;
            columns.weights[i] = synapse.weight;
            columns.delays[i] = synapse.delay;
            ++i;
        });
    for (auto turn : state) {
        const Columns copy = columns;
        const Columns sorted = sortedBySource(copy);
        benchmark::DoNotOptimize(sorted.targets.data());
    }
    reportItemTime(state, state.iterations() * static_cast<std::int64_t>(synapse_count));
}

void build(benchmark::State& state, const ConnectionRule& rule, const SynapseValues& weight,
           const SynapseValues& delays) {
    std::int64_t items = 0;
    for (auto turn : state) {
        SynapseGraph graph = wiringOf(rule, weight, delays).build();
        items += static_cast<std::int64_t>(graph.edgeCount());
        benchmark::DoNotOptimize(graph.outOffsets().data());
    }
    reportItemTime(state, items);
}

ConnectionRule distinct(const ConnectionRule& rule) {
    return rule.withoutSelfConnections().withoutMultipleConnections();
}

void buildInDegree(benchmark::State& state) {
    build(state, ConnectionRule::fixedInDegree(degree), 0.1, delay);
}
void buildDistinctInDegree(benchmark::State& state) {
    build(state, distinct(ConnectionRule::fixedInDegree(degree)), 0.1, delay);
}
void buildDrawnValues(benchmark::State& state) {
    build(state, distinct(ConnectionRule::fixedInDegree(degree)),
          SynapseValues::logNormal(-2.0, 0.5), SynapseValues::normal(2e6, 5e5).within(1e6, 4e6));
}
void buildOutDegree(benchmark::State& state) {
    build(state, distinct(ConnectionRule::fixedOutDegree(degree)), 0.1, delay);
}
void buildTotalNumber(benchmark::State& state) {
    build(state, distinct(ConnectionRule::fixedTotalNumber(synapse_count)), 0.1, delay);
}
void buildBernoulli(benchmark::State& state) {
    build(state, ConnectionRule::bernoulli(static_cast<double>(degree) / neuron_count), 0.1, delay);
}

BENCHMARK(copyAndSort)->Name("wiring/copyAndSort")->Unit(benchmark::kMillisecond);
BENCHMARK(buildInDegree)->Name("wiring/inDegree")->Unit(benchmark::kMillisecond);
BENCHMARK(buildDistinctInDegree)->Name("wiring/distinctInDegree")->Unit(benchmark::kMillisecond);
BENCHMARK(buildDrawnValues)->Name("wiring/drawnValues")->Unit(benchmark::kMillisecond);
BENCHMARK(buildOutDegree)->Name("wiring/distinctOutDegree")->Unit(benchmark::kMillisecond);
BENCHMARK(buildTotalNumber)->Name("wiring/distinctTotalNumber")->Unit(benchmark::kMillisecond);
BENCHMARK(buildBernoulli)->Name("wiring/Bernoulli")->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace Lumenar::Core::Kelm
