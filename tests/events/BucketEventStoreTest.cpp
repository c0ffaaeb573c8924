#include "kelm/events/BucketEventStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::blobOf;
using Testing::expectThrows;
using Testing::withValueAt;

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

TEST(BucketEventStore, CrossesAGapOfAnyLengthWithoutWalkingIt) {
    BucketEventStore store(1, 4);
    constexpr ModelTime far = last_model_time - 2;  // in the last era of all
    store.post(eventAt(2));
    store.post(eventAt(far));
    store.cancel(store.post(eventAt(far / 2)));
    EXPECT_EQ(take(store).start, 2);
    EXPECT_FALSE(take(store, far).given);
    EXPECT_EQ(take(store).start, far);

    // Without a limit in between as well, and behind a sweep of dead entries.
    store = BucketEventStore(3, 5);
    for (int i = 0; i < 1100; ++i) store.cancel(store.post(eventAt(10)));
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
    Event event = {40, 77, EventKind::input, {1, 2, 3}, 1000003, 0x1122, 5, -1.5, ~0UL};
    store.post(event);
    ASSERT_EQ(take(store).start, 10);
    event.id = 2;  // neither an id nor what lies in a gap is the caller's to give
    std::fill(std::begin(event.gap), std::end(event.gap), std::uint8_t{0});
    Event later = eventAt(0x0102);
    later.id = 1;
    EXPECT_EQ(store.snapshot(),
              blobOf(BlobTag("KELMBKT1"), 10L, 4UL, 2L, true, 3UL, 2UL, event, later));
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
    longer[49 + 17] = 1;
    BucketEventStore store(10, 4);
    for (int i = 0; i < 9; ++i) store.post(eventAt(3 * i));  // all replaced
    ASSERT_TRUE(store.restore(longer));
    EXPECT_EQ(store.snapshot(), blob);
}

TEST(BucketEventStore, RefusesTruncatedAndForgedSnapshotsAndStaysAsItWas) {
    const Blob blob = storeOfTwo().snapshot();
    ASSERT_EQ(blob.size(), 49 + 2 * 64);
    BucketEventStore emptied = storeOfTwo();
    emptied.cancel(1);
    emptied.cancel(3);
    const Blob idle = emptied.snapshot();
    // The tag, d_min, the ring, the cursor, the flag at 32, next_id, the count, events from 49 on.
    const std::pair<const char*, Blob> forgeries[] = {
        {"another tag", withValueAt(blob, 7, '2')},
        {"another width", withValueAt(blob, 8, 11L)},
        {"another ring", withValueAt(blob, 16, 8L)},
        {"a negative cursor", withValueAt(blob, 24, -1L)},
        {"a cursor behind all time", withValueAt(idle, 24, last_model_time / 10 + 2)},
        {"a cursor behind an event", withValueAt(blob, 24, 4L)},
        {"a flag of 2", withValueAt(blob, 32, '\2')},
        {"a cursor that moved before the start", withValueAt(blob, 32, false)},
        {"an absurd next_id", withValueAt(blob, 33, (1L << 40) + 1)},
        {"next_id not above an id", withValueAt(blob, 33, 3L)},
        {"one event too many", withValueAt(blob, 41, 3L)},
        {"a count that wraps around", withValueAt(blob, 41, (1L << 58) + 2)},
        {"a time before every run", withValueAt(blob, 49, -1L)},
        {"an event behind the cursor", withValueAt(blob, 49 + 64, 19L)},
        {"an id never issued", withValueAt(blob, 49 + 72, 5L)},
        {"an id twice", withValueAt(blob, 49 + 72, 1L)},
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
    for (const auto& [fact, forged] : forgeries) {
        SCOPED_TRACE(fact);
        refuse(forged);
    }
    EXPECT_EQ(store.post(eventAt(20)), 2U);
    EXPECT_EQ(idsOf(take(store).events), Ids{2});
    EXPECT_EQ(idsOf(take(store).events), Ids{1});

    ASSERT_TRUE(store.restore(withValueAt(blob, 33, 1L << 40)));
    EXPECT_EQ(store.post(eventAt(33)), 1ULL << 40);
    EXPECT_EQ(idsOf(take(store).events), (Ids{1, 1ULL << 40}));
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
