#include "ctl/drive.h"

#include "fake/fake_world.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

// A disk with the numbers of a loop device, which has a node here and knows what a flush is.
DiskPart loop_device(const char* name, uint32_t minor)
{
    DiskPart disk = {};
    strcpy(disk.name, name);
    strcpy(disk.disk, name);
    disk.major = 7;
    disk.minor = minor;
    return disk;
}

// USB disks in sysfs, with the files by which one is switched off.
class DriveSwitchOff : public testing::Test {
  protected:
    DriveSwitchOff()
    {
        CtlWorld::add_usb_disk("sda", "8:0", "1000");
        CtlWorld::add_usb_disk("sdb", "8:16", "1000");
        for (const char* name : {"sda", "sdb"}) {
            write_file(delete_file(name), "-");
            write_file(remove_file(name), "-");
        }
    }

    static std::string delete_file(const std::string& disk)
    {
        return std::string(ctl_sysfs) + "/block/" + disk + "/device/delete";
    }
    static std::string remove_file(const std::string& disk)
    {
        return std::string(ctl_sysfs) + "/devices/usb-" + disk + "/remove";
    }

    int switch_off(const std::string& name, bool* port_off)
    {
        DiskTableGuard table;
        EXPECT_EQ(disks_read(ctl_sysfs, table.out()), 0);
        for (size_t i = 0; i < table->count; i++) {
            if (table->parts[i].name == name)
                return drive_switch_off(ctl_sysfs, *table.get(), table->parts[i], port_off);
        }
        return 1;
    }

    CtlWorld world_;
};

} // namespace

// ---- flushing ----

TEST(DriveFlush, GoesToTheKernelsNode)
{
    EXPECT_EQ(drive_flush(loop_device("loop3", 3)), 0);
    EXPECT_EQ(fake_world().count("fsync"), 1);
    EXPECT_EQ(fake_world().count("mknod"), 0);
}

TEST(DriveFlush, ANodeOfSomethingElseIsNotTaken)
{
    const std::string own = "/dev/vyhotplugctl-" + std::to_string(getpid());
    write_file("/dev/file", "");
    for (const char* name : {"loop4", "null", "file", "none"}) {
        // A regular file stands for the node here, and does not know what a flush is.
        EXPECT_EQ(drive_flush(loop_device(name, 3)), -ENOTTY) << name;
        EXPECT_EQ(fake_world().calls("mknod"),
                  std::vector<std::string>{"mknod " + own + " 60600 7:3"});
        EXPECT_FALSE(exists(own));
        fake_world_reset();
    }
}

TEST(DriveFlush, AFailureIsToldOf)
{
    fake_world().fail("fsync", 1, EIO);
    EXPECT_EQ(drive_flush(loop_device("loop3", 3)), -EIO);
    fake_world().fail("mknod", 1, EPERM);
    EXPECT_EQ(drive_flush(loop_device("none", 3)), -EPERM);
}

// ---- switching off ----

TEST_F(DriveSwitchOff, TheKernelForgetsItAndItsPortHasNoPower)
{
    bool port_off = false;
    EXPECT_EQ(switch_off("sda", &port_off), 0);
    EXPECT_EQ(fake_world().count("mknod"), 1) << "a node by which it is told to stop";
    EXPECT_TRUE(port_off);
    EXPECT_EQ(read_file(delete_file("sda")), "1");
    EXPECT_EQ(read_file(remove_file("sda")), "1");
    EXPECT_EQ(read_file(delete_file("sdb")), "-");
    EXPECT_EQ(read_file(remove_file("sdb")), "-");
}

TEST_F(DriveSwitchOff, ThePortOfAReaderWithAnotherCardKeepsItsPower)
{
    const std::string block = std::string(ctl_sysfs) + "/devices/usb-sda/host/block/sdc";
    std::filesystem::create_directories(block);
    write_file(block + "/dev", "8:32\n");
    std::filesystem::create_symlink("../..", block + "/device");
    std::filesystem::create_symlink("../devices/usb-sda/host/block/sdc",
                                    std::string(ctl_sysfs) + "/block/sdc");
    CtlWorld::add_partition("sda", "sda1", "8:1");
    bool port_off = true;
    EXPECT_EQ(switch_off("sda", &port_off), 0);
    EXPECT_FALSE(port_off);
    EXPECT_EQ(read_file(delete_file("sda")), "1");
    EXPECT_EQ(read_file(remove_file("sda")), "-");
}

TEST_F(DriveSwitchOff, ItsOwnPartitionsAreNoOtherDisk)
{
    CtlWorld::add_partition("sda", "sda1", "8:1");
    bool port_off = false;
    EXPECT_EQ(switch_off("sda", &port_off), 0);
    EXPECT_TRUE(port_off);
}

TEST_F(DriveSwitchOff, AKernelThatDoesNotKnowPortsHasForgottenItAllTheSame)
{
    ASSERT_EQ(unlink(remove_file("sda").c_str()), 0);
    bool port_off = true;
    EXPECT_EQ(switch_off("sda", &port_off), 0);
    EXPECT_FALSE(port_off);
}

TEST_F(DriveSwitchOff, OneThatHasBeenPulledKeepsItsPort)
{
    ASSERT_EQ(unlink(delete_file("sda").c_str()), 0);
    bool port_off = true;
    EXPECT_EQ(switch_off("sda", &port_off), -ENOENT);
    EXPECT_FALSE(port_off);
    EXPECT_EQ(read_file(remove_file("sda")), "-");
}
