#include <gtest/gtest.h>

#include <string>

#include "common/CTRString.h"

TEST(CTRString, FormatAndAppendFormatChainBeyondAnyFixedBuffer)
{
    CTRString s("old contents");
    EXPECT_EQ(&s.Format("%s=%d/%04x", "key", -12, 0xBEEFu), &s);
    EXPECT_EQ(s, "key=-12/beef");
    EXPECT_EQ(s.AppendFormat("-%d", 1).AppendFormat("%s", "").AppendFormat("%c", '!'), "key=-12/beef-1!");
    EXPECT_EQ(s.size(), 15u);  // no stray terminator kept
    std::string big(5000, 'x');
    big[1234] = 'y';
    CTRString a(std::string("head:"));
    for (int i = 0; i < 2; ++i)
        a.AppendFormat("%s|%d|", big.c_str(), i);
    EXPECT_EQ(a, "head:" + big + "|0|" + big + "|1|");
    EXPECT_EQ(a.Format("%2000d", 7).size(), 2000u);  // field width alone makes a long result
    EXPECT_TRUE(a.Format("%s", "").empty());
}

TEST(CTRString, ArgumentsMayPointIntoTheStringItself)
{
    CTRString s("0123456789");
    s.Format("[%s]", s.c_str());
    EXPECT_EQ(s, "[0123456789]");
    CTRString a("abcdefghijklmnopqrstuvwxyz-abcdefghijklmnopqrstuvwxyz");
    a.shrink_to_fit();  // the next append must grow, moving the text
    const std::string before = a;
    a.AppendFormat("+%s", a.c_str());
    EXPECT_EQ(a, before + "+" + before);
    CTRString b("xy");
    b.reserve(100);  // room enough: appended in place
    b.AppendFormat("%s%s", b.c_str(), b.c_str());
    EXPECT_EQ(b, "xyxyxy");
}
