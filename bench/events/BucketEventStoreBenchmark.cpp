#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "bench/ItemTime.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/events/BucketEventStore.h"

// The store in three regimes. Near events lie a few hundred windows ahead, inside the ring. Far
// events lie tens of thousands of windows ahead, most of them beyond the ring. Scattered events lie
// so far apart that there is about one to the length of a ring. One item is one event.

namespace Lumenar::Core::Kelm {

namespace {

constexpr ModelTime d_min = 1'000'000;
constexpr std::uint64_t bucket_count = 4096;

// Mean distance of an event from the current window, in windows.
constexpr std::int64_t near_windows = 400;
constexpr std::int64_t far_windows = 40'000;
constexpr std::int64_t scattered_windows = 400'000'000;

/// Waiting times of a Poisson process, like those of candidates.
class Distances {
public:
    explicit Distances(std::int64_t mean_windows)
        : mean_(static_cast<double>(mean_windows) * static_cast<double>(d_min)) {}

    ModelTime next() { return static_cast<ModelTime>(-std::log(1.0 - share()) * mean_) + d_min; }
    /// A number below `count`.
    std::uint64_t below(std::uint64_t count) {
        return static_cast<std::uint64_t>(share() * static_cast<double>(count));
    }

private:
    double share() {
        raw_ += splitmix_increment;
        return static_cast<double>(splitmixOutput(raw_) >> 11) * 0x1p-53;
    }

    double mean_;
    std::uint64_t raw_ = 1;
};

Event eventAt(ModelTime time) {
    Event event;
    event.time = time;
    event.kind = EventKind::candidate;
    return event;
}

std::vector<Event> drawEvents(std::int64_t count, std::int64_t mean_windows) {
    Distances distances(mean_windows);
    std::vector<Event> events;
    for (std::int64_t i = 0; i < count; ++i) events.push_back(eventAt(distances.next()));
    return events;
}

std::vector<std::uint64_t> postAll(BucketEventStore& store, const std::vector<Event>& events) {
    std::vector<std::uint64_t> ids;
    ids.reserve(events.size());
    for (const Event& event : events) ids.push_back(store.post(event));
    return ids;
}

/// Posts into an empty store.
void post(benchmark::State& state) {
    const std::vector<Event> events = drawEvents(state.range(0), state.range(1));
    for (auto turn : state) {
        state.PauseTiming();
        BucketEventStore store(d_min, bucket_count);
        state.ResumeTiming();
        for (const Event& event : events) benchmark::DoNotOptimize(store.post(event));
        state.PauseTiming();
        { const BucketEventStore gone = std::move(store); }
        state.ResumeTiming();
    }
    reportItemTime(state, state.iterations() * state.range(0));
}

/// Cancels all events of a full store in random order.
void cancel(benchmark::State& state) {
    const std::vector<Event> events = drawEvents(state.range(0), state.range(1));
    Distances order(1);
    for (auto turn : state) {
        state.PauseTiming();
        BucketEventStore store(d_min, bucket_count);
        std::vector<std::uint64_t> ids = postAll(store, events);
        for (std::size_t i = ids.size(); i > 1; --i) std::swap(ids[i - 1], ids[order.below(i)]);
        state.ResumeTiming();
        for (const std::uint64_t id : ids) benchmark::DoNotOptimize(store.cancel(id));
        state.PauseTiming();
        { const BucketEventStore gone = std::move(store); }
        state.ResumeTiming();
    }
    reportItemTime(state, state.iterations() * state.range(0));
}

/// Takes window by window until the store is empty.
void take(benchmark::State& state) {
    const std::vector<Event> events = drawEvents(state.range(0), state.range(1));
    std::vector<Event> taken;
    ModelTime start = 0;
    ModelTime end = 0;
    for (auto turn : state) {
        state.PauseTiming();
        BucketEventStore store(d_min, bucket_count);
        postAll(store, events);
        state.ResumeTiming();
        while (store.take(last_model_time, taken, start, end)) {
            benchmark::DoNotOptimize(taken.data());
        }
        state.PauseTiming();
        { const BucketEventStore gone = std::move(store); }
        state.ResumeTiming();
    }
    reportItemTime(state, state.iterations() * state.range(0));
}

/// Steady state: each taken event is replaced by a new one.
void hold(benchmark::State& state) {
    Distances distances(state.range(1));
    BucketEventStore store(d_min, bucket_count);
    postAll(store, drawEvents(state.range(0), state.range(1)));
    std::vector<Event> taken;
    ModelTime start = 0;
    ModelTime end = 0;
    std::int64_t events = 0;
    for (auto turn : state) {
        store.take(last_model_time, taken, start, end);
        for (const Event& event : taken) store.post(eventAt(event.time + distances.next()));
        events += static_cast<std::int64_t>(taken.size());
    }
    reportItemTime(state, events);
}

/// Steady state: cancels a pending event and posts another, as an input does with a neuron's
/// candidate. The time includes a share of the sweeps of cancelled entries.
void replace(benchmark::State& state) {
    Distances distances(state.range(1));
    BucketEventStore store(d_min, bucket_count);
    std::vector<std::uint64_t> ids = postAll(store, drawEvents(state.range(0), state.range(1)));
    for (auto turn : state) {
        std::uint64_t& id = ids[distances.below(ids.size())];
        store.cancel(id);
        id = store.post(eventAt(distances.next()));
    }
    reportItemTime(state, state.iterations());
}

/// The near steady state with `waiting` events far beyond the ring, which must cost nothing.
void holdBesideWaiting(benchmark::State& state) {
    constexpr std::int64_t pending = 10'000;
    constexpr ModelTime far_away = ModelTime{1} << 61;
    Distances distances(near_windows);
    BucketEventStore store(d_min, bucket_count);
    postAll(store, drawEvents(pending, near_windows));
    for (std::int64_t i = 0; i < state.range(0); ++i) store.post(eventAt(far_away + i * d_min));
    std::vector<Event> taken;
    ModelTime start = 0;
    ModelTime end = 0;
    std::int64_t events = 0;
    for (auto turn : state) {
        store.take(far_away, taken, start, end);
        for (const Event& event : taken) store.post(eventAt(event.time + distances.next()));
        events += static_cast<std::int64_t>(taken.size());
    }
    reportItemTime(state, events);
}

void regimes(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"pending", "windows"});
    for (const std::int64_t pending : {10'000, 100'000}) {
        for (const std::int64_t windows : {near_windows, far_windows, scattered_windows}) {
            benchmark->Args({pending, windows});
        }
    }
}

BENCHMARK(post)->Name("store/post")->Apply(regimes);
BENCHMARK(cancel)->Name("store/cancel")->Apply(regimes);
BENCHMARK(take)->Name("store/take")->Apply(regimes);
BENCHMARK(hold)->Name("store/hold")->Apply(regimes);
BENCHMARK(replace)->Name("store/replace")->Apply(regimes);
BENCHMARK(holdBesideWaiting)->Name("store/hold")->ArgName("waiting")->Arg(0)->Arg(1'000'000);

}  // namespace

}  // namespace Lumenar::Core::Kelm
