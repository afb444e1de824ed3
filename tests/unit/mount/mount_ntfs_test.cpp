#include "config/filesystems.h"
#include "fake/fake_world.h"
#include "partition.h"
#include "support/files.h"

#include <errno.h>
#include <sys/mount.h>

namespace {

using Arguments = std::vector<std::string>;

const char owner_text[] = "uid=0,gid=0,fmask=0113,dmask=0002";
constexpr int exit_0 = 0;
constexpr int exit_1 = 1 << 8;
constexpr int killed = 9;
constexpr int first_pid = 5001; // the fake world counts from here

// One run of the driver, looked at `polls` times before it ends; -1: it never does.
FakeRun run(int wait_status, int polls = 0)
{
    return {.wait_status = wait_status, .polls = polls, .output = ""};
}

class MountNtfsTest : public PartitionTest {
  protected:
    MountNtfsTest() { entry.fstype = CONF_DEV_FS_NTFS; }

    void script(std::deque<FakeRun> runs) { fake_world().programs["ntfs-3g"] = std::move(runs); }

    Arguments driver_with(const std::string& options)
    {
        return {"ntfs-3g", devnode, mountpoint, "-o", options};
    }

    void expect_nothing_left()
    {
        EXPECT_EQ(entry.mounted, 0);
        EXPECT_FALSE(exists(mountpoint));
        EXPECT_FALSE(exists(devnode));
    }
};

TEST_F(MountNtfsTest, StartsTheDriverWithTheOwnersOptions)
{
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned, (std::vector<Arguments>{driver_with(owner_text)}));
    EXPECT_EQ(fake_world().count("mount"), 0);
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_EQ(entry.fstype, CONF_DEV_FS_NTFS);
    EXPECT_EQ(dev.helperpid, 0);
}

TEST_F(MountNtfsTest, AReadOnlyDeviceHasReadOnlyInFront)
{
    dev.flags = HOTPLUG_FLAG_READONLY;
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<Arguments>{driver_with(std::string("ro,") + owner_text)}));
    EXPECT_EQ(dev.flags, HOTPLUG_FLAG_READONLY);
}

TEST_F(MountNtfsTest, ExtraOptionsStandBehindAComma)
{
    set_ntfs_options("noatime,big_writes");
    config.defaultuid = 7;
    config.defaultgid = 8;
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned, (std::vector<Arguments>{driver_with(
                                        "uid=7,gid=8,fmask=0113,dmask=0002,noatime,big_writes")}));
}

// Behind the options, where none of them can undo the words, and whole however long they are.
TEST_F(MountNtfsTest, TheConfiguredFlagsStandLast)
{
    config.mountflags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    script({run(exit_0), run(exit_0)});
    EXPECT_EQ(mount(), 0);
    set_ntfs_options(std::string(200, 'x'));
    const std::string cut =
        (std::string("ro,") + owner_text + "," + std::string(200, 'x')).substr(3, 124);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<Arguments>{driver_with(std::string(owner_text) + ",nosuid,nodev,noexec"),
                                      driver_with(cut + ",nosuid,nodev,noexec")}));
}

// Drivers know no word for the others; all that they know fits.
TEST_F(MountNtfsTest, OnlyWordsThatTheDriverKnowsAreHandedOver)
{
    config.mountflags = UINT32_MAX;
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<Arguments>{driver_with(std::string(owner_text) +
                                                  ",nosuid,nodev,noexec,noatime,sync,dirsync")}));
}

// Numbers above 2147483647 are told as the negative ones of the same bits.
TEST_F(MountNtfsTest, TheOwnersNumbersAreSigned)
{
    config.defaultuid = 4294967295U;
    config.defaultgid = 4294967294U;
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<Arguments>{driver_with("uid=-1,gid=-2,fmask=0113,dmask=0002")}));
}

TEST_F(MountNtfsTest, EmptyExtraOptionsLeaveNoComma)
{
    set_ntfs_options("");
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned, (std::vector<Arguments>{driver_with(owner_text)}));
}

// The text with "ro," is what is cut: without it three characters fewer are left.
TEST_F(MountNtfsTest, ALongTextIsCutBeforeReadOnlyIsTakenOff)
{
    const std::string extra(200, 'x');
    set_ntfs_options(extra);
    const std::string cut = (std::string("ro,") + owner_text + "," + extra).substr(0, 127);
    script({run(exit_0), run(exit_0)});
    EXPECT_EQ(mount(), 0);
    dev.flags = HOTPLUG_FLAG_READONLY;
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<Arguments>{driver_with(cut.substr(3)), driver_with(cut)}));
}

TEST_F(MountNtfsTest, TheDriverHasNoPipes)
{
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().count("pipe"), 0);
}

TEST_F(MountNtfsTest, TheMountTableIsNotTouched)
{
    write_file("/etc/mtab", "proc /proc proc rw 0 0\n");
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(read_table(), "proc /proc proc rw 0 0\n");
}

TEST_F(MountNtfsTest, FoundLastIsAsGoodAsWanted)
{
    entry.fstype = CONF_DEV_FS_UNKNOWN;
    script({run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(entry.fstype, CONF_DEV_FS_NTFS);
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_EQ(read_table(), "");
}

TEST_F(MountNtfsTest, SwitchedOffStartsNoDriver)
{
    config.mountntfs = 0;
    script({run(exit_0)});
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(fake_world().count("spawn"), 0);
    expect_nothing_left();
}

TEST_F(MountNtfsTest, ADriverThatCannotBeStartedFails)
{
    script({run(exit_0)});
    fake_world().fail("spawn", 1, EAGAIN);
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(fake_world().count("spawn"), 1);
    expect_nothing_left();
}

// ---- waiting ----

TEST_F(MountNtfsTest, WaitsForADriverThatTakesItsTime)
{
    script({run(exit_0, 299)}); // ends at the last of 300 looks
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(dev.helperpid, 0);
    EXPECT_EQ(fake_world().count("waitpid"), 300);
    EXPECT_EQ(fake_world().spawned.size(), 1U);
}

TEST_F(MountNtfsTest, ALateFailureIsAFailureAllTheSame)
{
    dev.flags = HOTPLUG_FLAG_READONLY;
    script({run(exit_1, 299)});
    EXPECT_EQ(mount(), -1);
}

TEST_F(MountNtfsTest, ADriverThatRunsOnFor60SecondsIsMounted)
{
    dev.flags = HOTPLUG_FLAG_REMOVABLE;
    script({run(exit_1, -1)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().slept_usec, 60000000U);
    EXPECT_EQ(dev.helperpid, first_pid);
    EXPECT_EQ(dev.flags, HOTPLUG_FLAG_REMOVABLE);
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_EQ(entry.fstype, CONF_DEV_FS_NTFS);
    EXPECT_EQ(fake_world().spawned.size(), 1U);
    EXPECT_TRUE(fake_world().signals.empty()); // it is not interrupted
}

TEST_F(MountNtfsTest, AReadOnlyDevicesDriverThatRunsOnIsMounted)
{
    dev.flags = HOTPLUG_FLAG_READONLY | HOTPLUG_FLAG_REMOVABLE;
    script({run(exit_0, -1)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<Arguments>{driver_with(std::string("ro,") + owner_text)}));
    EXPECT_EQ(dev.helperpid, first_pid);
    EXPECT_EQ(dev.flags, HOTPLUG_FLAG_READONLY | HOTPLUG_FLAG_REMOVABLE);
    EXPECT_EQ(entry.mounted, 1);
}

TEST_F(MountNtfsTest, AWaitThatFailsCountsAsMounted)
{
    script({run(exit_1)});
    fake_world().fail("waitpid", 1, ECHILD);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(dev.helperpid, first_pid);
    EXPECT_EQ(entry.mounted, 1);
    EXPECT_EQ(fake_world().spawned.size(), 1U);
}

// ---- the second run ----

// Kept: the same arguments once more, and a success that takes the removable bit away.
TEST_F(MountNtfsTest, TheSecondRunHasTheSameArgumentsAndReducesTheFlags)
{
    dev.flags = HOTPLUG_FLAG_REMOVABLE;
    script({run(exit_1), run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<Arguments>{driver_with(owner_text), driver_with(owner_text)}));
    EXPECT_EQ(dev.flags, 0);
    EXPECT_EQ(dev.helperpid, 0);
    EXPECT_EQ(entry.mounted, 1);
}

TEST_F(MountNtfsTest, AKilledDriverIsRunOnceMore)
{
    script({run(killed), run(exit_0)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned.size(), 2U);
}

TEST_F(MountNtfsTest, ASecondRunThatGoesOnIsMountedAndKeepsItsPid)
{
    dev.flags = HOTPLUG_FLAG_REMOVABLE;
    script({run(exit_1), run(exit_0, -1)});
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().slept_usec, 60000000U);
    EXPECT_EQ(dev.helperpid, first_pid + 1);
    EXPECT_EQ(dev.flags, 0);
    EXPECT_EQ(entry.mounted, 1);
}

TEST_F(MountNtfsTest, ASecondWaitThatFailsCountsAsMountedToo)
{
    dev.flags = HOTPLUG_FLAG_REMOVABLE;
    script({run(exit_1), run(exit_1)});
    fake_world().fail("waitpid", 2, ECHILD);
    EXPECT_EQ(mount(), 0);
    EXPECT_EQ(fake_world().spawned.size(), 2U);
    EXPECT_EQ(dev.helperpid, first_pid + 1);
    EXPECT_EQ(dev.flags, 0);
    EXPECT_EQ(entry.mounted, 1);
}

TEST_F(MountNtfsTest, ASecondFailureFailsAndKeepsTheFlags)
{
    for (const int second : {exit_1, killed}) {
        SCOPED_TRACE(second);
        fake_world_reset();
        dev.flags = HOTPLUG_FLAG_REMOVABLE;
        script({run(exit_1), run(second), run(exit_0)});
        EXPECT_EQ(mount(), -1);
        EXPECT_EQ(fake_world().spawned.size(), 2U);
        EXPECT_EQ(dev.flags, HOTPLUG_FLAG_REMOVABLE);
        expect_nothing_left();
    }
}

TEST_F(MountNtfsTest, ASecondRunThatCannotBeStartedFails)
{
    script({run(exit_1), run(exit_0)});
    fake_world().fail("spawn", 2, EAGAIN);
    EXPECT_EQ(mount(), -1);
    expect_nothing_left();
}

TEST_F(MountNtfsTest, AReadOnlyDeviceHasNoSecondRun)
{
    dev.flags = HOTPLUG_FLAG_READONLY;
    script({run(exit_1), run(exit_0)});
    EXPECT_EQ(mount(), -1);
    EXPECT_EQ(fake_world().spawned.size(), 1U);
    expect_nothing_left();
}

} // namespace
