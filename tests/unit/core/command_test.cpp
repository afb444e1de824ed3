#include "core/command.h"

#include "busy_devices.h"
#include "config/filesystems.h"
#include "device/crtsec.h"
#include "device/kinds.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

class CommandTest : public BusyDevicesTest {
  protected:
    int handle(const std::string& text, int fd = -1, uint64_t due = 0)
    {
        std::string buffer = text;
        const HotplugCmd cmd = {.fd = fd,
                                .len = static_cast<int32_t>(text.size() + 1),
                                .text = buffer.data(),
                                .reserved = 0,
                                .due = due};
        return command_handle(&ctx, &cmd);
    }

    void put_fat(const std::string& name) { fake_world().media[node_of(name)] = {"vfat"}; }

    // Makes the kernel show a partition of a disk.
    static void show_partition(const std::string& disk, const std::string& partition)
    {
        mkdir(("/sys/block/" + disk).c_str(), 0755);
        ASSERT_EQ(mkdir(("/sys/block/" + disk + "/" + partition).c_str(), 0755), 0);
    }

    // The operational lines, without the hook's.
    static Names log_lines()
    {
        Names texts;
        for (const std::string& text : fake_log_texts()) {
            if (text.compare(0, 10, "daemon(#)a") != 0 && text.compare(0, 7, "getopt(") != 0)
                texts.push_back(text);
        }
        return texts;
    }
};

// ---- which command ----

TEST_F(CommandTest, ATextThatIsNoCommandIsDropped)
{
    for (const char* text : {"", "ACTION=change,MAJOR=8,MINOR=1", "MAJOR=8", "hello"})
        EXPECT_EQ(handle(text), 0) << text;
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_TRUE(fake_log_texts().empty()); // not even its items are looked at
}

TEST_F(CommandTest, ACommandWithoutATextIsDropped)
{
    const HotplugCmd cmd = {.fd = -1, .len = 0, .text = nullptr, .reserved = 0, .due = 0};
    EXPECT_EQ(command_handle(&ctx, &cmd), 0);
}

TEST_F(CommandTest, AnUnknownActionIsNotAnswered)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    EXPECT_EQ(handle("ACTION=list,all", ends[0]), 0);
    char byte = 0;
    EXPECT_EQ(recv(ends[1], &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    for (const int end : ends)
        close(end);
}

// ---- when ----

TEST_F(CommandTest, WaitsForWhatIsLeftUntilItIsDue)
{
    const uint64_t now = fake_world().monotonic_usec;
    handle("ACTION=remove,MAJOR=8,MINOR=1", -1, now + 1999999);
    EXPECT_EQ(fake_world().calls("nanosleep"), (Names{"nanosleep 1999999"}));
}

TEST_F(CommandTest, WaitsForADroppedTextToo)
{
    handle("hello", -1, fake_world().monotonic_usec + 5);
    EXPECT_EQ(fake_world().slept_usec, 5U);
    const uint64_t due = fake_world().monotonic_usec + 5;
    const HotplugCmd cmd = {.fd = -1, .len = 0, .text = nullptr, .reserved = 0, .due = due};
    EXPECT_EQ(command_handle(&ctx, &cmd), 0);
    EXPECT_EQ(fake_world().slept_usec, 10U);
}

TEST_F(CommandTest, DoesNotWaitWhenItIsDueOrHasNoTime)
{
    const uint64_t now = fake_world().monotonic_usec;
    for (const uint64_t due : {uint64_t{0}, uint64_t{1}, now - 1, now})
        handle("ACTION=remove,MAJOR=8,MINOR=1", -1, due);
    EXPECT_EQ(fake_world().count("nanosleep"), 0);
}

TEST_F(CommandTest, ReadsNoClockWithoutATime)
{
    handle("hello");
    EXPECT_EQ(fake_world().count("clock_gettime"), 0);
}

TEST_F(CommandTest, DoesNotWaitWithoutAClock)
{
    fake_world().fail("clock_gettime", 1, EINVAL);
    handle("hello", -1, fake_world().monotonic_usec + 2000000);
    EXPECT_EQ(fake_world().count("nanosleep"), 0);
}

// ---- add ----

TEST_F(CommandTest, AnAddMountsLogsRunsTheHookAndRemembers)
{
    put_fat("sda1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1,RANGE=16,VNAME=Acme,PNAME=FlashKey,SPEED=480,"
                     "VID=1234,PID=00ab,SID=ABC,RM=1,DEVTYPE=partition"),
              DIRTY_ADDED);
    ASSERT_EQ(entries().size(), 1U);
    const MountEntry* entry = entries()[0];
    EXPECT_STREQ(entry->devnode, "/media/dev/sda1");
    EXPECT_STREQ(entry->mountpoint, "/media/mnt/sda1");
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_EQ(entry->fstype, CONF_DEV_FS_FAT);
    EXPECT_EQ(entry->gone, 0);
    EXPECT_EQ(entry->sharename, nullptr);
    const HotplugDev* dev = entry->dev;
    EXPECT_EQ(dev->major, 8);
    EXPECT_EQ(dev->minor, 1);
    EXPECT_EQ(dev->devtype, HOTPLUG_DEVTYPE_PARTITION);
    EXPECT_EQ(dev->flags, HOTPLUG_FLAG_REMOVABLE);
    EXPECT_EQ(dev->speed, 480);
    EXPECT_EQ(dev->vid, 0x1234);
    EXPECT_EQ(dev->pid, 0x00AB);
    EXPECT_STREQ(dev->vname, "Acme");
    EXPECT_STREQ(dev->pname, "FlashKey");
    EXPECT_STREQ(dev->serial, "ABC");
    EXPECT_EQ(log_lines(), (Names{"daemon(#)mount /media/dev/sda1 /media/mnt/sda1"}));
    EXPECT_EQ(hook_calls(), (Names{"mount sda1"}));
}

TEST_F(CommandTest, TheHookRunsBehindTheMountWithTheEventsCode)
{
    put_fat("sda1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1"), DIRTY_ADDED);
    const Names& journal = fake_world().journal;
    ASSERT_GE(journal.size(), 4U);
    EXPECT_EQ(journal[2].substr(0, 6), "mount ");
    EXPECT_EQ(journal[3].substr(0, 6), "spawn ");
    const Names texts = fake_log_texts();
    EXPECT_EQ(texts.back().substr(0, 27), "daemon(#)action 1 mntpath (");
    for (const FakeLogLine& line : fake_log_lines()) {
        if (line.text.compare(0, 6, "daemon") == 0) {
            EXPECT_EQ(line.priority, LOG_ERR) << line.text;
        }
    }
}

TEST_F(CommandTest, AHookThatFailsChangesNothing)
{
    put_fat("sda1");
    fake_world().programs["/tmp/vyhotplugd-evhook.sh"] = {
        {.wait_status = 7 << 8, .polls = 0, .output = ""}};
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1"), DIRTY_ADDED);
    EXPECT_EQ(entries().size(), 1U);
}

TEST_F(CommandTest, NamesAreMadeOfKindLetterAndPartition)
{
    struct Row {
        const char* items;
        const char* name;
    };
    const Row rows[] = {
        {"MAJOR=8,MINOR=0", "sda0"},
        {"MAJOR=8,MINOR=15", "sda15"},
        {"MAJOR=8,MINOR=17", "sdb1"},
        {"MAJOR=8,MINOR=415", "sdz15"},
        {"MAJOR=8,MINOR=9,RANGE=1", "sdj0"},
        {"MAJOR=8,MINOR=255,RANGE=255", "sdb0"},
        {"MAJOR=179,MINOR=9,RANGE=8", "mmcblkb1"},
        {"MAJOR=179,MINOR=1", "mmcblka1"},
        {"MAJOR=179,MINOR=207,RANGE=8", "mmcblkz7"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.items);
        put_fat(row.name);
        EXPECT_EQ(handle(std::string("ACTION=add,") + row.items), DIRTY_ADDED);
        EXPECT_EQ(entries().back()->devnode, node_of(row.name));
        EXPECT_EQ(entries().back()->mountpoint, directory_of(row.name));
    }
}

TEST_F(CommandTest, AMountThatFailsLeavesNothing)
{
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1,VNAME=Acme"), -1);
    EXPECT_TRUE(entries().empty());
    EXPECT_EQ(log_lines(), Names{});
    EXPECT_EQ(hook_calls(), Names{});
    EXPECT_FALSE(exists(node_of("sda1")));
}

// Memory runs out at each allocation in turn; the last one is the busy-device set's.
TEST_F(CommandTest, AMountThatCannotBeRememberedStaysMounted)
{
    int result = 0;
    size_t mounts = 0;
    Names hooks;
    for (int nth = 1; nth < 100; nth++) {
        fake_world_reset();
        put_fat("sda1");
        const long before = memory_blocks();
        memory_fail(nth);
        const int handled = handle("ACTION=add,MAJOR=8,MINOR=1");
        if (!memory_failed())
            break;
        result = handled;
        mounts = fake_world().mounts.count(directory_of("sda1"));
        hooks = hook_calls();
        EXPECT_EQ(memory_blocks(), before) << nth;
        EXPECT_TRUE(entries().empty()) << nth;
    }
    EXPECT_EQ(entries().size(), 1U); // once there was memory for all
    EXPECT_EQ(result, -1);
    EXPECT_EQ(mounts, 1U);
    EXPECT_EQ(hooks, (Names{"mount sda1"}));
}

TEST_F(CommandTest, TheSameDeviceMayBeAddedTwice)
{
    put_fat("sda1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1"), DIRTY_ADDED);
    fake_world().mounts.clear(); // pulled out unnoticed
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1"), DIRTY_ADDED);
    EXPECT_EQ(entries().size(), 2U);
}

TEST_F(CommandTest, A27thDiskIsOutOfRange)
{
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=416,RANGE=16"), -1);
    EXPECT_EQ(log_lines(), (Names{"daemon(#)Out of Device Range(26)"}));
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_TRUE(entries().empty());
}

TEST_F(CommandTest, TheDisksNumberIsLoggedWhereItIsOutOfRange)
{
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1601,RANGE=16"), -1);
    EXPECT_EQ(handle("ACTION=add,MAJOR=179,MINOR=209,RANGE=8"), -1);
    EXPECT_EQ(handle("ACTION=add,MAJOR=7,MINOR=417,RANGE=16"), -1); // before the major is looked at
    EXPECT_EQ(log_lines(),
              (Names{"daemon(#)Out of Device Range(100)", "daemon(#)Out of Device Range(26)",
                     "daemon(#)Out of Device Range(26)"}));
}

TEST_F(CommandTest, AMinorBelowZeroIsOutOfRange)
{
    for (const char* minor : {"-1", "-15", "-16", "-17", "-2147483648"}) {
        fake_log_clear();
        EXPECT_EQ(handle(std::string("ACTION=add,MAJOR=8,MINOR=") + minor), -1) << minor;
        EXPECT_EQ(log_lines(), (Names{"daemon(#)Out of Device Range(-1)"})) << minor;
    }
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_TRUE(entries().empty());
}

TEST_F(CommandTest, AnotherMajorFailsSilently)
{
    for (const char* items : {"MAJOR=7,MINOR=1", "MAJOR=0,MINOR=1", "MAJOR=65,MINOR=1", "MINOR=1"})
        EXPECT_EQ(handle(std::string("ACTION=add,") + items), -1) << items;
    EXPECT_EQ(log_lines(), Names{});
    EXPECT_TRUE(fake_world().journal.empty());
}

// ---- whole disks ----

TEST_F(CommandTest, AWholeDiskWithPartitionsIsPassedOver)
{
    put_fat("sda0");
    show_partition("sda", "sda1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=0,RANGE=16"), -1);
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_TRUE(entries().empty());
}

TEST_F(CommandTest, AWholeDiskWithoutPartitionsIsMounted)
{
    put_fat("sda0");
    ASSERT_EQ(mkdir("/sys/block/sda", 0755), 0);
    show_partition("sdb", "sdb1"); // another disk's
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=0,RANGE=16"), DIRTY_ADDED);
    EXPECT_STREQ(entries()[0]->devnode, "/media/dev/sda0");
}

TEST_F(CommandTest, PartitionsAreLookedForUpToOneBelowTheRange)
{
    put_fat("sda0");
    show_partition("sda", "sda16");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=0,RANGE=16"), DIRTY_ADDED);
    show_partition("sdb", "sdb15");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=16,RANGE=16"), -1);
    EXPECT_EQ(fake_world().count("mount"), 1);
}

TEST_F(CommandTest, TheDisksOwnLetterIsLookedFor)
{
    show_partition("sdc", "sdc2");
    put_fat("sdc0");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=32,RANGE=16"), -1);
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST_F(CommandTest, ADeviceOfASingleMinorIsNotLookedInto)
{
    put_fat("sda0");
    show_partition("sda", "sda1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=0,RANGE=1"), DIRTY_ADDED);
}

TEST_F(CommandTest, ADeviceOfTwoMinorsIsLookedInto)
{
    put_fat("sda0");
    show_partition("sda", "sda1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=0,RANGE=2"), -1);
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST_F(CommandTest, APartitionIsNotLookedInto)
{
    put_fat("sda1");
    show_partition("sda", "sda1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1"), DIRTY_ADDED);
}

// Kept: a card's own partitions are never looked for ...
TEST_F(CommandTest, AWholeCardIsMountedWhateverItsPartitions)
{
    put_fat("mmcblka0");
    show_partition("mmcblk0", "mmcblk0p1");
    show_partition("mmcblka", "mmcblka1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=179,MINOR=0,RANGE=8"), DIRTY_ADDED);
}

// ... but a disk of the same letter hides it.
TEST_F(CommandTest, AWholeCardIsPassedOverForADisksPartitions)
{
    put_fat("mmcblka0");
    show_partition("sda", "sda1");
    EXPECT_EQ(handle("ACTION=add,MAJOR=179,MINOR=0,RANGE=8"), -1);
    EXPECT_TRUE(fake_world().journal.empty());
}

// ---- long paths ----

class LongPathTest : public CommandTest {
  protected:
    // A directory so long that "<directory>/sda1" has this length. Its parts are not made.
    static std::string directory_for(size_t length)
    {
        std::string directory(length - strlen("/sda1"), 'x');
        directory[0] = '/';
        return directory;
    }

    // The node that an add asks for; "" for none.
    std::string node_asked_for(size_t length)
    {
        std::string directory = directory_for(length);
        config.devicepath = directory.data();
        fake_world().journal.clear();
        EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1"), -1);
        const Names calls = fake_world().calls("mknod ");
        if (calls.empty())
            return "";
        const size_t start = strlen("mknod ");
        return calls[0].substr(start, calls[0].find(' ', start) - start);
    }
};

TEST_F(LongPathTest, APathOf255CharactersIsWhole)
{
    EXPECT_EQ(node_asked_for(255), directory_for(255) + "/sda1");
}

// Kept: one more than fits is accepted, cut.
TEST_F(LongPathTest, APathOf256CharactersLosesItsLast)
{
    EXPECT_EQ(node_asked_for(256), directory_for(256) + "/sda");
}

TEST_F(LongPathTest, APathOf257CharactersIsRefused)
{
    EXPECT_EQ(node_asked_for(257), "");
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_EQ(log_lines(), Names{});
}

TEST_F(LongPathTest, AMountPathOf257CharactersIsRefused)
{
    std::string directory = directory_for(257);
    config.mountpath = directory.data();
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1"), -1);
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST_F(LongPathTest, AMountPathOf256CharactersIsCut)
{
    std::string directory = directory_for(256);
    config.mountpath = directory.data();
    EXPECT_EQ(handle("ACTION=add,MAJOR=8,MINOR=1"), -1); // its parts are not there
    EXPECT_EQ(fake_world().calls("mkdir"), (Names{"mkdir " + directory + "/sda 700"}));
}

// ---- remove ----

TEST_F(CommandTest, ARemoveRunsTheHookFlagsTheShareAndUnmounts)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    entry->sharename = strdup("Drive(A1)");
    write_file(config.smbconfigpath, "[Drive(A1)]\n");
    write_file("/var/run/vynas-fssd.pid", "77\n");
    fake_world().programs["/tmp/vyhotplugd-evhook.sh"] = {
        {.wait_status = 0, .polls = 1, .output = ""}};
    std::string during_the_hook;
    fake_world().on_sleep = [&](uint64_t) { during_the_hook = read_file(config.smbconfigpath); };
    EXPECT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), DIRTY_REMOVED);
    EXPECT_EQ(entry->mounted, 0);
    EXPECT_EQ(entry->gone, 1);
    EXPECT_EQ(hook_calls(), (Names{"unmount sda1"}));
    EXPECT_EQ(during_the_hook, "[Drive(A1)]\n");
    EXPECT_EQ(read_file(config.smbconfigpath), "[Drive(A1)]\n[Drive(A1)]\n");
    EXPECT_EQ(log_lines(), (Names{"daemon(#)unmount /media/dev/sda1 /media/mnt/sda1"}));
    EXPECT_EQ(fake_log_lines().back().priority, LOG_ERR);
    EXPECT_TRUE(fake_world().signals.empty());               // the refresh tells the service
    EXPECT_EQ(entries(), (std::vector<MountEntry*>{entry})); // until the refresh
}

TEST_F(CommandTest, TheHookOfARemoveHasItsOwnCode)
{
    add(MAJOR_SD, 1);
    EXPECT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), DIRTY_REMOVED);
    const Names texts = fake_log_texts();
    const auto at = texts.size() - 2;
    EXPECT_EQ(texts[at].substr(0, 27), "daemon(#)action 2 mntpath (");
}

TEST_F(CommandTest, ARemoveUnmountsByForce)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    fake_world().busy[directory_of("sda1")] = EBUSY;
    EXPECT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), DIRTY_REMOVED);
    EXPECT_EQ(entry->mounted, 0);
    EXPECT_EQ(fake_world().count("umount2"), 1);
}

TEST_F(CommandTest, ARemoveThatCannotUnmountIsLoggedAndGoneAllTheSame)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    fake_world().busy[directory_of("sda1")] = EBUSY;
    fake_world().fail("umount2", 0, EBUSY);
    EXPECT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), -1);
    EXPECT_EQ(entry->gone, 1);
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_EQ(log_lines(), (Names{"daemon(#)faild unmount /media/dev/sda1 /media/mnt/sda1"}));
    EXPECT_EQ(fake_log_lines().back().priority, LOG_ERR);
}

TEST_F(CommandTest, ARemoveOfWhatIsNotMountedOnlyMarksIt)
{
    MountEntry* entry = add(MAJOR_SD, 1, 16, false);
    entry->sharename = strdup("Drive(A1)");
    write_file(config.smbconfigpath, "");
    EXPECT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), DIRTY_REMOVED);
    EXPECT_EQ(entry->gone, 1);
    EXPECT_EQ(log_lines(), (Names{"daemon(#)remove mount point /media/dev/sda1 /media/mnt/sda1"}));
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_EQ(read_file(config.smbconfigpath), "");
}

TEST_F(CommandTest, ARemoveOfWhatIsNotKnownChangesNothing)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    for (const char* items : {"MAJOR=8,MINOR=2", "MAJOR=179,MINOR=1", "MAJOR=8", "MINOR=1"})
        EXPECT_EQ(handle(std::string("ACTION=remove,") + items), -1) << items;
    EXPECT_EQ(entry->gone, 0);
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_EQ(log_lines(), Names{});
}

TEST_F(CommandTest, ARemoveTakesTheFirstEntryOfItsDevice)
{
    MountEntry* first = add(MAJOR_SD, 1, 16, false);
    MountEntry* second = add(MAJOR_SD, 1, 16, false);
    EXPECT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), DIRTY_REMOVED);
    EXPECT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), DIRTY_REMOVED);
    EXPECT_EQ(first->gone, 1);
    EXPECT_EQ(second->gone, 0); // the first one is found again
}

// ---- what an earlier daemon left mounted ----

class AdoptionTest : public CommandTest {
  protected:
    AdoptionTest()
    {
        config.adopt = 1;
        mkdir(directory_of("sda1").c_str(), 0755);
        write_file("/tmp/mounts", "/media/dev/sda1 /media/mnt/sda1 fuseblk rw 0 0\n");
        // What the kernel tells of is real; only mounting is pretended.
        EXPECT_EQ(::mount("/tmp/mounts", "/proc/self/mounts", nullptr, MS_BIND, nullptr), 0);
    }

    ~AdoptionTest() override { EXPECT_EQ(umount("/proc/self/mounts"), 0); }

    const std::string message = "ACTION=add,MAJOR=8,MINOR=1,RANGE=16";
    const Names adopted = {"daemon(#)adopt /media/dev/sda1 /media/mnt/sda1"};
};

TEST_F(AdoptionTest, IsTakenOverWithoutAMountAndWithoutTheHook)
{
    EXPECT_EQ(handle(message), DIRTY_ADDED);
    EXPECT_EQ(fake_log_texts().back(), adopted.back());
    ASSERT_EQ(entries().size(), 1U);
    EXPECT_EQ(entries()[0]->mounted, 1);
    EXPECT_EQ(entries()[0]->fstype, CONF_DEV_FS_NTFS);
    EXPECT_EQ(fake_world().count("mount"), 0);
    EXPECT_EQ(hook_calls(), Names{});
}

TEST_F(AdoptionTest, IsNotWithoutTheKey)
{
    config.adopt = 0;
    EXPECT_EQ(handle(message), -1);
    EXPECT_TRUE(entries().empty());
}

TEST_F(AdoptionTest, IsTakenOverOnce)
{
    EXPECT_EQ(handle(message), DIRTY_ADDED);
    EXPECT_EQ(handle(message), -1);
    EXPECT_EQ(entries().size(), 1U);
}

// It would not come off for its remove message, and the entry goes with the next refresh: the
// mount is what the pulled stick left, and not the new one's.
TEST_F(AdoptionTest, IsNotWhileTheEntryOfAPulledDeviceHoldsIt)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    fake_world().fail("umount", 0, EBUSY);
    fake_world().fail("umount2", 0, EBUSY);
    EXPECT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), -1);
    EXPECT_EQ(entry->gone, 1);
    fake_world().media.clear();
    EXPECT_EQ(handle(message), -1);
    EXPECT_EQ(entries(), std::vector<MountEntry*>{entry});
    crtsec_blk_del(entry); // as that refresh does
    mount_entry_free(entry);
    EXPECT_EQ(handle(message), DIRTY_ADDED);
    EXPECT_EQ(fake_log_texts().back(), adopted.back());
}

// ---- requests ----

class RequestCommandTest : public CommandTest {
  protected:
    RequestCommandTest() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
    ~RequestCommandTest() override
    {
        close(ends[0]);
        close(ends[1]);
    }

    // Handles a request and gives its answer, every byte of it.
    std::string answer_to(const std::string& text)
    {
        EXPECT_EQ(handle(text, ends[0]), -1);
        char buffer[64];
        const ssize_t length = recv(ends[1], buffer, sizeof buffer, MSG_DONTWAIT);
        return length < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(length));
    }

    const std::string success = std::string("success", 8);
    const std::string faild = std::string("faild", 6);
    int ends[2];
};

TEST_F(RequestCommandTest, AMountIsAnswered)
{
    MountEntry* entry = add(MAJOR_SD, 1, 16, false);
    EXPECT_EQ(answer_to("ACTION=mount,sda1"), success);
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_EQ(answer_to("ACTION=mount,usb"), faild);
}

TEST_F(RequestCommandTest, AnUnmountIsAnswered)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    EXPECT_EQ(answer_to("ACTION=unmount,sda1"), success);
    EXPECT_EQ(entry->mounted, 0);
    EXPECT_EQ(entry->gone, 0);
    EXPECT_EQ(answer_to("ACTION=unmount,usb"), faild);
}

TEST_F(RequestCommandTest, ForceReachesTheUnmount)
{
    add(MAJOR_SD, 1);
    fake_world().busy[directory_of("sda1")] = EBUSY;
    EXPECT_EQ(answer_to("ACTION=unmount,sda1"), faild);
    EXPECT_EQ(answer_to("ACTION=unmount,sda1,force"), success);
}

TEST_F(RequestCommandTest, WithoutATargetItIsRefused)
{
    EXPECT_EQ(answer_to("ACTION=mount"), faild);
    EXPECT_EQ(answer_to("ACTION=unmount,force"), faild);
}

TEST_F(RequestCommandTest, AllOfNothingIsServed)
{
    EXPECT_EQ(answer_to("ACTION=mount,all"), success);
}

TEST_F(RequestCommandTest, TheAnswerWaitsNoLongerThan1500Milliseconds)
{
    EXPECT_EQ(answer_to("ACTION=mount,all"), success);
    EXPECT_EQ(fake_world().calls("select"),
              (Names{"select " + std::to_string(ends[0]) + " 1 1500000"}));
}

TEST_F(RequestCommandTest, TheConnectionStaysOpen)
{
    EXPECT_EQ(answer_to("ACTION=mount,all"), success);
    EXPECT_NE(fcntl(ends[0], F_GETFD), -1);
}

TEST_F(RequestCommandTest, AClientThatHasGoneIsNotMissed)
{
    close(ends[1]);
    EXPECT_EQ(handle("ACTION=mount,all", ends[0]), -1); // SIGPIPE would end the test
    ends[1] = dup(ends[0]);
}

TEST_F(CommandTest, ARequestWithoutAConnectionIsCarriedOutAllTheSame)
{
    MountEntry* entry = add(MAJOR_SD, 1, 16, false);
    EXPECT_EQ(handle("ACTION=mount,sda1"), -1);
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_EQ(fake_world().count("select"), 0);
}

} // namespace
