#include "kelm/events/BucketEventStore.h"

#include <gtest/gtest.h>

#include <algorithm>
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
    const Window none = take(store);
    EXPECT_FALSE(none.given);
    EXPECT_TRUE(none.events.empty());
    EXPECT_EQ(none.start, -7);
    EXPECT_EQ(none.end, -7);
    EXPECT_EQ(store.snapshot(), fresh);
    // Nothing pending any more is the same.
    EXPECT_TRUE(store.cancel(store.post(eventAt(25))));
    EXPECT_FALSE(take(store).given);
    EXPECT_EQ(store.post(eventAt(0)), 1U);
    EXPECT_EQ(take(store).end, 10);
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

TEST(BucketEventStore, RefusesEventsForWindowsThatAreGoneAndTimesBeforeEveryRun) {
    BucketEventStore store(10, 4);
    // With wide buckets -1 would round into the bucket of 0.
    BucketEventStore fresh(1000, 4);
    store.post(eventAt(27));
    EXPECT_EQ(take(store).end, 30);
    const auto refuse = [](BucketEventStore& refusing, ModelTime time) {
        SCOPED_TRACE(time);
        const Blob before = refusing.snapshot();
        expectThrows<LookaheadViolation>(
            [&] { refusing.post(eventAt(time)); },
            "KELM event inserted into an already processed window; d_min does not bound this edge");
        EXPECT_EQ(refusing.snapshot(), before);
    };
    for (const ModelTime time : {29, 20, 0, -1}) refuse(store, time);
    for (const ModelTime time : {ModelTime{-1}, first_model_time}) refuse(fresh, time);
    EXPECT_EQ(store.post(eventAt(30)), 1U);
    // The first question puts the cursor to the earliest event, even where it gives nothing ...
    EXPECT_EQ(fresh.post(eventAt(4500)), 0U);
    EXPECT_FALSE(take(fresh, 0).given);
    refuse(fresh, 3999);
    fresh.post(eventAt(7500));
    EXPECT_EQ(take(fresh, 4001).start, 4000);
    EXPECT_FALSE(take(fresh, 6600).given);
    // ... and a later one moves it up to its limit and no further.
    refuse(fresh, 6999);
    EXPECT_EQ(fresh.post(eventAt(7000)), 2U);
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

/// A started store with next_id 5 of which events 1 and 3 are pending, at 33 and 700.
BucketEventStore storeOfTwo() {
    BucketEventStore store(10, 4);
    for (const ModelTime time : {12, 33, 60, 700, 15}) store.post(eventAt(time));
    Window window = take(store);
    EXPECT_EQ(window.events.size(), 2U);
    EXPECT_TRUE(store.cancel(2));
    return store;
}

TEST(BucketEventStore, DoesNotLookAtGapsNorAtBytesBehindTheLastEvent) {
    const Blob blob = storeOfTwo().snapshot();
    Blob longer = blob;
    longer.insert(longer.end(), 65, std::uint8_t{0xff});
    longer[events_at + 17] = 1;
    BucketEventStore store(10, 4);
    for (int i = 0; i < 9; ++i) store.post(eventAt(3 * i));  // all replaced
    ASSERT_TRUE(store.restore(longer));
    EXPECT_EQ(store.snapshot(), blob);
}

TEST(BucketEventStore, RefusesTruncatedAndForgedSnapshotsAndStaysAsItWas) {
    const Blob blob = storeOfTwo().snapshot();
    ASSERT_EQ(blob.size(), events_at + 2 * 64);
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
    const auto refuse = [&](BlobView forged) {
        EXPECT_FALSE(store.restore(forged));
        EXPECT_EQ(store.snapshot(), before);
        EXPECT_EQ(store.overflowPosts(), 1U);
    };
    for (std::size_t length = 0; length < blob.size(); ++length) {
        SCOPED_TRACE(length);
        refuse(BlobView(blob).first(length));
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fact);
        Blob forged = blob;
        c.forge(forged);
        refuse(forged);
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
