#include "core/daemon.h"

#include "device/crtsec.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "fake_start.h"
#include "lib/guard.h"
#include "lib/process.h"
#include "lib/socket_unix.h"
#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <functional>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

constexpr uint64_t idle_pause = 1200000;
const char config_file[] = "/tmp/daemon.conf";
const char device_file[] = "/tmp/hotplug.dev.conf";
const char share_file[] = "/tmp/vynas.dir.conf";
const char hook[] = "/tmp/vyhotplugd-evhook.sh";
const char plain_config[] = "mountpath=/media/mnt\ndevicepath=/media/dev\nds/naswork=disable\n"
                            "fatvolumelabel=disable\n";

// Runs the daemon's loop in this thread. What the test does happens in the loop's idle pauses, one
// step in each; in the pause behind the last step the daemon is told to end.
class DaemonTest : public testing::Test {
  protected:
    DaemonTest()
    {
        for (const char* directory : {"/media/mnt", "/media/dev"})
            EXPECT_EQ(mkdir(directory, 0755), 0);
        write_file(config_file, plain_config);
        write_file("/var/run/vynas-fssd.pid", "4321\n");
        strcpy(ctx.confpath, config_file);
        ctx.running = 1;
        ctx.lockfd = -1;
        memory_watch(true);
    }

    // The option texts of the configuration live on.
    ~DaemonTest() override
    {
        EXPECT_LE(memory_kept(), 3U);
        memory_free_kept();
    }

    int run(std::vector<std::function<void()>> wanted = {})
    {
        steps = std::move(wanted);
        fake_world().on_sleep = [this](uint64_t usec) {
            if (usec == idle_pause)
                idle();
            else if (other_sleep)
                other_sleep(usec);
        };
        return daemon_run(&ctx);
    }

    void idle()
    {
        pauses++;
        if (next_step < steps.size())
            steps[next_step++]();
        else {
            flag_set(&ctx.running, 0);
            fake_world_lose_patience();
        }
    }

    // Sends a message and waits until it is queued. Returns the connection.
    int send_message(const std::string& text)
    {
        EXPECT_TRUE(wait_for([] { return fake_world().count("select") > 0; })); // it listens
        const int fd = unix_create_socket("vyhotplugd");
        EXPECT_EQ(send(fd, text.c_str(), text.size() + 1, MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size() + 1));
        sent++;
        EXPECT_TRUE(wait_for([&] { return is_queued(); }));
        return fd;
    }

    void send_event(const std::string& text) { close(send_message(text)); }

    // Whether the receive thread has read all that was sent and waits for connections again.
    bool is_queued() const
    {
        int reads = 0;
        bool waits = false;
        for (const std::string& call : fake_world().calls("select")) {
            waits = call.find(" 0 1000000") != std::string::npos;
            reads += call.find(" 0 2000000") != std::string::npos ? 1 : 0;
        }
        return waits && reads == sent;
    }

    static std::string answer_on(int fd)
    {
        const FdGuard connection(fd);
        char buffer[64];
        const ssize_t length = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        return length < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(length));
    }

    static int refreshes() { return fake_world().count("kill"); }

    // The journal without what tells nothing of the order of events.
    static Names events()
    {
        Names found;
        for (const std::string& call : fake_world().calls("")) {
            const std::string name = call.substr(0, call.find(' '));
            if (name == "mount" || name == "umount" || name == "kill")
                found.push_back(name);
            else if (name == "spawn")
                found.push_back("hook");
            else if (call == "nanosleep 1200000")
                found.push_back("pause");
            else if (name == "nanosleep")
                found.push_back(call);
        }
        return found;
    }

    static Names log_lines()
    {
        Names texts;
        for (const std::string& text : fake_log_texts()) {
            if (text.compare(0, 7, "daemon(") == 0)
                texts.push_back(text.substr(strlen("daemon(#)")));
        }
        return texts;
    }

    static void put_fat(const std::string& name)
    {
        fake_world().media["/media/dev/" + name] = {"vfat"};
    }

    DaemonCtx ctx = {};
    int pauses = 0;
    std::function<void(uint64_t usec)> other_sleep; // called at each that is no idle pause

  private:
    std::vector<std::function<void()>> steps;
    size_t next_step = 0;
    int sent = 0;
};

// ---- start and end ----

TEST_F(DaemonTest, ReportsItsConfiguration)
{
    write_file(config_file, "smbtype=samba\nds/naswork=disable\nsmbconfigpath=/tmp/shares\n"
                            "deviceconfigpath=/tmp/devices\nmountpath=/media/mnt\n"
                            "devicepath=/media/dev\ndefaultuid=1000\ndefaultgid=500\n"
                            "defaultfilepermission=0640\ndefaultdirectorypermission=0750\n"
                            "mountfs=vfat,ext4\nvfatoptions=noatime\nntfsoptions=big_writes\n"
                            "extfsoptions=sync\nfatvolumelabel=disable\n");
    EXPECT_EQ(run(), 0);
    const Names expected = {
        "Load Config File(/tmp/daemon.conf)",
        "Type     = 2",
        "DS/NAS   = 0",
        "SMB Conf = /tmp/shares",
        "Dev Conf = /tmp/devices",
        "MNT Path = /media/mnt",
        "DEV Path = /media/dev",
        "UID      = 1000",
        "GID      = 500",
        "fmask    = 0640",
        "dmask    = 0750",
        "Mount FS = VFAT,EXT",
        "VFAT opt = noatime",
        "NTFS opt = big_writes",
        "EXT opt  = sync",
        "FAT Label= disable",
    };
    EXPECT_EQ(log_lines(), expected);
}

TEST_F(DaemonTest, ReportsDefaultsWithEmptyTextsForAbsentOptions)
{
    write_file(config_file, "mountpath=/media/mnt\ndevicepath=/media/dev\n");
    EXPECT_EQ(run(), 0);
    const Names expected = {
        "Load Config File(/tmp/daemon.conf)",
        "Type     = 1",
        "DS/NAS   = 1",
        "SMB Conf = /tmp/vynas.dir.conf",
        "Dev Conf = /tmp/hotplug.dev.conf",
        "MNT Path = /media/mnt",
        "DEV Path = /media/dev",
        "UID      = 0",
        "GID      = 0",
        "fmask    = 0664",
        "dmask    = 0775",
        "Mount FS = VFAT,NTFS,EXT",
        "VFAT opt = utf8",
        "NTFS opt = ",
        "EXT opt  = ",
        "FAT Label= enable",
    };
    EXPECT_EQ(log_lines(), expected);
}

TEST_F(DaemonTest, ReportsNoFilesystemWhereNoneIsMounted)
{
    write_file(config_file, std::string(plain_config) + "mountfs=none\n");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(log_lines()[11], "Mount FS = ");
}

TEST_F(DaemonTest, ReportsAtItsOwnPriorities)
{
    EXPECT_EQ(run(), 0);
    const std::vector<FakeLogLine> lines = fake_log_lines();
    ASSERT_GE(lines.size(), 16U);
    EXPECT_EQ(lines[0].priority, LOG_NOTICE);
    for (size_t at = 1; at < 16; at++)
        EXPECT_EQ(lines[at].priority, LOG_INFO) << lines[at].text;
}

TEST_F(DaemonTest, TellsTwiceOfAMissingMountDirectory)
{
    ASSERT_EQ(rmdir("/media/mnt"), 0);
    EXPECT_EQ(run(), 0);
    const Names lines = log_lines();
    ASSERT_EQ(lines.size(), 18U);
    EXPECT_EQ(lines[16], "Error - No Such Directory(/media/mnt)");
    EXPECT_EQ(lines[17], "Error - No Such Directory(/media/dev)"); // kept: looked at once more
    EXPECT_EQ(pauses, 1);                                          // it runs all the same
}

TEST_F(DaemonTest, TellsTwiceOfAMountPathThatIsNoDirectory)
{
    ASSERT_EQ(rmdir("/media/mnt"), 0);
    write_file("/media/mnt", "");
    EXPECT_EQ(run(), 0);
    const Names lines = log_lines();
    ASSERT_EQ(lines.size(), 18U);
    EXPECT_EQ(lines[16], "Error - Not Directory(/media/mnt)");
    EXPECT_EQ(lines[17], "Error - Not Directory(/media/dev)");
}

// Kept: only the mount path is ever looked at.
TEST_F(DaemonTest, TellsNothingOfAMissingDeviceDirectory)
{
    ASSERT_EQ(rmdir("/media/dev"), 0);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(log_lines().size(), 16U);
}

TEST_F(DaemonTest, RunsWithDefaultsWithoutAConfigurationFile)
{
    strcpy(ctx.confpath, "/tmp/missing.conf");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(log_lines()[0], "Load Config File(/tmp/missing.conf)");
    EXPECT_EQ(fake_log_texts()[1], "config_file(#)No Such File(/tmp/missing.conf)");
}

// The two lists come first, then the configuration.
TEST_F(DaemonTest, FailsWithoutMemoryForItsListsOrItsConfiguration)
{
    const Names logs[] = {{}, {}, {"Load Config File(/tmp/daemon.conf)"}};
    for (int nth = 1; nth <= 3; nth++) {
        SCOPED_TRACE(nth);
        fake_log_clear();
        ctx.running = 1;
        const long before = memory_blocks();
        memory_fail(nth);
        EXPECT_EQ(run(), -1);
        EXPECT_TRUE(memory_failed());
        EXPECT_EQ(memory_blocks(), before);
        EXPECT_EQ(pauses, 0);
        EXPECT_EQ(ctx.running, 0);
        EXPECT_EQ(ctx.config, nullptr);
        EXPECT_EQ(log_lines(), logs[nth - 1]);
        EXPECT_EQ(fake_log_lines().size(), logs[nth - 1].size()); // nor a word of the thread
    }
}

TEST_F(DaemonTest, FailsWhenTheReceiveThreadCannotBeMade)
{
    fake_start().pthread_create_error = EAGAIN;
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(pauses, 0);
    EXPECT_EQ(ctx.running, 0);
    EXPECT_EQ(ctx.config, nullptr);
}

TEST_F(DaemonTest, EndsWhenItCannotListen)
{
    const FdGuard taken(unix_create_listen_socket("vyhotplugd"));
    ASSERT_GE(taken.get(), 0);
    std::vector<std::function<void()>> waiting(
        1, [this] { EXPECT_TRUE(wait_for([this] { return flag_get(&ctx.running) == 0; })); });
    EXPECT_EQ(run(waiting), 0);
    EXPECT_LE(pauses, 1); // none where the thread was faster
}

TEST_F(DaemonTest, EndsWhenItCannotWaitForConnections)
{
    fake_world().fail("select", 1, ENOMEM);
    std::vector<std::function<void()>> waiting(
        1, [this] { EXPECT_TRUE(wait_for([this] { return flag_get(&ctx.running) == 0; })); });
    EXPECT_EQ(run(waiting), 0);
    EXPECT_LE(pauses, 1); // none where the thread was faster
    EXPECT_EQ(fake_world().count("select"), 1);
    const Names lines = fake_log_texts();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "recieve(#)exit recieve loop"), 1);
}

TEST_F(DaemonTest, LeavesNothingBehind)
{
    const int before = open_descriptors();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(ctx.config, nullptr);
    EXPECT_EQ(ctx.running, 0);
    EXPECT_EQ(unix_create_socket("vyhotplugd"), -1);
    const Names lines = fake_log_texts();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "recieve(#)exit recieve loop"), 1);
}

TEST_F(DaemonTest, DoesNotRunAtAllWhenItWasStoppedBefore)
{
    ctx.running = 0;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(pauses, 0);
}

TEST_F(DaemonTest, MountsStayAtTheEnd)
{
    put_fat("sda1");
    EXPECT_EQ(run({[this] { send_event("ACTION=add,MAJOR=8,MINOR=1"); }, [] {}}), 0);
    EXPECT_EQ(fake_world().mounts.count("/media/mnt/sda1"), 1U);
    EXPECT_EQ(fake_world().count("umount"), 0);
}

TEST_F(DaemonTest, AQueuedRequestSeesItsConnectionCloseAtTheEnd)
{
    int fd = -1;
    // Queued in the last pause: the loop handles one more command before it looks at the flag.
    EXPECT_EQ(run({[&] {
                  send_event("hello");
                  fd = send_message("ACTION=mount,all");
                  flag_set(&ctx.running, 0);
              }}),
              0);
    EXPECT_EQ(answer_on(fd), ""); // the end of the stream, no answer
}

// ---- refreshes ----

TEST_F(DaemonTest, TheFirstRefreshComesBehindTheFirstPause)
{
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(events(), (Names{"pause", "kill"}));
}

TEST_F(DaemonTest, TheFirstRefreshDropsRecordsThatNobodyNamed)
{
    write_file(device_file, "[1:1:1:1]\nShare Name=\n[2:2:2:2]\nShare Name=Photos\n");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(read_file(device_file).substr(0, 30), "[2:2:2:2]\nShare Name=Photos\nCo");
}

TEST_F(DaemonTest, AnIdleDaemonDoesNotRefresh)
{
    EXPECT_EQ(run({[] {}, [] {}, [] {}, [] {}}), 0);
    EXPECT_EQ(pauses, 5);
    EXPECT_EQ(refreshes(), 1);
}

TEST_F(DaemonTest, AskedToItRefreshesOnceAndLoadsNoConfiguration)
{
    EXPECT_EQ(run({[] {}, [this] { flag_set(&ctx.refresh, 1); }, [] {}, [] {}}), 0);
    EXPECT_EQ(refreshes(), 2);
    EXPECT_EQ(ctx.refresh, 0);
    int loads = 0;
    for (const std::string& line : log_lines())
        loads += line.compare(0, 4, "Load") == 0 ? 1 : 0;
    EXPECT_EQ(loads, 1);
}

TEST_F(DaemonTest, ARefreshThatIsDueAndAskedForIsMadeOnce)
{
    EXPECT_EQ(run({[this] { flag_set(&ctx.refresh, 1); }, [] {}, [] {}}), 0);
    EXPECT_EQ(refreshes(), 1);
}

// ---- strict ----

TEST_F(DaemonTest, AStrictConfigurationThatIsNotRootsAloneEndsTheStart)
{
    write_file(config_file, std::string(plain_config) + "strict=enable\n");
    EXPECT_EQ(run(), 0);
    ctx.running = 1;
    ASSERT_EQ(chmod(config_file, 0666), 0);
    fake_log_clear();
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(log_lines(), (Names{"Load Config File(/tmp/daemon.conf)",
                                  "Error - /tmp/daemon.conf is not root's alone (err=" +
                                      std::to_string(EPERM) + ")"}));
    write_file(config_file, std::string(plain_config) + "strict=disable\n");
    ctx.running = 1;
    EXPECT_EQ(run(), 0) << "who does not ask for it is not asked";
}

TEST_F(DaemonTest, WhatGoesBeyondTheUsualIsReportedWhenItIsOn)
{
    write_file(config_file,
               std::string(plain_config) + "strict=enable\nadopt=1\nmountflags=nosuid,nodev\n");
    EXPECT_EQ(run(), 0);
    const Names lines = log_lines();
    for (const char* line :
         {"Strict   = enable", "Adopt    = enable", "MNT Flag = nosuid", "MNT Flag = nodev"})
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;
}

// It is tried again behind each pause until it goes well, and is made once.
TEST_F(DaemonTest, AStrictRefreshThatCouldNotBeMadeIsMadeUpFor)
{
    write_file(config_file, std::string(plain_config) + "strict=enable\n");
    write_file(device_file, "");
    ASSERT_EQ(chmod(device_file, 0666), 0);
    put_fat("sda1");
    EXPECT_EQ(run({[] {}, [] {}, [this] { send_event("ACTION=add,MAJOR=8,MINOR=1,SID=A"); }, [] {},
                   [] { EXPECT_EQ(refreshes(), 0); },
                   [] { EXPECT_EQ(chmod(device_file, 0600), 0); }, [] {}, [] {}}),
              0);
    EXPECT_EQ(refreshes(), 1);
    EXPECT_NE(read_file(device_file).find("[0000:0000:A:1]"), std::string::npos)
        << "what was added meanwhile is not forgotten";
    unlink(device_file);
}

// The files may have been read before what was changed by hand.
TEST_F(DaemonTest, ARefreshThatIsAskedForDuringAnotherIsMadeBehindIt)
{
    int left = 1;
    fake_world().on_sync = [&] { // in the refresh that was asked for
        if (fake_world().count("kill") == 1 && left-- > 0)
            flag_set(&ctx.refresh, 1);
    };
    EXPECT_EQ(run({[] {}, [this] { flag_set(&ctx.refresh, 1); }, [] {}, [] {}}), 0);
    EXPECT_EQ(refreshes(), 3);
    EXPECT_EQ(ctx.refresh, 0);
}

// Asked for inside a burst, it waits for the burst's end.
TEST_F(DaemonTest, ARefreshThatIsAskedForWaitsForTheNextPause)
{
    put_fat("sda1");
    put_fat("sdb1");
    other_sleep = [this](uint64_t usec) {
        if (usec == 2000000) // until the first one is due
            flag_set(&ctx.refresh, 1);
    };
    EXPECT_EQ(run({[] {},
                   [this] {
                       send_event("ACTION=add,MAJOR=8,MINOR=1");
                       send_event("ACTION=add,MAJOR=8,MINOR=17");
                   },
                   [] {}, [] {}}),
              0);
    EXPECT_EQ(events(), (Names{"pause", "kill", "pause", "nanosleep 2000000", "mount", "hook",
                               "mount", "hook", "pause", "kill", "pause", "pause"}));
    EXPECT_EQ(ctx.refresh, 0);
}

TEST_F(DaemonTest, ARefreshWithoutMemoryIsNotMadeUpFor)
{
    const std::string record = "[1:1:1:1]\nShare Name=\n";
    write_file(device_file, record);
    std::string behind_it;
    EXPECT_EQ(run({[] { memory_fail(1); }, // the device table's
                   [&] {
                       EXPECT_TRUE(memory_failed());
                       behind_it = read_file(device_file);
                   },
                   [] {}, [this] { flag_set(&ctx.refresh, 1); }, [] {}}),
              0);
    EXPECT_EQ(behind_it, record);
    EXPECT_EQ(refreshes(), 1); // the one that was asked for
    // What was marked went with the first: the record that nobody named is still there.
    EXPECT_EQ(read_file(device_file).substr(0, 10), "[1:1:1:1]\n");
}

TEST_F(DaemonTest, EveryHandledCommandBringsARefresh)
{
    EXPECT_EQ(run({[] {}, [this] { send_event("hello"); }, [] {}, [] {}, [] {}}), 0);
    // The pause in which it came, one more behind which it is due, and no other.
    EXPECT_EQ(events(),
              (Names{"pause", "kill", "pause", "pause", "kill", "pause", "pause", "pause"}));
}

TEST_F(DaemonTest, ARequestDoesNotMarkTheTables)
{
    EXPECT_EQ(run({[] {},
                   [this] {
                       // Written behind the first refresh: only one that is marked drops it.
                       write_file(device_file, "[1:1:1:1]\nShare Name=\n");
                       close(send_message("ACTION=unmount,all"));
                   },
                   [] {}}),
              0);
    EXPECT_EQ(refreshes(), 2);
    EXPECT_EQ(read_file(device_file).substr(0, 10), "[1:1:1:1]\n");
}

// ---- events ----

TEST_F(DaemonTest, AnAddIsMountedWhenDueAndSharedBehindAPause)
{
    put_fat("sda1");
    EXPECT_EQ(
        run({[] {}, [this] { send_event("ACTION=add,MAJOR=8,MINOR=1,VID=1234,PID=ab,SID=X"); },
             [] {}}),
        0);
    // It came while the loop paused, whose end the clock had reached: two seconds are left.
    EXPECT_EQ(events(), (Names{"pause", "kill", "pause", "nanosleep 2000000", "mount", "hook",
                               "pause", "kill", "pause"}));
    EXPECT_EQ(read_file(share_file), "[Drive(A1)]\nIdentifier=1234:00ab:X:1\nPath=/media/mnt/sda1\n"
                                     "Comment=USB Storage Device (0x1234/0x00AB)\n");
    EXPECT_EQ(read_file(device_file).substr(0, 17), "[1234:00ab:X:1]\nS");
    EXPECT_EQ(read_table(), "/media/dev/sda1 /media/mnt/sda1 vfat rw 0 0\n");
}

TEST_F(DaemonTest, TwoAddsInARowAreRefreshedOnce)
{
    put_fat("sda1");
    put_fat("sdb1");
    EXPECT_EQ(run({[] {},
                   [this] {
                       send_event("ACTION=add,MAJOR=8,MINOR=1");
                       send_event("ACTION=add,MAJOR=8,MINOR=17");
                   },
                   [] {}, [] {}}),
              0);
    // No pause between them, and the second is due when the first one is.
    EXPECT_EQ(events(), (Names{"pause", "kill", "pause", "nanosleep 2000000", "mount", "hook",
                               "mount", "hook", "pause", "kill", "pause", "pause"}));
    EXPECT_NE(read_file(share_file).find("[Drive(A1)]"), std::string::npos);
    EXPECT_NE(read_file(share_file).find("[Drive(B1)]"), std::string::npos);
}

TEST_F(DaemonTest, ARemovedDeviceLeavesFilesAndSet)
{
    put_fat("sda1");
    int entries_left = -1;
    EXPECT_EQ(run({[] {}, [this] { send_event("ACTION=add,MAJOR=8,MINOR=1,SID=X"); }, [] {},
                   [this] {
                       EXPECT_NE(read_file(share_file), "");
                       send_event("ACTION=remove,MAJOR=8,MINOR=1");
                   },
                   [] {},
                   [&] {
                       MountEntry* entry = nullptr;
                       entries_left = crtsec_blk_search(&entry, 0) == 0 ? 1 : 0;
                   }}),
              0);
    EXPECT_EQ(read_file(share_file), "");
    EXPECT_EQ(read_file(device_file), "");
    EXPECT_EQ(read_table(), "");
    EXPECT_EQ(entries_left, 0);
    EXPECT_FALSE(exists("/media/mnt/sda1"));
}

// The bits are kept together until the refresh.
TEST_F(DaemonTest, AnAddAndARemoveOfOneBurstBothCount)
{
    put_fat("sda1");
    put_fat("sdb1");
    EXPECT_EQ(run({[] {}, [this] { send_event("ACTION=add,MAJOR=8,MINOR=1,SID=X"); }, [] {},
                   [this] {
                       send_event("ACTION=remove,MAJOR=8,MINOR=1");
                       send_event("ACTION=add,MAJOR=8,MINOR=17,SID=Y");
                       send_event("hello");
                   },
                   [] {}, [] {}}),
              0);
    EXPECT_EQ(read_file(device_file).substr(0, 17), "[0000:0000:Y:1]\nS");
    EXPECT_EQ(read_file(device_file).find("X"), std::string::npos);
}

TEST_F(DaemonTest, AFailedAddDoesNotMarkTheTables)
{
    MountEntry* entry = nullptr;
    EXPECT_EQ(run({[] {}, [this] { send_event("ACTION=add,MAJOR=8,MINOR=1"); }, [] {},
                   [&] { EXPECT_EQ(crtsec_blk_search(&entry, 0), -1); }}),
              0);
    EXPECT_EQ(read_file(device_file), "");
    EXPECT_EQ(refreshes(), 2); // but a command it was
}

// ---- requests ----

TEST_F(DaemonTest, ARequestIsAnsweredOnItsConnectionWhichIsClosed)
{
    put_fat("sda1");
    int good = -1;
    int bad = -1;
    EXPECT_EQ(run({[] {}, [this] { send_event("ACTION=add,MAJOR=8,MINOR=1"); }, [] {},
                   [&] {
                       good = send_message("ACTION=unmount,sda1");
                       bad = send_message("ACTION=mount,usb");
                   },
                   [&] {
                       EXPECT_EQ(answer_on(dup(good)), std::string("success", 8));
                       EXPECT_EQ(answer_on(dup(bad)), std::string("faild", 6));
                       EXPECT_EQ(answer_on(good), ""); // closed
                       EXPECT_EQ(answer_on(bad), "");
                   }}),
              0);
    EXPECT_EQ(fake_world().count("umount"), 1);
}

TEST_F(DaemonTest, AnUnknownActionIsClosedWithoutAnAnswer)
{
    int fd = -1;
    EXPECT_EQ(run({[] {}, [&] { fd = send_message("ACTION=list,all"); },
                   [&] { EXPECT_EQ(answer_on(fd), ""); }}),
              0);
}

// Kept: the number of a hotplug message's connection is closed once more when it was handled.
TEST_F(DaemonTest, AHotplugMessagesDescriptorIsClosedASecondTime)
{
    int innocent = -1;
    EXPECT_EQ(run({[] {},
                   [&] {
                       const int fd = send_message("ACTION=remove,MAJOR=8,MINOR=1");
                       // The receive thread has closed its end; the lowest free number is that one.
                       innocent = open("/dev/null", O_RDONLY);
                       close(fd);
                   },
                   [&] {
                       EXPECT_EQ(fcntl(innocent, F_GETFD), -1);
                       EXPECT_EQ(errno, EBADF);
                   }}),
              0);
}

// ---- children ----

TEST_F(DaemonTest, ReapsOneChildEvery300IdlePasses)
{
    std::vector<std::function<void()>> plan(604, [] {});
    fake_world().programs["child"] = {{}, {}, {}};
    char name[] = "child";
    char* const argv[] = {name, nullptr};
    for (int count = 0; count < 3; count++)
        ASSERT_GT(vy_fork_exec(name, argv, nullptr, nullptr, nullptr), 0);
    Names reaps;
    plan[299] = [&] { EXPECT_EQ(fake_world().count("waitpid"), 0); };
    plan[300] = [&] { EXPECT_EQ(fake_world().count("waitpid"), 1); };
    plan[599] = [&] { EXPECT_EQ(fake_world().count("waitpid"), 1); };
    plan[600] = [&] { EXPECT_EQ(fake_world().count("waitpid"), 2); };
    EXPECT_EQ(run(plan), 0);
    EXPECT_EQ(fake_world().calls("waitpid"), (Names{"waitpid -1 1", "waitpid -1 1"}));
}

// Only passes without a command are counted, and a command does not begin the count anew.
TEST_F(DaemonTest, ACommandDoesNotChangeWhenChildrenAreReaped)
{
    std::vector<std::function<void()>> plan(304, [] {});
    plan[10] = [this] { send_event("hello"); };
    plan[299] = [&] { EXPECT_EQ(fake_world().count("waitpid"), 0); };
    plan[300] = [&] { EXPECT_EQ(fake_world().count("waitpid"), 1); };
    EXPECT_EQ(run(plan), 0);
    EXPECT_EQ(fake_world().count("waitpid"), 1);
}

// A slow hook holds the loop, and is reaped by a later pass when it has outlived its time.
TEST_F(DaemonTest, AHookThatHangsHoldsTheLoopFor60Seconds)
{
    put_fat("sda1");
    fake_world().programs[hook] = {{.wait_status = 0, .polls = -1, .output = ""}};
    uint64_t before = 0;
    uint64_t after = 0;
    EXPECT_EQ(run({[] {},
                   [&] {
                       before = fake_world().slept_usec;
                       send_event("ACTION=add,MAJOR=8,MINOR=1");
                   },
                   [&] { after = fake_world().slept_usec; }}),
              0);
    EXPECT_EQ(after - before, 2000000U + 60000000U + idle_pause);
    EXPECT_NE(read_file(share_file), "");
}

} // namespace
