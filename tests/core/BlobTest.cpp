#include "kelm/core/Blob.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/SameBits.h"

namespace Lumenar::Core {

struct Image {
    std::int64_t time = 0;
    bool flag = false;
    std::uint8_t gap[7] = {};
};

TEST(Blob, AppendsEachFieldLittleEndianWithItsWidthAndNothingElse) {
    Blob blob;
    appendTag(blob, BlobTag("RNDCTX1"));
    appendU8(blob, 0xa1);
    appendFlag(blob, true);
    appendFlag(blob, false);
    appendU32(blob, 0x01020304);
    appendU64(blob, 0x1112131415161718);
    appendI64(blob, -2);
    appendF32(blob, 1.0F);
    appendF64(blob, -0.0);
    appendBytes(blob, "ab", 2);
    appendBytes(blob, nullptr, 0);
    appendImage(blob, Image{3, true, {}});
    const Blob expected{'R',  'N',  'D',  'C',  'T',  'X',  '1',  0,  // a tag, filled up with zero
                        0xa1, 1,    0,                                // bytes and flags
                        0x04, 0x03, 0x02, 0x01,                       // 32 bits
                        0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11,  // 64 bits
                        0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // two's complement
                        0,    0,    0x80, 0x3f,                          // 1.0 in single precision
                        0,    0,    0,    0,    0,    0,    0,    0x80,  // -0.0 keeps its sign
                        'a',  'b',                                       // raw bytes
                        3,    0,    0,    0,    0,    0,    0,    0,     // a record with its gap
                        1,    0,    0,    0,    0,    0,    0,    0};
    EXPECT_EQ(blob, expected);
}

TEST(Blob, DoublesReadBackToTheBit) {
    for (const std::uint64_t bits : std::vector<std::uint64_t>{
             0x8000000000000000u, 0x0000000000000001u, 0x7ff0000000000000u, 0xfff0000000000000u,
             0x7ff8000000000000u, 0xfff8dead0000beefu, 0x3fb999999999999au}) {
        Blob blob;
        appendF64(blob, std::bit_cast<double>(bits));
        double read = 0.0;
        ASSERT_TRUE(BlobReader(blob).readF64(read));
        EXPECT_TRUE(Kelm::Testing::sameBits(read, std::bit_cast<double>(bits)));
    }
}

/// A read of one value, which says yes where the value came with what was there.
template <class Value>
std::function<bool(BlobReader&)> reading(bool (BlobReader::*read)(Value&)) {
    return [read](BlobReader& in) {
        Value value{};
        return (in.*read)(value) && value != Value{};
    };
}

TEST(Blob, AReadThatDoesNotFitSaysNoAndMovesNothing) {
    struct Field {
        const char* name;
        std::size_t width;
        std::function<bool(BlobReader&)> read;
    };
    const auto view = [](BlobReader& in) {
        BlobView bytes;
        return in.readView(3, bytes) && bytes.size() == 3 && bytes[0] == 1;
    };
    const auto tag = [](BlobReader& in) { return in.expectTag(BlobTag("\x01")); };
    const std::vector<Field> fields{
        {"u8", 1, reading(&BlobReader::readU8)},
        {"flag", 1, reading(&BlobReader::readFlag)},
        {"u32", 4, reading(&BlobReader::readU32)},
        {"u64", 8, reading(&BlobReader::readU64)},
        {"i64", 8, reading(&BlobReader::readI64)},
        {"f32", 4, reading(&BlobReader::readF32)},
        {"f64", 8, reading(&BlobReader::readF64)},
        {"view", 3, view},
        {"tag", 8, tag},
    };
    for (const Field& field : fields) {
        for (std::size_t length = 0; length <= field.width; ++length) {
            SCOPED_TRACE(std::string(field.name) + " from " + std::to_string(length) + " bytes");
            // One byte in front, so that the field is not aligned and does not start at 0.
            Blob blob(1 + field.width, 0);
            blob[1] = 1;
            blob.resize(1 + length);
            BlobReader in(blob);
            std::uint8_t front = 0;
            ASSERT_TRUE(in.readU8(front));
            const bool fits = length == field.width;
            EXPECT_EQ(field.read(in), fits);
            EXPECT_EQ(in.remaining(), fits ? 0 : length);
            EXPECT_EQ(in.atEnd(), in.remaining() == 0);
        }
    }
}

TEST(Blob, AFlagIsZeroOrOne) {
    const Blob blob{2};
    BlobReader in(blob);
    bool flag = false;
    EXPECT_FALSE(in.readFlag(flag));
    EXPECT_FALSE(flag);
    EXPECT_EQ(in.remaining(), 1U);
}

TEST(Blob, ACountIsAcceptedOnlyIfItsItemsCanFollow) {
    struct Case {
        const char* fact;
        std::uint64_t count;
        std::size_t item_bytes, bytes_behind;
        bool accepted;
    };
    constexpr std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
    for (const Case& c : {
             Case{"no items, nothing behind", 0, 8, 0, true},
             Case{"just enough", 3, 8, 24, true},
             Case{"more than enough", 3, 8, 30, true},
             Case{"one byte short", 3, 8, 23, false},
             Case{"one item, nothing behind", 1, 8, 0, false},
             Case{"a product that would wrap to 0", std::uint64_t{1} << 61, 8, 64, false},
             Case{"the largest count of bytes", huge, 1, 64, false},
         }) {
        SCOPED_TRACE(c.fact);
        Blob blob;
        appendU64(blob, c.count);
        blob.resize(blob.size() + c.bytes_behind);
        BlobReader in(blob);
        std::uint64_t count = 0;
        EXPECT_EQ(in.readCount(c.item_bytes, count), c.accepted);
        EXPECT_EQ(in.remaining(), c.bytes_behind + (c.accepted ? 0 : 8));
        if (c.accepted) {
            EXPECT_EQ(count, c.count);
        }
    }
    const Blob cut(7, 0);
    std::uint64_t count = 0;
    EXPECT_FALSE(BlobReader(cut).readCount(1, count));
}

TEST(Blob, AViewLongerThanTheRestIsRefusedWhateverItsLength) {
    const Blob blob(16, 7);
    BlobReader in(blob);
    BlobView view;
    EXPECT_FALSE(in.readView(17, view));
    EXPECT_FALSE(in.readView(std::numeric_limits<std::uint64_t>::max(), view));
    ASSERT_TRUE(in.readView(16, view));
    EXPECT_EQ(view.data(), blob.data()) << "a view owns no bytes";
    EXPECT_TRUE(in.atEnd());
    EXPECT_TRUE(in.readView(0, view));
}

TEST(Blob, ATagIsComparedInAllItsBytes) {
    const BlobTag tag("KELMWEN3");
    for (std::size_t i = 0; i < 8; ++i) {
        Blob blob;
        appendTag(blob, tag);
        EXPECT_TRUE(BlobReader(blob).expectTag(tag));
        blob[i] ^= 0x20;
        EXPECT_FALSE(BlobReader(blob).expectTag(tag)) << "byte " << i;
    }
}

}  // namespace Lumenar::Core
