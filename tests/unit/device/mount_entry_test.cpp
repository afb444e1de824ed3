#include "device/mount_entry.h"

#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

namespace {

TEST(HotplugDevNumbers, DiskAndPartitionComeFromTheMinor)
{
    const struct {
        uint8_t range;
        int32_t minor;
        int32_t index;
        int32_t partition;
    } rows[] = {
        {16, 0, 0, 0},  {16, 1, 0, 1},    {16, 15, 0, 15},   {16, 16, 1, 0},
        {16, 17, 1, 1}, {16, 35, 2, 3},   {16, 255, 15, 15}, {8, 7, 0, 7},
        {8, 9, 1, 1},   {255, 256, 1, 1}, {1, 5, 5, 0},
    };
    for (const auto& row : rows) {
        HotplugDev dev = {};
        dev.range = row.range;
        dev.minor = row.minor;
        EXPECT_EQ(hotplug_dev_index(&dev), row.index) << row.minor << " of " << int{row.range};
        EXPECT_EQ(hotplug_dev_partition(&dev), row.partition)
            << row.minor << " of " << int{row.range};
    }
}

TEST(HotplugDevNumbers, WithoutMinorsPerDeviceAreZero)
{
    HotplugDev dev = {};
    dev.minor = 17;
    EXPECT_EQ(hotplug_dev_index(&dev), 0);
    EXPECT_EQ(hotplug_dev_partition(&dev), 0);
}

TEST(HotplugDevNumbers, OfTheSystemHaveTheirValues)
{
    EXPECT_EQ(HOTPLUG_DEVTYPE_PARTITION, 1);
    EXPECT_EQ(HOTPLUG_DEVTYPE_DISK, 2);
    EXPECT_EQ(HOTPLUG_FLAG_REMOVABLE, 1);
    EXPECT_EQ(HOTPLUG_FLAG_READONLY, 2);
}

TEST(HotplugDevClear, FreesTheStringsAndMakesThemNull)
{
    HotplugDev dev = {};
    dev.vname = strdup("Maker");
    dev.pname = strdup("Stick");
    dev.serial = strdup("0123");
    dev.vid = 0x1234;
    const long before = memory_blocks();
    hotplug_dev_clear(&dev);
    EXPECT_EQ(memory_blocks(), before - 3);
    EXPECT_EQ(dev.vname, nullptr);
    EXPECT_EQ(dev.pname, nullptr);
    EXPECT_EQ(dev.serial, nullptr);
    EXPECT_EQ(dev.vid, 0x1234) << "the numbers stay";
    hotplug_dev_clear(&dev); // and once more, with nothing to free
}

template <typename T>
T* zeroed()
{
    return static_cast<T*>(calloc(1, sizeof(T)));
}

TEST(MountEntryFree, FreesAFilledEntryAndAllInIt)
{
    const long before = memory_blocks();
    auto* entry = zeroed<MountEntry>();
    entry->dev = zeroed<HotplugDev>();
    entry->dev->vname = strdup("Maker");
    entry->dev->pname = strdup("Stick");
    entry->dev->serial = strdup("0123");
    entry->sharename = strdup("STICK");
    entry->devnode = strdup("/dev/sda1");
    entry->mountpoint = strdup("/mnt/sda1");
    EXPECT_EQ(memory_blocks(), before + 8);
    mount_entry_free(entry);
    EXPECT_EQ(memory_blocks(), before);
}

TEST(MountEntryFree, FreesAnEntryWithoutMembers)
{
    const long before = memory_blocks();
    mount_entry_free(zeroed<MountEntry>());
    EXPECT_EQ(memory_blocks(), before);
}

TEST(MountEntryFree, FreesADeviceWithoutStrings)
{
    const long before = memory_blocks();
    auto* entry = zeroed<MountEntry>();
    entry->dev = zeroed<HotplugDev>();
    mount_entry_free(entry);
    EXPECT_EQ(memory_blocks(), before);
}

} // namespace
