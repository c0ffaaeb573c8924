// Runs the store and a simple reference calendar through the same random histories. Both must agree
// after every step.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelm/events/BucketEventStore.h"
#include "tests/support/Draws.h"
#include "tests/support/ForgedBlobs.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

/// Keeps the pending events by id and searches all of them in each call.
class PlainCalendar {
public:
    PlainCalendar(ModelTime d_min, std::uint64_t bucket_count)
        : d_min_(d_min), bucket_count_(bucket_count) {}

    /// None if the event's window is already processed.
    std::optional<std::uint64_t> post(Event event) {
        if (started_ && event.time / d_min_ < cursor_) return {};
        event.id = next_id_++;
        event.gap = {};
        overflow_posts_ += isBeyondReach(event);
        live_[event.id] = event;
        return event.id;
    }
    bool cancel(std::uint64_t id) { return live_.erase(id) == 1; }

    bool take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
              ModelTime& window_end) {
        events.clear();
        const std::vector<Event> pending = liveEvents();
        if (pending.empty()) return false;
        const std::int64_t next = pending[0].time / d_min_;
        if (!started_) cursor_ = next;
        started_ = true;
        // Bucket by bucket, up to the first one that starts at `until` or later.
        const std::int64_t stop = until <= 0 ? 0 : (until - 1) / d_min_ + 1;
        cursor_ = std::max(cursor_, std::min(next, stop));
        if (cursor_ * d_min_ >= until) return false;
        for (const Event& event : pending) {
            if (event.time / d_min_ != next) continue;
            events.push_back(event);
            live_.erase(event.id);
        }
        window_start = cursor_ * d_min_;
        window_end = window_start + d_min_;
        ++cursor_;
        return true;
    }

    Blob snapshot() const {
        Blob bytes = Testing::blobOf(BlobTag("KELMBKT1"), d_min_, bucket_count_, cursor_, started_,
                                     next_id_, live_.size());
        for (const Event& event : liveEvents()) appendImage(bytes, event);
        return bytes;
    }
    /// Recounts the events beyond the ring, as a restore does.
    void recount() {
        overflow_posts_ = 0;
        for (const Event& event : liveEvents()) overflow_posts_ += isBeyondReach(event);
    }

    /// By time, then by id.
    std::vector<Event> liveEvents() const {
        std::vector<Event> events;
        for (const auto& [id, event] : live_) events.push_back(event);
        std::ranges::stable_sort(events, {}, &Event::time);
        return events;
    }
    bool isEmpty() const { return live_.empty(); }
    std::uint64_t overflowPosts() const { return overflow_posts_; }
    std::int64_t cursor() const { return cursor_; }
    std::uint64_t nextId() const { return next_id_; }

private:
    bool isBeyondReach(const Event& event) const {
        return event.time / d_min_ >= cursor_ + static_cast<std::int64_t>(bucket_count_);
    }

    ModelTime d_min_;
    std::uint64_t bucket_count_;
    std::map<std::uint64_t, Event> live_;
    std::int64_t cursor_ = 0;
    bool started_ = false;
    std::uint64_t next_id_ = 0;
    std::uint64_t overflow_posts_ = 0;
};

/// One random history of both calendars. A step returns its description for failure messages.
class Histories {
public:
    explicit Histories(std::uint64_t seed)
        : draws_(seed),
          d_min_(draws_.oneOf<ModelTime>({1, 2, 10, 1000})),
          // Mostly the smallest rings, and some whose bucket bits fill one word or slightly more.
          bucket_count_(below(8) != 0 ? 4 + below(5)
                                      : draws_.oneOf<std::uint64_t>({63, 64, 65, 130})),
          store_(d_min_, bucket_count_),
          plain_(d_min_, bucket_count_) {}

    std::string step() {
        const std::uint64_t die = below(480);
        if (die < 1) return churn();
        if (die < 10) return cancelAll();
        if (die < 50) return cancelBucket();
        if (die < 90) return cancelOne();
        if (die < 130) return restore();
        return die < 250 ? take() : post();
    }

    /// What differs, or an empty text.
    std::string difference() {
        if (store_.isEmpty() != plain_.isEmpty()) return "isEmpty";
        if (store_.overflowPosts() != plain_.overflowPosts()) return "overflowPosts";
        if (store_.snapshot() != plain_.snapshot()) return "snapshot";
        return difference_;
    }

private:
    std::uint64_t below(std::uint64_t end) { return draws_.below(end); }

    /// Buckets ahead of the cursor; below 0 only for an event that must be refused.
    std::int64_t anyDistance() {
        const auto ring = static_cast<std::int64_t>(bucket_count_);
        const auto some = static_cast<std::int64_t>(below(3));
        const std::int64_t distances[] = {-1 - some, ring - 1 + some, 0,
                                          static_cast<std::int64_t>(below(20 * bucket_count_)),
                                          static_cast<std::int64_t>(below(3000))};
        const std::uint64_t die = below(128);
        if (die < 1) return distances[4];
        // On every level of the wheel.
        if (die < 3) return static_cast<std::int64_t>(below(std::uint64_t{1} << below(44)));
        if (die < 40) return distances[die % 4];
        return static_cast<std::int64_t>(below(bucket_count_));
    }
    ModelTime anyTime() {
        const std::int64_t bucket = std::max<std::int64_t>(plain_.cursor() + anyDistance(), 0);
        const ModelTime inside = draws_.oneOf<ModelTime>(
            {0, 0, d_min_ - 1, static_cast<ModelTime>(below(static_cast<std::uint64_t>(d_min_)))});
        return bucket * d_min_ + inside;
    }
    Event anyEvent() {
        Event event;
        event.time = anyTime();
        event.id = draws_.next();
        event.kind =
            draws_.oneOf<EventKind>({EventKind::delivery, EventKind::candidate, EventKind::input});
        Testing::fillGap(event.gap, 0xee);
        for (std::uint64_t* const id : {&event.source, &event.target, &event.edge}) {
            *id = draws_.oneIn(8) ? (std::uint64_t{1} << 32) - below(2) : below(1000);
        }
        // Mostly values of a synapse's delivery, which the store packs.
        event.value = draws_.oneIn(4) ? std::bit_cast<double>(draws_.next())
                                      : static_cast<float>(draws_.between(-1.0, 1.0));
        event.cause = draws_.oneIn(4) ? draws_.next() : 0;
        return event;
    }

    template <class Value>
    void expectSame(const Value& found, const Value& expected, const char* what) {
        if (found != expected) difference_ = what;
    }

    std::string post() {
        const Event event = anyEvent();
        std::optional<std::uint64_t> found;
        try {
            found = store_.post(event);
        } catch (const LookaheadViolation&) {
        }
        expectSame(found, plain_.post(event), "id given by post");
        return "post at " + std::to_string(event.time);
    }

    void cancel(std::uint64_t id) {
        expectSame(store_.cancel(id), plain_.cancel(id), "result of cancel");
    }
    std::string cancelOne() {
        const std::uint64_t next = plain_.nextId();
        const std::uint64_t id = below(2) == 0 ? below(next + 2) : next - std::min(next, below(8));
        cancel(id);
        return "cancel " + std::to_string(id);
    }
    /// Leaves a bucket with cancelled entries only.
    std::string cancelBucket() {
        const std::vector<Event> events = plain_.liveEvents();
        if (events.empty()) return "nothing to cancel";
        const ModelTime bucket =
            events[below(std::min<std::size_t>(events.size(), 4))].time / d_min_;
        for (const Event& event : events) {
            if (event.time / d_min_ == bucket) cancel(event.id);
        }
        return "cancel bucket " + std::to_string(bucket);
    }
    std::string cancelAll() {
        for (const Event& event : plain_.liveEvents()) cancel(event.id);
        return "cancel all";
    }
    /// Makes so many cancelled entries that the store sweeps them out.
    std::string churn() {
        for (int i = 0; i < 1500; ++i) {
            post();
            if (below(10) != 0) cancel(plain_.nextId() - 1);
        }
        return "churn";
    }

    std::string take() {
        const auto some_buckets = static_cast<std::int64_t>(below(2 * bucket_count_ + 2));
        const ModelTime border = (plain_.cursor() + some_buckets) * d_min_;
        const ModelTime until = draws_.oneOf<ModelTime>(
            {last_model_time, border, border + 1, border - 1, border + 200 * d_min_, 0, -border});
        std::vector<Event> found = {Event()};
        std::vector<Event> expected = {Event()};
        ModelTime bounds[2] = {-5, -6};
        ModelTime expected_bounds[2] = {-5, -6};
        expectSame(store_.take(until, found, bounds[0], bounds[1]),
                   plain_.take(until, expected, expected_bounds[0], expected_bounds[1]),
                   "result of take");
        expectSame(bounds[0], expected_bounds[0], "start of the window");
        expectSame(bounds[1], expected_bounds[1], "end of the window");
        expectSame(bool(Testing::sameImages<Event>(found, expected)), true, "events");
        return "take until " + std::to_string(until);
    }

    /// Restores an earlier state, or the current one, sometimes into a new store.
    std::string restore() {
        const bool back = below(3) == 0 && remembered_;
        if (back) plain_ = *remembered_;
        if (below(2) == 0) store_ = BucketEventStore(d_min_, bucket_count_);
        expectSame(store_.restore(plain_.snapshot()), true, "result of restore");
        plain_.recount();
        if (below(4) == 0) remembered_ = plain_;
        return back ? "restore an earlier state" : "restore";
    }

    Testing::Draws draws_;
    ModelTime d_min_;
    std::uint64_t bucket_count_;
    BucketEventStore store_;
    PlainCalendar plain_;
    std::optional<PlainCalendar> remembered_;
    std::string difference_;
};

TEST(BucketEventStore, AgreesWithAPlainCalendarThroughRandomHistories) {
    for (std::uint64_t seed = 0; seed < 2000; ++seed) {
        Histories histories(seed);
        for (int step = 0; step < 80; ++step) {
            const std::string done = histories.step();
            ASSERT_EQ(histories.difference(), "")
                << "seed " << seed << ", step " << step << ": " << done;
        }
    }
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
