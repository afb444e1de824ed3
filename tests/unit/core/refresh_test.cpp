#include "core/refresh.h"

#include "busy_devices.h"
#include "config/filesystems.h"
#include "device/kinds.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

// The lines of a record that carries nothing of the administrator's.
std::string default_record(const std::string& identifier)
{
    return "[" + identifier +
           "]\nShare Name=\nComment=\nRead Only=Disable\nGuest Access=Disable\n"
           "Guest Hide=Disable\nFull Access Users=\nRead Only Users=\nBlock Users=\n"
           "Hide Users=\n";
}

std::string named_record(const std::string& identifier)
{
    std::string record = default_record(identifier);
    const std::string key = "Share Name=";
    return record.insert(record.find(key) + key.size(), "Photos");
}

class RefreshTest : public BusyDevicesTest {
  protected:
    RefreshTest()
    {
        config.naswork = 0;
        write_file("/var/run/vynas-fssd.pid", "4321\n");
    }

    // A mounted partition of a device with this serial.
    MountEntry* add_device(int32_t minor, const char* serial)
    {
        MountEntry* entry = add(MAJOR_SD, minor);
        entry->fstype = CONF_DEV_FS_EXT3; // no label is looked for
        entry->dev->vid = 0x1234;
        entry->dev->pid = 0x00AB;
        entry->dev->serial = strdup(serial);
        return entry;
    }
};

TEST_F(RefreshTest, SavesTheShareFileThenTheDeviceFileThenSyncsThenTells)
{
    refresh_tables(&ctx, DIRTY_ADDED | DIRTY_REMOVED);
    EXPECT_EQ(
        fake_world().journal,
        (Names{"rename /tmp/vyhotplug.dir.conf.tmp /tmp/vynas.dir.conf",
               "rename /tmp/vyhotplug.dev.conf.tmp /tmp/hotplug.dev.conf", "sync", "kill 4321 1"}));
    EXPECT_TRUE(exists(share_file));
    EXPECT_TRUE(exists(device_file));
}

TEST_F(RefreshTest, AddsEveryMountedPartitionInOrder)
{
    add_device(1, "ABC");
    add_device(18, "");
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_EQ(read_file(device_file),
              default_record("1234:00ab:ABC:1") + default_record("1234:00ab::2"));
}

TEST_F(RefreshTest, AddsNothingWithoutTheBit)
{
    add_device(1, "ABC");
    for (const int dirty : {0, static_cast<int>(DIRTY_REMOVED)}) {
        fake_log_clear();
        refresh_tables(&ctx, dirty);
        EXPECT_EQ(read_file(device_file), "") << dirty;
        // Without a record it is no share.
        EXPECT_EQ(read_file(share_file), "") << dirty;
        EXPECT_EQ(fake_log_texts()[0], "config_file_dir(#)Error - External Directory Config.");
    }
}

TEST_F(RefreshTest, KeepsWhatTheDeviceFileHolds)
{
    write_file(device_file, named_record("1:2:3:4") + named_record("1234:00ab:ABC:1"));
    add_device(1, "ABC");
    add_device(2, "ABC");
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_EQ(read_file(device_file), named_record("1:2:3:4") + named_record("1234:00ab:ABC:1") +
                                          default_record("1234:00ab:ABC:2"));
}

TEST_F(RefreshTest, AGoneEntryIsStillAddedToTheTable)
{
    MountEntry* entry = add_device(1, "ABC");
    entry->gone = 1;
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_EQ(read_file(device_file), default_record("1234:00ab:ABC:1"));
    EXPECT_EQ(read_file(share_file), ""); // but it is no share
}

TEST_F(RefreshTest, NamesTheShareInTheEntry)
{
    MountEntry* entry = add_device(17, "ABC");
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_STREQ(entry->sharename, "Drive(B1)");
    EXPECT_EQ(read_file(share_file), "[Drive(B1)]\nIdentifier=1234:00ab:ABC:1\n"
                                     "Path=/media/mnt/sdb1\n"
                                     "Comment=USB Storage Device (0x1234/0x00AB)\n");
}

TEST_F(RefreshTest, DeviceInformationIsWrittenWhereItIsAskedFor)
{
    config.naswork = 1;
    add_device(1, "ABC");
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_NE(read_file(share_file).find("VID=4660\n"), std::string::npos);
}

// ---- the filesystems that are woken ----

TEST_F(RefreshTest, WakesEverySecondFilesystem)
{
    for (int32_t minor = 1; minor <= 5; minor++)
        add(MAJOR_SD, minor);
    refresh_tables(&ctx, 0);
    EXPECT_EQ(
        fake_world().calls("statfs"),
        (Names{"statfs /media/mnt/sda1", "statfs /media/mnt/sda3", "statfs /media/mnt/sda5"}));
}

TEST_F(RefreshTest, WakesFatAndUnknownFilesystemsOnly)
{
    const uint8_t types[] = {0, 1, 2, 3, 4, 5, 6};
    for (const uint8_t type : types) {
        add(MAJOR_SD, type * 2)->fstype = type;
        add(MAJOR_SD, type * 2 + 1)->fstype = CONF_DEV_FS_FAT; // at an odd position
    }
    refresh_tables(&ctx, 0);
    EXPECT_EQ(fake_world().calls("statfs"),
              (Names{"statfs /media/mnt/sda0", "statfs /media/mnt/sda8"}));
}

TEST_F(RefreshTest, AFilesystemThatDoesNotWakeChangesNothing)
{
    add(MAJOR_SD, 1);
    fake_world().fail("statfs", 0, EIO);
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_EQ(fake_world().count("kill"), 1);
    EXPECT_NE(read_file(share_file), "");
}

TEST_F(RefreshTest, WakesThemBeforeTheShareFileIsWritten)
{
    add(MAJOR_SD, 1);
    refresh_tables(&ctx, 0);
    EXPECT_EQ(fake_world().journal[0], "statfs /media/mnt/sda1");
}

// ---- what is dropped ----

TEST_F(RefreshTest, DropsEveryGoneEntry)
{
    MountEntry* first = add_device(1, "A");
    MountEntry* second = add_device(2, "B");
    MountEntry* third = add_device(3, "C");
    MountEntry* fourth = add_device(4, "D");
    first->gone = 1;
    second->gone = 1;
    fourth->gone = 1;
    refresh_tables(&ctx, DIRTY_REMOVED);
    EXPECT_EQ(entries(), (std::vector<MountEntry*>{third}));
}

TEST_F(RefreshTest, DropsNothingWithoutTheBit)
{
    MountEntry* entry = add_device(1, "A");
    entry->gone = 1;
    write_file(device_file, default_record("1:2:3:4"));
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_EQ(entries(), (std::vector<MountEntry*>{entry}));
    EXPECT_EQ(read_file(device_file), default_record("1:2:3:4") + default_record("1234:00ab:A:1"));
}

TEST_F(RefreshTest, DropsTheRecordsThatNobodyNamedAndNoDeviceHas)
{
    add_device(1, "A");
    write_file(device_file, default_record("1:1:1:1") + default_record("1234:00ab:A:1") +
                                default_record("2:2:2:2") + named_record("3:3:3:3") +
                                default_record("4:4:4:4"));
    refresh_tables(&ctx, DIRTY_REMOVED);
    EXPECT_EQ(read_file(device_file), default_record("1234:00ab:A:1") + named_record("3:3:3:3"));
}

TEST_F(RefreshTest, DropsTheRecordOfWhatIsGoneInTheSameRefresh)
{
    add_device(1, "A")->gone = 1;
    add_device(2, "B");
    write_file(device_file, default_record("1234:00ab:A:1") + default_record("1234:00ab:B:2"));
    refresh_tables(&ctx, DIRTY_ADDED | DIRTY_REMOVED);
    EXPECT_EQ(read_file(device_file), default_record("1234:00ab:B:2"));
}

TEST_F(RefreshTest, AnUnmountedDeviceKeepsItsRecord)
{
    MountEntry* entry = add(MAJOR_SD, 1, 16, false);
    entry->dev->serial = strdup("A");
    write_file(device_file, default_record("0000:0000:A:1"));
    refresh_tables(&ctx, DIRTY_REMOVED);
    EXPECT_EQ(read_file(device_file), default_record("0000:0000:A:1"));
}

// ---- what goes wrong ----

TEST_F(RefreshTest, AMissingDeviceFileIsMade)
{
    refresh_tables(&ctx, 0);
    EXPECT_TRUE(exists(device_file));
    EXPECT_EQ(read_file(device_file), "");
}

TEST_F(RefreshTest, AShareFileThatCannotBeWrittenDoesNotEndTheRefresh)
{
    ASSERT_EQ(mkdir("/tmp/vyhotplug.dir.conf.tmp", 0755), 0);
    add_device(1, "A");
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_EQ(read_file(device_file), default_record("1234:00ab:A:1"));
    EXPECT_EQ(fake_world().signals, (std::vector<std::pair<pid_t, int>>{{4321, SIGHUP}}));
}

TEST_F(RefreshTest, ADeviceFileThatCannotBeWrittenDoesNotEndTheRefresh)
{
    ASSERT_EQ(mkdir("/tmp/vyhotplug.dev.conf.tmp", 0755), 0);
    refresh_tables(&ctx, DIRTY_ADDED);
    EXPECT_EQ(fake_world().syncs, 1);
    EXPECT_EQ(fake_world().count("kill"), 1);
}

TEST_F(RefreshTest, WithoutAServiceNobodyIsTold)
{
    ASSERT_EQ(unlink("/var/run/vynas-fssd.pid"), 0);
    refresh_tables(&ctx, 0);
    EXPECT_EQ(fake_world().syncs, 1);
    EXPECT_TRUE(fake_world().signals.empty());
}

// ---- strict ----

class StrictRefreshTest : public RefreshTest {
  protected:
    StrictRefreshTest() { config.strict = 1; }

    static Names errors()
    {
        Names found;
        for (const std::string& text : fake_log_texts()) {
            if (text.find("not read") != std::string::npos)
                found.push_back(text);
        }
        return found;
    }
    std::string line(int error) const
    {
        return "daemon(#)Error - " + device_file + " is not read (err=" + std::to_string(error) +
               ")";
    }
};

TEST_F(StrictRefreshTest, ReadsAndSavesAFileOfRoots)
{
    add_device(1, "A");
    write_file(device_file, named_record("1234:00ab:A:1"));
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), 0);
    EXPECT_EQ(read_file(device_file), named_record("1234:00ab:A:1"));
    EXPECT_EQ(read_file(share_file).substr(0, 9), "[Photos]\n");
}

TEST_F(StrictRefreshTest, MakesAFileThatIsMissing)
{
    add_device(1, "A");
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), 0);
    EXPECT_EQ(read_file(device_file), default_record("1234:00ab:A:1"));
    EXPECT_TRUE(errors().empty());
}

// The settings are there, but who knows what they were: nothing is made of them.
TEST_F(StrictRefreshTest, AFileThatOthersMayWriteToHoldsTheRefreshUp)
{
    add_device(1, "A");
    write_file(device_file, named_record("1234:00ab:A:1"));
    write_file(share_file, "as it was");
    ASSERT_EQ(chmod(device_file.c_str(), 0666), 0);
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), -1);
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), -1);
    EXPECT_EQ(read_file(device_file), named_record("1234:00ab:A:1"));
    EXPECT_EQ(read_file(share_file), "as it was");
    EXPECT_TRUE(fake_world().journal.empty()) << "no sync, no signal";
    EXPECT_EQ(errors(), Names{line(EPERM)}) << "told once";
    ASSERT_EQ(chmod(device_file.c_str(), 0644), 0);
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), 0);
    EXPECT_EQ(read_file(share_file).substr(0, 9), "[Photos]\n");
    ASSERT_EQ(chmod(device_file.c_str(), 0666), 0);
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), -1);
    EXPECT_EQ(errors().size(), 2U) << "and once more when it was well meanwhile";
}

// What lies there is nobody's of root's: it cannot hold settings, and is in nobody's way.
TEST_F(StrictRefreshTest, AFileOfSomebodyElsesCountsAsNoneAndIsLeft)
{
    add_device(1, "A");
    write_file(device_file, named_record("1234:00ab:A:1"));
    ASSERT_EQ(chown(device_file.c_str(), 1234, 1234), 0);
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), 0);
    EXPECT_EQ(read_file(device_file), named_record("1234:00ab:A:1"));
    EXPECT_EQ(read_file(share_file).substr(0, 12), "[Drive(A1)]\n");
    EXPECT_EQ(errors(), Names{line(EACCES)});
    ASSERT_EQ(unlink(device_file.c_str()), 0);
    ASSERT_EQ(mkfifo(device_file.c_str(), 0666), 0);
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), 0) << "nobody is waited for";
}

TEST_F(StrictRefreshTest, AnySettingThatCannotBeHadHoldsTheRefreshUp)
{
    const std::string record = "[1234:00ab:A:1]\nShare Name=Photos\nPath=/srv/photos\nComment=c\n"
                               "File System=FAT\nSync=Enable\nRead Only=Enable\n"
                               "Administrator=Block\nBlock Users=500,501,\n";
    write_file(device_file, record);
    const std::string before = read_file(device_file);
    int held_up = 0;
    for (int nth = 1;; nth++) {
        write_file(share_file, "as it was");
        memory_fail(nth);
        const int result = refresh_tables(&ctx, 0);
        if (!memory_failed())
            break;
        if (result == 0) // the table itself, or what is written could not be made
            continue;
        held_up++;
        EXPECT_EQ(read_file(device_file), before) << "allocation " << nth;
        EXPECT_EQ(read_file(share_file), "as it was") << "allocation " << nth;
    }
    EXPECT_GE(held_up, 20);
    ctx.told = 0;
    // Whatever failed, no setting was ever lost.
    EXPECT_EQ(refresh_tables(&ctx, 0), 0);
    const std::string after = read_file(device_file);
    for (const char* kept :
         {"Share Name=Photos\n", "Path=/srv/photos\n", "Comment=c\n", "File System=FAT\n",
          "Sync=Enable\n", "Read Only=Enable\n", "Administrator=Block\n", "Block Users=500,501,\n"})
        EXPECT_NE(after.find(kept), std::string::npos) << kept;
}

TEST_F(StrictRefreshTest, WithoutDescriptorsNothingIsLost)
{
    write_file(device_file, named_record("1234:00ab:A:1"));
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = refresh_tables(&ctx, 0);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(read_file(device_file), named_record("1234:00ab:A:1"));
    EXPECT_EQ(errors(), Names{line(EMFILE)});
}

TEST_F(StrictRefreshTest, WhatLiesUnderTheTemporaryNamesIsSetAside)
{
    write_file("/tmp/other", "other");
    ASSERT_EQ(symlink("/tmp/other", "/tmp/vyhotplug.dir.conf.tmp"), 0);
    ASSERT_EQ(mkdir("/tmp/vyhotplug.dev.conf.tmp", 0777), 0);
    add_device(1, "A");
    EXPECT_EQ(refresh_tables(&ctx, DIRTY_ADDED), 0);
    EXPECT_EQ(read_file(device_file), default_record("1234:00ab:A:1"));
    EXPECT_EQ(read_file(share_file).substr(0, 12), "[Drive(A1)]\n");
    EXPECT_EQ(read_file("/tmp/other"), "other");
}

} // namespace
