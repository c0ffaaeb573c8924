#include "kelm/engine/WindowEvents.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <tuple>
#include <vector>

#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

// Sizes on both sides of each limit at which the sort method changes.
TEST(WindowEvents, ComeByTargetTimeAndIdInNetworksAndWindowsOfAnySize) {
    for (const std::uint64_t node_count :
         {1UL, 3UL, 1024UL, 1025UL, 1UL << 20, (1UL << 20) + 1, 1UL << 40, (1UL << 40) + 1}) {
        WindowEvents window(node_count);
        for (const std::size_t size : {0U, 1U, 255U, 256U, 2000U}) {
            SCOPED_TRACE(testing::Message() << size << " events of " << node_count << " neurons");
            Draws draws(node_count + size);
            std::vector<Event> events(size);
            for (Event& event : events) {
                event.time = draws.timeBelow(20);
                event.id = draws.next();
                event.target = draws.oneIn(2) ? node_count - 1 : draws.below(node_count);
            }
            window.addAll(events);
            ASSERT_FALSE(window.reachesOutside());
            window.sortByTarget();
            ASSERT_EQ(window.size(), size);
            WindowEvents::Walk view = window.walk();
            for (std::size_t first = 0; first < size;) first = view.orderTarget(first);
            std::vector<Event> expected = events;
            std::ranges::sort(expected, {}, [](const Event& event) {
                return std::tuple(event.target, event.time, event.id);
            });
            for (std::size_t i = 0; i < size; ++i) {
                ASSERT_EQ(view.targetAt(i), expected[i].target);
                ASSERT_EQ(view.inputAt(i).time, expected[i].time);
                ASSERT_EQ(view.inputAt(i).id, expected[i].id);
            }
        }
    }
    WindowEvents huge(std::uint64_t{1} << 60);
    const std::vector<Event> chunk_and_one(17);
    EXPECT_NO_THROW(huge.addAll(std::span(chunk_and_one).first(16)));
    expectThrows<WindowEngineError>([&] { huge.addAll(chunk_and_one); },
                                    "a window holds more events than 32-bit indices can address");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
