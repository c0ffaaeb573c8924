// A calendar written as plainly as it can be runs beside the store through random histories, and
// the two must show the same after every step.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kelm/events/BucketEventStore.h"

namespace Lumenar::Core::Kelm {
namespace {

/// A ring of vectors, one vector for all that is beyond it, and one bit for every id ever issued.
/// It walks one bucket at a time and goes through everything beyond the ring at each step.
class PlainCalendar {
public:
    struct Refused : std::exception {};

    PlainCalendar(ModelTime d_min, std::uint64_t bucket_count)
        : d_min_(d_min), bucket_count_(bucket_count), ring_(bucket_count) {}

    std::uint64_t post(const Event& event) {
        const std::int64_t bucket = event.time / d_min_;
        if (started_ && bucket < cursor_) throw Refused();
        Event stored = event;
        stored.id = next_id_++;
        live_.push_back(true);
        ++live_count_;
        place(stored, bucket);
        return stored.id;
    }

    bool cancel(std::uint64_t id) {
        if (id >= next_id_ || !live_[id]) return false;
        live_[id] = false;
        --live_count_;
        return true;
    }

    bool isEmpty() const { return live_count_ == 0; }

    bool take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
              ModelTime& window_end) {
        events.clear();
        if (live_count_ == 0) return false;
        if (!started_) {
            std::int64_t first = last_model_time;
            for (const Event& event : liveEvents()) first = std::min(first, event.time / d_min_);
            cursor_ = first;
            started_ = true;
            moveOverflow();
        }
        if (cursor_ * d_min_ >= until) return false;
        while (true) {
            events.clear();
            std::vector<Event>& slot = ring_[slotOf(cursor_)];
            for (const Event& event : slot) {
                if (!live_[event.id]) continue;
                events.push_back(event);
                live_[event.id] = false;
                --live_count_;
            }
            slot.clear();
            ++cursor_;
            moveOverflow();
            if (!events.empty()) break;
            if (live_count_ == 0) return false;
            if (cursor_ * d_min_ >= until) return false;
        }
        sort(events);
        window_start = (cursor_ - 1) * d_min_;
        window_end = window_start + d_min_;
        return true;
    }

    std::vector<std::uint8_t> snapshot() const {
        const std::vector<Event> events = liveEvents();
        std::vector<std::uint8_t> bytes = {'K', 'E', 'L', 'M', 'B', 'K', 'T', '1'};
        const auto write = [&bytes](std::uint64_t value, int width = 8) {
            for (int i = 0; i < width; ++i) bytes.push_back((value >> (8 * i)) & 0xff);
        };
        write(static_cast<std::uint64_t>(d_min_));
        write(bucket_count_);
        write(static_cast<std::uint64_t>(cursor_));
        write(started_ ? 1 : 0, 1);
        write(next_id_);
        write(events.size());
        for (const Event& event : events) {
            write(static_cast<std::uint64_t>(event.time));
            write(event.id);
            write(static_cast<std::uint8_t>(event.kind), 1);
            write(0, 7);
            write(event.source);
            write(event.target);
            write(event.edge);
            write(std::bit_cast<std::uint64_t>(event.value));
            write(event.cause);
        }
        return bytes;
    }

    /// For bytes that a snapshot of a calendar of this shape has written.
    void restore(const std::vector<std::uint8_t>& bytes) {
        std::size_t at = 8;
        const auto read = [&bytes, &at](std::size_t width = 8) {
            std::uint64_t value = 0;
            for (std::size_t i = 0; i < width; ++i) {
                value |= std::uint64_t{bytes.at(at + i)} << (8 * i);
            }
            at += width;
            return value;
        };
        if (static_cast<ModelTime>(read()) != d_min_ || read() != bucket_count_) throw Refused();
        for (std::vector<Event>& slot : ring_) slot.clear();
        overflow_.clear();
        cursor_ = static_cast<std::int64_t>(read());
        started_ = read(1) != 0;
        next_id_ = read();
        live_.assign(next_id_, false);
        live_count_ = 0;
        overflow_posts_ = 0;
        const std::uint64_t count = read();
        for (std::uint64_t i = 0; i < count; ++i) {
            Event event;
            event.time = static_cast<ModelTime>(read());
            event.id = read();
            event.kind = static_cast<EventKind>(read(1));
            read(7);
            event.source = read();
            event.target = read();
            event.edge = read();
            event.value = std::bit_cast<double>(read());
            event.cause = read();
            live_.at(event.id) = true;
            ++live_count_;
            place(event, event.time / d_min_);
        }
    }

    std::uint64_t overflowPosts() const { return overflow_posts_; }
    std::int64_t cursor() const { return cursor_; }
    std::uint64_t nextId() const { return next_id_; }

    std::vector<Event> liveEvents() const {
        std::vector<Event> events;
        for (const std::vector<Event>& slot : ring_) gather(slot, events);
        gather(overflow_, events);
        sort(events);
        return events;
    }

private:
    std::size_t slotOf(std::int64_t bucket) const {
        return static_cast<std::uint64_t>(bucket) % bucket_count_;
    }
    std::int64_t reachEnd() const { return cursor_ + static_cast<std::int64_t>(bucket_count_); }

    void place(const Event& event, std::int64_t bucket) {
        if (bucket >= reachEnd()) {
            overflow_.push_back(event);
            ++overflow_posts_;
        } else {
            ring_[slotOf(bucket)].push_back(event);
        }
    }
    void moveOverflow() {
        std::vector<Event> stays;
        for (const Event& event : overflow_) {
            const std::int64_t bucket = event.time / d_min_;
            (bucket < reachEnd() ? ring_[slotOf(bucket)] : stays).push_back(event);
        }
        overflow_ = stays;
    }
    void gather(const std::vector<Event>& from, std::vector<Event>& events) const {
        std::copy_if(from.begin(), from.end(), std::back_inserter(events),
                     [this](const Event& event) { return live_[event.id]; });
    }
    static void sort(std::vector<Event>& events) {
        std::sort(events.begin(), events.end(), [](const Event& a, const Event& b) {
            return a.time < b.time || (a.time == b.time && a.id < b.id);
        });
    }

    ModelTime d_min_;
    std::uint64_t bucket_count_;
    std::vector<std::vector<Event>> ring_;
    std::vector<Event> overflow_;
    std::vector<bool> live_;
    std::int64_t cursor_ = 0;
    bool started_ = false;
    std::uint64_t next_id_ = 0;
    std::uint64_t live_count_ = 0;
    std::uint64_t overflow_posts_ = 0;
};

/// One random history of both calendars. A step returns what it did, for the message of a failure.
class Histories {
public:
    explicit Histories(std::uint64_t seed)
        : random_(seed),
          d_min_(pick<ModelTime>({1, 2, 10, 1000})),
          // Mostly the smallest rings, and some whose marks fill one word or just spill over.
          bucket_count_(below(8) != 0 ? 4 + below(5) : pick<std::uint64_t>({63, 64, 65, 130})),
          store_(d_min_, bucket_count_),
          plain_(d_min_, bucket_count_) {}

    std::string step() {
        switch (below(12)) {
            case 0:
            case 1:
            case 2:
            case 3:
                return post();
            case 4:
                return cancelOne();
            case 5:
                return cancelBucket();
            case 6:
                return below(4) == 0 ? cancelAll() : post();
            case 7:
                return below(40) == 0 ? churn() : post();
            case 8:
                return restore();
            default:
                return take();
        }
    }

    /// Where the two differ, or an empty text.
    std::string difference() {
        if (store_.isEmpty() != plain_.isEmpty()) return "isEmpty";
        if (store_.overflowPosts() != plain_.overflowPosts()) return "overflowPosts";
        if (store_.snapshot() != plain_.snapshot()) return "snapshot";
        return difference_;
    }

private:
    std::uint64_t below(std::uint64_t end) { return random_() % end; }
    template <class Value>
    Value pick(std::initializer_list<Value> values) {
        return values.begin()[below(values.size())];
    }

    /// Buckets ahead of the cursor; below 0 only for an event that must be refused.
    std::int64_t anyDistance() {
        const auto ring = static_cast<std::int64_t>(bucket_count_);
        switch (below(16)) {
            case 0:
                return -1 - static_cast<std::int64_t>(below(3));
            case 1:
            case 2:
                return ring - 1 + static_cast<std::int64_t>(below(3));
            case 3:
            case 4:
                return static_cast<std::int64_t>(below(20 * bucket_count_));
            case 5:
                return below(8) == 0 ? static_cast<std::int64_t>(below(3000)) : 0;
            default:
                return static_cast<std::int64_t>(below(bucket_count_));
        }
    }
    ModelTime anyTime() {
        const std::int64_t bucket = std::max<std::int64_t>(plain_.cursor() + anyDistance(), 0);
        const ModelTime inside = pick<ModelTime>(
            {0, 0, d_min_ - 1, static_cast<ModelTime>(below(static_cast<std::uint64_t>(d_min_)))});
        return bucket * d_min_ + inside;
    }
    Event anyEvent() {
        Event event;
        event.time = anyTime();
        event.id = random_();
        event.kind = pick<EventKind>({EventKind::delivery, EventKind::candidate, EventKind::input});
        event.gap[below(7)] = 0xee;
        event.source = below(1000);
        event.target = below(1000);
        event.edge = below(1000);
        event.value = std::bit_cast<double>(random_());
        event.cause = random_();
        return event;
    }

    template <class Value>
    void expectSame(const Value& found, const Value& expected, const char* what) {
        if (found != expected) difference_ = what;
    }

    std::string post() {
        const Event event = anyEvent();
        std::optional<std::uint64_t> found;
        std::optional<std::uint64_t> expected;
        try {
            found = store_.post(event);
        } catch (const LookaheadViolation&) {
        }
        try {
            expected = plain_.post(event);
        } catch (const PlainCalendar::Refused&) {
        }
        expectSame(found, expected, "id given by post");
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
    /// Leaves a bucket with nothing but dead entries.
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
    /// So many dead entries that they are swept out.
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
        const ModelTime until = pick<ModelTime>(
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
        const auto same = [](const Event& a, const Event& b) {
            return a.time == b.time && a.id == b.id && a.kind == b.kind && a.source == b.source &&
                   a.target == b.target && a.edge == b.edge && a.cause == b.cause &&
                   std::bit_cast<std::uint64_t>(a.value) == std::bit_cast<std::uint64_t>(b.value);
        };
        expectSame(std::equal(found.begin(), found.end(), expected.begin(), expected.end(), same),
                   true, "events of the window");
        return "take until " + std::to_string(until);
    }

    /// Back to an earlier moment, or to this one in a new store.
    std::string restore() {
        const bool back = below(3) == 0 && !remembered_.empty();
        const std::vector<std::uint8_t> bytes = back ? remembered_ : plain_.snapshot();
        if (below(2) == 0) store_ = BucketEventStore(d_min_, bucket_count_);
        expectSame(store_.restore(bytes), true, "result of restore");
        plain_.restore(bytes);
        if (below(4) == 0) remembered_ = bytes;
        return back ? "restore an earlier state" : "restore";
    }

    std::mt19937_64 random_;
    ModelTime d_min_;
    std::uint64_t bucket_count_;
    BucketEventStore store_;
    PlainCalendar plain_;
    std::vector<std::uint8_t> remembered_;
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
