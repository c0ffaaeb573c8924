#include "kelm/core/Blob.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <tuple>
#include <utility>
#include <vector>

#include "kelm/core/Gap.h"

namespace Lumenar::Core::Kelm {

struct Image {
    std::int64_t time = 0;
    bool flag = false;
    Gap<7> gap = {};
};

using Read = std::function<bool(BlobReader&)>;

/// A read that must succeed and give these bytes.
template <class Value>
Read gives(bool (BlobReader::*read)(Value&), Value expected) {
    return [=](BlobReader& in) {
        Value value{};
        return (in.*read)(value) && std::memcmp(&value, &expected, sizeof value) == 0;
    };
}

TEST(Blob, WritesEachFieldLittleEndianWithItsWidthAndReadsWhatFits) {
    const Blob expected{'R',  'N',  'D',  'C',  'T',  'X',  '1',  0,     // a tag, padded with zero
                        0xa1, 1,    0,                                   // bytes and flags
                        0x04, 0x03, 0x02, 0x01,                          // 32 bits
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
            if (end > length) break;  // a read that does not fit fails and moves nothing
        }
    }
}

TEST(Blob, RefusesFlagsAndTagsThatDifferInAnyBit) {
    const Blob two{2};
    bool flag = false;
    EXPECT_FALSE(BlobReader(two).readFlag(flag));
    for (std::size_t i = 0; i < 8; ++i) {
        Blob blob;
        appendTag(blob, BlobTag("KELMWEN3"));
        blob[i] ^= 0x20;
        EXPECT_FALSE(BlobReader(blob).expectTag(BlobTag("KELMWEN3"))) << "byte " << i;
    }
}

TEST(Blob, ACountIsAcceptedOnlyIfItsItemsCanFollow) {
    constexpr std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
    // A count, the bytes of an item and those after the count. 2^61 times 8 would wrap to 0.
    using Case = std::tuple<std::uint64_t, std::size_t, std::size_t, bool>;
    for (const auto& [written, item_bytes, after, accepted] :
         {Case{0, 8, 0, true}, Case{3, 8, 24, true}, Case{3, 8, 30, true}, Case{3, 8, 23, false},
          Case{huge / 8 + 1, 8, 64, false}, Case{huge, 1, 64, false}}) {
        SCOPED_TRACE(written);
        Blob blob;
        appendU64(blob, written);
        blob.resize(8 + after);
        BlobReader in(blob);
        std::uint64_t count = 0;
        EXPECT_EQ(in.readCount(item_bytes, count), accepted);
        EXPECT_EQ(in.remaining(), after + (accepted ? 0 : 8));
        EXPECT_TRUE(!accepted || count == written);
        BlobView view;
        EXPECT_FALSE(in.readView(huge, view));
        BlobReader nested(blob);
        EXPECT_EQ(nested.readNested(view), written <= after);
        EXPECT_EQ(nested.remaining(), written <= after ? after - written : after + 8);
        BlobReader sequence(blob);
        std::vector<std::uint64_t> records;
        EXPECT_EQ(sequence.readSequence(records), written <= after / 8);
        EXPECT_EQ(sequence.remaining(), after + 8 - (written <= after / 8 ? 8 + 8 * written : 0));
    }
}

}  // namespace Lumenar::Core::Kelm
