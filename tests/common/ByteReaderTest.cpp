#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "common/ByteReader.h"

namespace {
const uint8_t kBytes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09};
constexpr size_t kMax = std::numeric_limits<size_t>::max();
} // namespace

TEST(CByteReader, ReadsLittleEndianInside)
{
    CByteReader r(kBytes, sizeof kBytes);
    EXPECT_EQ(r.ReadU8(0), 0x01);
    EXPECT_EQ(r.ReadLe16(0), 0x0201);
    EXPECT_EQ(r.ReadLe32(1), 0x05040302u);
    EXPECT_EQ(r.ReadLe64(1), 0x0908070605040302ull);
    EXPECT_EQ(r.ReadU8(8), 0x09);
}

TEST(CByteReader, ReadsStraddlingTheEndAreAbsent)
{
    CByteReader r(kBytes, sizeof kBytes);
    EXPECT_FALSE(r.ReadU8(9).has_value());
    EXPECT_FALSE(r.ReadLe16(8).has_value());
    EXPECT_TRUE(r.ReadLe16(7).has_value());
    EXPECT_FALSE(r.ReadLe32(6).has_value());
    EXPECT_TRUE(r.ReadLe32(5).has_value());
    EXPECT_FALSE(r.ReadLe64(2).has_value());
    EXPECT_EQ(r.Le32Or(6, 0xDEADBEEF), 0xDEADBEEFu);
    EXPECT_EQ(r.U8Or(100, 7), 7);
    EXPECT_EQ(r.Le16Or(8), 0);
    EXPECT_EQ(r.Le64Or(2, 5), 5u);
}

TEST(CByteReader, HugeOffsetsDoNotWrapAround)
{
    CByteReader r(kBytes, sizeof kBytes);
    for (size_t off : {kMax, kMax - 1, kMax - 3, kMax - 7, kMax / 2}) {
        EXPECT_FALSE(r.ReadU8(off).has_value()) << off;
        EXPECT_FALSE(r.ReadLe16(off).has_value()) << off;
        EXPECT_FALSE(r.ReadLe32(off).has_value()) << off;
        EXPECT_FALSE(r.ReadLe64(off).has_value()) << off;
        EXPECT_FALSE(r.Contains(off, 1)) << off;
        EXPECT_TRUE(r.Sub(off, 4).Empty()) << off;
    }
    EXPECT_FALSE(r.Contains(1, kMax));
    EXPECT_FALSE(r.Contains(kMax, kMax));
    EXPECT_FALSE(r.Matches(2, "x", kMax));
}

TEST(CByteReader, EmptyAndNullViews)
{
    CByteReader empty(kBytes, 0);
    EXPECT_TRUE(empty.Empty());
    EXPECT_FALSE(empty.ReadU8(0).has_value());
    EXPECT_TRUE(empty.Contains(0, 0));
    EXPECT_FALSE(empty.Contains(1, 0));

    CByteReader null(nullptr, 100);  // a size without data is no view at all
    EXPECT_EQ(null.Size(), 0u);
    EXPECT_FALSE(null.ReadLe16(0).has_value());
    EXPECT_TRUE(null.Matches(0, "", 0));
    EXPECT_FALSE(null.Matches(0, "a", 1));
    EXPECT_TRUE(null.Sub(0, 10).Empty());

    CByteReader def;
    EXPECT_TRUE(def.Empty());
    EXPECT_EQ(def.U8Or(0, 3), 3);
}

TEST(CByteReader, Matches)
{
    CByteReader r("_SM_\x1f", 5);
    EXPECT_TRUE(r.Matches(0, "_SM_", 4));
    EXPECT_FALSE(r.Matches(1, "_SM_", 4));
    EXPECT_TRUE(r.Matches(4, "\x1f", 1));
    EXPECT_FALSE(r.Matches(4, "\x1f\x00", 2));  // would straddle the end
    EXPECT_TRUE(r.Matches(5, "", 0));             // empty text at the end
    EXPECT_FALSE(r.Matches(6, "", 0));
    EXPECT_FALSE(r.Matches(0, nullptr, 1));
}

TEST(CByteReader, SubViewsAreClipped)
{
    CByteReader r(kBytes, sizeof kBytes);
    CByteReader s = r.Sub(2, 3);
    EXPECT_EQ(s.Size(), 3u);
    EXPECT_EQ(s.ReadU8(0), 0x03);
    EXPECT_FALSE(s.ReadU8(3).has_value());  // not the parent's next byte
    EXPECT_EQ(r.Sub(7, 100).Size(), 2u);
    EXPECT_EQ(r.Sub(7, kMax).Size(), 2u);
    EXPECT_EQ(r.Sub(9, 1).Size(), 0u);
    EXPECT_TRUE(r.Sub(10, 1).Empty());
    EXPECT_EQ(r.Sub(0, 0).Size(), 0u);
    EXPECT_EQ(r.Sub(3, 4).Sub(2, 10).Size(), 2u);
}
