#include "kelm/runtime/InputChannelBank.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/runtime/RecordingSink.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::expectSameEvents;
using Testing::expectThrows;
using Testing::RecordingSink;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

InputChannelSpec channel(std::string name, std::vector<NodeId> targets, ModelTime delay = 0,
                         double gain = 1.0) {
    return {std::move(name), 0, std::move(targets), delay, gain};
}

Event inputEvent(ModelTime time, std::uint64_t source, NodeId target, double value) {
    Event event;
    event.time = time;
    event.kind = EventKind::input;
    event.source = source;
    event.target = target;
    event.value = value;
    return event;
}

void expectStats(const InputChannelStats& stats, const InputChannelStats& expected) {
    EXPECT_EQ(stats.injections, expected.injections);
    EXPECT_EQ(stats.events, expected.events);
    EXPECT_EQ(stats.dropped, expected.dropped);
    EXPECT_EQ(stats.last_time, expected.last_time);
}

TEST(InputChannelBank, RefusesAChannelForItsFirstFaultAndKeepsNothingOfIt) {
    // Each channel has the faults of all rows below it, as far as they go together.
    struct Case {
        const char* text;
        InputChannelSpec spec;
    };
    for (const Case& c :
         {Case{"runtime input channel target is outside the graph",
               channel("", {1, 4, 1}, -1, infinity)},
          Case{"an input channel must be named", channel("", {}, -1, infinity)},
          Case{"duplicate input channel eye", channel("eye", {}, -1, infinity)},
          Case{"input channel ear reaches no neuron; a channel without targets could not be "
               "disconnected in any measurable way",
               channel("ear", {}, -1, infinity)},
          Case{"input channel ear has a negative delay", channel("ear", {1, 0, 1}, -1, infinity)},
          Case{"input channel ear has a non-finite gain", channel("ear", {1, 0, 1}, 0, -infinity)},
          Case{"input channel ear has a non-finite gain",
               channel("ear", {1, 0, 1}, 0, not_a_number)},
          Case{"input channel ear repeats a target", channel("ear", {1, 0, 1})}}) {
        SCOPED_TRACE(c.text);
        InputChannelBank bank(4);
        ASSERT_EQ(bank.addChannel(channel("eye", {3})), 0U);
        expectThrows<InvalidModality>([&] { bank.addChannel(c.spec); }, c.text);
        EXPECT_EQ(bank.addChannel(channel("ear", {0})), 1U);
    }
}

TEST(InputChannelBank, FindsNamesByteForByte) {
    using namespace std::string_literals;
    InputChannelBank bank(1);
    const std::vector<std::string> names{"b", "a", "A", "ab", "a\0"s, "a\0b"s, "\xc3\xa4", "\xe4"};
    for (const std::string& name : names) bank.addChannel(channel(name, {0}));
    for (std::size_t i = 0; i < names.size(); ++i) EXPECT_EQ(bank.indexOf(names[i]), i);
    expectThrows<InvalidModality>([&] { bank.indexOf("B"); }, "unknown input channel B");
    expectThrows<InvalidModality>([&] { bank.indexOf(""); }, "unknown input channel ");
}

TEST(InputChannelBank, PostsADelayedScaledEventPerTargetInTheirOrder) {
    InputChannelBank bank(9);
    bank.addChannel(channel("left", {8, 0, 3}, 7, 0.1));
    bank.addChannel(channel("right", {3}, 0, -2.0));
    bank.addChannel(channel("mute", {5}, last_model_time, 0.0));
    RecordingSink sink;
    const std::vector<std::uint64_t> three{70, 71, 72};
    EXPECT_EQ(bank.inject("left", 100, 3.0, sink), three);
    EXPECT_EQ(bank.inject("right", 100, 0.0, sink), std::vector<std::uint64_t>{73});
    EXPECT_EQ(bank.inject("right", 100, 1.5, sink), std::vector<std::uint64_t>{74});
    EXPECT_EQ(bank.inject("mute", 0, -4.0, sink), std::vector<std::uint64_t>{75});
    // Three times the double nearest 0.1 lies halfway between two doubles: the even one is taken.
    const double scaled = 0x1.3333333333334p-2;
    expectSameEvents(
        sink.events,
        {inputEvent(107, 1000000, 8, scaled), inputEvent(107, 1000000, 0, scaled),
         inputEvent(107, 1000000, 3, scaled), inputEvent(100, 1000001, 3, -0.0),
         inputEvent(100, 1000001, 3, -3.0), inputEvent(last_model_time, 1000002, 5, -0.0)});
    expectStats(bank.stats(0), {1, 3, 0, 100});
    expectStats(bank.stats(1), {2, 2, 0, 100});
    expectStats(bank.stats(2), {1, 1, 0, 0});
}

TEST(InputChannelBank, KeepsItsBooksThroughEveryKindOfRefusal) {
    // A store that has handed out [0, 100): whatever arrives there now comes too late.
    BucketEventStore store(100, 16);
    store.post(inputEvent(0, 0, 0, 1.0));
    std::vector<Event> events;
    ModelTime start = 0;
    ModelTime end = 0;
    ASSERT_TRUE(store.take(100, events, start, end));

    InputChannelBank bank(3);
    bank.addChannel(channel("line", {2, 1}, 50));
    bank.addChannel(channel("other", {1}));
    const auto inject = [&](ModelTime time, double value) {
        return [&bank, &store, time, value] { bank.inject("line", time, value, store); };
    };
    const char* const late =
        "KELM event inserted into an already processed window; d_min does not bound this edge";

    expectStats(bank.stats(0), {0, 0, 0, -1});
    expectThrows<LookaheadViolation>(inject(49, 1.0), late);
    expectStats(bank.stats(0), {1, 0, 0, 49});
    inject(60, 1.0)();
    inject(60, 1.0)();
    expectStats(bank.stats(0), {3, 4, 0, 60});
    expectThrows<InvalidModality>(inject(59, 1.0), "input channel line moved back in time");
    expectThrows<InvalidModality>(inject(59, not_a_number), "an injected value must be finite");
    expectThrows<InvalidModality>(inject(70, -infinity), "an injected value must be finite");
    expectThrows<InvalidModality>([&] { bank.inject("lime", 70, not_a_number, store); },
                                  "unknown input channel lime");
    expectStats(bank.stats(0), {3, 4, 0, 60});

    bank.setConnected("line", false);
    EXPECT_TRUE(bank.inject("line", 80, 1.0, store).empty());
    expectThrows<InvalidModality>(inject(79, 1.0), "input channel line moved back in time");
    // Nothing arrives, so nothing can arrive too late.
    EXPECT_TRUE(bank.inject("line", last_model_time, 1.0, store).empty());
    expectStats(bank.stats(0), {5, 4, 2, last_model_time});
    bank.setConnected("line", true);
    expectThrows<TimeOverflow>(inject(last_model_time, 1.0), "KELM model time overflow");
    expectStats(bank.stats(0), {6, 4, 2, last_model_time});

    expectStats(bank.stats(1), {0, 0, 0, -1});
    ASSERT_TRUE(store.take(last_model_time, events, start, end));
    EXPECT_EQ(events.size(), 4U);
    EXPECT_TRUE(store.isEmpty());
}

TEST(InputChannelBank, HoldsATimeBackOnlyBehindOneThatIsNotNegative) {
    InputChannelBank bank(1);
    bank.addChannel(channel("early", {0}, 100));
    RecordingSink sink;
    for (const ModelTime time : {-5, -90, 0}) bank.inject("early", time, 1.0, sink);
    expectThrows<InvalidModality>([&] { bank.inject("early", -1, 1.0, sink); },
                                  "input channel early moved back in time");
    expectStats(bank.stats(0), {3, 3, 0, 0});
}

TEST(InputChannelBank, GoesOnFromRestoredChannelsAsTheOriginalDoes) {
    const auto build = [] {
        InputChannelBank bank(4);
        bank.addChannel(channel("a", {0, 1}, 5, 2.0));
        bank.addChannel(channel("b", {3}, 0, -1.0));
        return bank;
    };
    RecordingSink past;
    InputChannelBank original = build();
    original.inject("a", 10, 1.0, past);
    original.setGain("a", 0.25);
    original.setConnected("b", false);
    original.inject("b", 20, 1.0, past);
    InputChannelBank twin = build();
    for (std::size_t i = 0; i < original.size(); ++i) {
        ASSERT_TRUE(twin.restoreChannel(i, original.spec(i).gain, original.isConnected(i),
                                        original.stats(i)));
    }

    EXPECT_FALSE(twin.restoreChannel(2, 1.0, true, {}));
    EXPECT_FALSE(twin.restoreChannel(0, not_a_number, false, {}));
    expectThrows<InvalidModality>([&] { twin.setGain("c", infinity); }, "unknown input channel c");
    expectThrows<InvalidModality>([&] { twin.setGain("a", infinity); },
                                  "input channel a has a non-finite gain");
    expectThrows<InvalidModality>([&] { twin.setConnected("", true); }, "unknown input channel ");

    RecordingSink sinks[2];
    InputChannelBank* const banks[2] = {&original, &twin};
    for (int i = 0; i < 2; ++i) {
        InputChannelBank& bank = *banks[i];
        bank.inject("a", 10, 3.0, sinks[i]);
        bank.inject("b", 30, 3.0, sinks[i]);
        expectThrows<InvalidModality>([&] { bank.inject("b", 29, 3.0, sinks[i]); },
                                      "input channel b moved back in time");
        bank.setConnected("b", true);
        bank.inject("b", 31, 3.0, sinks[i]);
        expectStats(bank.stats(0), {2, 4, 0, 10});
        expectStats(bank.stats(1), {3, 1, 2, 31});
    }
    expectSameEvents(sinks[0].events,
                     {inputEvent(15, 1000000, 0, 0.75), inputEvent(15, 1000000, 1, 0.75),
                      inputEvent(31, 1000001, 3, -3.0)});
    expectSameEvents(sinks[1].events, sinks[0].events);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
