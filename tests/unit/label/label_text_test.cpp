#include "label/label_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string label(const std::string& printed, bool code_page)
{
    char made[label_size];
    label_from_printed(printed.c_str(), code_page, made);
    return made;
}

std::string ntfs(const std::string& printed)
{
    return label(printed, false);
}

std::string fat(const std::string& printed)
{
    return label(printed, true);
}

} // namespace

TEST(LabelText, IsWhatWasPrintedWithoutItsLineFeed)
{
    EXPECT_EQ(ntfs("Backup 2\n"), "Backup 2");
    EXPECT_EQ(fat("PHOTOS\n"), "PHOTOS");
    EXPECT_EQ(ntfs("Backup"), "Backup");
}

TEST(LabelText, IsEmptyWhereNothingWasPrinted)
{
    EXPECT_EQ(ntfs(""), "");
    EXPECT_EQ(fat("\n"), "");
}

TEST(LabelText, KeepsBlanks)
{
    EXPECT_EQ(ntfs("  a  b  \n"), "  a  b  ");
}

TEST(LabelText, KeepsCharactersOfEveryLength)
{
    EXPECT_EQ(ntfs("B\xc3\xbcro \xe2\x82\xac \xf0\x9f\x98\x80\n"),
              "B\xc3\xbcro \xe2\x82\xac \xf0\x9f\x98\x80");
    EXPECT_EQ(fat("B\xc3\x9cRO\n"), "B\xc3\x9cRO") << "UTF-8 that a Linux program has put there";
}

TEST(LabelText, IsOneLineWhateverWasPrinted)
{
    EXPECT_EQ(ntfs("A\n\n"), "A_");
    EXPECT_EQ(ntfs("\nA\n[B]\nPath=/\n"), "_A__B__Path=/");
    EXPECT_EQ(fat("]\n[x]\nPath=\n"), "___x__Path=");
    EXPECT_EQ(fat("A\rB\x1b\x7f\x01\n"), "A_B___");
    EXPECT_EQ(ntfs("\xc2\x85|\n"), "_|");
}

TEST(LabelText, PutsAnUnderscoreForWhatIsNoCharacter)
{
    EXPECT_EQ(ntfs("a\xff\xc3\n"), "a__");
    EXPECT_EQ(ntfs("\xed\xa0\x80z\n"), "___z"); // half of a surrogate pair
}

TEST(LabelText, ReadsFatBytesAsCodePage850)
{
    EXPECT_EQ(fat("B\x9aRO\n"), "B\xc3\x9cRO");                               // Ü
    EXPECT_EQ(fat("\x8e\x99\x9a\xe1\n"), "\xc3\x84\xc3\x96\xc3\x9c\xc3\x9f"); // ÄÖÜß
    EXPECT_EQ(fat("\x80\x90\xa5\xb5\xff\n"),
              "\xc3\x87\xc3\x89\xc3\x91\xc3\x81\xc2\xa0"); // ÇÉÑÁ and a hard blank
    EXPECT_EQ(fat("\xb0\xc9\xdb\n"), "\xe2\x96\x91\xe2\x95\x94\xe2\x96\x88"); // ░╔█
    EXPECT_EQ(fat("\xd5\xf2\n"), "\xc4\xb1\xe2\x80\x97");                     // ı‗
}

TEST(LabelText, EveryFatByteIsOneCharacter)
{
    for (int byte = 0x80; byte < 0x100; byte++) {
        const std::string one = fat(std::string(1, static_cast<char>(byte)) + "\n");
        EXPECT_GE(one.size(), 2U) << byte;
        EXPECT_LE(one.size(), 3U) << byte;
        EXPECT_NE(one, "_") << byte;
    }
}

TEST(LabelText, ALabelIsWhollyOneOrTheOther)
{
    EXPECT_EQ(fat("\xc3\xa4\x81\n"),
              "\xe2\x94\x9c\xc3\xb1\xc3\xbc"); // ├ñü, not ä and a broken byte
}

TEST(LabelText, TheLongestTextFits)
{
    const std::string longest(label_printed_size - 1, '\xb0');
    std::string expected;
    for (size_t i = 0; i < longest.size(); i++)
        expected += "\xe2\x96\x91";
    EXPECT_EQ(expected.size(), label_size - 1);
    EXPECT_EQ(fat(longest), expected);
}
