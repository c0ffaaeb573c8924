#include "kelm/events/BucketEventStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::expectThrows;

constexpr const char* processed_text =
    "KELM event inserted into an already processed window; d_min does not bound this edge";

Event eventAt(ModelTime time) {
    Event event;
    event.time = time;
    return event;
}

/// One window, or what a refused take left behind.
struct Window {
    bool given = false;
    ModelTime start = -7;
    ModelTime end = -7;
    std::vector<Event> events = {eventAt(-7)};  ///< old contents must vanish
};

Window take(BucketEventStore& store, ModelTime until = last_model_time) {
    Window window;
    window.given = store.take(until, window.events, window.start, window.end);
    return window;
}

std::vector<std::uint64_t> idsOf(const std::vector<Event>& events) {
    std::vector<std::uint64_t> ids;
    for (const Event& event : events) ids.push_back(event.id);
    return ids;
}

using Ids = std::vector<std::uint64_t>;

void putU64(Blob& blob, std::size_t offset, std::uint64_t value) {
    ASSERT_LE(offset + 8, blob.size());
    std::memcpy(blob.data() + offset, &value, 8);
}
void putI64(Blob& blob, std::size_t offset, std::int64_t value) {
    putU64(blob, offset, static_cast<std::uint64_t>(value));
}

// Where the fields of a snapshot lie.
constexpr std::size_t d_min_at = 8;
constexpr std::size_t bucket_count_at = 16;
constexpr std::size_t cursor_at = 24;
constexpr std::size_t started_at = 32;
constexpr std::size_t next_id_at = 33;
constexpr std::size_t event_count_at = 41;
constexpr std::size_t events_at = 49;

TEST(BucketEventStore, RefusesACalendarThatCannotBeFormed) {
    constexpr const char* d_min_text = "the event store needs a positive d_min";
    constexpr const char* buckets_text = "the calendar ring needs at least four buckets";
    struct Case {
        ModelTime d_min;
        std::uint64_t bucket_count;
        const char* text;
    };
    for (const Case& c : {Case{0, 4, d_min_text}, Case{-1, 4, d_min_text}, Case{0, 3, d_min_text},
                          Case{1, 3, buckets_text}, Case{1, 0, buckets_text}}) {
        SCOPED_TRACE(std::to_string(c.d_min) + ", " + std::to_string(c.bucket_count));
        expectThrows<InvalidLookahead>([&] { BucketEventStore(c.d_min, c.bucket_count); }, c.text);
    }
    BucketEventStore smallest(1, 4);
    smallest.post(eventAt(3));
    EXPECT_EQ(take(smallest).start, 3);
    EXPECT_STREQ(smallest.name(), "bucket");
}

TEST(BucketEventStore, GivesNothingAndStaysWhereItIsWhileNothingIsPending) {
    BucketEventStore store(10, 4);
    const Blob fresh = store.snapshot();
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(store.isEmpty());
        const Window none = take(store);
        EXPECT_FALSE(none.given);
        EXPECT_TRUE(none.events.empty());
        EXPECT_EQ(none.start, -7);
        EXPECT_EQ(none.end, -7);
        EXPECT_EQ(store.snapshot(), fresh);
    }
    // Nothing pending any more is the same, for a store that has been asked and one that has not.
    EXPECT_TRUE(store.cancel(store.post(eventAt(25))));
    EXPECT_FALSE(take(store).given);
    EXPECT_EQ(store.post(eventAt(0)), 1U);
    EXPECT_EQ(take(store).end, 10);
}

TEST(BucketEventStore, StartsAtTheEarliestEventWhereverItWaits) {
    struct Case {
        const char* fact;
        std::vector<ModelTime> times;
        ModelTime start;
    };
    for (const Case& c : {Case{"one event, not at 0", {100}, 100},
                          Case{"posted behind a later one", {390, 109, 395}, 100},
                          Case{"all beyond the ring", {90000, 50005, 70000}, 50000},
                          Case{"one in the ring, one beyond", {50005, 31}, 30}}) {
        SCOPED_TRACE(c.fact);
        BucketEventStore store(10, 4);
        for (const ModelTime time : c.times) store.post(eventAt(time));
        const Window first = take(store);
        EXPECT_TRUE(first.given);
        EXPECT_EQ(first.start, c.start);
        EXPECT_EQ(first.end, c.start + 10);
    }
}

TEST(BucketEventStore, HandsOutAWindowByTimeAndThenInTheOrderOfPosting) {
    BucketEventStore store(100, 4);
    constexpr EventKind kinds[] = {EventKind::perturbation, EventKind::candidate, EventKind::input,
                                   EventKind::delivery};
    // 60 events at five times, so that every time is met by every kind.
    for (std::uint64_t i = 0; i < 60; ++i) {
        Event event = eventAt(200 + static_cast<ModelTime>(i * 7 % 5));
        event.id = 99 - i;  // not the caller's to give
        event.kind = kinds[i % 4];
        std::fill(std::begin(event.gap), std::end(event.gap), std::uint8_t{0xee});
        event.source = i + 1;
        event.target = i + 2;
        event.edge = i + 3;
        event.value = -0.0;
        event.cause = i + 4;
        ASSERT_EQ(store.post(event), i);
    }
    const Window window = take(store);
    ASSERT_EQ(window.events.size(), 60U);
    for (std::size_t i = 0; i < 60; ++i) {
        const Event& event = window.events[i];
        const std::uint64_t id = event.id;
        EXPECT_EQ(event.time, 200 + static_cast<ModelTime>(id * 7 % 5));
        EXPECT_EQ(event.kind, kinds[id % 4]);
        for (const std::uint8_t byte : event.gap) EXPECT_EQ(byte, 0);
        EXPECT_EQ(event.source, id + 1);
        EXPECT_EQ(event.target, id + 2);
        EXPECT_EQ(event.edge, id + 3);
        EXPECT_EQ(std::bit_cast<std::uint64_t>(event.value), 0x8000000000000000U);
        EXPECT_EQ(event.cause, id + 4);
        if (i == 0) continue;
        const Event& before = window.events[i - 1];
        EXPECT_TRUE(before.time < event.time || (before.time == event.time && before.id < id));
    }
}

TEST(BucketEventStore, SkipsAWindowThatOnlyHeldCancelledEvents) {
    BucketEventStore store(10, 4);
    const std::uint64_t first = store.post(eventAt(5));
    const std::uint64_t second = store.post(eventAt(15));
    const std::uint64_t third = store.post(eventAt(25));
    EXPECT_EQ(take(store).events.front().id, first);
    EXPECT_FALSE(store.cancel(first)) << "it has been taken";
    EXPECT_TRUE(store.cancel(second));
    EXPECT_FALSE(store.cancel(second)) << "it has been cancelled";
    EXPECT_FALSE(store.cancel(third + 1)) << "it has not been posted";
    EXPECT_FALSE(store.cancel(~std::uint64_t{0}));
    EXPECT_EQ(take(store).start, 20);
    EXPECT_TRUE(store.isEmpty());
}

TEST(BucketEventStore, KeepsEventsOneTurnOfTheRingApartFromEachOther) {
    BucketEventStore store(10, 4096);
    store.post(eventAt(40));
    store.post(eventAt(40 + 4096 * 10));
    EXPECT_EQ(store.overflowPosts(), 1U);
    EXPECT_EQ(take(store).start, 40);
    // The reach now ends where the second event stands, which has long been posted beyond it.
    store.post(eventAt(40 + 4096 * 10));
    store.post(eventAt(50 + 4096 * 10));
    EXPECT_EQ(store.overflowPosts(), 2U);
    EXPECT_EQ(idsOf(take(store).events), (Ids{1, 2}));
    EXPECT_EQ(idsOf(take(store).events), Ids{3});
}

TEST(BucketEventStore, CrossesAGapOfAnyLengthWithoutWalkingIt) {
    BucketEventStore store(1, 4);
    constexpr ModelTime far = last_model_time - 5;
    store.post(eventAt(2));
    store.post(eventAt(far));
    store.cancel(store.post(eventAt(far / 2)));
    EXPECT_EQ(take(store).start, 2);
    EXPECT_FALSE(take(store, far).given);
    EXPECT_EQ(take(store).start, far);

    // Without a limit in between as well.
    store = BucketEventStore(3, 5);
    store.post(eventAt(0));
    store.post(eventAt(far - 10));
    EXPECT_EQ(take(store).start, 0);
    EXPECT_EQ(take(store).start, (far - 10) / 3 * 3);
}

TEST(BucketEventStore, RefusesEventsForWindowsThatAreGone) {
    BucketEventStore store(10, 4);
    store.post(eventAt(27));
    store.post(eventAt(55));
    EXPECT_EQ(take(store).end, 30);
    const Blob before = store.snapshot();
    for (const ModelTime time : {29, 20, 19, 0, -1, -1000}) {
        SCOPED_TRACE(time);
        expectThrows<LookaheadViolation>([&] { store.post(eventAt(time)); }, processed_text);
        EXPECT_EQ(store.snapshot(), before);
    }
    EXPECT_EQ(store.post(eventAt(30)), 2U);
    EXPECT_EQ(take(store).start, 30);
}

TEST(BucketEventStore, RefusesATimeBeforeEveryRun) {
    for (const ModelTime time : {ModelTime{-1}, ModelTime{-1000}, first_model_time}) {
        SCOPED_TRACE(time);
        // With wide buckets -1 would round into the bucket of 0.
        BucketEventStore store(1000, 4);
        expectThrows<LookaheadViolation>([&] { store.post(eventAt(time)); }, processed_text);
        EXPECT_TRUE(store.isEmpty());
        EXPECT_EQ(store.post(eventAt(0)), 0U);
    }
}

TEST(BucketEventStore, LeavesAWindowThatStartsAtTheLimit) {
    BucketEventStore store(10, 4);
    store.post(eventAt(45));
    for (const ModelTime until : {first_model_time, ModelTime{-1}, ModelTime{0}, ModelTime{40}}) {
        EXPECT_FALSE(take(store, until).given) << until;
        EXPECT_FALSE(store.isEmpty());
    }
    // The first question has put the cursor to the earliest event.
    expectThrows<LookaheadViolation>([&] { store.post(eventAt(39)); }, processed_text);
    store.post(eventAt(75));
    EXPECT_EQ(take(store, 41).start, 40);
    EXPECT_FALSE(take(store, 66).given);
    // ... and a later one moves it up to its limit and no further.
    expectThrows<LookaheadViolation>([&] { store.post(eventAt(69)); }, processed_text);
    EXPECT_EQ(store.post(eventAt(70)), 2U);
    EXPECT_EQ(idsOf(take(store, 71).events), (Ids{2, 1}));
}

TEST(BucketEventStore, KeepsAWindowWhoseEndIsBeyondTime) {
    // The last whole window of 10 ns ends at 9223372036854775800, the last but seven ns of all.
    BucketEventStore store(10, 4);
    store.post(eventAt(last_model_time - 8));
    store.post(eventAt(last_model_time));
    store.post(eventAt(last_model_time - 7));
    const Window last = take(store);
    EXPECT_EQ(idsOf(last.events), Ids{0});
    EXPECT_EQ(last.start, 9223372036854775790);
    EXPECT_EQ(last.end, 9223372036854775800);
    const Blob before = store.snapshot();
    for (int round = 0; round < 2; ++round) {
        expectThrows<TimeOverflow>([&] { take(store); }, "KELM model time overflow");
        EXPECT_EQ(store.snapshot(), before);
    }
    EXPECT_FALSE(take(store, last.end).given);
    EXPECT_TRUE(store.cancel(1));
    EXPECT_TRUE(store.cancel(2));
    EXPECT_FALSE(take(store).given);

    // Buckets of 1 ns: no limit lies behind the last of them.
    BucketEventStore narrow(1, 4);
    narrow.post(eventAt(last_model_time));
    EXPECT_FALSE(take(narrow).given);
    EXPECT_FALSE(narrow.isEmpty());
    narrow.post(eventAt(last_model_time));
    EXPECT_FALSE(take(narrow).given);
}

TEST(BucketEventStore, WritesTheDocumentedBytes) {
    BucketEventStore store(10, 4);
    store.post(eventAt(12));
    store.post(eventAt(0x0102));
    Event event = eventAt(40);
    event.kind = EventKind::input;
    event.source = 1000003;
    event.target = 0x1122;
    event.edge = 5;
    event.value = -1.5;
    event.cause = 0xfedcba9876543210;
    std::fill(std::begin(event.gap), std::end(event.gap), std::uint8_t{0xee});
    store.post(event);
    ASSERT_EQ(take(store).start, 10);

    const Blob expected = {
        'K',  'E',  'L',  'M',  'B',  'K',  'T',  '1',                           // tag
        10,   0,    0,    0,    0,    0,    0,    0,                             // d_min
        4,    0,    0,    0,    0,    0,    0,    0,                             // bucket_count
        2,    0,    0,    0,    0,    0,    0,    0,                             // cursor
        1,                                                                       // started
        3,    0,    0,    0,    0,    0,    0,    0,                             // next_id
        2,    0,    0,    0,    0,    0,    0,    0,                             // event count
        40,   0,    0,    0,    0,    0,    0,    0,                             // time
        2,    0,    0,    0,    0,    0,    0,    0,                             // id
        3,    0,    0,    0,    0,    0,    0,    0,                             // kind, gap
        0x43, 0x42, 0x0f, 0,    0,    0,    0,    0,                             // source
        0x22, 0x11, 0,    0,    0,    0,    0,    0,                             // target
        5,    0,    0,    0,    0,    0,    0,    0,                             // edge
        0,    0,    0,    0,    0,    0,    0xf8, 0xbf,                          // value
        0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe,                          // cause
        0x02, 0x01, 0,    0,    0,    0,    0,    0,    1, 0, 0, 0, 0, 0, 0, 0,  // time, id
        0,    0,    0,    0,    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0,  // kind to source
        0,    0,    0,    0,    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0,  // target, edge
        0,    0,    0,    0,    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0,  // value, cause
    };
    EXPECT_EQ(store.snapshot(), expected);
}

TEST(BucketEventStore, ShowsNoDeadEntryInASnapshotButForNextId) {
    BucketEventStore crowded(10, 4);
    BucketEventStore plain(10, 4);
    for (BucketEventStore* store : {&crowded, &plain}) {
        for (const ModelTime time : {400, 21, 35, 399, 21}) store->post(eventAt(time));
    }
    for (const ModelTime time : {15, 21, 33, 400, 9000})
        crowded.cancel(crowded.post(eventAt(time)));
    for (int round = 0; round < 2; ++round) {
        Blob blob = crowded.snapshot();
        putU64(blob, next_id_at, 5);
        EXPECT_EQ(blob, plain.snapshot()) << "after " << round << " windows";
        EXPECT_EQ(idsOf(take(crowded).events), idsOf(take(plain).events));
    }
}

/// A started store with next_id 5 of which events 1 and 3 are pending, at 33 and 700.
BucketEventStore storeOfTwo() {
    BucketEventStore store(10, 4);
    for (const ModelTime time : {12, 33, 60, 700, 15}) store.post(eventAt(time));
    Window window = take(store);
    EXPECT_EQ(window.events.size(), 2U);
    EXPECT_TRUE(store.cancel(2));
    return store;
}

TEST(BucketEventStore, GoesOnFromASnapshotWithoutGivingAnIdTwice) {
    const Blob blob = storeOfTwo().snapshot();
    BucketEventStore store(10, 4);
    for (int i = 0; i < 9; ++i) store.post(eventAt(3 * i));  // all replaced
    ASSERT_TRUE(store.restore(blob));
    EXPECT_EQ(store.snapshot(), blob);
    EXPECT_EQ(store.overflowPosts(), 1U) << "counted anew from the events restored";
    for (const std::uint64_t id : {0U, 2U, 4U}) EXPECT_FALSE(store.cancel(id)) << id;
    expectThrows<LookaheadViolation>([&] { store.post(eventAt(19)); }, processed_text);
    EXPECT_EQ(store.post(eventAt(33)), 5U);
    EXPECT_EQ(idsOf(take(store).events), (Ids{1, 5}));
    EXPECT_EQ(idsOf(take(store).events), Ids{3});
}

TEST(BucketEventStore, DoesNotLookAtBytesBehindTheLastEvent) {
    const Blob blob = storeOfTwo().snapshot();
    Blob longer = blob;
    longer.insert(longer.end(), 65, std::uint8_t{0xff});
    BucketEventStore store(10, 4);
    ASSERT_TRUE(store.restore(longer));
    EXPECT_EQ(store.snapshot(), blob);
    // A gap byte is not looked at either, and not kept.
    longer[events_at + 17] = 1;
    ASSERT_TRUE(store.restore(longer));
    EXPECT_EQ(store.snapshot(), blob);
}

TEST(BucketEventStore, RefusesEveryTruncationAndStaysAsItWas) {
    const Blob blob = storeOfTwo().snapshot();
    ASSERT_EQ(blob.size(), events_at + 2 * 64);
    BucketEventStore store(10, 4);
    store.post(eventAt(77));
    const Blob before = store.snapshot();
    for (std::size_t length = 0; length < blob.size(); ++length) {
        ASSERT_FALSE(store.restore(BlobView(blob).first(length))) << length;
        ASSERT_EQ(store.snapshot(), before) << length;
    }
    EXPECT_TRUE(store.restore(blob));
}

TEST(BucketEventStore, RefusesForgedSnapshotsAndStaysAsItWas) {
    const Blob blob = storeOfTwo().snapshot();
    struct Case {
        const char* fact;
        std::function<void(Blob&)> forge;
    };
    const std::vector<Case> cases = {
        {"another tag", [](Blob& b) { b[7] = '2'; }},
        {"another width", [](Blob& b) { putI64(b, d_min_at, 11); }},
        {"another ring", [](Blob& b) { putU64(b, bucket_count_at, 8); }},
        {"a negative cursor", [](Blob& b) { putI64(b, cursor_at, -1); }},
        {"a cursor behind all time", [](Blob& b) { putI64(b, cursor_at, last_model_time); }},
        {"a cursor behind an event", [](Blob& b) { putI64(b, cursor_at, 4); }},
        {"a flag of 2", [](Blob& b) { b[started_at] = 2; }},
        {"a cursor that moved before the start", [](Blob& b) { b[started_at] = 0; }},
        {"an absurd next_id", [](Blob& b) { putU64(b, next_id_at, (1ULL << 40) + 1); }},
        {"the largest next_id", [](Blob& b) { putU64(b, next_id_at, ~0ULL); }},
        {"next_id not above an id", [](Blob& b) { putU64(b, next_id_at, 3); }},
        {"one event too many", [](Blob& b) { putU64(b, event_count_at, 3); }},
        {"a count that wraps around", [](Blob& b) { putU64(b, event_count_at, (1ULL << 58) + 2); }},
        {"the largest count", [](Blob& b) { putU64(b, event_count_at, ~0ULL); }},
        {"a time before every run", [](Blob& b) { putI64(b, events_at, -1); }},
        {"an event behind the cursor", [](Blob& b) { putI64(b, events_at + 64, 19); }},
        {"an id never issued", [](Blob& b) { putU64(b, events_at + 64 + 8, 5); }},
        {"an id twice", [](Blob& b) { putU64(b, events_at + 64 + 8, 1); }},
    };
    BucketEventStore store(10, 4);
    store.post(eventAt(15));
    store.post(eventAt(4000));
    ASSERT_EQ(take(store).start, 10);
    const Blob before = store.snapshot();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fact);
        Blob forged = blob;
        c.forge(forged);
        EXPECT_FALSE(store.restore(forged));
        EXPECT_EQ(store.snapshot(), before);
        EXPECT_EQ(store.overflowPosts(), 1U);
    }
    EXPECT_EQ(store.post(eventAt(20)), 2U);
    EXPECT_EQ(idsOf(take(store).events), Ids{2});
    EXPECT_EQ(idsOf(take(store).events), Ids{1});

    Blob allowed = blob;
    putU64(allowed, next_id_at, 1ULL << 40);
    ASSERT_TRUE(store.restore(allowed)) << "a large next_id takes no memory";
    EXPECT_EQ(store.post(eventAt(33)), 1ULL << 40);
    EXPECT_EQ(idsOf(take(store).events), (Ids{1, 1ULL << 40}));
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
