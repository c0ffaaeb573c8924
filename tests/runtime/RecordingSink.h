#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "kelm/events/IEventStore.h"

namespace Lumenar::Core::Kelm::Testing {

/// Keeps what is posted and gives ids 70, 71 and so on.
class RecordingSink : public IEventSink {
public:
    std::uint64_t post(const Event& event) override {
        events.push_back(event);
        return 69 + events.size();
    }
    std::vector<Event> events;
};

/// Compares all bytes, so that -0.0 differs from 0.0 and a gap that is not zero shows.
inline void expectSameEvents(const std::vector<Event>& found, const std::vector<Event>& expected) {
    ASSERT_EQ(found.size(), expected.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        const Event& a = found[i];
        const Event& b = expected[i];
        EXPECT_EQ(std::memcmp(&a, &b, sizeof(Event)), 0)
            << "event " << i << ": time " << a.time << " for " << b.time << ", source " << a.source
            << " for " << b.source << ", target " << a.target << " for " << b.target << ", value "
            << a.value << " for " << b.value;
    }
}

}  // namespace Lumenar::Core::Kelm::Testing
