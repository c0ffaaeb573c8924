#include <benchmark/benchmark.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "bench/ItemTime.h"
#include "gate/BenchmarkWorkload.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/events/BucketEventStore.h"
#include "kelm/network/SynapseGraph.h"

// The benchmark network's graph. One item is one synapse built or one event delivered.

namespace Lumenar::Core::Kelm {

namespace {

BenchmarkWorkload workloadOf(const benchmark::State& state) {
    BenchmarkScale scale;
    scale.neuron_count = static_cast<std::uint64_t>(state.range(0));
    return buildBenchmarkWorkload(scale);
}

SynapseGraph graphOf(BenchmarkWorkload workload) {
    return {workload.neuron_count, workload.min_delay, std::move(workload.synapses)};
}

/// Validates and builds the routes. The copy of the list is not in the time.
void build(benchmark::State& state) {
    const BenchmarkWorkload workload = workloadOf(state);
    for (auto turn : state) {
        state.PauseTiming();
        std::vector<Synapse> synapses = workload.synapses;
        state.ResumeTiming();
        SynapseGraph graph(workload.neuron_count, workload.min_delay, std::move(synapses));
        benchmark::DoNotOptimize(graph.outOffsets().data());
        state.PauseTiming();
        { const SynapseGraph gone = std::move(graph); }
        state.ResumeTiming();
    }
    reportItemTime(state, state.iterations() * static_cast<std::int64_t>(workload.synapses.size()));
}

/// Copies the list once in memory, for comparison with the build.
void copyList(benchmark::State& state) {
    const BenchmarkWorkload workload = workloadOf(state);
    for (auto turn : state) {
        std::vector<Synapse> synapses = workload.synapses;
        benchmark::DoNotOptimize(synapses.data());
        state.PauseTiming();
        std::vector<Synapse>().swap(synapses);
        state.ResumeTiming();
    }
    reportItemTime(state, state.iterations() * static_cast<std::int64_t>(workload.synapses.size()));
}

/// Discards events.
class Drain final : public IEventSink {
public:
    std::uint64_t post(const Event& event) override {
        benchmark::DoNotOptimize(event.target);
        return next_id_++;
    }

private:
    std::uint64_t next_id_ = 0;
};

NodeId randomNeuron(std::uint64_t& raw, std::uint64_t neuron_count) {
    raw += splitmix_increment;
    return splitmixOutput(raw) % neuron_count;
}

/// Delivers spikes of random neurons without a store: only the walk over the synapses.
void deliver(benchmark::State& state) {
    SynapseGraph graph = graphOf(workloadOf(state));
    Drain drain;
    std::uint64_t raw = 1;
    std::int64_t events = 0;
    for (auto turn : state) {
        const NodeId source = randomNeuron(raw, graph.nodeCount());
        events += static_cast<std::int64_t>(graph.deliver(source, 0, drain));
    }
    reportItemTime(state, events);
}

/// Delivers spikes of random neurons into the store and takes them window by window: the path of a
/// spike without the neurons.
void deliverAndTake(benchmark::State& state) {
    constexpr int spikes_per_window = 500;
    SynapseGraph graph = graphOf(workloadOf(state));
    const ModelTime d_min = *graph.dMin();
    BucketEventStore store(d_min, 4096);
    std::vector<Event> taken;
    std::uint64_t raw = 1;
    ModelTime start = 0;
    ModelTime end = d_min;
    std::int64_t events = 0;
    for (auto turn : state) {
        for (int i = 0; i < spikes_per_window; ++i) {
            const NodeId source = randomNeuron(raw, graph.nodeCount());
            const ModelTime time = end - 1 - static_cast<ModelTime>(raw % 1'000'000);
            graph.deliver(source, time, store);
        }
        store.take(last_model_time, taken, start, end);
        events += static_cast<std::int64_t>(taken.size());
    }
    reportItemTime(state, events);
}

BENCHMARK(copyList)
    ->Name("graph/copyList")
    ->ArgName("neurons")
    ->Arg(100'000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(build)
    ->Name("graph/build")
    ->ArgName("neurons")
    ->Arg(100'000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(deliver)->Name("graph/deliver")->ArgName("neurons")->Arg(1'000)->Arg(100'000);
BENCHMARK(deliverAndTake)
    ->Name("graph/deliverAndTake")
    ->ArgName("neurons")
    ->Arg(1'000)
    ->Arg(100'000);

}  // namespace

}  // namespace Lumenar::Core::Kelm
