#include "share/bridge.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "samba/samba_server.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
using Runs = std::vector<std::vector<std::string>>;

const std::string share_file = "/tmp/vynas.dir.conf";
const std::string place = "/tmp/hotplug";
const std::string include_path = "/tmp/samba/shares.conf";
const std::vector<std::string> reload = {"smbcontrol", "smbd", "reload-config"};

std::vector<std::string> close_of(const std::string& name)
{
    return {"smbcontrol", "smbd", "close-share", "--", name};
}

// A fixed directory and a mounted one on the machine, and a bridge for them.
class BridgeTest : public testing::Test {
  protected:
    void SetUp() override
    {
        FakeRun succeeds;
        fake_world().programs["smbcontrol"].assign(100, succeeds);
        ASSERT_EQ(mkdir("/tmp/fixed", 0755), 0);
        ASSERT_EQ(mkdir(place.c_str(), 0755), 0);
        mount_at("sda1");
        set_up("");
    }
    void TearDown() override
    {
        bridge_clear(&bridge);
        fake_world_reset();
    }

    // A bridge of this configuration; `adopting` as in the bridge.
    void set_up(const std::string& more, const char* adopting = nullptr)
    {
        bridge_clear(&bridge);
        write_file("/tmp/bridge.conf", "includepath = " + include_path + "\n" + more);
        config.reset(bridge_config_load("/tmp/bridge.conf", &samba_server.keys));
        bridge_init(&bridge, &samba_server, config.get(), share_file.c_str(), place.c_str(),
                    adopting);
        fake_log_clear();
    }

    static void mount_at(const std::string& name)
    {
        const std::string directory = place + "/" + name;
        ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
        ASSERT_EQ(mount("disk", directory.c_str(), "tmpfs", 0, nullptr), 0);
    }

    // Refreshes after a change of the share file. Returns the programs that were run.
    Runs refresh(const std::string& shares, int wanted = 0)
    {
        write_file(share_file, shares);
        return refresh_again(wanted);
    }
    Runs refresh_again(int wanted = 0)
    {
        fake_world().spawned.clear();
        EXPECT_EQ(bridge_refresh(&bridge), wanted);
        bridge_finish(&bridge);
        return fake_world().spawned;
    }
    // The kernel tells of its table of mounts.
    Runs notice_mounts()
    {
        fake_world().spawned.clear();
        EXPECT_EQ(bridge_mounts_changed(&bridge), 0);
        bridge_finish(&bridge);
        return fake_world().spawned;
    }

    // The log without what tells that the file was written, and forgets it.
    static Texts said()
    {
        Texts found;
        for (const FakeLogLine& line : fake_log_lines()) {
            if (line.text.find("is written") != std::string::npos)
                continue;
            found.push_back(line.text.substr(line.text.find(')') + 1));
        }
        fake_log_clear();
        return found;
    }

    static Texts exported()
    {
        Texts names;
        const std::string text = "\n" + read_file(include_path);
        for (size_t at = 0; (at = text.find("\n[", at)) != std::string::npos; at++)
            names.push_back(text.substr(at + 2, text.find("]\n", at) - at - 2));
        EXPECT_TRUE(!names.empty() && names.back() == "global");
        names.pop_back();
        return names;
    }

    // What the include file says of each share.
    static Texts read_only_lines()
    {
        const std::string key = "\tread only = ";
        Texts found;
        const std::string text = read_file(include_path);
        for (size_t at = 0; (at = text.find(key, at)) != std::string::npos; at++)
            found.push_back(text.substr(at + key.size(), text.find('\n', at) - at - key.size()));
        return found;
    }

    BridgeConfigGuard config;
    Bridge bridge = {};
};

const std::string fixed = "[Fixed]\nPath=/tmp/fixed\n";
const std::string stick = "[Stick]\nPath=/tmp/hotplug/sda1\nIdentifier=1234:00ab:A:1\n";

} // namespace

TEST_F(BridgeTest, WritesTheSharesAndHasSambaReadThem)
{
    EXPECT_EQ(refresh(fixed + stick), (Runs{reload}));
    EXPECT_EQ(exported(), (Texts{"Fixed", "Stick"}));
    EXPECT_EQ(said(), Texts{});
}

TEST_F(BridgeTest, WhatStaysTheSameIsNeitherWrittenNorTold)
{
    refresh(fixed + stick);
    struct stat before = {};
    stat(include_path.c_str(), &before);
    EXPECT_EQ(refresh_again(), Runs{});
    EXPECT_EQ(refresh("[Fixed]\nComment=\nPath=/tmp/fixed\nVID=5\n" + stick), Runs{});
    struct stat after = {};
    stat(include_path.c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
}

TEST_F(BridgeTest, AWithdrawnShareIsTakenOutAndClosed)
{
    refresh(fixed + stick);
    EXPECT_EQ(refresh(fixed + stick + "[Stick]\n"), (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
    EXPECT_EQ(said(), (Texts{"share Stick is withdrawn", "close share Stick"}));
}

TEST_F(BridgeTest, AShareWhosePathChangesIsClosed)
{
    mount_at("sdb1");
    refresh(stick);
    EXPECT_EQ(refresh("[Stick]\nPath=/tmp/hotplug/sdb1\n"), (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"Stick"}));
}

TEST_F(BridgeTest, AShareThatIsForOthersNowIsClosed)
{
    refresh(stick);
    EXPECT_EQ(refresh(stick + "Block Users=0,\n"), (Runs{reload, close_of("Stick")}));
}

TEST_F(BridgeTest, ANewCommentDisturbsNobody)
{
    refresh(stick);
    EXPECT_EQ(refresh(stick + "Comment=new\n"), (Runs{reload}));
}

TEST_F(BridgeTest, SharesThatAreCalledOtherwiseAreClosedUnderThatName)
{
    refresh("[a/b]\nPath=/tmp/fixed\n[-x y]\nPath=/tmp/fixed\n");
    EXPECT_EQ(exported(), (Texts{"a_b", "-x y"}));
    EXPECT_EQ(refresh(""), (Runs{reload, close_of("a_b"), close_of("-x y")}));
}

TEST_F(BridgeTest, AtTheStartWhatTheOldFileExportedIsClosed)
{
    ASSERT_EQ(mkdir("/tmp/samba", 0755), 0);
    write_file(include_path, "[Old]\n\tpath = /tmp/old\n[global]\n");
    EXPECT_EQ(refresh(fixed), (Runs{reload, close_of("Old")}));
}

TEST_F(BridgeTest, WhatIsNotMountedIsWithdrawn)
{
    ASSERT_EQ(mkdir("/tmp/hotplug/sdc1", 0755), 0);
    refresh(fixed + "[C]\nPath=/tmp/hotplug/sdc1\nIdentifier=id\n[Place]\nPath=/tmp/hotplug\n");
    EXPECT_EQ(exported(), (Texts{"Fixed", "Place"}));
    EXPECT_EQ(said(), (Texts{"share C (id) is withdrawn: /tmp/hotplug/sdc1 is not mounted"}));
}

TEST_F(BridgeTest, WhatIsUnmountedIsClosedAtOnce)
{
    mount_at("sdb1");
    refresh(fixed + stick + "[B]\nPath=/tmp/hotplug/sdb1\n");
    EXPECT_EQ(notice_mounts(), Runs{});
    const std::string before = read_file(include_path);
    ASSERT_EQ(umount("/tmp/hotplug/sda1"), 0);
    EXPECT_EQ(notice_mounts(), (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"Fixed", "B"}));
    EXPECT_EQ(said(), (Texts{"close share Stick"}));
    EXPECT_EQ(notice_mounts(), Runs{});
    ASSERT_EQ(mount("disk", "/tmp/hotplug/sda1", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(notice_mounts(), Runs{}) << "what is mounted is shared at the next refresh";
    EXPECT_EQ(refresh_again(), (Runs{reload}));
    EXPECT_EQ(read_file(include_path), before);
}

TEST_F(BridgeTest, AMountThatComesSharesNothingThatTheShareFileHasSinceLost)
{
    refresh(fixed + stick);
    write_file(share_file, "");
    mount_at("sdb1");
    EXPECT_EQ(notice_mounts(), Runs{});
    EXPECT_EQ(exported(), (Texts{"Fixed", "Stick"}));
}

TEST_F(BridgeTest, WithoutMemoryWhatIsUnmountedStaysForTheNextTry)
{
    refresh(fixed + stick);
    const std::string before = read_file(include_path);
    ASSERT_EQ(umount("/tmp/hotplug/sda1"), 0);
    int failures = 0;
    for (int nth = 1;; nth++) {
        fake_world().spawned.clear();
        fake_log_clear();
        memory_fail(nth);
        const int result = bridge_mounts_changed(&bridge);
        if (!memory_failed())
            break;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(read_file(include_path), before);
        EXPECT_EQ(fake_world().spawned, Runs{});
        EXPECT_EQ(said(), (Texts{"out of memory, nothing is changed"})) << nth;
        failures++;
    }
    EXPECT_GT(failures, 5);
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
}

TEST_F(BridgeTest, WhatIsNotMountedAnyMoreIsClosed)
{
    refresh(stick);
    ASSERT_EQ(umount("/tmp/hotplug/sda1"), 0);
    EXPECT_EQ(refresh_again(), (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), Texts{});
}

// A driver may mount read-only by itself, as ntfs-3g does with a hibernated Windows, and the kernel
// turns a damaged filesystem so; the share file says nothing of it.
TEST_F(BridgeTest, WhatIsMountedReadOnlyIsSharedSo)
{
    refresh(stick);
    EXPECT_EQ(read_only_lines(), (Texts{"no"}));
    ASSERT_EQ(mount(nullptr, "/tmp/hotplug/sda1", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(refresh_again(), (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(read_only_lines(), (Texts{"yes"}));
    EXPECT_EQ(said(), (Texts{"share Stick is read-only: /tmp/hotplug/sda1 is mounted so",
                             "close share Stick"}));
    ASSERT_EQ(mount(nullptr, "/tmp/hotplug/sda1", nullptr, MS_REMOUNT, nullptr), 0);
    refresh_again();
    EXPECT_EQ(read_only_lines(), (Texts{"no"}));
}

TEST_F(BridgeTest, ThatAReadOnlyMountIsReadOnlyIsNotNewsWhereTheShareFileSaysSo)
{
    ASSERT_EQ(mount(nullptr, "/tmp/hotplug/sda1", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    refresh(stick + "Read Only=Enable\n");
    EXPECT_EQ(read_only_lines(), (Texts{"yes"}));
    EXPECT_EQ(said(), Texts{});
}

TEST_F(BridgeTest, AFixedDirectoryOnAReadOnlyFilesystemIsSharedReadOnly)
{
    ASSERT_EQ(mount("disk", "/tmp/fixed", "tmpfs", MS_RDONLY, nullptr), 0);
    ASSERT_EQ(symlink("/tmp/fixed", "/tmp/link"), 0);
    refresh(fixed + "[Link]\nPath=/tmp/link\n[Own]\nPath=/tmp\n");
    EXPECT_EQ(exported(), (Texts{"Fixed", "Link", "Own"}));
    EXPECT_EQ(read_only_lines(), (Texts{"yes", "yes", "no"}));
}

TEST_F(BridgeTest, APlaceBehindALinkIsFollowed)
{
    ASSERT_EQ(symlink(place.c_str(), "/tmp/link"), 0);
    bridge.mountpath = "/tmp/link";
    refresh("[A]\nPath=/tmp/link/sda1\n[B]\nPath=/tmp/link/sdb1\n");
    EXPECT_EQ(exported(), (Texts{"A"}));
}

TEST_F(BridgeTest, APlaceThatDoesNotExistHasNoMounts)
{
    bridge.mountpath = "/tmp/nowhere";
    refresh(fixed + "[A]\nPath=/tmp/nowhere/sda1\n");
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
}

TEST_F(BridgeTest, AFixedPathMustBeADirectory)
{
    write_file("/tmp/file", "");
    refresh("[F]\nPath=/tmp/file\n[N]\nPath=/tmp/none\n" + fixed);
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
    EXPECT_EQ(said(), (Texts{"share F () is withdrawn: /tmp/file is no directory",
                             "share N () is withdrawn: /tmp/none is no directory"}));
}

TEST_F(BridgeTest, APathThatCannotBeWrittenIsLeftOut)
{
    ASSERT_EQ(mkdir("/tmp/100%", 0755), 0);
    refresh("[A]\nPath=/tmp/100%\n");
    EXPECT_EQ(exported(), Texts{});
    EXPECT_EQ(said(), (Texts{"share A is left out: its path holds a percent sign: /tmp/100%"}));
}

TEST_F(BridgeTest, AShareThatIsLeftOutTakesNoNameFromAnother)
{
    refresh("[a/b]\nPath=/tmp/none\n[a?b]\nPath=/tmp/fixed\n");
    EXPECT_EQ(exported(), (Texts{"a_b"}));
}

TEST_F(BridgeTest, AShareFileThatCannotBeReadWithdrawsEverything)
{
    refresh(fixed + stick);
    ASSERT_EQ(unlink(share_file.c_str()), 0);
    EXPECT_EQ(refresh_again(), (Runs{reload, close_of("Fixed"), close_of("Stick")}));
    EXPECT_EQ(exported(), Texts{});
    EXPECT_EQ(said()[0], "share file /tmp/vynas.dir.conf cannot be read: nothing is exported");
}

TEST_F(BridgeTest, WhatThereIsToSayIsSaidOncePerChange)
{
    const std::string shares = "[A/B]\nPath=/tmp/fixed\nBlock Users=99999,\n";
    refresh(shares);
    EXPECT_EQ(said(),
              (Texts{"share A/B is exported as A_B", "share A/B: no user has the id 99999"}));
    refresh_again();
    EXPECT_EQ(said(), Texts{});
    refresh(shares + "[C]\nPath=/tmp/none\n");
    EXPECT_EQ(said(), (Texts{"share C () is withdrawn: /tmp/none is no directory"}));
    refresh(shares);
    EXPECT_EQ(said(), Texts{});
    refresh(shares + "[C]\nPath=/tmp/none\n");
    EXPECT_EQ(said(), (Texts{"share C () is withdrawn: /tmp/none is no directory"}));
}

TEST_F(BridgeTest, UserIdsAreTheMachines)
{
    refresh("[A]\nPath=/tmp/fixed\nFull Access Users=65534,\n");
    EXPECT_NE(read_file(include_path).find("valid users = nobody, root\n"), std::string::npos);
}

TEST_F(BridgeTest, AShareForWhomNobodyKnowsIsWithheldUntilTheListIsRight)
{
    const std::string right = fixed + stick + "Full Access Users=5001,\n";
    refresh(right);
    EXPECT_EQ(refresh(fixed + stick + "Full Access Users=anna\n"),
              (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
    EXPECT_EQ(said(), (Texts{"share Stick: no user has the id 5001",
                             "share Stick (1234:00ab:A:1) is withheld: Full Access Users has anna, "
                             "which is no user id",
                             "close share Stick"}));
    refresh_again();
    EXPECT_EQ(said(), Texts{});
    refresh(right);
    EXPECT_EQ(exported(), (Texts{"Fixed", "Stick"}));
}

// A thousand who must not enter: the last of them stand where nothing is read.
TEST_F(BridgeTest, AShareWithAListThatIsCutIsWithheld)
{
    std::string ids;
    for (int id = 1000; id < 2000; id++)
        ids += std::to_string(id) + ",";
    refresh(fixed + stick);
    EXPECT_EQ(refresh(fixed + stick + "Block Users=" + ids + "\n"),
              (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
    EXPECT_EQ(said(), (Texts{"share Stick (1234:00ab:A:1) is withheld: Block Users is longer than "
                             "what is read of it",
                             "close share Stick"}));
}

TEST_F(BridgeTest, WithoutTheUserInWhoseNameAllWorkNothingIsShared)
{
    refresh(fixed);
    set_up("forceuser = nobody-has-this-name\n");
    EXPECT_EQ(refresh_again(), (Runs{reload, close_of("Fixed")}));
    EXPECT_EQ(exported(), Texts{});
    EXPECT_EQ(said(),
              (Texts{"there is no user nobody-has-this-name (forceuser): nothing is exported",
                     "close share Fixed"}));
    refresh(fixed + stick);
    EXPECT_EQ(said(), Texts{});
    set_up("forceuser = nobody\n");
    refresh_again();
    EXPECT_EQ(exported(), (Texts{"Fixed", "Stick"}));
}

TEST_F(BridgeTest, AFileThatCannotBeWrittenIsToldAndTriedAgain)
{
    fake_world().fail("rename", 1, EACCES);
    EXPECT_EQ(refresh(fixed, -1), Runs{});
    EXPECT_EQ(said(), (Texts{"cannot write /tmp/samba/shares.conf (13)"}));
    EXPECT_EQ(refresh_again(), (Runs{reload}));
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
}

TEST_F(BridgeTest, WithoutMemoryTheOldFileStaysAndSambaIsNotTold)
{
    refresh(fixed + stick);
    const std::string before = read_file(include_path);
    write_file(share_file, stick + "[a/b]\nPath=/tmp/fixed\nBlock Users=0,99999,\n");
    int failures = 0;
    for (int nth = 1;; nth++) {
        fake_world().spawned.clear();
        fake_log_clear();
        memory_fail(nth);
        const int result = bridge_refresh(&bridge);
        const bool struck = memory_failed();
        if (!struck || result == 0) // a note may be lost
            break;
        EXPECT_EQ(read_file(include_path), before);
        EXPECT_EQ(fake_world().spawned, Runs{});
        EXPECT_EQ(said(), (Texts{"out of memory, nothing is changed"})) << nth;
        failures++;
    }
    EXPECT_GT(failures, 20);
}

TEST_F(BridgeTest, ThatNoSambaRunsIsNoFailure)
{
    fake_world().programs["smbcontrol"] = {
        FakeRun{.wait_status = 1 << 8, .polls = 0, .output = ""}};
    EXPECT_EQ(refresh(fixed), (Runs{reload}));
    EXPECT_EQ(said(), Texts{"smbcontrol failed (1)"});
}

TEST_F(BridgeTest, ThatSmbcontrolCannotBeStartedIsNoFailureButTold)
{
    fake_world().fail("spawn", 1, EAGAIN);
    refresh(fixed);
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
    EXPECT_EQ(said(), (Texts{"cannot start smbcontrol (11)"}));
}

TEST_F(BridgeTest, PrintingChangesNothing)
{
    write_file(share_file, fixed);
    char* text = nullptr;
    ASSERT_EQ(bridge_make_text(&bridge, &text), 0);
    EXPECT_NE(std::string(text).find("[Fixed]\n\tpath = /tmp/fixed\n"), std::string::npos);
    free(text);
    EXPECT_FALSE(exists(include_path));
    EXPECT_EQ(fake_world().spawned, Runs{});
}

// ---- a restart of the service ----

namespace {

const std::string pid_file = "/tmp/vyhotplugd.pid";

class RestartTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        set_up("", pid_file.c_str());
        start_service(100);
        refresh(fixed + stick);
        pass(restart_ms);
        EXPECT_EQ(advance(), -1);
    }
    // Each writes its pid file anew.
    static void start_service(time_t second)
    {
        write_file(pid_file, "77\n");
        const timespec times[2] = {{.tv_sec = second, .tv_nsec = 0},
                                   {.tv_sec = second, .tv_nsec = 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, pid_file.c_str(), times, 0), 0);
    }
    static void kill_service() { fake_world().kill_errors[77] = ESRCH; }
    static void pass(uint64_t milliseconds) { fake_world().monotonic_usec += milliseconds * 1000; }
    int64_t advance()
    {
        const int64_t due = bridge_advance(&bridge);
        bridge_finish(&bridge);
        return due;
    }
};

} // namespace

TEST_F(RestartTest, WhatStandsMountedStaysSharedUntilTheNewServiceTellsOfIt)
{
    const std::string before = read_file(include_path);
    start_service(200);
    EXPECT_EQ(refresh(fixed), Runs{});
    EXPECT_EQ(read_file(include_path), before);
    EXPECT_EQ(advance(), static_cast<int64_t>(restart_ms));
    pass(5000);
    EXPECT_EQ(refresh(fixed + stick), Runs{});
    EXPECT_EQ(read_file(include_path), before);
    EXPECT_EQ(advance(), -1);
}

TEST_F(RestartTest, TheNewServiceIsBelievedAfterAWhile)
{
    start_service(200);
    refresh(fixed);
    pass(restart_ms - 1);
    EXPECT_EQ(advance(), 1);
    EXPECT_EQ(exported(), (Texts{"Fixed", "Stick"}));
    pass(1);
    fake_world().spawned.clear();
    EXPECT_EQ(advance(), -1);
    EXPECT_EQ(fake_world().spawned, (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
}

TEST_F(RestartTest, WhatTheServiceAlwaysTellsOfIsBelievedAtOnce)
{
    start_service(200);
    EXPECT_EQ(refresh(""), (Runs{reload, close_of("Fixed")}));
    EXPECT_EQ(exported(), (Texts{"Stick"}));
}

TEST_F(RestartTest, WhatIsNotMountedIsNotKept)
{
    ASSERT_EQ(umount("/tmp/hotplug/sda1"), 0);
    start_service(200);
    refresh(fixed);
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
    EXPECT_EQ(advance(), -1);
}

TEST_F(RestartTest, WhatIsUnmountedIsNotKeptAnyMore)
{
    start_service(200);
    refresh(fixed);
    ASSERT_EQ(umount("/tmp/hotplug/sda1"), 0);
    EXPECT_EQ(notice_mounts(), (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
}

TEST_F(RestartTest, WhatTheNewServiceWithdrawsIsNotKept)
{
    start_service(200);
    for (const std::string withdrawn :
         {"[Stick]\n", "[stick]\n", "[Stick]\nStatus=Unmount\nPath=/x\n"}) {
        refresh(fixed + stick);
        EXPECT_EQ(exported(), (Texts{"Fixed", "Stick"}));
        refresh(fixed + withdrawn);
        EXPECT_EQ(exported(), (Texts{"Fixed"})) << withdrawn;
    }
}

TEST_F(RestartTest, AWithdrawnNameIsKnownUnderTheOneItIsExportedBy)
{
    mount_at("sdb1");
    const std::string twice = "[a/b]\nPath=/tmp/hotplug/sda1\n[a?b]\nPath=/tmp/hotplug/sdb1\n";
    refresh(twice);
    EXPECT_EQ(exported(), (Texts{"a_b", "a_b (2)"}));
    start_service(200);
    refresh("[a?b]\n");
    EXPECT_EQ(exported(), Texts{}) << "in doubt nothing is kept";
}

TEST_F(RestartTest, AShareUnderAnotherNameOrWithOtherRightsReplacesTheOldOne)
{
    start_service(200);
    EXPECT_EQ(refresh(fixed + "[New]\nPath=/tmp/hotplug/sda1\n"),
              (Runs{reload, close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"Fixed", "New"}));
    EXPECT_EQ(refresh("[New]\nRead Only=Enable\nPath=/tmp/hotplug/sda1\n"),
              (Runs{reload, close_of("Fixed"), close_of("New")}));
    EXPECT_EQ(read_only_lines(), (Texts{"yes"}));
    refresh("[New]\nFull Access Users=anna\nPath=/tmp/hotplug/sda1\n");
    EXPECT_EQ(exported(), Texts{}) << "withheld";
}

TEST_F(RestartTest, ANameThatIsAnothersNowIsNotKept)
{
    start_service(200);
    EXPECT_EQ(refresh("[STICK]\nPath=/tmp/fixed\n"),
              (Runs{reload, close_of("Fixed"), close_of("Stick")}));
    EXPECT_EQ(exported(), (Texts{"STICK"}));
}

// What prepares the next start takes out of the share file what it is going to unmount.
TEST_F(RestartTest, WhileTheServiceIsDownTheShareFileIsBelieved)
{
    start_service(200);
    kill_service();
    EXPECT_EQ(refresh(fixed), (Runs{reload, close_of("Stick")}));
}

TEST_F(RestartTest, AServiceThatIsStartedAgainAndAgainHasItsTimeAfterEachStart)
{
    start_service(200);
    refresh(fixed);
    pass(restart_ms / 2);
    start_service(300);
    refresh_again();
    EXPECT_EQ(advance(), static_cast<int64_t>(restart_ms));
    EXPECT_EQ(exported(), (Texts{"Fixed", "Stick"}));
}

TEST_F(RestartTest, AServiceThatHasBeenThereIsBelieved)
{
    EXPECT_EQ(refresh(fixed), (Runs{reload, close_of("Stick")}));
}

TEST_F(RestartTest, ANewBridgeKeepsWhatTheOldOneExported)
{
    set_up("", pid_file.c_str());
    EXPECT_EQ(refresh(fixed), Runs{});
    EXPECT_EQ(exported(), (Texts{"Fixed", "Stick"}));
}

TEST_F(RestartTest, WithoutTheKeyTheNewServiceIsBelievedAtOnce)
{
    set_up("");
    start_service(200);
    EXPECT_EQ(refresh(fixed), (Runs{reload, close_of("Stick")}));
}

TEST_F(RestartTest, PrintingTellsWhatTheShareFileSays)
{
    start_service(200);
    write_file(share_file, fixed);
    MemGuard<char> text;
    ASSERT_EQ(bridge_make_text(&bridge, text.out()), 0);
    EXPECT_EQ(std::string(text.get()).find("[Stick]"), std::string::npos);
}

TEST_F(RestartTest, WithoutMemoryTheOldFileStays)
{
    start_service(200);
    write_file(share_file, "");
    const std::string before = read_file(include_path);
    int failures = 0;
    for (int nth = 1;; nth++) {
        fake_world().spawned.clear();
        memory_fail(nth);
        const int result = bridge_refresh(&bridge);
        if (!memory_failed() || result == 0) // a note may be lost
            break;
        EXPECT_EQ(read_file(include_path), before);
        EXPECT_EQ(fake_world().spawned, Runs{});
        failures++;
    }
    EXPECT_GT(failures, 10);
}

TEST_F(RestartTest, WhatCannotBeWithdrawnInTimeIsTriedAgain)
{
    start_service(200);
    refresh(fixed);
    pass(restart_ms);
    fake_world().fail("rename", 1, ENOSPC);
    EXPECT_EQ(advance(), 1000);
    pass(1000);
    EXPECT_EQ(advance(), -1);
    EXPECT_EQ(exported(), (Texts{"Fixed"}));
}
