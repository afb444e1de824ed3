#include "common/text.h"

#include <gtest/gtest.h>
#include <string>

static std::string clean(const std::string& text, const char* forbidden = "")
{
    std::string copy = text;
    copy.resize(text.size() + 1);
    text_clean(copy.data(), forbidden);
    return copy.c_str();
}

static std::string shorten(const std::string& text, size_t size)
{
    std::string copy = text;
    text_shorten(copy.data(), size);
    return copy.c_str();
}

static std::string trim(const std::string& text)
{
    std::string copy = text;
    text_trim(copy.data());
    return copy.c_str();
}

TEST(TextClean, LeavesOrdinaryTextAlone)
{
    EXPECT_EQ(clean("Flash Key 3.0"), "Flash Key 3.0");
    EXPECT_EQ(clean(""), "");
}

TEST(TextClean, LeavesWellFormedSequencesOfEveryLengthAlone)
{
    for (const char* text : {"\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                             "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
        EXPECT_EQ(clean(text), text);
}

TEST(TextClean, ReplacesControlCharacters)
{
    EXPECT_EQ(clean("a\nb\rc\td\x1b"), "a_b_c_d_");
    EXPECT_EQ(clean("\x7f"), "_");
    EXPECT_EQ(clean("\xc2\x80|\xc2\x9f"),
              "_|_"); // U+0080 and U+009F: one character, one replacement
}

TEST(TextClean, ReplacesEachByteOfABrokenSequence)
{
    EXPECT_EQ(clean("\x80"), "_");
    EXPECT_EQ(clean("\xff\xfe"), "__");
    EXPECT_EQ(clean("a\xc3"), "a_");              // cut at the end
    EXPECT_EQ(clean("\xe2\x82z"), "__z");         // cut in the middle
    EXPECT_EQ(clean("\xc0\xaf"), "__");           // overlong
    EXPECT_EQ(clean("\xe0\x9f\xbf"), "___");      // overlong
    EXPECT_EQ(clean("\xed\xa0\x80"), "___");      // a surrogate
    EXPECT_EQ(clean("\xf4\x90\x80\x80"), "____"); // above the last character
    EXPECT_EQ(clean("\xf5\x80\x80\x80"), "____");
}

TEST(TextClean, ReplacesWhatIsForbidden)
{
    EXPECT_EQ(clean("a,b=[c]", ",[]"), "a_b=_c_");
}

TEST(TextClean, CountsWhatItReplaced)
{
    char text[] = "a\n,\xff";
    EXPECT_EQ(text_clean(text, ","), 3U);
}

TEST(TextShorten, CutsBeforeTheCharacterThatDoesNotFit)
{
    EXPECT_EQ(shorten("abc", 3), "abc");
    EXPECT_EQ(shorten("abcd", 3), "abc");
    EXPECT_EQ(shorten("ab\xc3\xa4", 3), "ab");
    EXPECT_EQ(shorten("ab\xc3\xa4z", 4), "ab\xc3\xa4");
    EXPECT_EQ(shorten("\xf0\x9f\x92\xbe", 3), "");
    EXPECT_EQ(shorten("abc", 0), "");
}

TEST(TextTrim, DropsBlanksAtBothEnds)
{
    EXPECT_EQ(trim(" \ta b\t "), "a b");
    EXPECT_EQ(trim("   "), "");
    EXPECT_EQ(trim("a"), "a");
}
