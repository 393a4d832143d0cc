#include <gtest/gtest.h>

#include <string>

#include "common/CPciAddress.h"

TEST(CPciAddress, OrderEqualityAndText)
{
    // Ascending: each field outranks all later ones, whatever their values.
    const CPciAddress up[] = {{0, 1, 2, 3}, {0, 1, 2, 7}, {0, 1, 3, 0}, {0, 1, 0x1F, 7}, {0, 2, 0, 0},
                              {0, 0xFF, 0x1F, 7}, {1, 0, 0, 0}, {0xFF, 0xFF, 0xFF, 0xFF}, {0x100, 0, 0, 0}};
    for (size_t i = 0; i < std::size(up); ++i)
        for (size_t j = 0; j < std::size(up); ++j)
            EXPECT_TRUE((up[i] < up[j]) == (i < j) && (up[i] == up[j]) == (i == j)) << i << " " << j;
    EXPECT_EQ(CPciAddress(0, 0, 0x1F, 3).ToString(), "0000:00:1f.3");
    EXPECT_EQ(CPciAddress(0xABCD, 0xFE, 0x0A, 7).ToString(), "abcd:fe:0a.7");
}

TEST(CPciAddress, FromStringAcceptsBothFormsAndRejectsBadTextKeepingTheValue)
{
    const struct {
        const char* text;
        CPciAddress value;
    } good[] = {{"0001:3b:1f.6", {1, 0x3B, 0x1F, 6}}, {"00:02.0", {0, 0, 2, 0}},
                {"ABCD:EF:1F.7", {0xABCD, 0xEF, 0x1F, 7}}, {"ffff:ff:1f.7", {0xFFFF, 0xFF, 0x1F, 7}}};
    for (const auto& g : good) {
        CPciAddress a;
        ASSERT_TRUE(a.FromString(g.text)) << g.text;
        EXPECT_EQ(a, g.value);
        EXPECT_TRUE(a.FromString(a.ToString()));
        EXPECT_EQ(a, g.value);
    }
    const CPciAddress keep(7, 8, 9, 1);
    const std::string bads[] = {"", ":", "0000:00:1f", "0000:00:1f.", "0000:00:20.0", "0000:00:1f.8", "10000:00:00.0",
                            "0000:100:00.0", "0000:00:1f.3 ", " 0000:00:1f.3", "0000:00:1f.3x", "0x00:00:1f.3",
                            "-1:00:00.0", "00:-1.0", "+0:00:00.0", "0000:00:1f:3", "0000.00.1f.3", "g000:00:00.0",
                            "0:0:0:0.0", "0000:00:1f.33", "abc", std::string("00:01.0\0junk", 12)};
    for (const std::string& bad : bads) {
        CPciAddress a = keep;
        EXPECT_FALSE(a.FromString(bad)) << '"' << bad << '"';
        EXPECT_EQ(a, keep) << bad;
    }
}
