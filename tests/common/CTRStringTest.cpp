#include <gtest/gtest.h>

#include <string>

#include "common/CTRString.h"

TEST(CTRString, FormatReplacesAndReturnsItself)
{
    CTRString s("old contents");
    CTRString& r = s.Format("%s=%d/%04x", "key", -12, 0xBEEFu);
    EXPECT_EQ(&r, &s);
    EXPECT_EQ(s, "key=-12/beef");
    s.Format("%s", "");
    EXPECT_TRUE(s.empty());
}

TEST(CTRString, AppendFormatExtendsNonEmptyAndChains)
{
    CTRString s("abc");
    CTRString& r = s.AppendFormat("-%d", 1).AppendFormat("-%s", "two").AppendFormat("%c", '!');
    EXPECT_EQ(&r, &s);
    EXPECT_EQ(s, "abc-1-two!");
    EXPECT_EQ(s.size(), std::string("abc-1-two!").size());  // no stray terminator kept
}

TEST(CTRString, LongTextsBeyondAnyFixedBuffer)
{
    std::string big(5000, 'x');
    big[1234] = 'y';
    CTRString s;
    s.Format("<%s>", big.c_str());
    EXPECT_EQ(s, "<" + big + ">");

    CTRString a("head:");
    for (int i = 0; i < 3; ++i)
        a.AppendFormat("%s|%d|", big.c_str(), i);
    EXPECT_EQ(a, "head:" + big + "|0|" + big + "|1|" + big + "|2|");

    CTRString w;
    w.Format("%2000d", 7);  // field width alone makes a long result
    EXPECT_EQ(w.size(), 2000u);
    EXPECT_EQ(w.back(), '7');
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

TEST(CTRString, EmptyResultLeavesAppendUnchanged)
{
    CTRString s("keep");
    s.AppendFormat("%s", "");
    EXPECT_EQ(s, "keep");
}

TEST(CTRString, ConvertsFromAndToStdString)
{
    std::string base = "text";
    CTRString s(base);
    s.AppendFormat("%d", 5);
    std::string back = s;
    EXPECT_EQ(back, "text5");
    CTRString moved(std::string("moved"));
    EXPECT_EQ(moved, "moved");
}
