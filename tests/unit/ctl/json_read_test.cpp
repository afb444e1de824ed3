#include "ctl/json_read.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Heard {
    bool whole;
    std::string values; // "key.key=value;" for each
};

Heard heard(const std::string& text)
{
    Heard result = {};
    const auto visit = [](void* context, const JsonPath& path, const char* value) {
        auto* values = static_cast<std::string*>(context);
        for (size_t i = 0; i < path.count; i++)
            *values += std::string(i == 0 ? "" : ".") + path.keys[i];
        *values += std::string("=") + value + ";";
    };
    result.whole = json_read(text.data(), text.size(), visit, &result.values);
    return result;
}

std::string values(const std::string& text)
{
    const Heard result = heard(text);
    EXPECT_TRUE(result.whole) << text;
    return result.values;
}

} // namespace

TEST(JsonRead, ValuesComeWithTheKeysThatLeadToThem)
{
    EXPECT_EQ(values(R"({"a": 1, "b": {"c": "x", "d": [true, {"e": null}]}, "f": -2.5e3})"),
              "a=1;b.c=x;b.d.=true;b.d..e=null;f=-2.5e3;");
}

TEST(JsonRead, WhatHoldsNothingHandsOutNothing)
{
    EXPECT_EQ(values("{}"), "");
    EXPECT_EQ(values(" [ ] \n"), "");
    EXPECT_EQ(values(R"({"a":{},"b":[],"c":1})"), "c=1;");
    EXPECT_EQ(values(R"([[],{},[2]])"), ".=2;");
}

TEST(JsonRead, AValueMayStandAlone)
{
    EXPECT_EQ(values("\"x\""), "=x;");
    EXPECT_EQ(values(" 7 "), "=7;");
}

TEST(JsonRead, TextsAreDecoded)
{
    EXPECT_EQ(values(R"({"k\"ey": "a\\b\/c\n\u0041\u00e4ü"})"), "k\"ey=a\\b/c\nA?ü;");
}

TEST(JsonRead, LongTextsAreCut)
{
    const std::string key(json_key_size + 9, 'k');
    const std::string text(json_value_size + 9, 'v');
    EXPECT_EQ(values("{\"" + key + "\":\"" + text + "\"}"),
              key.substr(0, json_key_size - 1) + "=" + text.substr(0, json_value_size - 1) + ";");
}

TEST(JsonRead, FaultsAreSeen)
{
    for (const char* text :
         {"",    "{",    "}",     "{\"a\"",    "{\"a\":", "{\"a\":1", "{\"a\":1]",   "[1,",
          "[1}", "\"x",  "{1:2}", "{\"a\" 1}", "[1 2]",   "\"\\x\"",  "\"\\u00g0\"", "\"\\u00",
          "1 2", "{} x", "\"a\\", "[,]",       "{,}"}) {
        EXPECT_FALSE(heard(text).whole) << text;
    }
    EXPECT_FALSE(heard(std::string("1\0", 2)).whole);
    EXPECT_FALSE(heard(std::string("\"a\0\"", 4)).whole);
}

TEST(JsonRead, WhatStoodBeforeAFaultHasBeenHandedOut)
{
    EXPECT_EQ(heard(R"({"a": 1, "b": )").values, "a=1;");
}

TEST(JsonRead, TooDeepIsAFault)
{
    EXPECT_EQ(values(std::string(json_depth, '[') + "1" + std::string(json_depth, ']')),
              std::string(json_depth - 1, '.') + "=1;");
    EXPECT_FALSE(heard(std::string(json_depth + 1, '[')).whole);
}
