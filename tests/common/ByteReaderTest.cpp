#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "common/ByteReader.h"

namespace {
const uint8_t kBytes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09};
constexpr size_t kMax = std::numeric_limits<size_t>::max();
} // namespace

TEST(CByteReader, ReadsInsideAndNothingStraddlingTheEnd)
{
    CByteReader r(kBytes, sizeof kBytes);
    EXPECT_EQ(r.ReadLe16(0), 0x0201);
    EXPECT_EQ(r.ReadLe32(5), 0x09080706u);
    EXPECT_EQ(r.ReadLe64(1), 0x0908070605040302ull);
    EXPECT_EQ(r.ReadU8(8), 0x09);
    EXPECT_FALSE(r.ReadU8(9) || r.ReadLe16(8) || r.ReadLe32(6) || r.ReadLe64(2));
    EXPECT_EQ(r.Le32Or(6, 0xDEADBEEF), 0xDEADBEEFu);
    EXPECT_EQ(r.U8Or(100, 7), 7);
    EXPECT_EQ(r.Le64Or(2, 5), 5u);
    for (size_t off : {kMax, kMax - 1, kMax - 3, kMax - 7, kMax / 2}) {  // no wrap-around
        EXPECT_FALSE(r.ReadU8(off) || r.ReadLe16(off) || r.ReadLe32(off) || r.ReadLe64(off)) << off;
        EXPECT_FALSE(r.Contains(off, 1)) << off;
        EXPECT_TRUE(r.Sub(off, 4).Empty()) << off;
    }
    EXPECT_FALSE(r.Contains(1, kMax));
    EXPECT_FALSE(r.Matches(2, "x", kMax));
}

TEST(CByteReader, EmptyNullMatchesAndClippedSubViews)
{
    CByteReader empty(kBytes, 0), null(nullptr, 100), def;
    EXPECT_TRUE(empty.Contains(0, 0) && !empty.Contains(1, 0));
    EXPECT_EQ(null.Size(), 0u);  // a size without data is no view at all
    EXPECT_TRUE(null.Matches(0, "", 0) && !null.Matches(0, "a", 1));
    EXPECT_EQ(def.U8Or(0, 3), 3);
    CByteReader m("_SM_\x1f", 5);
    EXPECT_TRUE(m.Matches(0, "_SM_", 4) && m.Matches(5, "", 0));
    // Elsewhere, straddling the end, past it, or nothing to compare.
    EXPECT_FALSE(m.Matches(1, "_SM_", 4) || m.Matches(4, "\x1f\x00", 2) || m.Matches(6, "", 0) ||
                 m.Matches(0, nullptr, 1));
    CByteReader r(kBytes, sizeof kBytes);
    EXPECT_FALSE(r.Sub(2, 3).ReadU8(3).has_value());  // not the parent's next byte
    EXPECT_EQ(r.Sub(7, kMax).Size(), 2u);
    EXPECT_EQ(r.Sub(9, 1).Size(), 0u);
    EXPECT_TRUE(r.Sub(10, 1).Empty());
    EXPECT_EQ(r.Sub(3, 4).Sub(2, 10).Size(), 2u);
}
