#include "config/filesystems.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

// They stand in files: a number is never used for another filesystem.
TEST(Filesystems, HaveTheirCodes)
{
    EXPECT_EQ(CONF_DEV_FS_UNKNOWN, 0);
    const char* const types[] = {"ext2", "ext3",  "ext4", "vfat",    "ntfs", "exfat",  "ntfs3",
                                 "f2fs", "btrfs", "xfs",  "hfsplus", "udf",  "iso9660"};
    EXPECT_EQ(sizeof types / sizeof *types, size_t{filesystem_count});
    uint8_t code = 1;
    for (const char* type : types) {
        const Filesystem* filesystem = filesystem_of(code);
        ASSERT_NE(filesystem, nullptr) << type;
        EXPECT_EQ(filesystem->code, code);
        EXPECT_STREQ(filesystem->type, type);
        EXPECT_EQ(filesystem_is_other(*filesystem), code > 5) << type;
        code++;
    }
}

TEST(Filesystems, AreNoneOfAnyOtherCode)
{
    for (const int code : {0, 14, 15, 127, 128, 255})
        EXPECT_EQ(filesystem_of(static_cast<uint8_t>(code)), nullptr) << code;
}

std::string order_of(const ConfHotplug& config)
{
    const FilesystemList list = filesystem_order(&config);
    std::string order;
    for (int at = 0; at < list.count; at++)
        order += std::string(list.of[at]->type) + " ";
    return order;
}

TEST(Filesystems, AreTriedInTheirOrder)
{
    ConfHotplug config = {};
    EXPECT_EQ(order_of(config), "");
    config.mountvfat = 1;
    config.mountext = 1;
    config.mountntfs = 1;
    EXPECT_EQ(order_of(config), "vfat ext4 ext3 ext2 ntfs ");
    config.otherfs[0] = CONF_DEV_FS_XFS;
    config.otherfs[1] = CONF_DEV_FS_EXFAT;
    EXPECT_EQ(order_of(config), "vfat ext4 ext3 ext2 xfs exfat ntfs ");
    config.mountext = 0;
    EXPECT_EQ(order_of(config), "vfat xfs exfat ntfs ");
    config.mountvfat = 0;
    config.mountntfs = 0;
    EXPECT_EQ(order_of(config), "xfs exfat ");
}

TEST(Filesystems, AllOfThemFitIntoTheOrder)
{
    ConfHotplug config = {};
    config.mountvfat = 1;
    config.mountext = 1;
    config.mountntfs = 1;
    int count = 0;
    for (const Filesystem& filesystem : filesystems) {
        if (filesystem_is_other(filesystem))
            config.otherfs[count++] = filesystem.code;
    }
    EXPECT_EQ(filesystem_order(&config).count, filesystem_count);
}

TEST(Filesystems, ShareNoWord)
{
    std::set<std::string> seen;
    for (const Filesystem& filesystem : filesystems) {
        for (const char* word : {filesystem.words[0], filesystem.words[1], filesystem.group}) {
            if (word != nullptr) {
                EXPECT_TRUE(seen.insert(word).second) << word;
            }
        }
    }
}

} // namespace
