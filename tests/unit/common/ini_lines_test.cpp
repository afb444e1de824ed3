#include "common/ini_lines.h"

#include "config/ini.h"
#include "support/random.h"

#include <gtest/gtest.h>
#include <string>
#include <strings.h>
#include <vector>

// Each line as "number:kind:key:value".
static std::vector<std::string> lines_of(const std::string& text)
{
    IniLines lines = {.at = text.data(), .end = text.data() + text.size(), .feeds = 0};
    IniLine line;
    std::vector<std::string> found;
    while (ini_lines_next(&lines, &line))
        found.push_back(std::to_string(line.number) +
                        (line.kind == INI_LINE_HEADER ? ":header:" : ":entry:") + line.key + ":" +
                        line.value);
    return found;
}

using Lines = std::vector<std::string>;

TEST(IniLines, HaveTheirNumbers)
{
    EXPECT_EQ(lines_of(""), Lines{});
    EXPECT_EQ(lines_of("an explanation\n\nMount Path = /mnt \n\tx=\n"),
              (Lines{"3:entry:MountPath:/mnt", "4:entry:x:"}));
    EXPECT_EQ(lines_of("a=1\r\nb=2\r\n[ s ] x\r\nc==3"),
              (Lines{"1:entry:a:1", "2:entry:b:2", "3:header:s:", "4:entry:c:=3"}));
    EXPECT_EQ(lines_of(std::string("a=1\0b=2\nc=3", 11)),
              (Lines{"1:entry:a:1", "1:entry:b:2", "2:entry:c:3"}));
    EXPECT_EQ(lines_of("[a]b]\n [indented]\n[x\n[y=1\n"), (Lines{"1:header:a]b:", "4:entry:[y:1"}));
}

TEST(IniLines, AreCutWhereTheReaderCuts)
{
    const std::string key(600, 'k');
    const std::string value(3000, 'v');
    EXPECT_EQ(lines_of(key + "=" + value),
              (Lines{"1:entry:" + key.substr(0, 511) + ":" + value.substr(0, 2047)}));
    for (const size_t more : {0U, 1U, 2U}) {
        EXPECT_EQ(lines_of(key.substr(0, 511 + more) + "=" + value.substr(0, 2047 + more)),
                  (Lines{"1:entry:" + key.substr(0, 511) + ":" + value.substr(0, 2047)}));
        EXPECT_EQ(lines_of("[" + key.substr(0, 511 + more) + "]\n"),
                  (Lines{"1:header:" + key.substr(0, 511) + ":"}));
    }
}

// The reader of the service and this one say the same of the entries before the first header.
TEST(IniLines, AgreeWithTheReader)
{
    static const char* const parts[] = {"mount", "path", " ", "\t",  "=",  "/x", "\n",
                                        "\r",    "[",    "]", "[s]", "\0", "M",  "\n"};
    Random random(20);
    for (int round = 0; round < 20000; round++) {
        std::string text;
        for (uint32_t left = random.below(20); left > 0; left--) {
            const char* part = parts[random.below(14)];
            text.append(part, *part == '\0' ? 1 : strlen(part));
        }
        IniDocGuard doc;
        ASSERT_EQ(ini_doc_parse(text.data(), text.size(), doc.out()), 0);
        IniValueGuard value;
        const bool has = ini_doc_get_string(doc.get(), "", "mountpath", value.out(), INI_LAST) == 0;
        IniLines lines = {.at = text.data(), .end = text.data() + text.size(), .feeds = 0};
        IniLine line;
        std::string last = "(none)";
        while (ini_lines_next(&lines, &line) && line.kind == INI_LINE_ENTRY) {
            if (strcasecmp(line.key, "mountpath") == 0)
                last = line.value;
        }
        ASSERT_EQ(last, has ? value.get() : "(none)") << text;
    }
}
