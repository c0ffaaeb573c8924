// An engine gives its candidates to the calendar store as what they are, one per neuron; through
// the plain interface of a store they are events that are cancelled and posted. Nothing may tell
// the two apart: the snapshots of both are compared after every window.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/support/Draws.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

using namespace Testing;

namespace {

/// Hides what it wraps.
class PlainStore final : public IEventStore {
public:
    PlainStore(ModelTime d_min, std::uint64_t buckets) : inner_(d_min, buckets) {}

    const char* name() override { return inner_.name(); }
    std::uint64_t post(const Event& event) override { return inner_.post(event); }
    bool cancel(std::uint64_t id) override { return inner_.cancel(id); }
    bool isEmpty() override { return inner_.isEmpty(); }
    bool take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
              ModelTime& window_end) override {
        return inner_.take(until, events, window_start, window_end);
    }
    Blob snapshot() override { return inner_.snapshot(); }
    bool restore(BlobView blob) override { return inner_.restore(blob); }

    const BucketEventStore& inner() const { return inner_; }

private:
    BucketEventStore inner_;
};

struct Pair {
    BucketEventStore* calendar;
    PlainStore* plain;
    std::unique_ptr<WindowEngine> with_calendar;
    std::unique_ptr<WindowEngine> with_plain;
};

/// `reseeds`: how often all first candidates are drawn anew.
Pair makePair(const GeneratedModel& model, std::uint64_t buckets, std::uint64_t reseeds) {
    auto calendar = std::make_unique<BucketEventStore>(model.d_min, buckets);
    auto plain = std::make_unique<PlainStore>(model.d_min, buckets);
    Pair pair{calendar.get(), plain.get(), nullptr, nullptr};
    pair.with_calendar =
        std::make_unique<WindowEngine>(model.graph(), model.neurons, model.firings, model.run_seed,
                                       model.horizon, std::move(calendar));
    pair.with_plain =
        std::make_unique<WindowEngine>(model.graph(), model.neurons, model.firings, model.run_seed,
                                       model.horizon, std::move(plain));
    for (; reseeds != 0; --reseeds) {
        const std::vector<double> bounds(model.node_count, 0.1 * static_cast<double>(reseeds));
        pair.with_calendar->reseedInitialCandidates(bounds);
        pair.with_plain->reseedInitialCandidates(bounds);
    }
    postInputs(model, *pair.with_calendar);
    postInputs(model, *pair.with_plain);
    return pair;
}

std::string failureOf(WindowEngine& engine, IWindowBackend& backend, ModelTime until) {
    try {
        engine.run(backend, until);
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return "";
}

TEST(CandidateCalendar, LeavesTheBytesOfCandidatesThatAreEvents) {
    CpuWindowBackend cpu;
    std::uint64_t far_candidates = 0;
    int restores = 0;
    for (std::uint64_t seed = 1; seed <= 250; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Draws draws(seed);
        const GeneratedModel model = generateModel(seed);
        // Rings that most candidates lie beyond, and one that holds the run.
        const std::uint64_t buckets = draws.oneIn(4) ? 4096 : 4 + draws.below(12);
        Pair pair = makePair(model, buckets, draws.below(3));
        ASSERT_EQ(pair.with_calendar->snapshot(), pair.with_plain->snapshot());
        for (ModelTime until = 0; until < model.horizon;) {
            until += model.d_min;
            const std::string fault = failureOf(*pair.with_calendar, cpu, until);
            ASSERT_EQ(fault, failureOf(*pair.with_plain, cpu, until));
            if (!fault.empty()) break;
            const Blob bytes = pair.with_calendar->snapshot();
            ASSERT_EQ(bytes, pair.with_plain->snapshot()) << "until " << until << " ns";
            ASSERT_EQ(pair.calendar->overflowPosts(), pair.plain->inner().overflowPosts());
            if (!draws.oneIn(8)) continue;
            // Both go on in fresh engines, where the candidates come out of a blob.
            Pair fresh = makePair(model, buckets, draws.below(3));
            ASSERT_TRUE(fresh.with_calendar->restore(bytes));
            ASSERT_TRUE(fresh.with_plain->restore(bytes));
            pair = std::move(fresh);
            ++restores;
            ASSERT_EQ(pair.with_calendar->snapshot(), bytes);
        }
        far_candidates += pair.calendar->overflowPosts();
    }
    EXPECT_GT(far_candidates, 1000);
    EXPECT_GT(restores, 200);
}

TEST(CandidateCalendar, KeepsOneWakeUpOfANeuronThatIsWokenEarlyAgainAndAgain) {
    // Candidates far away and near in turn leave wake-ups behind, which must not pile up.
    constexpr std::uint64_t neurons = 3;
    BucketEventStore store(10, 8);
    std::vector<CandidateSlot> slots(neurons);
    store.holdCandidates(slots);
    Draws draws(1);
    std::vector<Event> events;
    ModelTime start = 0;
    ModelTime end = 0;
    for (int round = 0; round < 20'000; ++round) {
        const NodeId neuron = draws.below(neurons);
        const ModelTime now = end;
        store.scheduleCandidate(neuron, now + 1'000'000'000 + draws.timeBelow(1000), 1.0);
        store.scheduleCandidate(neuron, now + draws.timeBelow(40), 2.0);
        ASSERT_TRUE(store.take(now + 100, events, start, end));
        for (const Event& event : events) {
            ASSERT_EQ(event.time / 10 * 10, start);
            ASSERT_EQ(event.value, slots[event.target].rate);
            ASSERT_EQ(event.id, slots[event.target].event_id);
            store.scheduleCandidate(event.target, no_time, 0.0);
        }
    }
    EXPECT_LE(store.wakeUps(), 2 * neurons + 1100);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
