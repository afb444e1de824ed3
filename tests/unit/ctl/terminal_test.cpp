#include "ctl/terminal.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string shown(const char* text, size_t columns)
{
    size_t taken = 0;
    const std::string result =
        written_by([&](FILE* stream) { taken = text_show(stream, text, columns); });
    EXPECT_LE(taken, columns);
    EXPECT_EQ(taken, text_columns(result.c_str()));
    return result;
}

std::string size_of(unsigned long long bytes)
{
    char text[16];
    size_format(bytes, text);
    return text;
}

std::string bar(size_t width, bool utf8, unsigned percent)
{
    char text[64];
    bar_format({.out = stdout, .width = width, .colour = false, .utf8 = utf8}, percent, text);
    return text;
}

std::string table(size_t width)
{
    static constexpr TableColumn columns[] = {
        {"NAME", false, 4, 1}, {"SIZE", true, 0, 3}, {"WHO", false, 5, 2}};
    static constexpr TableRow rows[] = {
        {{{"sda1", COLOUR_NONE}, {"1 B", COLOUR_NONE}, {"everybody", COLOUR_NONE}}},
        {{{"mmcblka1", COLOUR_NONE}, {nullptr, COLOUR_NONE}, {"", COLOUR_NONE}}}};
    return written_by([width](FILE* stream) {
        table_print({.out = stream, .width = width, .colour = false, .utf8 = false}, columns, 3,
                    rows, 2);
    });
}

} // namespace

TEST(TextShow, WhatFitsIsShownAsItIs)
{
    EXPECT_EQ(shown("Äpfel", 5), "Äpfel");
    EXPECT_EQ(shown("漢字", 4), "漢字");
    EXPECT_EQ(shown("a\u0308", 1), "a\u0308");
    EXPECT_EQ(shown("", 0), "");
}

TEST(TextShow, WhatDoesNotFitIsCutAtAWholeCharacter)
{
    EXPECT_EQ(shown("Äpfel", 4), "Äpf~");
    EXPECT_EQ(shown("漢字", 3), "漢~");
    EXPECT_EQ(shown("漢字", 2), "~");
    EXPECT_EQ(shown("a\x1b"
                    "b",
                    4),
              "a~");
    EXPECT_EQ(shown("abc", 0), "");
}

TEST(TextShow, WhatATerminalObeysIsEscaped)
{
    EXPECT_EQ(shown("\x1b[2J", 99), "\\x1b[2J");
    EXPECT_EQ(shown("a\u202e"
                    "b\u200b\u0085",
                    99),
              "a\\xe2\\x80\\xaeb\\xe2\\x80\\x8b\\xc2\\x85");
    EXPECT_EQ(shown("\xff\xc3", 99), "\\xff\\xc3");
}

TEST(SizeFormat, IsOfThousands)
{
    EXPECT_EQ(size_of(0), "0 B");
    EXPECT_EQ(size_of(999), "999 B");
    EXPECT_EQ(size_of(1000), "1.0 kB");
    EXPECT_EQ(size_of(9999), "9.9 kB");
    EXPECT_EQ(size_of(31914983424), "31 GB");
    EXPECT_EQ(size_of(4294967296), "4.2 GB");
    EXPECT_EQ(size_of(999999999999), "999 GB");
    EXPECT_EQ(size_of(1000000000000), "1.0 TB");
    EXPECT_EQ(size_of(~0ULL), "18 EB");
}

TEST(Bar, IsDrawnOnATerminalOnly)
{
    EXPECT_EQ(bar(0, true, 31), " 31 %");
    EXPECT_EQ(bar(80, false, 31), "####......  31 %");
    EXPECT_EQ(bar(80, true, 100), "██████████ 100 %");
    EXPECT_EQ(bar(80, false, 0), "..........   0 %");
}

TEST(Table, IsAligned)
{
    EXPECT_EQ(table(0), "NAME      SIZE  WHO\n"
                        "sda1       1 B  everybody\n"
                        "mmcblka1        \n");
}

TEST(Table, IsCutByRank)
{
    EXPECT_EQ(table(20), "NAME      WHO\n"
                         "sda1      everybody\n"
                         "mmcblka1  \n");
    EXPECT_EQ(table(16), "NAME      WHO\n"
                         "sda1      every~\n"
                         "mmcblka1  \n");
    EXPECT_EQ(table(12), "NAME   WHO\n"
                         "sda1   ever~\n"
                         "mmcb~  \n");
}
