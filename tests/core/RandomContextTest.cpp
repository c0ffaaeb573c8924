#include "kelm/core/RandomContext.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"

namespace Lumenar::Core::Runtime {

using namespace Kelm;

using Kelm::Testing::expectThrows;
using Values = std::vector<std::uint64_t>;

constexpr std::uint64_t increment = 0x9e3779b97f4a7c15;

/// A stream of a blob.
struct StreamImage {
    std::string name;
    std::uint64_t index = 0;
    std::uint64_t state = 0;
    std::uint8_t mode = 0;
    std::uint64_t cursor = 0;
    Values tape = {};
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

// The first outputs of SplitMix64 from the raw state 1234567, as published with the generator.
constexpr std::uint64_t start = 1234567;
const Values published{6457827717110365317u, 3203168211198807973u, 9817491932198370423u,
                       4593380528125082431u, 16408922859458223821u};

/// The raw state after `steps` of those outputs.
std::uint64_t stepped(std::uint64_t steps) { return start + steps * increment; }

TEST(RandomContext, TheStartOfAStreamFollowsFromSeedNameAndIndex) {
    EXPECT_EQ(RandomContext::deriveStreamState(0, "spontaneous", 0), 0x72c24b5610603cb3u);
    EXPECT_EQ(RandomContext::deriveStreamState(0, "spontaneous", 1), 0x48d06105aaa201dfu);
    EXPECT_EQ(RandomContext::deriveStreamState(1, "spontaneous", 0), 0x3c9c77c8b045dfa4u);
    EXPECT_EQ(RandomContext::deriveStreamState(9182, "stimulus", 0), 0x756c914d07530782u);
    RandomContext context(0);
    EXPECT_EQ(context.rawState("spontaneous", 1), 0x48d06105aaa201dfu);
    EXPECT_EQ(context.rawState(context.family("spontaneous"), 0), 0x72c24b5610603cb3u);
}

TEST(RandomContext, StepsAsPublishedAndKeepsTheTapeInEveryMode) {
    const Values tape{17, 18};
    for (std::uint8_t mode = 0; mode <= 2; ++mode) {
        RandomContext context = contextOf({{"learning", 3, start, mode, 1, tape}});
        const RandomContext::Stream stream = context.streamFor("learning", 3);
        for (const std::uint64_t value : published) EXPECT_EQ(context.next(stream), value);
        EXPECT_EQ(stream.name(), "learning");
        EXPECT_EQ(stream.index(), 3u);
        EXPECT_EQ(stream.state(), stepped(5));
        EXPECT_EQ(stream.mode(), RandomContext::Mode(mode));
        EXPECT_EQ(Values(stream.tape().begin(), stream.tape().end()), tape);
        EXPECT_EQ(stream.cursor(), 1u);
        EXPECT_EQ(context.snapshot(), blobOf(9182, {{"learning", 3, stepped(5), mode, 1, tape}}));
        if (mode != 0) continue;
        context.advanceTo("learning", 3, stepped(7));  // past both values of the tape
        EXPECT_EQ(context.snapshot(), blobOf(9182, {{"learning", 3, stepped(7), 0, 1, tape}}));
    }
}

// Index 0 is in the first run, index 7 in its own. A tape in the run takes the slow way.
TEST(RandomContext, AdvancesByUpToABillionStepsAndRefusesTheRest) {
    const std::pair<std::uint64_t, bool> cases[] = {
        {0, true},
        {increment, true},
        {1'000'000'000 * increment, true},
        {1'000'000'001 * increment, false},
        {0 - increment, false},
        {1, false},  // another stream's state
    };
    for (const auto& [distance, accepted] : cases) {
        for (int way = 0; way < 4; ++way) {
            SCOPED_TRACE(testing::Message() << distance << ", way " << way);
            const std::uint64_t index = way % 2 == 0 ? 0 : 7;
            RandomContext context(1);
            const RandomContext::Family family = context.family("spontaneous");
            const std::uint64_t before = context.rawState(family, index);
            if (way / 2 == 1) context.record("spontaneous", index + 1);
            const auto advance = [&, raw = before + distance] {
                context.advanceTo(family, index, raw);
            };
            if (accepted) {
                advance();
            } else {
                expectThrows<std::logic_error>(advance,
                                               "RandomContext raw state is not a reachable batch");
            }
            EXPECT_EQ(context.rawState("spontaneous", index), before + (accepted ? distance : 0));
        }
    }
}

TEST(RandomContext, RecordsTheValuesItIsAdvancedOverAndChecksThemInAReplay) {
    for (const std::uint64_t index : {0U, 11U}) {
        const std::vector<StreamImage> fresh{{"learning", index, start}};
        RandomContext recorded = contextOf(fresh);
        recorded.record("learning", index);
        for (const std::uint64_t steps : {2U, 2U, 5U}) {
            recorded.advanceTo("learning", index, stepped(steps));
        }
        EXPECT_EQ(recorded.snapshot(),
                  blobOf(9182, {{"learning", index, stepped(5), 1, 0, published}}));

        RandomContext again = contextOf(fresh);
        again.replay("learning", index, recorded.streamFor("learning", index).tape());
        for (const std::uint64_t steps : {1U, 4U, 5U}) {
            again.advanceTo("learning", index, stepped(steps));
        }
        const auto goOn = [&] { again.advanceTo("learning", index, stepped(7)); };
        const char* const exhausted = "RandomContext replay exhausted: learning";
        expectThrows<ReplayExhausted>(goOn, exhausted);
        // The step past the end of the tape was taken.
        EXPECT_EQ(again.snapshot(),
                  blobOf(9182, {{"learning", index, stepped(6), 2, 5, published}}));
        // A stream may be replayed against its own tape.
        again.replay("learning", index, again.streamFor("learning", index).tape());
        EXPECT_EQ(again.snapshot(),
                  blobOf(9182, {{"learning", index, stepped(6), 2, 0, published}}));

        recorded.record("learning", index);
        EXPECT_TRUE(recorded.streamFor("learning", index).tape().empty())
            << "a new recording, a new tape";
        recorded.stopTape("learning", index);
        recorded.advanceTo("learning", index, stepped(6));
        EXPECT_EQ(recorded.snapshot(), blobOf(9182, {{"learning", index, stepped(6)}}));
    }
}

TEST(RandomContext, AStoredReplayContinuesAndStopsAtAValueThatDiffers) {
    Values tape = published;
    tape[2] ^= 1;
    RandomContext context = contextOf({{"learning", 4, stepped(1), 2, 1, tape}});
    context.advanceTo("learning", 4, stepped(2));
    expectThrows<std::runtime_error>(
        [&] { context.advanceTo("learning", 4, stepped(5)); },
        "RandomContext replay differs from generated stream: learning");
    // Three steps and three values of the tape before the failure are not undone.
    EXPECT_EQ(context.snapshot(), blobOf(9182, {{"learning", 4, stepped(3), 2, 3, tape}}));
}

TEST(RandomContext, ASnapshotIsSortedWhateverTheOrderOfCreation) {
    // In the order of the blob: names as unsigned bytes, a shorter one first, then indices.
    std::vector<StreamImage> sorted{{"", 4},   {"a", 0}, {"a", 2}, {"a", 9},    {"a", ~0ULL},
                                    {"ab", 0}, {"b", 1}, {"z", 0}, {"\x7f", 0}, {"\xff", 0}};
    for (StreamImage& image : sorted) {
        image.state = RandomContext::deriveStreamState(9182, image.name, image.index);
    }
    std::vector<StreamImage> order = sorted;
    for (std::size_t round = 0; round < order.size(); ++round) {
        // Each stream is the first and the last one once.
        std::rotate(order.begin(), order.begin() + 3, order.end());
        RandomContext context(9182);
        for (const StreamImage& image : order) context.rawState(image.name, image.index);
        ASSERT_EQ(context.snapshot(), blobOf(9182, sorted)) << "round " << round;
        // A blob in any order is read, and the snapshot of the result is sorted.
        ASSERT_EQ(contextOf(order).snapshot(), blobOf(9182, sorted)) << "round " << round;
    }
}

TEST(RandomContext, KeepsStreamsThatWereCreatedInAnyOrderOrOnlyRecorded) {
    RandomContext context(9182);
    std::vector<StreamImage> expected;
    for (const std::uint64_t index : {3U, 1U, 2U, 0U}) {  // 3 is created before 2
        const std::uint64_t state = context.rawState("a", index) + (index + 1) * increment;
        context.advanceTo("a", index, state);
        expected.insert(expected.begin(), {"a", index, state});
    }
    context.record("b", 7);
    expected.push_back({"b", 7, RandomContext::deriveStreamState(9182, "b", 7), 1});
    EXPECT_TRUE(contextOf(expected).snapshot() == context.snapshot());
}

TEST(RandomContext, TakesAllOfABlobOrNothing) {
    RandomContext context(0x0102030405060708);
    EXPECT_EQ(context.snapshot(), blobOf(0x0102030405060708, {}));
    context.record("spontaneous", 0);
    context.advanceTo("spontaneous", 0, context.rawState("spontaneous", 0) + 3 * increment);
    // The blob ends with the length of an empty tape.
    Blob wrapping = blobOf(1, {{"a"}});
    wrapping.back() = 0x20;
    const StreamImage a{"a"};
    Kelm::Testing::expectTakesAllOrNothing(
        context,
        blobOf(9182, {{"learning", 0, 5, 0, 1, {21, 22}},
                      {"spontaneous", 0, 6, 1, 0, {23}},
                      {"spontaneous", 1, 7, 2, 3, {24, 25, 26}},
                      {"spontaneous", 8, 8, 2}}),
        {{"a mode of 3", blobOf(1, {{"a", 0, 0, 3}})},
         {"a cursor past the tape", blobOf(1, {{"a", 0, 0, 2, 2, {1}}})},
         {"a cursor without a tape", blobOf(1, {{"a", 0, 0, 0, 1}})},
         {"a stream twice", blobOf(1, {a, a})},
         {"a stream twice, apart", blobOf(1, {{"a", 5}, {"b", 5}, {"a", 5, 1}})},
         {"a stream twice, the second time reached from below",
          blobOf(1, {{"a", 2}, {"a", 0}, {"a", 1}, {"a", 2}})},
         {"a tape of 2^61 values, whose bytes would wrap to 0", wrapping}});
    EXPECT_EQ(context.seed(), 9182u);
}

}  // namespace Lumenar::Core::Runtime
