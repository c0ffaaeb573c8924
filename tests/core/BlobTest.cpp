#include "kelm/core/Blob.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <utility>
#include <vector>

namespace Lumenar::Core {

struct Image {
    std::int64_t time = 0;
    bool flag = false;
    std::uint8_t gap[7] = {};
};

using Read = std::function<bool(BlobReader&)>;

/// Whether a read says yes and gives these bytes.
template <class Value>
Read gives(bool (BlobReader::*read)(Value&), Value expected) {
    return [=](BlobReader& in) {
        Value value{};
        return (in.*read)(value) && std::memcmp(&value, &expected, sizeof value) == 0;
    };
}

TEST(Blob, WritesEachFieldLittleEndianWithItsWidthAndReadsWhatFits) {
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
    EXPECT_EQ(blob, expected);

    const std::vector<std::pair<std::size_t, Read>> fields{
        {8, [](BlobReader& in) { return in.expectTag(BlobTag("RNDCTX1")); }},
        {9, gives(&BlobReader::readU8, std::uint8_t{0xa1})},
        {10, gives(&BlobReader::readFlag, true)},
        {11, gives(&BlobReader::readFlag, false)},
        {15, gives(&BlobReader::readU32, std::uint32_t{0x01020304})},
        {23, gives(&BlobReader::readU64, std::uint64_t{0x1112131415161718})},
        {31, gives(&BlobReader::readI64, std::int64_t{-2})},
        {35, gives(&BlobReader::readF32, 1.0F)},
        {43, gives(&BlobReader::readF64, -0.0)},
        {45,
         [](BlobReader& in) {
             BlobView view;
             return in.readView(2, view) && view[1] == 'b';
         }},
        {61, gives(&BlobReader::readImage<Image>, Image{3, true, {}})},
    };
    for (std::size_t length = 0; length <= blob.size(); ++length) {
        SCOPED_TRACE(length);
        BlobReader in(BlobView(blob).first(length));
        std::size_t begin = 0;
        for (const auto& [end, read] : fields) {
            EXPECT_EQ(read(in), end <= length);
            EXPECT_EQ(in.remaining(), length - (end <= length ? end : begin));
            EXPECT_EQ(in.atEnd(), in.remaining() == 0);
            begin = end;
            if (end > length) break;  // a read that does not fit says no and moves nothing
        }
    }
}

TEST(Blob, RefusesFlagsAndTagsThatDifferInAnyBit) {
    const Blob two{2};
    BlobReader in(two);
    bool flag = false;
    EXPECT_FALSE(in.readFlag(flag));
    EXPECT_FALSE(flag);
    EXPECT_EQ(in.remaining(), 1U);
    for (std::size_t i = 0; i < 8; ++i) {
        Blob blob;
        appendTag(blob, BlobTag("KELMWEN3"));
        blob[i] ^= 0x20;
        EXPECT_FALSE(BlobReader(blob).expectTag(BlobTag("KELMWEN3"))) << "byte " << i;
    }
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
        EXPECT_TRUE(!c.accepted || count == c.count);
        BlobView view;
        EXPECT_FALSE(in.readView(huge, view));
    }
}

}  // namespace Lumenar::Core
