#include "agent/block_device.h"

#include <gtest/gtest.h>

static BlockName parsed(const char* text)
{
    BlockName name;
    EXPECT_TRUE(block_name_parse(text, &name)) << text;
    return name;
}

TEST(BlockNameParse, TakesDisksAndCardsAndTheirPartitions)
{
    const struct {
        const char* text;
        const char* disk;
        int partition;
    } rows[] = {
        {"sda", "sda", 0},
        {"sda1", "sda", 1},
        {"sdz15", "sdz", 15},
        {"sdaa", "sdaa", 0},
        {"sdzz9", "sdzz", 9},
        {"sdaaa", "sdaaa", 0},
        {"sdzzzz", "sdzzzz", 0},
        {"sda9999", "sda", 9999},
        {"mmcblk0", "mmcblk0", 0},
        {"mmcblk0p1", "mmcblk0", 1},
        {"mmcblk12p34", "mmcblk12", 34},
        {"mmcblk9999p9999", "mmcblk9999", 9999},
    };
    for (const auto& row : rows) {
        const BlockName name = parsed(row.text);
        EXPECT_STREQ(name.text, row.text);
        EXPECT_EQ(std::string(name.text, name.disk_length), row.disk);
        EXPECT_EQ(name.partition, row.partition) << row.text;
    }
}

TEST(BlockNameParse, TakesNothingElse)
{
    for (const char* text : {"",
                             "s",
                             "sd",
                             "sd1",
                             "sda0",
                             "sda01",
                             "sda1p",
                             "sda1x",
                             "sdA",
                             "sda 1",
                             "sda-1",
                             "sda+1",
                             "sdaaaaa",
                             "sda12345",
                             "sda99999999999999999999",
                             "xsda",
                             "sda/",
                             "hda",
                             "mmcblk",
                             "mmcblka",
                             "mmcblk00",
                             "mmcblk0p",
                             "mmcblk0p0",
                             "mmcblk0p01",
                             "mmcblk0p1p2",
                             "mmcblk01",
                             "mmcblk0boot0",
                             "mmcblk0boot1",
                             "mmcblk0gp0",
                             "mmcblk0gp0p1",
                             "mmcblk0rpmb",
                             "mmcblk0p1x",
                             "mmcblk12345",
                             "loop0",
                             "dm-0",
                             "sr0",
                             "nvme0n1",
                             "nvme0n1p1",
                             "md0",
                             "zram0",
                             "vda1"}) {
        BlockName name;
        EXPECT_FALSE(block_name_parse(text, &name)) << text;
    }
}

TEST(BlockNameSameDisk, IsWhereThePartitionLies)
{
    EXPECT_TRUE(block_name_same_disk(parsed("sda1"), parsed("sda")));
    EXPECT_TRUE(block_name_same_disk(parsed("mmcblk1p2"), parsed("mmcblk1p7")));
    EXPECT_FALSE(block_name_same_disk(parsed("sda1"), parsed("sdb1")));
    EXPECT_FALSE(block_name_same_disk(parsed("sda1"), parsed("sdaa1")));
    EXPECT_FALSE(block_name_same_disk(parsed("sda1"), parsed("mmcblk1")));
}

TEST(BlockNameCompare, PutsDisksBeforeTheirPartitionsAndNumbersInOrder)
{
    const char* const order[] = {"sda",     "sda1",      "sda2",      "sda10",      "sdb",
                                 "sdb1",    "sdz",       "sdaa",      "sdaa1",      "sdba",
                                 "mmcblk0", "mmcblk0p1", "mmcblk0p2", "mmcblk0p10", "mmcblk1",
                                 "mmcblk2", "mmcblk10"};
    const size_t count = sizeof order / sizeof order[0];
    for (size_t i = 0; i < count; i++) {
        for (size_t j = 0; j < count; j++) {
            const int compared = block_name_compare(parsed(order[i]), parsed(order[j]));
            EXPECT_EQ(compared < 0, i < j) << order[i] << " " << order[j];
            EXPECT_EQ(compared > 0, i > j) << order[i] << " " << order[j];
        }
    }
}
