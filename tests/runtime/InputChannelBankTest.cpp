#include "kelm/runtime/InputChannelBank.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/RecordingSink.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;
using namespace std::string_literals;

/// Injections, events, dropped, last time.
using Counters = std::array<std::int64_t, 4>;

Counters countersOf(const InputChannelBank& bank, std::size_t index) {
    return std::bit_cast<Counters>(bank.stats(index));
}

TEST(InputChannelBank, RefusesAChannelForItsFirstFaultWithoutAChange) {
    InputChannelBank bank;
    bank.addChannel({"eye", 0, {3}, 0, 1.0});
    const auto adding = [&](const std::string& name, std::vector<NodeId> targets, ModelTime delay,
                            double gain) {
        return [=, &bank] { bank.addChannel({name, 0, targets, delay, gain}); };
    };
    // Each channel also has the faults of the rows below it, if they can occur together.
    expectRefusals<InvalidModality>(
        {{"an input channel must be named", adding("", {}, -1, infinity)},
         {"duplicate input channel eye", adding("eye", {}, -1, infinity)},
         {"input channel ear reaches no neuron; a channel without targets could not be "
          "disconnected in any measurable way",
          adding("ear", {}, -1, infinity)},
         {"input channel ear has a negative delay", adding("ear", {1, 0, 1}, -1, infinity)},
         {"input channel ear has a non-finite gain", adding("ear", {1, 0, 1}, 0, -infinity)},
         {"input channel ear has a non-finite gain", adding("ear", {1, 0, 1}, 0, not_a_number)},
         {"input channel ear repeats a target", adding("ear", {1, 0, 1}, 0, 1.0)}},
        [&] { EXPECT_EQ(bank.size(), 1U); });
    // A bank knows no network, so it takes any target.
    EXPECT_EQ(bank.addChannel({"ear", 0, {~NodeId{0}}, 0, 1.0}), 1U);
}

TEST(InputChannelBank, PostsADelayedScaledEventPerTargetInTheirOrder) {
    InputChannelBank bank;
    bank.addChannel({"a\0b"s, 0, {8, 0, 3}, 7, 0.1});
    bank.addChannel({"a\0B"s, 0, {3}, 0, 9.0});
    bank.addChannel({"a", 0, {5}, last_model_time, 0.0});
    bank.setGain("a\0B"s, -2.0);
    RecordingSink sink;
    EXPECT_EQ(bank.inject("a\0b"s, 100, 3.0, sink), (std::vector<std::uint64_t>{70, 71, 72}));
    for (const double value : {0.0, 1.5}) bank.inject("a\0B"s, 100, value, sink);
    bank.inject("a", 0, -4.0, sink);
    std::vector<Event> expected;
    const auto expectEvent = [&](ModelTime time, std::uint64_t source, NodeId target,
                                 double value) {
        expected.push_back({time, 0, EventKind::input, {}, source, target, 0, value, 0});
    };
    // Three times the double nearest 0.1 lies halfway between two doubles. It rounds to the even
    // one.
    const double scaled = 0x1.3333333333334p-2;
    for (const NodeId target : {8U, 0U, 3U}) expectEvent(107, 1000000, target, scaled);
    expectEvent(100, 1000001, 3, -0.0);
    expectEvent(100, 1000001, 3, -3.0);
    expectEvent(last_model_time, 1000002, 5, -0.0);
    EXPECT_TRUE(sameImages<Event>(sink.events, expected));
    EXPECT_EQ(countersOf(bank, 0), (Counters{1, 3, 0, 100}));
    EXPECT_EQ(countersOf(bank, 1), (Counters{2, 2, 0, 100}));
}

TEST(InputChannelBank, CountsAcceptedInjectionsOnly) {
    InputChannelBank bank;
    bank.addChannel({"line", 0, {2, 1}, 50, 1.0});
    RecordingSink sink;
    const auto inject = [&](ModelTime time, double value, const char* name = "line") {
        return [&bank, &sink, time, value, name] { bank.inject(name, time, value, sink); };
    };
    const char* const back = "input channel line moved back in time";
    EXPECT_EQ(countersOf(bank, 0), (Counters{0, 0, 0, -1}));
    for (const ModelTime time : {-5, -90, 60, 60}) inject(time, 1.0)();
    expectRefusals<InvalidModality>(
        {{"unknown input channel lime", inject(59, not_a_number, "lime")},
         {"an injected value must be finite", inject(59, not_a_number)},
         {back, inject(59, 1.0)},
         {"unknown input channel lime", [&] { bank.setGain("lime", infinity); }},
         {"input channel line has a non-finite gain", [&] { bank.setGain("line", infinity); }},
         {"unknown input channel ", [&] { bank.setConnected("", false); }}},
        [&] {
            EXPECT_EQ(countersOf(bank, 0), (Counters{4, 8, 0, 60}));
        });

    bank.setConnected("line", false);
    EXPECT_TRUE(bank.inject("line", 80, 1.0, sink).empty());
    expectThrows<InvalidModality>(inject(79, 1.0), back);
    inject(last_model_time, 1.0)();  // a disconnected channel computes no arrival
    bank.setConnected("line", true);
    expectThrows<TimeOverflow>(inject(last_model_time, 1.0), "KELM model time overflow");
    EXPECT_EQ(countersOf(bank, 0), (Counters{7, 8, 2, last_model_time}));

    bank.adopt(std::vector<InputChannelBank::ChannelState>{{0.25, false, {9, 6, 1, 40}}});
    expectThrows<InvalidModality>(inject(39, 1.0), back);
    inject(41, 1.0)();
    EXPECT_EQ(countersOf(bank, 0), (Counters{10, 6, 2, 41}));
    EXPECT_EQ(bank.spec(0).gain, 0.25);
    EXPECT_EQ(sink.events.size(), 8U);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
