#pragma once

#include <cstdint>
#include <vector>

#include "kelm/events/IEventStore.h"

namespace Lumenar::Core::Kelm::Testing {

/// Keeps posted events and returns the ids 70, 71 and so on.
class RecordingSink : public IEventSink {
public:
    std::uint64_t post(const Event& event) override {
        events.push_back(event);
        return 69 + events.size();
    }
    std::vector<Event> events;
};

}  // namespace Lumenar::Core::Kelm::Testing
