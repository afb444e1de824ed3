#include "config/filesystems.h"
#include "device/kinds.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "partition.h"
#include "support/files.h"

#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostream>

namespace {

using Calls = std::vector<std::string>;

const char fat_text[] = "uid=0,gid=0,fmask=0113,dmask=0002,utf8";
const char owner_text[] = "uid=0,gid=0,fmask=0113,dmask=0002";

class MountTest : public PartitionTest {
  protected:
    // What the partition holds; `refusal` is the errno of a medium that refuses writing.
    void put_medium(const std::string& type, int refusal = 0)
    {
        fake_world().media[devnode] = {type, refusal};
    }

    Calls mount_calls() { return fake_world().calls("mount "); }

    // What every mount call of this partition begins with.
    std::string call_of(const std::string& type, const std::string& flags, const std::string& text)
    {
        return "mount " + devnode + " " + mountpoint + " " + type + " " + flags + " " + text;
    }

    // The types that were tried, in order.
    Calls types_tried()
    {
        Calls types;
        for (const std::string& call : mount_calls()) {
            const size_t start = call.find(mountpoint) + mountpoint.size() + 1;
            types.push_back(call.substr(start, call.find(' ', start) - start));
        }
        return types;
    }
};

// ---- node and directory ----

TEST_F(MountTest, MakesABlockNodeWithoutPermissionsForTheDevicesNumbers)
{
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().calls("mknod"), (Calls{"mknod " + devnode + " 60000 8:1"}));
}

TEST_F(MountTest, NumbersTheNodeOfACardWithItsOwnNumbers)
{
    dev.major = MAJOR_MMC;
    dev.minor = 300;
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().calls("mknod"), (Calls{"mknod " + devnode + " 60000 179:300"}));
}

TEST_F(MountTest, AcceptsANodeThatIsThereAlready)
{
    write_file(devnode, "");
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(entry.mounted, 1);
}

TEST_F(MountTest, GoesNoFurtherWithoutANode)
{
    put_medium("vfat");
    fake_world().fail("mknod", 1, EPERM);
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(fake_world().journal.size(), 1U);
    EXPECT_EQ(entry.mounted, 0);
    EXPECT_FALSE(exists(mountpoint));
}

TEST_F(MountTest, MakesAMountDirectoryForTheOwnerAlone)
{
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().calls("mkdir"), (Calls{"mkdir " + mountpoint + " 700"}));
}

TEST_F(MountTest, AcceptsADirectoryThatIsThereAlready)
{
    ASSERT_EQ(mkdir(mountpoint.c_str(), 0755), 0);
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(entry.mounted, 1);
}

TEST_F(MountTest, AcceptsALinkToADirectoryAtTheMountPath)
{
    ASSERT_EQ(symlink("/media/mnt", mountpoint.c_str()), 0);
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
}

TEST_F(MountTest, LeavesTheNodeWhereAFileIsInTheDirectorysPlace)
{
    write_file(mountpoint, "a file");
    put_medium("vfat");
    EXPECT_EQ(mount(), -1);
    EXPECT_TRUE(exists(devnode));
    EXPECT_EQ(read_file(mountpoint), "a file");
    EXPECT_EQ(mount_calls(), Calls{});
    EXPECT_EQ(fake_world().count("unlink"), 0);
    EXPECT_EQ(fake_world().count("rmdir"), 0);
}

TEST_F(MountTest, LeavesTheNodeWhereTheMountPathIsALinkToNowhere)
{
    ASSERT_EQ(symlink("/nowhere", mountpoint.c_str()), 0);
    put_medium("vfat");
    EXPECT_EQ(mount(), -1);
    EXPECT_TRUE(exists(devnode));
    EXPECT_EQ(mount_calls(), Calls{});
}

TEST_F(MountTest, LeavesTheNodeWhereTheDirectoryCannotBeMade)
{
    put_medium("vfat");
    fake_world().fail("mkdir", 1, ENOSPC);
    EXPECT_EQ(mount(), -1);
    EXPECT_TRUE(exists(devnode));
    EXPECT_EQ(fake_world().journal.size(), 2U);
    EXPECT_EQ(entry.mounted, 0);
}

// ---- which filesystem ----

struct Kernel {
    uint8_t code;
    const char* type;
    const char* flags;
    const char* readonly_flags;
    const char* text;
};

void PrintTo(const Kernel& row, std::ostream* out)
{
    *out << row.type;
}

// MS_RDONLY is 1, MS_NODEV is 4: never for FAT.
const Kernel kernel_filesystems[] = {
    {CONF_DEV_FS_EXT2, "ext2", "0x4", "0x5", "user_xattr"},
    {CONF_DEV_FS_EXT3, "ext3", "0x4", "0x5", "user_xattr"},
    {CONF_DEV_FS_EXT4, "ext4", "0x4", "0x5", "user_xattr"},
    {CONF_DEV_FS_FAT, "vfat", "0x0", "0x1", fat_text},
};

class KernelMountTest : public MountTest, public testing::WithParamInterface<Kernel> {};

INSTANTIATE_TEST_SUITE_P(Each, KernelMountTest, testing::ValuesIn(kernel_filesystems),
                         [](const auto& row) { return std::string(row.param.type); });

TEST_P(KernelMountTest, MountsAWantedFilesystemInOneCall)
{
    const Kernel& row = GetParam();
    entry.fstype = row.code;
    put_medium(row.type);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(mount_calls(), (Calls{call_of(row.type, row.flags, row.text)}));
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_EQ(entry.fstype, row.code);
    EXPECT_EQ(dev.flags, 0);
}

TEST_P(KernelMountTest, MountsAReadOnlyDeviceReadOnlyAtOnce)
{
    const Kernel& row = GetParam();
    entry.fstype = row.code;
    dev.flags = HOTPLUG_FLAG_READONLY | HOTPLUG_FLAG_REMOVABLE;
    put_medium(row.type, EROFS);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(mount_calls(), (Calls{call_of(row.type, row.readonly_flags, row.text)}));
    EXPECT_EQ(dev.flags, HOTPLUG_FLAG_READONLY | HOTPLUG_FLAG_REMOVABLE);
}

TEST_P(KernelMountTest, TriesNoOtherThanTheWantedFilesystem)
{
    const Kernel& row = GetParam();
    entry.fstype = row.code;
    put_medium("xfs");
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(types_tried(), (Calls{row.type}));
    EXPECT_EQ(fake_world().count("spawn"), 0);
    EXPECT_EQ(entry.mounted, 0);
    EXPECT_EQ(entry.fstype, row.code);
}

TEST_P(KernelMountTest, SetsTheCodeOfWhatItFound)
{
    const Kernel& row = GetParam();
    put_medium(row.type);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(entry.fstype, row.code);
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_EQ(fake_world().count("spawn"), 0);
}

TEST_P(KernelMountTest, NotesTheMountInTheTable)
{
    const Kernel& row = GetParam();
    write_file("/etc/mtab", "proc /proc proc rw,noexec 1 2\n");
    put_medium(row.type);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(read_table(), "proc /proc proc rw,noexec 1 2\n" + devnode + " " + mountpoint + " " +
                                row.type + " rw 0 0\n");
}

// The second attempt carries MS_RDONLY alone for every filesystem.
TEST_P(KernelMountTest, TriesARefusingMediumOnceMoreReadOnly)
{
    const Kernel& row = GetParam();
    for (const int refusal : {EROFS, EACCES}) {
        SCOPED_TRACE(refusal);
        fake_world_reset();
        write_file("/etc/mtab", "");
        entry.fstype = row.code;
        dev.flags = HOTPLUG_FLAG_REMOVABLE;
        put_medium(row.type, refusal);
        EXPECT_EQ(mount(), 0);
        EXPECT_EQ(mount_calls(), (Calls{call_of(row.type, row.flags, row.text),
                                        call_of(row.type, "0x1", row.text)}));
        EXPECT_EQ(dev.flags, HOTPLUG_FLAG_READONLY | HOTPLUG_FLAG_REMOVABLE);
        EXPECT_EQ(read_table(), devnode + " " + mountpoint + " " + row.type + " ro 0 0\n");
    }
}

// MS_NOSUID is 2, MS_NODEV is 4, MS_NOEXEC is 8.
TEST_P(KernelMountTest, TheConfiguredFlagsGoIntoBothAttempts)
{
    const Kernel& row = GetParam();
    config.mountflags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    entry.fstype = row.code;
    put_medium(row.type, EROFS);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(mount_calls(),
              (Calls{call_of(row.type, "0xe", row.text), call_of(row.type, "0xf", row.text)}));
}

TEST_P(KernelMountTest, TriesOnlyOnceForAnyOtherError)
{
    const Kernel& row = GetParam();
    for (const int error : {EINVAL, EPERM, EBUSY, ENODEV, EIO}) {
        SCOPED_TRACE(error);
        fake_world_reset();
        entry.fstype = row.code;
        put_medium(row.type);
        fake_world().fail("mount", 1, error);
        EXPECT_EQ(mount(), -1);
        EXPECT_EQ(mount_calls().size(), 1U);
        EXPECT_EQ(dev.flags, 0);
    }
}

TEST_P(KernelMountTest, TriesAReadOnlyDeviceOnlyOnce)
{
    const Kernel& row = GetParam();
    for (const int refusal : {EROFS, EACCES}) {
        SCOPED_TRACE(refusal);
        fake_world_reset();
        entry.fstype = row.code;
        dev.flags = HOTPLUG_FLAG_READONLY;
        put_medium(row.type);
        fake_world().fail("mount", 1, refusal);
        EXPECT_EQ(mount(), -1);
        EXPECT_EQ(mount_calls().size(), 1U);
    }
}

TEST_P(KernelMountTest, MarksNothingReadOnlyWhenTheSecondAttemptFails)
{
    const Kernel& row = GetParam();
    entry.fstype = row.code;
    put_medium(row.type, EROFS);
    fake_world().fail("mount", 2, EIO);
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(mount_calls().size(), 2U);
    EXPECT_EQ(dev.flags, 0);
    EXPECT_EQ(read_table(), "");
}

TEST_P(KernelMountTest, LeavesNeitherDirectoryNorNodeWhenItFails)
{
    const Kernel& row = GetParam();
    entry.fstype = row.code;
    put_medium("xfs");
    EXPECT_EQ(mount(), -1);
    EXPECT_FALSE(exists(mountpoint));
    EXPECT_FALSE(exists(devnode));
}

TEST_F(MountTest, AFailureTakesAwayEvenWhatWasThereBefore)
{
    write_file(devnode, "");
    ASSERT_EQ(mkdir(mountpoint.c_str(), 0755), 0);
    EXPECT_EQ(mount(), -1);
    EXPECT_FALSE(exists(mountpoint));
    EXPECT_FALSE(exists(devnode));
}

TEST_F(MountTest, TriesFatThenTheExtsFromTheNewestThenNtfs)
{
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(types_tried(), (Calls{"vfat", "ext4", "ext3", "ext2"}));
    EXPECT_EQ(fake_world().count("spawn"), 2); // the driver is tried twice
    const Calls& journal = fake_world().journal;
    EXPECT_EQ(journal[2].substr(0, 5), "mount");
    EXPECT_EQ(journal[6].substr(0, 5), "spawn");
    EXPECT_EQ(entry.fstype, 0);
    EXPECT_EQ(entry.mounted, 0);
    EXPECT_FALSE(exists(mountpoint));
    EXPECT_FALSE(exists(devnode));
}

TEST_F(MountTest, StopsAtTheFirstThatMounts)
{
    put_medium("ext3");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(types_tried(), (Calls{"vfat", "ext4", "ext3"}));
}

TEST_F(MountTest, TriesAllForACodeThatItDoesNotKnow)
{
    for (const int code : {6, 255}) {
        SCOPED_TRACE(code);
        fake_world_reset();
        entry.fstype = static_cast<uint8_t>(code);
        put_medium("ext2");
        EXPECT_EQ(mount(), 0);
        EXPECT_EQ(types_tried(), (Calls{"vfat", "ext4", "ext3", "ext2"}));
        EXPECT_EQ(entry.fstype, CONF_DEV_FS_EXT2);
    }
}

TEST_F(MountTest, AReadOnlyAttemptThatFailsLeavesTheRestOfTheOrder)
{
    put_medium("vfat", EROFS);
    fake_world().fail("mount", 2, EIO);
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(types_tried(), (Calls{"vfat", "vfat", "ext4", "ext3", "ext2"}));
    EXPECT_EQ(fake_world().count("spawn"), 2);
}

TEST_F(MountTest, FatSwitchedOffIsPassedOver)
{
    config.mountvfat = 0;
    put_medium("vfat");
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(types_tried(), (Calls{"ext4", "ext3", "ext2"}));
    EXPECT_EQ(fake_world().count("spawn"), 2);
}

TEST_F(MountTest, ExtSwitchedOffIsPassedOver)
{
    config.mountext = 0;
    put_medium("ext4");
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(types_tried(), (Calls{"vfat"}));
    EXPECT_EQ(fake_world().count("spawn"), 2);
}

TEST_F(MountTest, NtfsSwitchedOffStartsNoDriver)
{
    config.mountntfs = 0;
    fake_world().programs["ntfs-3g"] = {{}};
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(fake_world().count("spawn"), 0);
    EXPECT_EQ(types_tried(), (Calls{"vfat", "ext4", "ext3", "ext2"}));
}

TEST_P(KernelMountTest, AWantedFilesystemSwitchedOffFails)
{
    const Kernel& row = GetParam();
    config.mountvfat = 0;
    config.mountext = 0;
    entry.fstype = row.code;
    put_medium(row.type);
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(mount_calls(), Calls{});
    EXPECT_FALSE(exists(mountpoint));
    EXPECT_FALSE(exists(devnode));
}

// ---- option texts ----

TEST_F(MountTest, FatTextCarriesOwnerAndMasks)
{
    config.defaultuid = 1000;
    config.defaultgid = 500;
    config.fileumask = 0022;
    config.dirumask = 0777;
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().mounts[mountpoint].options,
              "uid=1000,gid=500,fmask=0022,dmask=0777,utf8");
}

// Numbers above 2147483647 are told as the negative ones of the same bits.
TEST_F(MountTest, FatTextCarriesSignedNumbersOfTheOwner)
{
    config.defaultuid = 4294967295U;
    config.defaultgid = 4294967294U;
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().mounts[mountpoint].options, "uid=-1,gid=-2,fmask=0113,dmask=0002,utf8");
}

TEST_F(MountTest, TextsCarryNoCommaWithoutExtraOptions)
{
    set_vfat_options("");
    set_ext_options("");
    EXPECT_EQ(mount(), -1);
    const Calls calls = mount_calls();
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[0], call_of("vfat", "0x0", "uid=0,gid=0,fmask=0113,dmask=0002"));
    EXPECT_EQ(calls[1], call_of("ext4", "0x4", "user_xattr"));
}

TEST_F(MountTest, AbsentExtraOptionsCountAsEmpty)
{
    config.vfatoptions = nullptr;
    config.extfsoptions = nullptr;
    EXPECT_EQ(mount(), -1);
    const Calls calls = mount_calls();
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[0], call_of("vfat", "0x0", "uid=0,gid=0,fmask=0113,dmask=0002"));
    EXPECT_EQ(calls[1], call_of("ext4", "0x4", "user_xattr"));
}

TEST_P(KernelMountTest, ExtraOptionsStandBehindAComma)
{
    const Kernel& row = GetParam();
    set_vfat_options("noatime,sync");
    set_ext_options("noatime,sync");
    const std::string text = row.code == CONF_DEV_FS_FAT
                                 ? "uid=0,gid=0,fmask=0113,dmask=0002,noatime,sync"
                                 : "user_xattr,noatime,sync";
    entry.fstype = row.code;
    put_medium(row.type);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(mount_calls(), (Calls{call_of(row.type, row.flags, text)}));
}

// 127 characters and the terminator are what the buffer holds.
TEST_P(KernelMountTest, ALongTextIsCutTo127Characters)
{
    const Kernel& row = GetParam();
    const std::string extra(200, 'x');
    set_vfat_options(extra);
    set_ext_options(extra);
    const std::string whole = row.code == CONF_DEV_FS_FAT
                                  ? "uid=0,gid=0,fmask=0113,dmask=0002," + extra
                                  : "user_xattr," + extra;
    entry.fstype = row.code;
    put_medium(row.type);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().mounts[mountpoint].options, whole.substr(0, 127));
}

TEST_F(MountTest, ATextOf127CharactersStaysWhole)
{
    const std::string extra(127 - strlen("user_xattr,"), 'x');
    set_ext_options(extra);
    entry.fstype = CONF_DEV_FS_EXT4;
    put_medium("ext4");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().mounts[mountpoint].options, "user_xattr," + extra);
}

// ---- other filesystems ----

struct Other {
    uint8_t code;
    const char* type;
    const char* options;
    bool readonly;
};

void PrintTo(const Other& row, std::ostream* out)
{
    *out << row.type;
}

const Other other_filesystems[] = {
    {CONF_DEV_FS_EXFAT, "exfat", owner_text, false},
    {CONF_DEV_FS_NTFS3, "ntfs3", owner_text, false},
    {CONF_DEV_FS_F2FS, "f2fs", "", false},
    {CONF_DEV_FS_BTRFS, "btrfs", "", false},
    {CONF_DEV_FS_XFS, "xfs", "", false},
    {CONF_DEV_FS_HFSPLUS, "hfsplus", "uid=0,gid=0,umask=0002", false},
    {CONF_DEV_FS_UDF, "udf", "uid=0,gid=0,mode=0664,dmode=0775", false},
    {CONF_DEV_FS_ISO9660, "iso9660", "uid=0,gid=0,mode=0664,dmode=0775", true},
};

class OtherMountTest : public MountTest, public testing::WithParamInterface<Other> {
  protected:
    OtherMountTest()
    {
        config.otherfs[0] = GetParam().code;
        config.mountext = 0;
        config.mountvfat = 0;
        config.mountntfs = 0;
    }
    const char* first_flags() const { return GetParam().readonly ? "0x5" : "0x4"; }
};

INSTANTIATE_TEST_SUITE_P(Each, OtherMountTest, testing::ValuesIn(other_filesystems),
                         [](const auto& row) { return std::string(row.param.type); });

TEST_P(OtherMountTest, IsMountedWithItsOptionsAndNotedByItsName)
{
    const Other& row = GetParam();
    put_medium(row.type);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(mount_calls(), (Calls{call_of(row.type, first_flags(), row.options)}));
    EXPECT_EQ(entry.fstype, row.code);
    EXPECT_EQ(dev.flags, row.readonly ? HOTPLUG_FLAG_READONLY : 0);
    EXPECT_EQ(read_table(), devnode + " " + mountpoint + " " + row.type +
                                (row.readonly ? " ro 0 0\n" : " rw 0 0\n"));
}

TEST_P(OtherMountTest, ExtraOptionsStandBehindItsOwn)
{
    const Other& row = GetParam();
    char extra[] = "x,y";
    config.otheroptions[row.code] = extra;
    put_medium(row.type);
    EXPECT_EQ(mount(), 0);
    const std::string own = row.options;
    EXPECT_EQ(mount_calls(),
              (Calls{call_of(row.type, first_flags(), own + (own.empty() ? "" : ",") + extra)}));
}

TEST_P(OtherMountTest, IsTriedOnceMoreReadOnly)
{
    const Other& row = GetParam();
    put_medium(row.type, EROFS);
    EXPECT_EQ(mount(), 0);
    const Calls writable = {call_of(row.type, "0x4", row.options),
                            call_of(row.type, "0x1", row.options)};
    const Calls never_writable = {call_of(row.type, "0x5", row.options)};
    EXPECT_EQ(mount_calls(), row.readonly ? never_writable : writable);
    EXPECT_EQ(dev.flags, HOTPLUG_FLAG_READONLY);
}

// A journal that the driver cannot play: it mounts read-only and says nothing.
TEST_P(OtherMountTest, WhatComesOutReadOnlyIsToldSo)
{
    put_medium(GetParam().type);
    fake_world().quietly_readonly.insert(devnode);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(dev.flags, HOTPLUG_FLAG_READONLY);
    EXPECT_EQ(read_table().find(" rw "), std::string::npos);
}

TEST_P(OtherMountTest, IsNotTriedUnlessItIsNamed)
{
    config.otherfs[0] = 0;
    put_medium(GetParam().type);
    EXPECT_EQ(mount(), -1);
    EXPECT_TRUE(mount_calls().empty());
    EXPECT_FALSE(exists(mountpoint));
    EXPECT_FALSE(exists(devnode));
}

TEST_F(MountTest, OthersAreTriedBehindTheKernelsOwnAndBeforeTheDriver)
{
    config.otherfs[0] = CONF_DEV_FS_XFS;
    config.otherfs[1] = CONF_DEV_FS_EXFAT;
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(types_tried(), (Calls{"vfat", "ext4", "ext3", "ext2", "xfs", "exfat"}));
    EXPECT_EQ(fake_world().count("spawn"), 2);
    fake_world_reset();
    put_medium("exfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().count("spawn"), 0) << "no driver is started for what a later one takes";
}

// A code above those of the five asks for nothing: all are tried anew.
TEST_F(MountTest, ACodeAboveTheFiveAsksForNothing)
{
    config.otherfs[0] = CONF_DEV_FS_EXFAT;
    entry.fstype = CONF_DEV_FS_EXFAT;
    put_medium("ext3");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(entry.fstype, CONF_DEV_FS_EXT3);
}

TEST_F(MountTest, TheFiveAreNotAskedHowTheyCameOut)
{
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().count("is_readonly"), 0);
}

// ---- the mount table ----

TEST_F(MountTest, ATableThatCannotBeOpenedDoesNotSpoilTheMount)
{
    ASSERT_EQ(unlink("/etc/mtab"), 0);
    ASSERT_EQ(mkdir("/etc/mtab", 0755), 0);
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(entry.mounted, 1);
}

TEST_F(MountTest, ATableThatCannotBeWrittenToDoesNotSpoilTheMount)
{
    const char table[] = "/etc/mtab";
    write_file(table, "proc /proc proc rw 0 0\n");
    ASSERT_EQ(::mount(table, table, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, table, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_EQ(read_table(), "proc /proc proc rw 0 0\n");
}

TEST_F(MountTest, ATableOfTheKernelsIsLeftAlone)
{
    ASSERT_EQ(unlink("/etc/mtab"), 0);
    ASSERT_EQ(symlink("/proc/self/mounts", "/etc/mtab"), 0);
    const std::string before = read_table();
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(read_table(), before);
}

TEST_F(MountTest, AReadOnlyDeviceIsNotedAsSuch)
{
    dev.flags = HOTPLUG_FLAG_READONLY;
    put_medium("ext3");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(read_table(), devnode + " " + mountpoint + " ext3 ro 0 0\n");
}

TEST_F(MountTest, ABlankInThePathIsNotedAsItsOctalCode)
{
    mountpoint = "/media/mnt/my disk";
    entry.mountpoint = mountpoint.data();
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(read_table(), devnode + " /media/mnt/my\\040disk vfat rw 0 0\n");
}

TEST_F(MountTest, AFailureNotesNothing)
{
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(read_table(), "");
}

TEST_F(MountTest, LeavesAloneWhatIsNotItsOwn)
{
    std::string share = "Drive(A1)";
    entry.sharename = share.data();
    entry.gone = 1;
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(entry.sharename, share.data());
    EXPECT_EQ(entry.gone, 1);
    EXPECT_EQ(dev.helperpid, 0);
}

// The caller tells the outcome.
TEST_F(MountTest, LogsNothing)
{
    EXPECT_EQ(mount(), -1);
    put_medium("vfat");
    EXPECT_EQ(mount(), 0);
    EXPECT_TRUE(fake_log_texts().empty());
}

// An entry that is mounted stays so, but its node goes: the failure's clean-up takes what it can.
TEST_F(MountTest, ASecondMountFailsAndTakesTheNodeAway)
{
    put_medium("vfat");
    ASSERT_EQ(mount(), 0);
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_TRUE(exists(mountpoint));
    EXPECT_FALSE(exists(devnode));
}

} // namespace
