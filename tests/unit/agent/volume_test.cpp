#include "agent/volume.h"

#include <gtest/gtest.h>

#include <string>

static Volume parsed(const std::string& text)
{
    Volume volume;
    volume_parse(text.c_str(), &volume);
    return volume;
}

TEST(Volume, SaysWhatBlkidSays)
{
    const Volume volume = parsed("ID_FS_LABEL=HOLIDAY\nID_FS_UUID=54B7-0903\nID_FS_TYPE=exfat\n"
                                 "ID_FS_USAGE=filesystem\n");
    EXPECT_STREQ(volume.type, "exfat");
    EXPECT_STREQ(volume.usage, "filesystem");
    EXPECT_STREQ(volume.table, "");
    EXPECT_STREQ(volume.several, "");
    EXPECT_STREQ(parsed("ID_PART_TABLE_TYPE=dos\n").table, "dos");
}

TEST(Volume, IsEmptyWhereBlkidSaysNothing)
{
    for (const char* text : {"", "\n", "TYPE=ext4\n", "ID_FS_TYPE\n", " ID_FS_TYPE=ext4\n",
                             "ID_FS_TYPE_X=ext4\n", "X=ID_FS_TYPE=ext4\n", "ID_FS_TYPE="}) {
        const Volume volume = parsed(text);
        EXPECT_STREQ(volume.type, "") << text;
        EXPECT_STREQ(volume.usage, "") << text;
    }
}

TEST(Volume, TakesTheLastLineOfAKeyAndOneWithoutALineFeed)
{
    EXPECT_STREQ(parsed("ID_FS_TYPE=ext4\nID_FS_TYPE=xfs").type, "xfs");
    EXPECT_STREQ(parsed("ID_FS_TYPE=ext4\nID_FS_TYPE=").type, "");
}

TEST(Volume, LeavesNothingOfADeviceInAWord)
{
    EXPECT_STREQ(parsed("ID_FS_TYPE=a b\t[c]\x1b\xff/;\n").type, "a_b__c_____");
    EXPECT_STREQ(parsed("ID_FS_TYPE=A-Z+0.9_\n").type, "A-Z+0.9_");
    EXPECT_EQ(std::string(parsed("ID_FS_TYPE=" + std::string(100, 'x')).type),
              std::string(volume_word_size - 1, 'x'));
}

TEST(Volume, NamesAllThatItCouldBe)
{
    EXPECT_STREQ(parsed("ID_FS_AMBIVALENT=filesystem:ext4:1.0 filesystem:vfat:FAT16\n").several,
                 "ext4, vfat");
    EXPECT_STREQ(parsed("ID_FS_AMBIVALENT=raid:linux_raid_member\n").several, "linux_raid_member");
    for (const char* none : {"", "::", "x", "a::b", " ", "a: b:"})
        EXPECT_STREQ(parsed(std::string("ID_FS_AMBIVALENT=") + none).several, "") << none;
    EXPECT_STREQ(parsed("ID_FS_AMBIVALENT=a:\x1b[:1 b:c d\n").several, "__, c");
    EXPECT_STREQ(parsed("ID_FS_AMBIVALENT=a:b a:c a:d").several, "b, c, d");
}

TEST(Volume, ListsWholeWordsOnly)
{
    std::string many = "ID_FS_AMBIVALENT=";
    for (int i = 0; i < 40; i++)
        many += "filesystem:type" + std::to_string(i) + ":1 ";
    const std::string list = parsed(many).several;
    EXPECT_LT(list.size(), volume_list_size);
    EXPECT_EQ(list.rfind("type0, type1, ", 0), 0U);
    EXPECT_NE(list.back(), ' ');
    EXPECT_STREQ(parsed("ID_FS_AMBIVALENT=a:" + std::string(200, 'x') + ": b:y:").several, "y");
    // The room of what separates two is asked for the first one, too.
    const std::string fits(volume_list_size - 3, 'x');
    EXPECT_EQ(parsed("ID_FS_AMBIVALENT=a:" + fits).several, fits);
    EXPECT_STREQ(parsed("ID_FS_AMBIVALENT=a:x" + fits).several, "");
    EXPECT_EQ(parsed("ID_FS_AMBIVALENT=a:y a:" + fits.substr(1)).several, "y, " + fits.substr(1));
    EXPECT_STREQ(parsed("ID_FS_AMBIVALENT=a:y a:" + fits).several, "y");
}
