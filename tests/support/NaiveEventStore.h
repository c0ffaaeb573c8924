#pragma once

#include <algorithm>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/events/IEventStore.h"

namespace Lumenar::Core::Kelm::Testing {

/// The event store in its plainest form: a list that every call searches.
class NaiveEventStore : public IEventStore {
public:
    explicit NaiveEventStore(ModelTime width) : width_(width) {}

    const char* name() override { return "naive"; }

    std::uint64_t post(const Event& event) override {
        if (event.time < start_of_future_) {
            throw LookaheadViolation(LookaheadViolation::processed);
        }
        events_.push_back(event);
        events_.back().id = next_id_;
        return next_id_++;
    }

    bool cancel(std::uint64_t id) override {
        return std::erase_if(events_, [&](const Event& event) { return event.id == id; }) != 0;
    }

    bool isEmpty() override { return events_.empty(); }

    bool take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
              ModelTime& window_end) override {
        events.clear();
        if (events_.empty()) return false;
        const ModelTime start =
            std::min_element(events_.begin(), events_.end(), EventLess())->time / width_ * width_;
        if (start >= until) return false;
        window_start = start;
        window_end = start + width_;
        start_of_future_ = window_end;
        const auto taken = std::partition(events_.begin(), events_.end(), [&](const Event& event) {
            return event.time >= window_end;
        });
        events.assign(taken, events_.end());
        events_.erase(taken, events_.end());
        std::sort(events.begin(), events.end(), EventLess());
        return true;
    }

    Blob snapshot() override { return {}; }
    bool restore(BlobView) override { return false; }

private:
    ModelTime width_;
    std::vector<Event> events_;
    ModelTime start_of_future_ = 0;
    std::uint64_t next_id_ = 0;
};

}  // namespace Lumenar::Core::Kelm::Testing
