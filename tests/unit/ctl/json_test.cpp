#include "ctl/json.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

std::string written(const std::function<void(Json*)>& write)
{
    return written_by([&write](FILE* stream) {
        Json json = {.out = stream, .more = false};
        write(&json);
    });
}

std::string string_of(const char* text)
{
    return written([text](Json* json) { json_text(json, nullptr, text); });
}

} // namespace

TEST(Json, ValuesAreSeparated)
{
    EXPECT_EQ(written([](Json* json) {
                  json_open(json, nullptr, '{');
                  json_number(json, "a", -1);
                  json_open(json, "b", '[');
                  json_flag(json, nullptr, true);
                  json_open(json, nullptr, '{');
                  json_close(json, '}');
                  json_null(json, nullptr);
                  json_close(json, ']');
                  json_text(json, "c", nullptr);
                  json_flag(json, "d", false);
                  json_close(json, '}');
              }),
              R"({"a":-1,"b":[true,{},null],"c":null,"d":false})");
}

TEST(Json, TextsAreEscaped)
{
    EXPECT_EQ(string_of("a\"b\\c/d"), R"("a\"b\\c/d")");
    EXPECT_EQ(string_of("\x1b[31m\n\x7f"), R"("\u001b[31m\u000a\u007f")");
    EXPECT_EQ(string_of("\xc2\x85\xc2\xa0"), "\"\\u0085\xc2\xa0\"");
    EXPECT_EQ(string_of("\xff"
                        "a\xc3"),
              R"("\ufffda\ufffd")");
    EXPECT_EQ(string_of("\xed\xa0\x80"), R"("\ufffd\ufffd\ufffd")");
    EXPECT_EQ(string_of("Ä🎵"), "\"Ä🎵\"");
}
