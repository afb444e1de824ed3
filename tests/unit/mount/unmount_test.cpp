#include "config/filesystems.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "lib/process.h"
#include "lib/sys.h"
#include "mount/mount.h"
#include "partition.h"
#include "support/files.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Calls = std::vector<std::string>;

const char other_line[] = "/dev/sdb1 /mnt/sdb1 ext3 rw 0 0\n";

// A partition that is mounted, busy with an errno where a test says so.
class UnmountTest : public PartitionTest {
  protected:
    UnmountTest()
    {
        fake_world().media[devnode] = {"vfat"};
        EXPECT_EQ(mount(), 0);
        write_file("/etc/mtab", own_line() + other_line);
        fake_world().journal.clear();
    }

    std::string own_line() { return devnode + " " + mountpoint + " vfat rw 0 0\n"; }

    void expect_cleaned_up()
    {
        EXPECT_EQ(entry.mounted, 0);
        EXPECT_EQ(read_table(), other_line);
        EXPECT_FALSE(exists(mountpoint));
        EXPECT_FALSE(exists(devnode));
    }

    void expect_untouched()
    {
        EXPECT_EQ(entry.mounted, 1);
        EXPECT_EQ(read_table(), own_line() + other_line);
        EXPECT_TRUE(exists(mountpoint));
        EXPECT_TRUE(exists(devnode));
    }

    // What a clean-up consists of, behind the calls that detach.
    Calls with_clean_up(Calls calls)
    {
        calls.insert(calls.end(), {"waitpid -1 1", "rename /tmp/mntent.tmp /etc/mtab",
                                   "rmdir " + mountpoint, "unlink " + devnode});
        return calls;
    }
};

TEST_F(UnmountTest, SyncsDetachesReapsAndCleansUpInThisOrder)
{
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_EQ(fake_world().journal, with_clean_up({"sync", "umount " + mountpoint}));
    expect_cleaned_up();
    EXPECT_EQ(fake_world().mounts.count(mountpoint), 0U);
}

TEST_F(UnmountTest, ForceChangesNothingWhereTheFilesystemIsIdle)
{
    EXPECT_EQ(vyunmount(&entry, 1), 0);
    EXPECT_EQ(fake_world().count("umount2"), 0);
    expect_cleaned_up();
}

TEST_F(UnmountTest, LeavesTheRestOfTheEntryAlone)
{
    std::string share = "Drive(A1)";
    entry.sharename = share.data();
    dev.helperpid = 77;
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_EQ(entry.sharename, share.data());
    EXPECT_EQ(entry.fstype, CONF_DEV_FS_FAT);
    EXPECT_EQ(entry.gone, 0);
    EXPECT_EQ(dev.helperpid, 77);
}

TEST_F(UnmountTest, LogsNothing)
{
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_EQ(vyunmount(&entry, 0), -1);
    EXPECT_TRUE(fake_log_texts().empty());
}

// ---- no mount any more ----

TEST_F(UnmountTest, ADirectoryThatIsNoMountFailsButIsCleanedUp)
{
    fake_world().mounts.clear(); // EINVAL
    EXPECT_EQ(vyunmount(&entry, 0), -1);
    EXPECT_EQ(fake_world().journal, with_clean_up({"sync", "umount " + mountpoint}));
    expect_cleaned_up();
}

TEST_F(UnmountTest, ADirectoryThatIsGoneFailsButIsCleanedUp)
{
    fake_world().mounts.clear();
    ASSERT_EQ(rmdir(mountpoint.c_str()), 0); // ENOENT
    EXPECT_EQ(vyunmount(&entry, 0), -1);
    expect_cleaned_up();
}

TEST_F(UnmountTest, ForceIsNotUsedOnWhatIsNoMount)
{
    for (const int error : {EINVAL, ENOENT}) {
        SCOPED_TRACE(error);
        fake_world().fail("umount", 1, error);
        EXPECT_EQ(vyunmount(&entry, 1), -1);
        EXPECT_EQ(fake_world().count("umount2"), 0);
        EXPECT_EQ(entry.mounted, 0);
    }
}

// ---- busy ----

TEST_F(UnmountTest, ABusyFilesystemWithoutForceStaysAsItIs)
{
    fake_world().busy[mountpoint] = EBUSY;
    EXPECT_EQ(vyunmount(&entry, 0), -1);
    EXPECT_EQ(fake_world().journal, (Calls{"sync", "umount " + mountpoint}));
    expect_untouched();
}

TEST_F(UnmountTest, AnyOtherErrorWithoutForceLeavesAllAsItIs)
{
    for (const int error : {EPERM, EACCES, EIO, ENOMEM}) {
        SCOPED_TRACE(error);
        fake_world().fail("umount", 1, error);
        EXPECT_EQ(vyunmount(&entry, 0), -1);
        expect_untouched();
    }
}

// MNT_DETACH is 2, MNT_FORCE is 1: lazily comes first.
TEST_F(UnmountTest, ForceDetachesABusyFilesystemLazily)
{
    fake_world().busy[mountpoint] = EBUSY;
    EXPECT_EQ(vyunmount(&entry, 1), 0);
    EXPECT_EQ(fake_world().journal,
              with_clean_up({"sync", "umount " + mountpoint, "umount2 " + mountpoint + " 0x2"}));
    expect_cleaned_up();
}

TEST_F(UnmountTest, AnyNonZeroForceIsForce)
{
    fake_world().busy[mountpoint] = EPERM;
    EXPECT_EQ(vyunmount(&entry, 0x80000000U), 0);
    expect_cleaned_up();
}

TEST_F(UnmountTest, ForceIsTheLastResort)
{
    fake_world().busy[mountpoint] = EBUSY;
    fake_world().fail("umount2", 1, EBUSY);
    EXPECT_EQ(vyunmount(&entry, 1), 0);
    EXPECT_EQ(fake_world().journal,
              with_clean_up({"sync", "umount " + mountpoint, "umount2 " + mountpoint + " 0x2",
                             "umount2 " + mountpoint + " 0x1"}));
    expect_cleaned_up();
}

TEST_F(UnmountTest, WhatEvenForceCannotDetachStaysAsItIs)
{
    fake_world().busy[mountpoint] = EBUSY;
    fake_world().fail("umount2", 0, EBUSY);
    EXPECT_EQ(vyunmount(&entry, 1), -1);
    EXPECT_EQ(fake_world().journal,
              (Calls{"sync", "umount " + mountpoint, "umount2 " + mountpoint + " 0x2",
                     "umount2 " + mountpoint + " 0x1"}));
    expect_untouched();
}

// ---- children ----

TEST_F(UnmountTest, ReapsOneFinishedChildAtMost)
{
    fake_world().programs["driver"] = {{}, {}};
    char name[] = "driver";
    char* const argv[] = {name, nullptr};
    ASSERT_GT(vy_fork_exec(name, argv, nullptr, nullptr, nullptr), 0);
    ASSERT_GT(vy_fork_exec(name, argv, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_EQ(fake_world().count("waitpid"), 1);
    EXPECT_GT(sys_waitpid(-1, nullptr, 0), 0); // the other one is left
    EXPECT_EQ(sys_waitpid(-1, nullptr, 0), -ECHILD);
}

TEST_F(UnmountTest, WaitsForNoChildThatRunsOn)
{
    fake_world().programs["driver"] = {{.wait_status = 0, .polls = -1, .output = ""}};
    char name[] = "driver";
    char* const argv[] = {name, nullptr};
    ASSERT_GT(vy_fork_exec(name, argv, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_EQ(fake_world().slept_usec, 0U);
    expect_cleaned_up();
}

// ---- what the clean-up cannot do is not told ----

TEST_F(UnmountTest, ATableThatCannotBeRewrittenDoesNotSpoilTheResult)
{
    ASSERT_EQ(mkdir("/tmp/mntent.tmp", 0755), 0);
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_EQ(read_table(), own_line() + other_line);
    EXPECT_FALSE(exists(mountpoint));
    EXPECT_FALSE(exists(devnode));
}

TEST_F(UnmountTest, AMissingTableDoesNotSpoilTheResult)
{
    ASSERT_EQ(unlink("/etc/mtab"), 0);
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_FALSE(exists(mountpoint));
    EXPECT_FALSE(exists(devnode));
}

TEST_F(UnmountTest, AStaleTableDoesNotSpoilTheResult)
{
    fake_world().fail("rename", 1, EXDEV);
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_EQ(read_table(), own_line() + other_line);
    EXPECT_FALSE(exists(devnode));
}

TEST_F(UnmountTest, ADirectoryInUseDoesNotSpoilTheResult)
{
    fake_world().fail("rmdir", 1, EBUSY);
    fake_world().fail("unlink", 1, EPERM);
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    EXPECT_TRUE(exists(mountpoint));
    EXPECT_TRUE(exists(devnode));
    EXPECT_EQ(entry.mounted, 0);
}

TEST_F(UnmountTest, AnNtfsMountIsUndoneTheSameWay)
{
    entry.fstype = CONF_DEV_FS_NTFS;
    write_file("/etc/mtab", other_line + devnode + " " + mountpoint + " fuseblk rw 0 0\n");
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    expect_cleaned_up();
}

TEST_F(UnmountTest, ATableWithoutTheLineIsCopiedUnchanged)
{
    write_file("/etc/mtab", other_line);
    EXPECT_EQ(vyunmount(&entry, 0), 0);
    expect_cleaned_up();
}

} // namespace
