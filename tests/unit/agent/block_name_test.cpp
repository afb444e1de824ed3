#include "agent/block_name.h"

#include <gtest/gtest.h>

static std::string formatted(const BlockName& name)
{
    char text[block_name_size];
    block_name_format(name, text);
    return text;
}

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
        BlockKind kind;
        int disk;
        int partition;
    } rows[] = {
        {"sda", BLOCK_SD, 1, 0},
        {"sda1", BLOCK_SD, 1, 1},
        {"sdz15", BLOCK_SD, 26, 15},
        {"sdaa", BLOCK_SD, 27, 0},
        {"sdzz9", BLOCK_SD, 702, 9},
        {"sdaaa", BLOCK_SD, 703, 0},
        {"sdzzzz", BLOCK_SD, 475254, 0},
        {"sda9999", BLOCK_SD, 1, 9999},
        {"mmcblk0", BLOCK_MMC, 0, 0},
        {"mmcblk0p1", BLOCK_MMC, 0, 1},
        {"mmcblk12p34", BLOCK_MMC, 12, 34},
        {"mmcblk9999p9999", BLOCK_MMC, 9999, 9999},
    };
    for (const auto& row : rows) {
        const BlockName name = parsed(row.text);
        EXPECT_EQ(name.kind, row.kind) << row.text;
        EXPECT_EQ(name.disk, row.disk) << row.text;
        EXPECT_EQ(name.partition, row.partition) << row.text;
        EXPECT_EQ(formatted(name), row.text);
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

TEST(BlockNameDisk, IsWhereThePartitionLies)
{
    EXPECT_EQ(formatted(block_name_disk(parsed("sdab7"))), "sdab");
    EXPECT_EQ(formatted(block_name_disk(parsed("mmcblk1p2"))), "mmcblk1");
    EXPECT_EQ(formatted(block_name_disk(parsed("sda"))), "sda");
    EXPECT_TRUE(block_name_same_disk(parsed("sda1"), parsed("sda")));
    EXPECT_FALSE(block_name_same_disk(parsed("sda1"), parsed("sdb1")));
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
