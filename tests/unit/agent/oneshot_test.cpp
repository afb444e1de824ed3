// The modes that do one thing and end.
#include "agent/modes.h"

#include "fake/fake_log.h"
#include "fake_sysfs.h"
#include "support/child.h"
#include "support/files.h"
#include "test_daemon.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

using Told = std::vector<std::string>;

class OneshotTest : public testing::Test {
  protected:
    OneshotTest()
    {
        daemon_forget_record();
        sysfs_.add_stick("sda", "8:0");
        sysfs_.add_partition("sda", "sda1", "8:1");
    }

    int once(const std::vector<std::string>& event)
    {
        std::vector<const char*> environment;
        for (const std::string& item : event)
            environment.push_back(item.c_str());
        environment.push_back(nullptr);
        return oneshot_once(settings_, environment.data());
    }
    int once(const std::string& action, const std::string& devpath, int major, int minor,
             const std::string& more = "X=")
    {
        return once({"ACTION=" + action, "DEVPATH=" + devpath, "SUBSYSTEM=block",
                     "MAJOR=" + std::to_string(major), "MINOR=" + std::to_string(minor), more});
    }

    std::string list()
    {
        const ChildResult result = run_child([this] { return oneshot_list(settings_); });
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }

    FakeSysfs sysfs_;
    AgentSettings settings_ = {AGENT_ONCE,        false, 10, FakeSysfs::root, FakeSysfs::proc,
                               FakeSysfs::mounts, ""};
};

TEST_F(OneshotTest, TellsOfOneEvent)
{
    const TestDaemon daemon;
    EXPECT_EQ(once("add", "/block/sda", 8, 0), 0);
    EXPECT_EQ(once("add", "/block/sda/sda1", 8, 1), 0);
    EXPECT_EQ(once("remove", "/block/sda/sda1", 8, 1), 0);
    EXPECT_EQ(once("remove", "/block/sdx", 65, 112), 0);
    EXPECT_EQ(daemon_told(), (Told{"+8:0", "+8:1", "-8:1", "-65:112"}));
}

TEST_F(OneshotTest, TriesOnceWithoutPatience)
{
    settings_.wait = 0;
    EXPECT_EQ(once("add", "/block/sda", 8, 0), 1);
    const TestDaemon daemon;
    EXPECT_EQ(once("add", "/block/sda/sda1", 8, 1), 0);
    EXPECT_EQ(daemon_told(), Told{"+8:1"});
}

TEST_F(OneshotTest, TakesMissingNumbersFromSysfs)
{
    const TestDaemon daemon;
    EXPECT_EQ(once({"ACTION=add", "DEVPATH=/block/sda/sda1"}), 0);
    EXPECT_EQ(daemon_told(), Told{"+8:1"});
    EXPECT_EQ(once({"ACTION=remove", "DEVPATH=/block/sda/sda1"}), 1);
    EXPECT_EQ(daemon_told(), Told{"+8:1"});
}

TEST_F(OneshotTest, TellsOfNothingForOtherEvents)
{
    const TestDaemon daemon;
    EXPECT_EQ(once({"ACTION=add", "DEVPATH=/class/net/eth0", "SUBSYSTEM=net"}), 0);
    EXPECT_EQ(once("add", "/block/loop0", 7, 0), 0);
    EXPECT_EQ(once("bind", "/block/sda", 8, 0), 0);
    EXPECT_EQ(once("change", "/block/sda", 8, 0), 0);
    EXPECT_EQ(once("change", "/block/sda/sda1", 8, 1, "DISK_MEDIA_CHANGE=1"), 0);
    EXPECT_EQ(once("add", "/block/sdb", 8, 16), 0); // has gone already
    EXPECT_EQ(daemon_told(), Told{});
    EXPECT_EQ(daemon_visits(), 0);
}

TEST_F(OneshotTest, RefusesAnEnvironmentWithoutAnEvent)
{
    EXPECT_EQ(once(std::vector<std::string>{}), 1);
    EXPECT_EQ(once("add", "/block/../sda", 8, 0), 1);
}

TEST_F(OneshotTest, TellsOfAChangedMedium)
{
    const TestDaemon daemon;
    sysfs_.add_partition("sda", "sda2", "8:2");
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"}); // from before
    EXPECT_EQ(once("change", "/block/sda", 8, 0, "DISK_MEDIA_CHANGE=1"), 0);
    EXPECT_EQ(daemon_told(), (Told{"-8:1", "-8:2", "-8:0", "+8:0", "+8:1", "+8:2"}));
}

TEST_F(OneshotTest, TellsOfAMediumThatWasTakenOut)
{
    const TestDaemon daemon;
    sysfs_.set("sda/size", "0");
    sysfs_.remove_partition("sda", "sda1");
    EXPECT_EQ(once("change", "/block/sda", 8, 0, "DISK_MEDIA_CHANGE=1"), 0);
    EXPECT_EQ(daemon_told(), Told{"-8:0"});
}

TEST_F(OneshotTest, TellsNothingOfADiskOfTheMachines)
{
    const TestDaemon daemon;
    sysfs_.set_mounts({"8:1 / /dev/root"});
    EXPECT_EQ(once("add", "/block/sda/sda1", 8, 1), 0);
    EXPECT_EQ(oneshot_scan(settings_), 0);
    EXPECT_EQ(daemon_told(), Told{});
    settings_.all = true;
    EXPECT_EQ(once("add", "/block/sda/sda1", 8, 1), 0);
    EXPECT_EQ(daemon_told(), Told{"+8:1"});
}

TEST_F(OneshotTest, TellsOfAPartitionBesideOneThatTheServiceHasMounted)
{
    const TestDaemon daemon;
    sysfs_.add_partition("sda", "sda2", "8:2");
    sysfs_.set_mounts({"8:1 /media/vyhotplug/sda1 /dev/vyhotplug/sda1"});
    EXPECT_EQ(once("add", "/block/sda/sda2", 8, 2), 0);
    EXPECT_EQ(once("add", "/block/sda/sda1", 8, 1), 0); // that one is mounted
    EXPECT_EQ(daemon_told(), Told{"+8:2"});
}

TEST_F(OneshotTest, TellsOfEverything)
{
    const TestDaemon daemon;
    sysfs_.add_card("mmcblk0", "179:0");
    sysfs_.add_stick("sdb", "8:16", {}, {{"size", "0"}});
    EXPECT_EQ(oneshot_scan(settings_), 0);
    EXPECT_EQ(daemon_told(), (Told{"+8:0", "+8:1", "+179:0"}));
}

TEST_F(OneshotTest, WaitsForTheDaemonNoLongerThanItIsTold)
{
    settings_.wait = 1;
    EXPECT_EQ(once("add", "/block/sda", 8, 0), 1);
    EXPECT_EQ(oneshot_scan(settings_), 1);
    settings_.wait = 0;
    EXPECT_EQ(once("add", "/block/sda", 8, 0), 1);
    EXPECT_EQ(fake_log_texts().back(), "errand(#)the daemon cannot be reached, 1 messages dropped");
}

TEST_F(OneshotTest, WaitsForTheDaemonToCome)
{
    settings_.wait = 60;
    const pid_t starter = fork();
    if (starter == 0) {
        usleep(400000);
        const TestDaemon daemon;
        pause();
    }
    EXPECT_EQ(once("add", "/block/sda", 8, 0), 0);
    EXPECT_EQ(daemon_told(), Told{"+8:0"});
    kill(starter, SIGKILL);
}

TEST_F(OneshotTest, SendsAgainWhatWasNotRead)
{
    TestDaemonManners manners;
    manners.unread = 1;
    const TestDaemon daemon(manners);
    EXPECT_EQ(once("add", "/block/sda", 8, 0), 0);
    EXPECT_EQ(daemon_told(), (Told{"unread", "+8:0"}));
}

TEST_F(OneshotTest, FailsWhereThereIsNoLookingIntoSysfs)
{
    settings_.sysfs = "/tmp/nothing";
    EXPECT_EQ(oneshot_scan(settings_), 1);
    const ChildResult result = run_child([this] { return oneshot_list(settings_); });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              std::string("vyhotplug-agent: /tmp/nothing/block: ") + strerror(ENOENT) + "\n");
}

TEST_F(OneshotTest, FailsWhereTheMountsCannotBeRead)
{
    const TestDaemon daemon;
    unlink("/tmp/fake-proc/self/mountinfo");
    EXPECT_EQ(once("add", "/block/sda", 8, 0), 1);
    EXPECT_EQ(daemon_told(), Told{});
}

TEST_F(OneshotTest, ListsWhatWouldBeTold)
{
    sysfs_.add_card("mmcblk0", "179:0");
    sysfs_.add_partition("mmcblk0", "mmcblk0p1", "179:1");
    sysfs_.add_stick("sdb", "8:16", {}, {{"size", "0"}});
    sysfs_.set_mounts({"179:1 / /dev/root"});
    const std::string stick = "RANGE=16,RM=1,RO=0,VID=1234,PID=00ab,SID=ABC,VNAME=Acme,"
                              "PNAME=FlashKey,SPEED=480\n";
    EXPECT_EQ(list(), "ACTION=add,MAJOR=8,MINOR=0,DEVTYPE=disk," + stick +
                          "ACTION=add,MAJOR=8,MINOR=1,DEVTYPE=partition," + stick +
                          "# sdb: not announced: no medium\n"
                          "# mmcblk0: not announced: mmcblk0p1 is mounted at /\n"
                          "# mmcblk0p1: not announced: mounted at /\n");
}

TEST_F(OneshotTest, ListsTheServicesMountsWhereTheStateFileNamesThem)
{
    TestDaemon daemon;
    settings_.state = "/tmp/list.state";
    sysfs_.set_mounts({"8:1 /anywhere /dev/x/sda1"});
    EXPECT_EQ(list(), "# sda: not announced: sda1 is mounted at /anywhere\n"
                      "# sda1: not announced: mounted at /anywhere\n");
    // What a monitor has written.
    const std::string stat = read_file("/proc/" + std::to_string(daemon.pid()) + "/stat");
    std::string start = stat.substr(stat.rfind(')') + 1);
    for (int field = 2; field < 22; field++)
        start = start.substr(start.find(' ', 0) + 1);
    start = start.substr(0, start.find(' '));
    std::string boot = read_file("/proc/sys/kernel/random/boot_id");
    boot.pop_back();
    const std::string head = "vyhotplug-agent 1\ndaemon " + std::to_string(daemon.pid()) + " ";
    write_file("/tmp/list.state", head + start + " " + boot + "\n8 1 sda1 0\n");
    EXPECT_EQ(list().substr(0, 21), "ACTION=add,MAJOR=8,MI");
    EXPECT_EQ(list().find('#'), std::string::npos);
    daemon.end(); // what it was told counts no more
    EXPECT_EQ(list().substr(0, 5), "# sda");
    unlink("/tmp/list.state");
}
