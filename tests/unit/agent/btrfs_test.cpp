// Members of a filesystem of several devices. What the kernel answers comes from the test.
#include "agent/btrfs.h"

#include "fake_medium.h"
#include "fake_sysfs.h"
#include "support/failing_calls.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>

#include <filesystem>

static BlockName name_of(const char* text)
{
    BlockName name;
    EXPECT_TRUE(block_name_parse(text, &name));
    return name;
}

static void mount(const std::string& members)
{
    std::filesystem::create_directories(std::string(FakeSysfs::root) + "/fs/btrfs/" + members);
}

TEST(Btrfs, TheKernelIsToldOfAMemberAndSaysWhetherItHasAll)
{
    FakeMedium medium;
    medium.add_node("btrfs-control");
    medium.answer_ready(1); // others are missing
    EXPECT_EQ(btrfs_register(name_of("sdb1")), 0);
    medium.answer_ready(0);
    EXPECT_EQ(btrfs_register(name_of("mmcblk0p2")), 1);
    EXPECT_EQ(medium.members(), (std::vector<std::string>{"/dev/sdb1", "/dev/mmcblk0p2"}));
    EXPECT_EQ(medium.requests(), 0);
}

TEST(Btrfs, AKernelThatRefusesOrHasNoneIsAnError)
{
    EXPECT_EQ(btrfs_register(name_of("sdb1")), -ENOENT);
    FakeMedium medium;
    medium.add_node("btrfs-control");
    medium.answer_ready(-EINVAL);
    EXPECT_EQ(btrfs_register(name_of("sdb1")), -EINVAL);
}

TEST(Btrfs, AMemberOfAMountedOneIsInSysfs)
{
    const FakeSysfs sysfs;
    EXPECT_EQ(btrfs_is_mounted(FakeSysfs::root, name_of("sdb1")), 0) << "a kernel without btrfs";
    mount("features");
    mount("1-2/devices/sdb1");
    EXPECT_EQ(btrfs_is_mounted(FakeSysfs::root, name_of("sdb1")), 1);
    EXPECT_EQ(btrfs_is_mounted(FakeSysfs::root, name_of("sdb")), 0);
    EXPECT_EQ(btrfs_is_mounted(FakeSysfs::root, name_of("sdc1")), 0);
}

TEST(Btrfs, WhatCannotBeReadToItsEndIsNoAnswer)
{
    const FakeSysfs sysfs;
    mount("1-2/devices/sda1");
    for (int nth = 1; nth <= 3; nth++) { // behind ".", ".." and the one
        call_fail("readdir", nth, EIO);
        const int answer = btrfs_is_mounted(FakeSysfs::root, name_of("sda1"));
        if (call_failed())
            EXPECT_EQ(answer, -EIO) << nth;
        else
            EXPECT_EQ(answer, 1) << nth; // it was found before
    }
    call_fail("readdir", 1, EIO);
    EXPECT_EQ(btrfs_is_mounted(FakeSysfs::root, name_of("sda1")), -EIO);
    calls_reset();
}
