#include "device/kinds.h"

#include <gtest/gtest.h>

namespace {

TEST(DeviceKinds, HaveTheirNumbersAndNames)
{
    const struct {
        int32_t major;
        const char* prefix;
        const char* share_mark;
        const char* description;
        const char* disks;
        const char* divider;
        int32_t minors;
        bool card;
        const char* noun;
    } rows[] = {
        {8, "sd", "", "USB Storage Device", device_letters, "", 16, false, "disk"},
        {179, "mmcblk", "MMC", "MMC Block Device", device_digits, "p", 8, true, "card"},
    };
    EXPECT_EQ(sizeof device_kinds / sizeof *device_kinds, sizeof rows / sizeof *rows);
    for (const auto& row : rows) {
        const DeviceKind* kind = device_kind(row.major);
        ASSERT_NE(kind, nullptr);
        EXPECT_EQ(kind->major, row.major);
        EXPECT_STREQ(kind->prefix, row.prefix);
        EXPECT_STREQ(kind->share_mark, row.share_mark);
        EXPECT_STREQ(kind->description, row.description);
        const KernelKind& kernel = kernel_kind(*kind);
        EXPECT_STREQ(kernel.disks, row.disks);
        EXPECT_STREQ(kernel.divider, row.divider);
        EXPECT_EQ(kernel.minors, row.minors);
        EXPECT_EQ(kernel.card, row.card);
        EXPECT_STREQ(kernel.noun, row.noun);
    }
}

TEST(DeviceKinds, AreNoneOfAnyOtherMajor)
{
    for (const int32_t major : {-1, 0, 7, 9, 178, 180, 259, INT32_MIN, INT32_MAX})
        EXPECT_EQ(device_kind(major), nullptr) << major;
}

} // namespace
