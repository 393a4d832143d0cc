// The tools' JSON writer, checked by parsing its output back strictly.
#include "ToolTestSupport.h"
#include "tools/common/JsonWriter.h"

#include <gtest/gtest.h>

using tooltest::json;

TEST(JsonWriter, EscapesControlCharactersQuotesAndInvalidUtf8)
{
    std::string nasty = std::string("a\"b\\c\n\r\t\b\f") + '\x01' + '\x1f' + '\x7f' + "\xff" + "\xc3\xa9" +
                        "\xe2\x82" + "\xed\xa0\x80" + std::string(1, '\0') + "end";
    CJsonWriter w;
    w.BeginObject().Key("k\n").String(nasty).Key("n").Null().EndObject();
    json j = tooltest::ParseOutput(w.Text());
    ASSERT_FALSE(j.is_discarded()) << w.Text();
    const std::string s = j.at("k\n").get<std::string>();
    // Valid characters survive, every invalid byte became U+FFFD.
    EXPECT_EQ(s.substr(0, 12), std::string("a\"b\\c\n\r\t\b\f\x01\x1f"));
    EXPECT_NE(s.find("\xc3\xa9"), std::string::npos);
    EXPECT_NE(s.find("\xef\xbf\xbd"), std::string::npos);
    EXPECT_EQ(s.find("\xff"), std::string::npos);
    EXPECT_EQ(s.find("\xed\xa0\x80"), std::string::npos);  // a surrogate is not valid UTF-8
    EXPECT_EQ(s.substr(s.size() - 4), std::string("\0end", 4));
    EXPECT_TRUE(j.at("n").is_null());
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
        json j = tooltest::ParseOutput(w.Text());
        ASSERT_FALSE(j.is_discarded()) << w.Text();
        EXPECT_EQ(j, json::parse(R"([{}, [], {"a": [-5, 18446744073709551615, false], "b": null, "c": 7}])"));
        EXPECT_EQ(w.Text().find('\n') == std::string::npos, !pretty);
    }
}
