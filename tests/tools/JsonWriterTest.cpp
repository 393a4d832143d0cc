// The tools' JSON writer, checked by parsing its output back strictly.
#include "ToolTestSupport.h"
#include "tools/common/JsonWriter.h"

#include <gtest/gtest.h>

using tooltest::Json;
using tooltest::ParseJson;

TEST(JsonWriter, EscapesControlCharactersQuotesAndInvalidUtf8)
{
    std::string nasty = std::string("a\"b\\c\n\r\t\b\f") + '\x01' + '\x1f' + '\x7f' + "\xff" + "\xc3\xa9" +
                        "\xe2\x82" + "\xed\xa0\x80" + std::string(1, '\0') + "end";
    CJsonWriter w;
    w.BeginObject().Key("k\n").String(nasty).Key("n").Null().EndObject();
    Json j;
    std::string err;
    ASSERT_TRUE(ParseJson(w.Text(), j, &err)) << err << "\n" << w.Text();
    const std::string& s = j["k\n"].text;
    // Valid characters survive, every invalid byte became U+FFFD.
    EXPECT_EQ(s.substr(0, 12), std::string("a\"b\\c\n\r\t\b\f\x01\x1f"));
    EXPECT_NE(s.find("\xc3\xa9"), std::string::npos);
    EXPECT_NE(s.find("\xef\xbf\xbd"), std::string::npos);
    EXPECT_EQ(s.find("\xff"), std::string::npos);
    EXPECT_EQ(s.find("\xed\xa0\x80"), std::string::npos);  // a surrogate is not valid UTF-8
    EXPECT_EQ(s.substr(s.size() - 4), std::string("\0end", 4));
    EXPECT_TRUE(j["n"].IsNull());
    EXPECT_TRUE(j.Has("n"));
}

TEST(JsonWriter, NestedContainersEmptyAndCompact)
{
    for (bool pretty : {true, false}) {
        CJsonWriter w(pretty);
        w.BeginArray();
        w.BeginObject().EndObject();
        w.BeginArray().EndArray();
        w.BeginObject().Key("a").BeginArray().Number(-5).Unsigned(18446744073709551615ull).Bool(false).EndArray();
        w.Key("b").OptString(std::nullopt).Key("c").OptUnsigned(7).EndObject();
        w.EndArray();
        Json j;
        std::string err;
        ASSERT_TRUE(ParseJson(w.Text(), j, &err)) << err << "\n" << w.Text();
        ASSERT_EQ(j.Size(), 3u);
        EXPECT_EQ(j[0].type, Json::Object);
        EXPECT_EQ(j[1].type, Json::Array);
        EXPECT_EQ(j[2]["a"][0].number, -5);
        EXPECT_EQ(j[2]["a"][2].type, Json::Bool);
        EXPECT_TRUE(j[2]["b"].IsNull());
        EXPECT_EQ(j[2]["c"].number, 7);
        if (!pretty) {
            EXPECT_EQ(w.Text().find('\n'), std::string::npos);
        }
    }
}

TEST(JsonWriter, TestParserRejectsMalformedText)
{
    Json j;
    for (const char* bad : {"", "{", "[1,]", "{\"a\" 1}", "\"\x01\"", "01", "1.", "[1] x", "\"\\x\"", "\"\\ud800\"",
                            "\"\xff\"", "nul", "{\"a\":1,}"})
        EXPECT_FALSE(ParseJson(bad, j)) << bad;
    EXPECT_TRUE(ParseJson(" [1.5e3, \"\\u00e9\\ud83d\\ude00\", true, null] ", j));
    EXPECT_EQ(j[0].number, 1500);
    EXPECT_EQ(j[1].text, "\xc3\xa9\xf0\x9f\x98\x80");
}
