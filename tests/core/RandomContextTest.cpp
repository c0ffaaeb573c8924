#include "kelm/core/RandomContext.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Runtime {

using Kelm::Testing::expectThrows;
using Values = std::vector<std::uint64_t>;

constexpr std::uint64_t increment = 0x9e3779b97f4a7c15;
constexpr const char* unreachable = "RandomContext raw state is not a reachable batch";

/// One stream as a blob holds it.
struct StreamImage {
    std::string name;
    std::uint64_t index = 0;
    std::uint64_t state = 0;
    std::uint8_t mode = 0;
    std::uint64_t cursor = 0;
    Values tape;
};

Blob blobOf(std::uint64_t seed, const std::vector<StreamImage>& streams) {
    Blob blob;
    appendBytes(blob, "RNDCTX1", 8);
    appendU64(blob, seed);
    appendU32(blob, static_cast<std::uint32_t>(streams.size()));
    for (const StreamImage& stream : streams) {
        appendU32(blob, static_cast<std::uint32_t>(stream.name.size()));
        appendBytes(blob, stream.name.data(), stream.name.size());
        appendU64(blob, stream.index);
        appendU64(blob, stream.state);
        appendU8(blob, stream.mode);
        appendU64(blob, stream.cursor);
        appendU64(blob, stream.tape.size());
        for (const std::uint64_t value : stream.tape) appendU64(blob, value);
    }
    return blob;
}

RandomContext contextOf(const std::vector<StreamImage>& streams) {
    RandomContext context(5);
    EXPECT_TRUE(context.restore(blobOf(9182, streams)));
    return context;
}

/// The raw state `steps` steps after `raw`; the values of those steps go to `values`.
std::uint64_t stepped(std::uint64_t raw, std::size_t steps, Values* values = nullptr) {
    for (std::size_t i = 0; i < steps; ++i) {
        raw += increment;
        if (values != nullptr) values->push_back(splitmixOutput(raw));
    }
    return raw;
}

// The first outputs of SplitMix64 from the raw state 1234567, as published with the generator.
constexpr std::uint64_t published_start = 1234567;
const Values published{6457827717110365317u, 3203168211198807973u, 9817491932198370423u,
                       4593380528125082431u, 16408922859458223821u};

TEST(RandomContext, AStreamStartsWhereItsSeedNameAndIndexSay) {
    EXPECT_EQ(RandomContext::deriveStreamState(0, "spontaneous", 0), 0x72c24b5610603cb3u);
    EXPECT_EQ(RandomContext::deriveStreamState(0, "spontaneous", 1), 0x48d06105aaa201dfu);
    EXPECT_EQ(RandomContext::deriveStreamState(1, "spontaneous", 0), 0x3c9c77c8b045dfa4u);
    EXPECT_EQ(RandomContext::deriveStreamState(9182, "stimulus", 0), 0x756c914d07530782u);
    RandomContext context(0);
    EXPECT_EQ(context.rawState("spontaneous", 1), 0x48d06105aaa201dfu);
    EXPECT_EQ(context.rawState(context.family("spontaneous"), 0), 0x72c24b5610603cb3u);
    EXPECT_NE(context.rawState("stimulus", 0), context.rawState("spontaneous", 0));
}

TEST(RandomContext, StepsAreThoseOfThePublishedGenerator) {
    RandomContext context = contextOf({{"stimulus", 0, published_start, 0, 0, {}}});
    const RandomContext::Stream stream = context.streamFor("stimulus", 0);
    for (const std::uint64_t value : published) EXPECT_EQ(context.next(stream), value);
    EXPECT_EQ(context.rawState("stimulus", 0), stepped(published_start, published.size()));
}

TEST(RandomContext, AStepLeavesATapeAloneWhateverTheMode) {
    for (std::uint8_t mode = 0; mode <= 2; ++mode) {
        const StreamImage stream{"learning", 3, published_start, mode, 1, {17, 18}};
        RandomContext context = contextOf({stream});
        EXPECT_EQ(context.next(context.streamFor("learning", 3)), published[0]);
        StreamImage moved = stream;
        moved.state = published_start + increment;
        EXPECT_EQ(context.snapshot(), blobOf(9182, {moved}));
    }
}

// Index 0 stands densely, index 7 alone; a tape anywhere in the family takes the slow way.
TEST(RandomContext, AdvancesByUpToABillionStepsAndRefusesTheRest) {
    struct Case {
        const char* fact;
        std::uint64_t distance;
        bool accepted;
    };
    for (const std::uint64_t index : {0U, 7U}) {
        for (const bool taped : {false, true}) {
            for (const Case& c : {
                     Case{"no step", 0, true},
                     Case{"one step", increment, true},
                     Case{"a billion steps", 1'000'000'000 * increment, true},
                     Case{"a billion and one", 1'000'000'001 * increment, false},
                     Case{"one step back", 0 - increment, false},
                     Case{"another stream's state", 1, false},
                 }) {
                SCOPED_TRACE(std::string(c.fact) + " of stream " + std::to_string(index));
                RandomContext context(1);
                if (taped) context.record("spontaneous", 2);
                const std::uint64_t before = context.rawState("spontaneous", index);
                const std::uint64_t raw = before + c.distance;
                const auto advance = [&] { context.advanceTo("spontaneous", index, raw); };
                if (c.accepted) {
                    advance();
                } else {
                    expectThrows<std::logic_error>(advance, unreachable);
                }
                EXPECT_EQ(context.rawState("spontaneous", index), c.accepted ? raw : before);
            }
        }
    }
}

TEST(RandomContext, AFamilyReachesTheStreamsOfItsName) {
    RandomContext context(9182);
    const RandomContext::Family family = context.family("spontaneous");
    for (const std::uint64_t index : {2U, 0U, 1U, 5U}) {
        const std::uint64_t raw = stepped(context.rawState(family, index), 3);
        context.advanceTo(family, index, raw);
        EXPECT_EQ(context.rawState("spontaneous", index), raw);
    }
    EXPECT_EQ(context.family("spontaneous"), family);
    EXPECT_NE(context.family("stimulus"), family);
}

TEST(RandomContext, ARecordingStreamKeepsEachValueItIsAdvancedOver) {
    RandomContext context = contextOf({{"learning", 0, published_start, 0, 0, {}}});
    context.record("learning", 0);
    EXPECT_TRUE(context.tape("learning", 0).empty());
    context.advanceTo("learning", 0, stepped(published_start, 2));
    context.advanceTo("learning", 0, stepped(published_start, 2));
    context.advanceTo("learning", 0, stepped(published_start, 5));
    const auto tape = context.tape("learning", 0);
    EXPECT_EQ(Values(tape.begin(), tape.end()), published);
    EXPECT_EQ(context.snapshot(),
              blobOf(9182, {{"learning", 0, stepped(published_start, 5), 1, 0, published}}));

    context.record("learning", 0);
    EXPECT_TRUE(context.tape("learning", 0).empty()) << "a new recording drops the old tape";
}

TEST(RandomContext, ARecordedRunReplayedPassesAndEndsWithItsTape) {
    for (const std::uint64_t index : {0U, 11U}) {
        RandomContext recorded(7);
        recorded.record("spontaneous", index);
        const std::uint64_t start = recorded.rawState("spontaneous", index);
        for (const std::size_t steps : {1U, 4U, 9U}) {
            recorded.advanceTo("spontaneous", index, stepped(start, steps));
        }

        RandomContext again(7);
        again.replay("spontaneous", index, recorded.tape("spontaneous", index));
        for (const std::size_t steps : {2U, 3U, 9U}) {
            again.advanceTo("spontaneous", index, stepped(start, steps));
        }
        EXPECT_TRUE(std::ranges::equal(again.tape("spontaneous", index),
                                       recorded.tape("spontaneous", index)));
        expectThrows<ReplayExhausted>(
            [&] { again.advanceTo("spontaneous", index, stepped(start, 10)); },
            "RandomContext replay exhausted: spontaneous");
        EXPECT_EQ(again.rawState("spontaneous", index), stepped(start, 10))
            << "the step whose value the tape lacks has been taken";
    }
}

TEST(RandomContext, AReplayStopsAtAValueThatDiffers) {
    RandomContext context = contextOf({{"learning", 4, published_start, 0, 0, {}}});
    Values tape = published;
    tape[2] ^= 1;
    context.replay("learning", 4, tape);
    context.advanceTo("learning", 4, stepped(published_start, 2));
    expectThrows<std::runtime_error>(
        [&] { context.advanceTo("learning", 4, stepped(published_start, 5)); },
        "RandomContext replay differs from generated stream: learning");
    // What was taken before the failure stands: three steps, three values of the tape.
    EXPECT_EQ(context.snapshot(),
              blobOf(9182, {{"learning", 4, stepped(published_start, 3), 2, 3, tape}}));
}

TEST(RandomContext, ATapeMayBeReplayedFromItsOwnStream) {
    RandomContext context = contextOf({{"learning", 0, published_start, 1, 0, published}});
    context.replay("learning", 0, context.tape("learning", 0));
    EXPECT_EQ(context.snapshot(),
              blobOf(9182, {{"learning", 0, published_start, 2, 0, published}}));
}

TEST(RandomContext, AStoppedTapeLeavesNoTrace) {
    RandomContext plain(3);
    RandomContext taped(3);
    const std::uint64_t raw = stepped(plain.rawState("stimulus", 0), 6);
    plain.advanceTo("stimulus", 0, raw);
    taped.record("stimulus", 0);
    taped.advanceTo("stimulus", 0, raw);
    EXPECT_NE(taped.snapshot(), plain.snapshot());
    taped.stopTape("stimulus", 0);
    EXPECT_EQ(taped.snapshot(), plain.snapshot());
    taped.replay("stimulus", 0, Values{1});
    taped.stopTape("stimulus", 0);
    taped.advanceTo("stimulus", 0, stepped(raw, 2));
    EXPECT_EQ(taped.rawState("stimulus", 0), stepped(raw, 2));
}

TEST(RandomContext, TapeOperationsCreateTheStreamAsItsFirstUseDoes) {
    const std::vector<std::function<void(RandomContext&)>> operations{
        [](RandomContext& context) { context.record("stimulus", 6); },
        [](RandomContext& context) { context.replay("stimulus", 6, {}); },
        [](RandomContext& context) { context.stopTape("stimulus", 6); },
        [](RandomContext& context) { EXPECT_TRUE(context.tape("stimulus", 6).empty()); },
    };
    const std::uint64_t state = RandomContext::deriveStreamState(8, "stimulus", 6);
    for (std::size_t i = 0; i < operations.size(); ++i) {
        RandomContext context(8);
        operations[i](context);
        const auto mode = static_cast<std::uint8_t>(i < 2 ? i + 1 : 0);
        EXPECT_EQ(context.snapshot(), blobOf(8, {{"stimulus", 6, state, mode, 0, {}}}));
    }
}

TEST(RandomContext, AStoredReplayGoesOnWhereItStood) {
    const std::uint64_t raw = stepped(published_start, 2);
    RandomContext context = contextOf({{"learning", 1, raw, 2, 2, published}});
    context.advanceTo("learning", 1, stepped(published_start, 5));
    expectThrows<ReplayExhausted>(
        [&] { context.advanceTo("learning", 1, stepped(published_start, 6)); },
        "RandomContext replay exhausted: learning");
}

TEST(RandomContext, ASnapshotIsSortedWhateverTheOrderOfCreation) {
    struct Address {
        const char* name;
        std::uint64_t index;
    };
    // In the order of the blob: names as unsigned bytes, a shorter one first, then indices.
    const std::vector<Address> sorted{{"", 4},  {"a", 0},     {"a", 1},        {"a", 2},
                                      {"a", 9}, {"a", ~0ULL}, {"ab", 0},       {"b", 1},
                                      {"z", 0}, {"\x7f", 0},  {"\xc3\xa9", 3}, {"\xff", 0}};
    std::vector<StreamImage> images;
    for (const Address& a : sorted) {
        images.push_back(
            {a.name, a.index, RandomContext::deriveStreamState(9182, a.name, a.index), 0, 0, {}});
    }
    const Blob expected = blobOf(9182, images);

    Kelm::Testing::Draws draws(3);
    for (int round = 0; round < 20; ++round) {
        std::vector<Address> order = sorted;
        for (std::size_t i = order.size(); i > 1; --i)
            std::swap(order[i - 1], order[draws.below(i)]);
        RandomContext context(9182);
        for (const Address& a : order) context.rawState(a.name, a.index);
        ASSERT_EQ(context.snapshot(), expected) << "round " << round;

        // A blob need not be sorted to be read; what comes back is.
        std::vector<StreamImage> shuffled;
        for (const Address& a : order) {
            shuffled.push_back({a.name,
                                a.index,
                                RandomContext::deriveStreamState(9182, a.name, a.index),
                                0,
                                0,
                                {}});
        }
        RandomContext read(0);
        ASSERT_TRUE(read.restore(blobOf(9182, shuffled)));
        ASSERT_EQ(read.snapshot(), expected) << "round " << round;
    }
}

TEST(RandomContext, AFreshContextIsTwentyBytesAndReadsBack) {
    const Blob blob = RandomContext(0x0102030405060708).snapshot();
    EXPECT_EQ(blob, blobOf(0x0102030405060708, {}));
    EXPECT_EQ(blob.size(), 20U);
    RandomContext context(1);
    context.rawState("spontaneous", 0);
    ASSERT_TRUE(context.restore(blob));
    EXPECT_EQ(context.seed(), 0x0102030405060708u);
    EXPECT_EQ(context.snapshot(), blob);
}

/// Streams of every mode, with and without a tape.
const std::vector<StreamImage> all_modes{{"learning", 0, 5, 0, 1, {21, 22}},
                                         {"spontaneous", 0, 6, 1, 0, {23}},
                                         {"spontaneous", 1, 7, 2, 3, {24, 25, 26}},
                                         {"spontaneous", 8, 8, 2, 0, {}}};

TEST(RandomContext, ARestoredContextWritesTheBlobItWasReadFrom) {
    EXPECT_EQ(contextOf(all_modes).snapshot(), blobOf(9182, all_modes));
}

TEST(RandomContext, ARefusedBlobLeavesTheContextAsItWas) {
    RandomContext context(77);
    context.record("spontaneous", 0);
    context.advanceTo("spontaneous", 0, stepped(context.rawState("spontaneous", 0), 3));
    const Blob before = context.snapshot();
    const auto refuses = [&](const std::string& fact, const Blob& blob) {
        EXPECT_FALSE(context.restore(blob)) << fact;
        EXPECT_EQ(context.snapshot(), before) << fact;
    };

    const Blob whole = blobOf(9182, all_modes);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        refuses("cut to " + std::to_string(length) + " bytes",
                Blob(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
    }
    Blob trailing = whole;
    trailing.push_back(0);
    refuses("a byte behind the last stream", trailing);
    Blob foreign = whole;
    foreign[6] = '2';
    refuses("another version's tag", foreign);
    foreign = whole;
    foreign[7] = ' ';
    refuses("a tag that ends in a blank", foreign);

    refuses("a mode of 3", blobOf(1, {{"a", 0, 0, 3, 0, {}}}));
    refuses("a cursor behind the tape", blobOf(1, {{"a", 0, 0, 2, 2, {1}}}));
    refuses("a cursor without a tape", blobOf(1, {{"a", 0, 0, 0, 1, {}}}));
    refuses("a stream twice", blobOf(1, {{"a", 0, 0, 0, 0, {}}, {"a", 0, 0, 0, 0, {}}}));
    refuses("a stream twice, apart",
            blobOf(1, {{"a", 5, 0, 0, 0, {}}, {"b", 5, 0, 0, 0, {}}, {"a", 5, 1, 0, 0, {}}}));

    // Offsets in a blob of one stream named "a": the stream count lies at 16, the name's length at
    // 20, the tape's at 50.
    const Blob one = blobOf(1, {{"a", 0, 0, 0, 0, {}}});
    ASSERT_EQ(one.size(), 58U);
    const auto inflated = [&](std::size_t offset, std::size_t width) {
        Blob blob = one;
        std::fill_n(blob.begin() + static_cast<std::ptrdiff_t>(offset), width, 0xff);
        return blob;
    };
    refuses("four billion streams", inflated(16, 4));
    refuses("a name of four billion bytes", inflated(20, 4));
    refuses("a tape of 2^64 - 1 values", inflated(50, 8));
    Blob wrapping = one;
    wrapping[57] = 0x20;
    refuses("a tape of 2^61 values, whose bytes would wrap to 0", wrapping);
}

}  // namespace Lumenar::Core::Runtime
