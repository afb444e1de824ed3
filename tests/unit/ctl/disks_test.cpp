#include "ctl/disks.h"

#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

TEST(Disks, AreReadWithTheirPartitions)
{
    const CtlWorld world;
    CtlWorld::add_usb_disk("sdb", "8:16", "1000");
    CtlWorld::add_partition("sdb", "sdb2", "8:18");
    CtlWorld::add_partition("sdb", "sdb1", "8:17");
    DiskTableGuard table;
    ASSERT_EQ(disks_read(ctl_sysfs, table.out()), 0);
    ASSERT_EQ(table->count, 3U);
    const DiskPart& disk = table->parts[0];
    EXPECT_STREQ(disk.name, "sdb");
    EXPECT_STREQ(disk.service, "sdb0");
    EXPECT_TRUE(disk.parted && disk.pluggable && !disk.held && !disk.readonly);
    EXPECT_EQ(disk.size_bytes, 512000U);
    const DiskPart& part = table->parts[2];
    EXPECT_STREQ(part.service, "sdb2");
    EXPECT_STREQ(part.disk, "sdb");
    EXPECT_STREQ(part.identity, "1234:00ab:S_1:2"); // as the agent cleans it
    EXPECT_STREQ(part.product, "Flash");
    EXPECT_TRUE(part.readonly);
    char usb[PATH_MAX];
    EXPECT_TRUE(disk_usb_directory(ctl_sysfs, "sdb", usb));
    EXPECT_STREQ(usb, "/tmp/ctl/sys/devices/usb-sdb");
}

TEST(Disks, CardsAreCalledByTheServiceInAnotherWay)
{
    const CtlWorld world;
    const std::string block = std::string(ctl_sysfs) + "/block/mmcblk1";
    std::filesystem::create_directories(block + "/mmcblk1p1/holders/dm-0");
    std::filesystem::create_directories(std::string(ctl_sysfs) + "/block/mmcblk1boot0");
    write_file(block + "/dev", "179:8\n");
    write_file(block + "/range", "8\n");
    write_file(block + "/mmcblk1p1/dev", "179:9\n");
    std::filesystem::create_directories(block + "/device");
    write_file(block + "/device/serial", "0x12ab\n");
    write_file(block + "/device/name", "SC16G\n");
    DiskTableGuard table;
    ASSERT_EQ(disks_read(ctl_sysfs, table.out()), 0);
    ASSERT_EQ(table->count, 2U);
    EXPECT_STREQ(table->parts[1].name, "mmcblk1p1");
    EXPECT_STREQ(table->parts[1].service, "mmcblkb1");
    EXPECT_TRUE(table->parts[1].held);
    EXPECT_TRUE(table->parts[1].pluggable);
    EXPECT_STREQ(table->parts[1].identity, "0000:0000:0x12ab:1");
    EXPECT_STREQ(table->parts[1].product, "SC16G");
}

TEST(Disks, NoSysfsIsNoDisk)
{
    DiskTableGuard table;
    ASSERT_EQ(disks_read("/tmp/none", table.out()), 0);
    EXPECT_EQ(table->count, 0U);
}

TEST(Disks, WithoutMemoryThereIsNoTable)
{
    const CtlWorld world;
    CtlWorld::add_usb_disk("sdb", "8:16", "1000");
    for (int nth = 1; nth <= 2; nth++) {
        DiskTableGuard table;
        memory_fail(nth);
        EXPECT_EQ(disks_read(ctl_sysfs, table.out()), -ENOMEM);
        EXPECT_TRUE(memory_failed());
    }
}

TEST(Disks, ANameThatDoesNotFitIsNoDisk)
{
    const CtlWorld world;
    const std::string fits = "sd" + std::string(disk_name_size - 3, 'a');
    CtlWorld::add_usb_disk(fits, "8:16", "1000");
    CtlWorld::add_usb_disk(fits + "a", "8:32", "1000");
    DiskTableGuard table;
    ASSERT_EQ(disks_read(ctl_sysfs, table.out()), 0);
    ASSERT_EQ(table->count, 1U);
    EXPECT_EQ(table->parts[0].name, fits);
}

TEST(Disks, AreReadWithoutAStandardInput)
{
    const CtlWorld world;
    CtlWorld::add_usb_disk("sdb", "8:16", "1000");
    const ChildResult child = run_child([] {
        char usb[PATH_MAX];
        close(STDIN_FILENO);
        return disk_usb_directory(ctl_sysfs, "sdb", usb) ? 0 : 1;
    });
    EXPECT_EQ(child.status, 0);
}

TEST(Disks, OnSomethingElseAreNotPluggable)
{
    const CtlWorld world;
    const std::string block = std::string(ctl_sysfs) + "/block/sdx";
    std::filesystem::create_directories(block + "/device");
    write_file(block + "/dev", "8:32\n");
    DiskTableGuard table;
    ASSERT_EQ(disks_read(ctl_sysfs, table.out()), 0);
    ASSERT_EQ(table->count, 1U);
    EXPECT_FALSE(table->parts[0].pluggable);
    EXPECT_STREQ(table->parts[0].identity, "0000:0000::0");
    EXPECT_STREQ(table->parts[0].service, "sdc0");
    char usb[PATH_MAX];
    EXPECT_FALSE(disk_usb_directory(ctl_sysfs, "sdx", usb));
}
