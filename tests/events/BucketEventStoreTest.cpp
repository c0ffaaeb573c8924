#include "kelm/events/BucketEventStore.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::expectRefusals;
using Testing::expectThrows;
using Testing::withValueAt;

/// One window, or the arguments as a failed take left them.
struct Window {
    bool given = false;
    ModelTime start = -7;
    ModelTime end = -7;
    std::vector<Event> events = {{.time = -7}};  ///< take must replace old contents
};

Window take(BucketEventStore& store, ModelTime until = last_model_time) {
    Window window;
    window.given = store.take(until, window.events, window.start, window.end);
    return window;
}

using Ids = std::vector<std::uint64_t>;

Ids idsOf(const std::vector<Event>& events) {
    Ids ids;
    for (const Event& event : events) ids.push_back(event.id);
    return ids;
}

TEST(BucketEventStore, RefusesACalendarThatCannotBeFormed) {
    constexpr const char* d_min_text = "the event store needs a positive d_min";
    constexpr const char* buckets_text = "the calendar ring needs at least four buckets";
    const auto forming = [](ModelTime d_min, std::uint64_t bucket_count) {
        return [=] { BucketEventStore(d_min, bucket_count); };
    };
    expectRefusals<InvalidLookahead>({{d_min_text, forming(0, 3)},
                                      {d_min_text, forming(-1, 4)},
                                      {buckets_text, forming(1, 3)},
                                      {buckets_text, forming(1, 0)}});
    BucketEventStore smallest(1, 4);
    smallest.post({.time = 3});
    EXPECT_EQ(take(smallest).start, 3);
    EXPECT_STREQ(smallest.name(), "bucket");
}

TEST(BucketEventStore, CrossesAGapOfAnyLengthWithoutWalkingIt) {
    BucketEventStore store(1, 4);
    constexpr ModelTime far = last_model_time - 2;  // on the highest level of the wheel
    // By turns, so that a bucket is found filled.
    for (const ModelTime time : {1, 2, 1, 2}) store.post({.time = time});
    store.post({.time = far});
    store.cancel(store.post({.time = far / 2}));
    EXPECT_EQ(take(store).start, 1);
    EXPECT_EQ(take(store).start, 2);
    EXPECT_FALSE(take(store, far).given);
    EXPECT_EQ(take(store).start, far);

    // Without a limit in between as well, and behind a sweep that has emptied the next bucket. A
    // store that was moved from can be used again once it is assigned to.
    const BucketEventStore gone = std::move(store);
    store = BucketEventStore(3, 5);
    for (int i = 0; i < 1025; ++i) store.cancel(store.post({.time = 10}));
    store.post({.time = far - 10});
    store.post({.time = 10});
    EXPECT_EQ(take(store).start, 9);
    EXPECT_EQ(take(store).start, (far - 10) / 3 * 3);
}

TEST(BucketEventStore, RefusesEventsForWindowsThatAreGoneAndTimesBeforeEveryRun) {
    BucketEventStore store(10, 4);
    // With wide buckets -1 would round into the bucket of 0.
    BucketEventStore fresh(1000, 4);
    // last_model_time lies in its second bucket; the next integer wraps around to first_model_time.
    BucketEventStore wide(last_model_time - 1, 4);
    wide.post({.time = last_model_time});
    store.post({.time = 27});
    EXPECT_EQ(take(store).end, 30);
    const char* const text =
        "KELM event inserted into an already processed window; d_min does not bound this edge";
    const auto posting = [text](BucketEventStore& target, ModelTime time) {
        return Testing::Refusal{text, [&target, time] { target.post({.time = time}); }};
    };
    const Blob before = store.snapshot();
    expectRefusals<LookaheadViolation>(
        {posting(store, 29), posting(store, 0), posting(store, -1), posting(fresh, -1),
         posting(fresh, first_model_time), posting(wide, first_model_time)},
        [&] { EXPECT_EQ(store.snapshot(), before); });
    EXPECT_EQ(store.post({.time = 30}), 1U);
}

TEST(BucketEventStore, KeepsAWindowWhoseEndIsBeyondTime) {
    // The last whole window of 10 ns ends at 9223372036854775800, 7 ns before the last model time.
    BucketEventStore store(10, 4);
    store.post({.time = last_model_time - 8});
    store.post({.time = last_model_time});
    store.post({.time = last_model_time - 7});
    const Window last = take(store);
    EXPECT_EQ(idsOf(last.events), Ids{0});
    EXPECT_EQ(last.start, 9223372036854775790);
    EXPECT_EQ(last.end, 9223372036854775800);
    const Blob before = store.snapshot();
    expectThrows<TimeOverflow>([&] { take(store); }, "KELM model time overflow");
    EXPECT_EQ(store.snapshot(), before);
    EXPECT_FALSE(take(store, last.end).given);
    EXPECT_TRUE(store.cancel(1));
    EXPECT_TRUE(store.cancel(2));
    EXPECT_FALSE(take(store).given);

    // Buckets of 1 ns: no limit lies past the last one.
    BucketEventStore narrow(1, 4);
    narrow.post({.time = last_model_time});
    EXPECT_FALSE(take(narrow, 1).given);
    EXPECT_THROW(narrow.post({.time = last_model_time - 1}), LookaheadViolation);
    EXPECT_FALSE(take(narrow).given);
    EXPECT_FALSE(narrow.isEmpty());
    narrow.post({.time = last_model_time});
    EXPECT_FALSE(take(narrow).given);
}

TEST(BucketEventStore, RefusesTruncatedAndForgedSnapshotsAndStaysAsItWas) {
    // A started store with next_id 5 of which events 1 and 3 are pending, at 33 and 700.
    BucketEventStore of_two(10, 4);
    for (const ModelTime time : {12, 33, 60, 700, 15}) of_two.post({.time = time});
    ASSERT_EQ(take(of_two).events.size(), 2U);
    of_two.cancel(2);
    const Blob blob = of_two.snapshot();
    BucketEventStore asleep(10, 4);
    asleep.post({.time = 3});
    of_two.cancel(1);
    of_two.cancel(3);
    const Blob idle = of_two.snapshot();
    // The tag, d_min, the ring, the cursor, the flag at 32, next_id, the count, events from 49 on.
    const std::pair<const char*, Blob> forgeries[] = {
        {"another tag", withValueAt(blob, 7, '2')},
        {"another width", withValueAt(blob, 8, 11L)},
        {"another ring", withValueAt(blob, 16, 8L)},
        {"a negative cursor", withValueAt(blob, 24, -1L)},
        {"a cursor past the last model time", withValueAt(idle, 24, last_model_time / 10 + 2)},
        {"a cursor past an event", withValueAt(blob, 24, 4L)},
        {"a flag of 2", withValueAt(blob, 32, '\2')},
        {"a cursor that moved before the start", withValueAt(blob, 32, false)},
        {"an absurd next_id", withValueAt(blob, 33, (1L << 62) + 1)},
        {"next_id not above an id", withValueAt(blob, 33, 3L)},
        {"one event too many", withValueAt(blob, 41, 3L)},
        {"a count that wraps around", withValueAt(blob, 41, (1L << 58) + 2)},
        {"a time before every run", withValueAt(asleep.snapshot(), 49, -1L)},
        {"an event before the cursor", withValueAt(blob, 49 + 64, 19L)},
        {"an id never issued", withValueAt(blob, 49 + 72, 5L)},
        {"an id twice", withValueAt(blob, 49 + 72, 1L)},
    };
    BucketEventStore store(10, 4);
    store.post({.time = 15});
    store.post({.time = 4000});
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
    EXPECT_EQ(store.post({.time = 20}), 2U);
    EXPECT_EQ(idsOf(take(store).events), Ids{2});

    // Restore ignores gaps and bytes after the last event, and next_id may be 2^62.
    Blob sound = withValueAt(withValueAt(blob, 33, 1L << 62), 49 + 17, '\1');
    sound.push_back(0xff);
    ASSERT_TRUE(store.restore(sound));
    EXPECT_EQ(store.snapshot(), withValueAt(blob, 33, 1L << 62));
    EXPECT_EQ(store.post({.time = 33}), 1ULL << 62);
    EXPECT_EQ(idsOf(take(store).events), (Ids{1, 1ULL << 62}));
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
