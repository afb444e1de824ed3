#include "config/filesystems.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

// They stand in files: a number is never used for another filesystem.
TEST(Filesystems, HaveTheirCodes)
{
    EXPECT_EQ(CONF_DEV_FS_UNKNOWN, 0);
    const struct {
        uint8_t code;
        const char* type;
    } rows[] = {{1, "ext2"}, {2, "ext3"}, {3, "ext4"}, {4, "vfat"}, {5, "ntfs"}};
    EXPECT_EQ(sizeof rows / sizeof *rows, size_t{filesystem_count});
    for (const auto& row : rows) {
        const Filesystem* filesystem = filesystem_of(row.code);
        ASSERT_NE(filesystem, nullptr) << int{row.code};
        EXPECT_EQ(filesystem->code, row.code);
        EXPECT_STREQ(filesystem->type, row.type);
    }
}

TEST(Filesystems, AreTriedInTheirOrder)
{
    std::string order;
    for (const Filesystem& filesystem : filesystems)
        order += std::string(filesystem.type) + " ";
    EXPECT_EQ(order, "vfat ext4 ext3 ext2 ntfs ");
}

TEST(Filesystems, AreNoneOfAnyOtherCode)
{
    for (const int code : {0, 6, 7, 127, 128, 255})
        EXPECT_EQ(filesystem_of(static_cast<uint8_t>(code)), nullptr) << code;
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
