#include "ctl/terminal.h"

#include "support/files.h"

#include "lib/guard.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>

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
    EXPECT_EQ(size_of(10000), "10 kB");
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

TEST(Table, LosesAsManyColumnsAsItHasTo)
{
    static constexpr TableColumn columns[] = {
        {"AAA", false, 3, 1}, {"BBB", false, 3, 2}, {"CCC", false, 3, 3}, {"DDD", false, 3, 4}};
    const auto heading = [](size_t width) {
        return written_by([width](FILE* stream) {
            table_print({.out = stream, .width = width, .colour = false, .utf8 = false}, columns, 4,
                        nullptr, 0);
        });
    };
    EXPECT_EQ(heading(18), "AAA  BBB  CCC  DDD\n");
    EXPECT_EQ(heading(17), "AAA  BBB  CCC\n");
    EXPECT_EQ(heading(12), "AAA  BBB\n");
    EXPECT_EQ(heading(1), "AAA  BBB\n") << "two are left";
}

TEST(Table, HasColoursWhereTheTerminalHas)
{
    static constexpr TableColumn columns[] = {{"A", false, 4, 1}, {"B", true, 0, 3}};
    static constexpr TableRow rows[] = {{{{"x", COLOUR_GOOD}, {"y", COLOUR_BAD}}},
                                        {{{"", COLOUR_WARN}, {"z", COLOUR_NONE}}},
                                        {{{"v", COLOUR_WARN}, {"w", COLOUR_DIM}}}};
    const std::string text = written_by([](FILE* stream) {
        table_print({.out = stream, .width = 80, .colour = true, .utf8 = false}, columns, 2, rows,
                    3);
    });
    EXPECT_EQ(text, "\033[1mA\033[0m  \033[1mB\033[0m\n"
                    "\033[32mx\033[0m  \033[31my\033[0m\n"
                    "   z\n"
                    "\033[33mv\033[0m  \033[2mw\033[0m\n");
}

// ---- sentences ----

TEST(Sentence, TextsAreMadeFitForATerminal)
{
    const std::string text = written_by([](FILE* stream) {
        text_print(stream, "%s is%s: %.3s, %d of %u\n", "a\033b", "", "abcdef", -2, 4000000000U);
    });
    EXPECT_EQ(text, "a\\x1bb is: ab~, -2 of 4000000000\n");
}

TEST(Sentence, ANullTextIsAnEmptyOne)
{
    const char* none = nullptr;
    EXPECT_EQ(written_by([&](FILE* stream) { text_print(stream, "<%s%.9s>", none, none); }), "<>");
}

TEST(Sentence, ATextWithAWidthIsPrintedAsItIs)
{
    const std::string text = written_by(
        [](FILE* stream) { text_print(stream, "%6s|%-6s|%1s|%3d", "size", "size", "\033[1m", 7); });
    EXPECT_EQ(text, "  size|size  |\033[1m|  7");
}

// ---- the terminal ----

namespace {

// A terminal of 100 columns, and its stream.
class TerminalOpen : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(mkdir("/dev/pts", 0755), 0);
        ASSERT_EQ(mount("x", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666"), 0);
        master_.reset(open("/dev/pts/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC));
        int locked = 0;
        ASSERT_EQ(ioctl(master_.get(), TIOCSPTLCK, &locked), 0);
        stream_.reset(fopen("/dev/pts/0", "r+e"));
        ASSERT_TRUE(stream_);
        set_columns(100);
        for (const char* name : {"COLUMNS", "NO_COLOR", "TERM", "LC_ALL", "LC_CTYPE", "LANG"})
            unsetenv(name);
    }

    void set_columns(unsigned short columns)
    {
        winsize size = {};
        size.ws_col = columns;
        ASSERT_EQ(ioctl(master_.get(), TIOCSWINSZ, &size), 0);
    }

    size_t width_with(const char* columns)
    {
        setenv("COLUMNS", columns, 1);
        return terminal_open(stream_.get()).width;
    }

    bool utf8_with(const char* name, const char* value)
    {
        setenv(name, value, 1);
        return terminal_open(stream_.get()).utf8;
    }

    FdGuard master_;
    FileGuard stream_;
};

} // namespace

TEST_F(TerminalOpen, HasTheWidthThatIsTold)
{
    EXPECT_EQ(terminal_open(stream_.get()).width, 100U);
    EXPECT_EQ(width_with("40"), 40U);
    EXPECT_EQ(width_with("1"), 1U);
    EXPECT_EQ(width_with("9999"), 9999U);
    for (const char* text : {"0", "10000", "x", ""})
        EXPECT_EQ(width_with(text), 100U) << text;
    set_columns(0);
    EXPECT_EQ(width_with(""), 80U);
    set_columns(1);
    EXPECT_EQ(width_with(""), 1U);
}

TEST_F(TerminalOpen, HasColoursUnlessToldOtherwise)
{
    EXPECT_TRUE(terminal_open(stream_.get()).colour);
    setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(terminal_open(stream_.get()).colour);
    setenv("TERM", "dumb", 1);
    EXPECT_FALSE(terminal_open(stream_.get()).colour);
    setenv("TERM", "xterm", 1);
    EXPECT_TRUE(terminal_open(stream_.get()).colour);
    setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(terminal_open(stream_.get()).colour);
}

TEST_F(TerminalOpen, TheFirstOfTheEnvironmentsWordsCounts)
{
    EXPECT_FALSE(terminal_open(stream_.get()).utf8);
    EXPECT_TRUE(utf8_with("LANG", "de_DE.UTF-8"));
    EXPECT_TRUE(utf8_with("LANG", "C.utf8"));
    EXPECT_FALSE(utf8_with("LC_CTYPE", "C"));
    EXPECT_TRUE(utf8_with("LC_CTYPE", "C.UTF-8"));
    EXPECT_FALSE(utf8_with("LC_ALL", "POSIX"));
    EXPECT_TRUE(utf8_with("LC_ALL", ""));
}

TEST(TerminalOfAFile, IsNone)
{
    setenv("COLUMNS", "40", 1);
    (void)written_by([](FILE* stream) {
        const Terminal terminal = terminal_open(stream);
        EXPECT_EQ(terminal.out, stream);
        EXPECT_EQ(terminal.width, 0U);
        EXPECT_FALSE(terminal.colour);
    });
}
