#include <gtest/gtest.h>

#include <map>
#include <string>

#include "common/CPciAddress.h"

TEST(CPciAddress, OrdersBySegmentBusDeviceFunction)
{
    // Each field outranks all later ones, whatever their values.
    EXPECT_LT(CPciAddress(0, 0xFF, 0x1F, 7), CPciAddress(1, 0, 0, 0));
    EXPECT_LT(CPciAddress(0, 1, 0x1F, 7), CPciAddress(0, 2, 0, 0));
    EXPECT_LT(CPciAddress(0, 1, 2, 7), CPciAddress(0, 1, 3, 0));
    EXPECT_LT(CPciAddress(0, 1, 2, 3), CPciAddress(0, 1, 2, 4));
    EXPECT_FALSE(CPciAddress(0, 1, 2, 3) < CPciAddress(0, 1, 2, 3));
    EXPECT_GT(CPciAddress(0x100, 0, 0, 0), CPciAddress(0xFF, 0xFF, 0xFF, 0xFF));
}

TEST(CPciAddress, EqualityComparesEveryField)
{
    CPciAddress a(1, 2, 3, 4);
    EXPECT_EQ(a, CPciAddress(1, 2, 3, 4));
    EXPECT_NE(a, CPciAddress(0, 2, 3, 4));
    EXPECT_NE(a, CPciAddress(1, 0, 3, 4));
    EXPECT_NE(a, CPciAddress(1, 2, 0, 4));
    EXPECT_NE(a, CPciAddress(1, 2, 3, 0));
    EXPECT_EQ(CPciAddress(), CPciAddress(0, 0, 0, 0));
}

TEST(CPciAddress, WorksAsMapKey)
{
    std::map<CPciAddress, std::string> m;
    m[CPciAddress(0, 3, 0, 0)] = "c";
    m[CPciAddress(0, 0, 0x1F, 2)] = "a";
    m[CPciAddress(1, 0, 0, 0)] = "d";
    m[CPciAddress(0, 0, 0x1F, 3)] = "b";
    m[CPciAddress(0, 3, 0, 0)] = "c2";
    std::string order;
    for (const auto& [k, v] : m)
        order += v + ",";
    EXPECT_EQ(order, "a,b,c2,d,");
}

TEST(CPciAddress, ToStringAsTheKernelWritesIt)
{
    EXPECT_EQ(CPciAddress(0, 0, 0x1F, 3).ToString(), "0000:00:1f.3");
    EXPECT_EQ(CPciAddress(0xABCD, 0xFE, 0x0A, 7).ToString(), "abcd:fe:0a.7");
}

TEST(CPciAddress, FromStringAcceptsBothForms)
{
    CPciAddress a;
    ASSERT_TRUE(a.FromString("0001:3b:1f.6"));
    EXPECT_EQ(a, CPciAddress(1, 0x3B, 0x1F, 6));
    ASSERT_TRUE(a.FromString("00:02.0"));
    EXPECT_EQ(a, CPciAddress(0, 0, 2, 0));
    ASSERT_TRUE(a.FromString("ABCD:EF:1F.7"));
    EXPECT_EQ(a, CPciAddress(0xABCD, 0xEF, 0x1F, 7));
    for (auto x : {CPciAddress(0, 0, 0, 0), CPciAddress(0xFFFF, 0xFF, 0x1F, 7), CPciAddress(0x12, 0x34, 0x05, 1)}) {
        CPciAddress back;
        ASSERT_TRUE(back.FromString(x.ToString()));
        EXPECT_EQ(back, x);
    }
}

TEST(CPciAddress, FromStringRejectsBadTextAndKeepsTheValue)
{
    const CPciAddress keep(7, 8, 9, 1);
    for (const char* bad : {"", ":", "0000:00:1f", "0000:00:1f.", "0000:00:20.0", "0000:00:1f.8",
                            "10000:00:00.0", "0000:100:00.0", "0000:00:1f.3 ", " 0000:00:1f.3",
                            "0000:00:1f.3x", "0x00:00:1f.3", "-1:00:00.0", "00:-1.0", "+0:00:00.0",
                            "0000:00:1f:3", "0000.00.1f.3", "g000:00:00.0", "0:0:0:0.0",
                            "0000:00:1f.33", "abc"}) {
        CPciAddress a = keep;
        EXPECT_FALSE(a.FromString(bad)) << '"' << bad << '"';
        EXPECT_EQ(a, keep) << bad;
    }
    CPciAddress a = keep;
    EXPECT_FALSE(a.FromString(std::string("00:01.0\0junk", 12)));  // embedded NUL
    EXPECT_EQ(a, keep);
}
