#pragma once

#include <vector>

#include "kelm/events/BucketEventStore.h"

namespace Lumenar::Core::Kelm::Testing {

/// A calendar that offers only the interface IEventStore.
class PlainStore : public IEventStore {
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

private:
    BucketEventStore inner_;
};

}  // namespace Lumenar::Core::Kelm::Testing
