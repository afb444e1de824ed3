#include "prepare/leftovers.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

char share_file[] = "/tmp/vynas.dir.conf";
char mount_folder[] = "/tmp/hotplug";
char device_folder[] = "/tmp/hotdev";
constexpr char service_pid_file[] = "/var/run/vynas-fssd.pid";

class LeftoversTest : public testing::Test {
  protected:
    LeftoversTest()
    {
        config.smbconfigpath = share_file;
        config.mountpath = mount_folder;
        config.devicepath = device_folder;
        mkdir(mount_folder, 0755);
        mkdir(device_folder, 0755);
        write_file(share_file, "[Drive(A1)]\n");
        write_file(service_pid_file, "4711\n");
        fake_log_clear();
    }
    ~LeftoversTest() override { fake_world_reset(); }

    // Something is mounted at a directory, which is made, with a node of its name.
    void add(const std::string& directory, const std::string& below = mount_folder)
    {
        const std::string path = below + "/" + directory;
        mkdir(path.c_str(), 0700);
        if (directory.find('/') == std::string::npos)
            write_file(std::string(device_folder) + "/" + directory, "");
        fake_world().mounts[path] = {"/dev/x", "ext4", 0, ""};
        mention(path);
    }

    // A line of the kernel's table.
    void mention(const std::string& directory)
    {
        text += "36 35 8:1 / " + directory + " rw shared:1 - ext4 /dev/x rw\n";
    }

    int take_off()
    {
        MountinfoGuard table;
        EXPECT_EQ(mountinfo_parse(text.data(), text.size(), table.out()), 0);
        return leftovers_take_off(&config, table.get(), judge, &refusals);
    }

    // Everything stays but what is refused here.
    static const char* by_refusals(void* context, const MountinfoEntry& mount)
    {
        const auto& refused = *static_cast<std::map<std::string, const char*>*>(context);
        const auto found = refused.find(mount.directory);
        return found == refused.end() ? nullptr : found->second;
    }

    // What this program has told.
    static Texts told()
    {
        Texts found;
        for (const std::string& text : fake_log_texts()) {
            if (text.compare(0, 8, "prepare(") == 0)
                found.push_back(text);
        }
        return found;
    }

    // What was taken off, in that order.
    static Texts taken_off() { return fake_world().calls("umount"); }

    ConfHotplug config = {};
    LeftoverJudge judge = nullptr;
    std::map<std::string, const char*> refusals;
    std::string text = "1 0 8:1 / / rw - ext4 /dev/root rw\n2 1 0:5 / /tmp rw - tmpfs tmpfs rw\n";
};

} // namespace

// ---- what is the service's ----

TEST_F(LeftoversTest, KnowsTheServicesMountsByTheirNames)
{
    for (const char* path : {"/m/sda1", "/m/sdz0", "/m/sdb15", "/m/mmcblka1", "/m/sda1/sub/x"})
        EXPECT_TRUE(leftovers_is_ours(path, "/m")) << path;
    for (const char* path :
         {"/m", "/", "/n/sda1", "/mm/sda1", "/m/backup", "/m/sda", "/m/sd1", "/m/sdaa1", "/m/sda1x",
          "/m/sda1.old", "/m/mmcblk0p1", "/m/sub/sda1", "/m/xsda1", "/m/sdA1", "/m/mmcblk", "/m/s"})
        EXPECT_FALSE(leftovers_is_ours(path, "/m")) << path;
    EXPECT_TRUE(leftovers_is_ours("/sda1", "/"));
    EXPECT_FALSE(leftovers_is_ours("/home", "/"));
}

// ---- taking off ----

TEST_F(LeftoversTest, DoesNothingWhereNothingIsMounted)
{
    mention("/tmp/hotplug");
    mention("/tmp/hotplug2/sda1");
    mention("/tmp/hotplug/archive");
    EXPECT_EQ(take_off(), 0);
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_EQ(read_file(share_file), "[Drive(A1)]\n");
}

TEST_F(LeftoversTest, DoesNothingWithoutAMountDirectory)
{
    add("sda1");
    char none[] = "/tmp/none";
    config.mountpath = none;
    EXPECT_EQ(take_off(), 0);
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST_F(LeftoversTest, TakesOffTheLastMountedFirst)
{
    add("sda1");
    add("sdb2");
    add("mmcblka1");
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), (Texts{"umount /tmp/hotplug/mmcblka1", "umount /tmp/hotplug/sdb2",
                                  "umount /tmp/hotplug/sda1"}));
    for (const char* path : {"/tmp/hotplug/sda1", "/tmp/hotplug/mmcblka1", "/tmp/hotdev/sda1",
                             "/tmp/hotdev/sdb2", "/tmp/hotdev/mmcblka1"})
        EXPECT_FALSE(exists(path)) << path;
    EXPECT_EQ(told().size(), 3U);
    EXPECT_EQ(told()[0], "prepare(#)/tmp/hotplug/mmcblka1 is unmounted");
}

TEST_F(LeftoversTest, WithdrawsTheSharesFirstAndGivesTheServiceTime)
{
    add("sda1");
    fake_world().on_sleep = [](uint64_t usec) {
        EXPECT_EQ(usec, 400000U);
        EXPECT_EQ(read_file(share_file), "");
        EXPECT_EQ(fake_world().signals.size(), 1U);
        EXPECT_EQ(fake_world().count("umount"), 0);
    };
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(fake_world().slept_usec, 400000U);
    EXPECT_EQ(fake_world().signals[0], (std::pair<pid_t, int>(4711, SIGHUP)));
    EXPECT_TRUE(exists(share_file));
    const Texts& journal = fake_world().journal;
    EXPECT_LT(std::find(journal.begin(), journal.end(), "sync"),
              std::find(journal.begin(), journal.end(), "umount /tmp/hotplug/sda1"));
}

TEST_F(LeftoversTest, WorksWithoutAFileSharingService)
{
    unlink(service_pid_file);
    unlink(share_file);
    add("sda1");
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), Texts{"umount /tmp/hotplug/sda1"});
    EXPECT_EQ(told(), Texts{"prepare(#)/tmp/hotplug/sda1 is unmounted"});
}

TEST_F(LeftoversTest, DetachesWhatIsInUse)
{
    add("sda1");
    fake_world().busy["/tmp/hotplug/sda1"] = EBUSY;
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), (Texts{"umount /tmp/hotplug/sda1", "umount2 /tmp/hotplug/sda1 0x2"}));
    EXPECT_FALSE(exists("/tmp/hotplug/sda1"));
    EXPECT_FALSE(exists("/tmp/hotdev/sda1"));
    EXPECT_EQ(told(), Texts{std::string("prepare(#)/tmp/hotplug/sda1 cannot be unmounted (") +
                            strerror(EBUSY) + "), it is detached"});
}

TEST_F(LeftoversTest, TellsWhatStaysAndTakesOffTheOthers)
{
    add("sda1");
    add("sdb1");
    fake_world().busy["/tmp/hotplug/sdb1"] = EBUSY;
    fake_world().fail("umount2", 1, EPERM);
    EXPECT_EQ(take_off(), -1);
    EXPECT_EQ(fake_world().count("umount"), 2);
    EXPECT_TRUE(exists("/tmp/hotdev/sdb1"));
    EXPECT_FALSE(exists("/tmp/hotdev/sda1"));
    EXPECT_EQ(told()[0], "prepare(#)/tmp/hotplug/sdb1 cannot be detached: Operation not permitted");
}

TEST_F(LeftoversTest, WhatHasGoneMeanwhileIsCleanedUp)
{
    add("sda1");
    fake_world().mounts.clear();
    EXPECT_EQ(take_off(), 0);
    EXPECT_FALSE(exists("/tmp/hotplug/sda1"));
    EXPECT_FALSE(exists("/tmp/hotdev/sda1"));
}

TEST_F(LeftoversTest, SeveralMountsAtOnePlaceAreAllTakenOff)
{
    add("sda1");
    mention("/tmp/hotplug/sda1");
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(fake_world().count("umount"), 2);
}

TEST_F(LeftoversTest, LeavesDirectoriesOnTheDisksAlone)
{
    add("sda1");
    mkdir("/tmp/hotplug/sda1/mnt", 0755);
    write_file("/tmp/hotdev/mnt", "");
    fake_world().mounts["/tmp/hotplug/sda1/mnt"] = {"/dev/y", "ext4", 0, ""};
    mention("/tmp/hotplug/sda1/mnt");
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), (Texts{"umount /tmp/hotplug/sda1/mnt", "umount /tmp/hotplug/sda1"}));
    EXPECT_EQ(fake_world().calls("rmdir"), Texts{"rmdir /tmp/hotplug/sda1"});
    EXPECT_TRUE(exists("/tmp/hotplug/sda1/mnt"));
    EXPECT_TRUE(exists("/tmp/hotdev/mnt"));
}

TEST_F(LeftoversTest, LeavesAnAdministratorsMountsAlone)
{
    add("archive");
    add("sda1");
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), Texts{"umount /tmp/hotplug/sda1"});
    EXPECT_TRUE(exists("/tmp/hotdev/archive"));
}

TEST_F(LeftoversTest, FindsThemBehindALink)
{
    EXPECT_EQ(symlink(mount_folder, "/tmp/link"), 0);
    char through_link[] = "/tmp/link/";
    config.mountpath = through_link;
    add("sda1");
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), Texts{"umount /tmp/hotplug/sda1"});
    EXPECT_FALSE(exists("/tmp/hotdev/sda1"));
}

TEST_F(LeftoversTest, TellsWhenItCannotFindWhereTheyAre)
{
    char loop[] = "/tmp/loop";
    ASSERT_EQ(symlink("loop", loop), 0);
    add("sda1");
    config.mountpath = loop;
    EXPECT_EQ(take_off(), -1);
    EXPECT_EQ(fake_log_texts(),
              std::vector<std::string>{"prepare(#)what is left mounted below /tmp/loop cannot be "
                                       "found: Too many levels of symbolic links"});
    EXPECT_TRUE(fake_world().calls("umount").empty());
    unlink(loop);
}

TEST_F(LeftoversTest, ADevicePathThatIsTooLongCostsTheNodeOnly)
{
    add("sda1");
    for (const size_t length : {4095U, 4091U}) { // the latter has room for all but the zero byte
        std::string longest(length, 'd');
        config.devicepath = longest.data();
        EXPECT_EQ(take_off(), 0);
    }
    EXPECT_FALSE(exists("/tmp/hotplug/sda1"));
    EXPECT_TRUE(exists("/tmp/hotdev/sda1"));
    EXPECT_EQ(fake_world().count("unlink"), 0);
    std::string fits(4090, 'd');
    config.devicepath = fits.data();
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(fake_world().count("unlink"), 1);
}

// ---- the share file ----

// Whoever starts it may have closed its input.
TEST_F(LeftoversTest, EmptiesTheFileThroughAnyDescriptor)
{
    add("sda1");
    write_file(share_file, "[Drive(A1)]\n");
    const FdGuard input(dup(STDIN_FILENO));
    close(STDIN_FILENO);
    EXPECT_EQ(take_off(), 0);
    dup2(input.get(), STDIN_FILENO);
    EXPECT_EQ(read_file(share_file), "");
}

TEST_F(LeftoversTest, EmptiesNothingButRootsOwnFile)
{
    write_file("/tmp/victim", "text");
    const std::vector<std::function<void()>> plants = {
        [] { EXPECT_EQ(symlink("/tmp/victim", share_file), 0); },
        [] { EXPECT_EQ(link("/tmp/victim", share_file), 0); },
        [] { EXPECT_EQ(mkfifo(share_file, 0666), 0); },
        [] { EXPECT_EQ(mkdir(share_file, 0777), 0); },
        [] {
            write_file(share_file, "theirs");
            EXPECT_EQ(chown(share_file, 1234, 1234), 0);
        },
    };
    add("sda1");
    for (const auto& plant : plants) {
        remove(share_file);
        plant();
        fake_log_clear();
        EXPECT_EQ(take_off(), 0);
        EXPECT_EQ(read_file("/tmp/victim"), "text");
        EXPECT_EQ(told().at(0).find("prepare(#)/tmp/vynas.dir.conf is not emptied: "), 0U);
    }
    EXPECT_EQ(read_file(share_file), "theirs");
}

TEST_F(LeftoversTest, TheFileIsOpenForNobodyElse)
{
    add("sda1");
    EXPECT_EQ(inheritable_after([&] { EXPECT_EQ(take_off(), 0); }), Texts{});
    judge = by_refusals;
    refusals["/tmp/hotplug/sda1"] = "it was pulled";
    EXPECT_EQ(inheritable_after([&] { EXPECT_EQ(take_off(), 0); }), Texts{});
}

// ---- what stays ----

TEST_F(LeftoversTest, WhereEverythingStaysNothingIsTouched)
{
    judge = by_refusals;
    add("sda1");
    add("sdb1");
    EXPECT_EQ(take_off(), 0);
    EXPECT_TRUE(fake_world().journal.empty());
    EXPECT_EQ(told(), Texts{});
    EXPECT_EQ(read_file(share_file), "[Drive(A1)]\n");
}

TEST_F(LeftoversTest, WhatDoesNotStayIsWithdrawnByNameAndTakenOff)
{
    judge = by_refusals;
    const std::string shares = "[Music]\nPath=/tmp/hotplug/sda1\n[Films]\nPath=/tmp/hotplug/sdb1\n"
                               "[Archive]\nPath=/tmp/hotplug/sdb1/x\n[Fixed]\nPath=/srv\n";
    write_file(share_file, shares);
    add("sda1");
    add("sdb1");
    refusals["/tmp/hotplug/sdb1"] = "it was pulled";
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), Texts{"umount /tmp/hotplug/sdb1"});
    EXPECT_EQ(read_file(share_file), shares + "[Films]\n");
    EXPECT_EQ(fake_world().signals.size(), 1U);
    EXPECT_EQ(fake_world().slept_usec, 400000U);
    EXPECT_EQ(told(), (Texts{"prepare(#)/tmp/hotplug/sdb1 does not stay mounted: it was pulled",
                             "prepare(#)/tmp/hotplug/sdb1 is unmounted"}));
    EXPECT_TRUE(exists("/tmp/hotdev/sda1"));
    EXPECT_FALSE(exists("/tmp/hotdev/sdb1"));
}

TEST_F(LeftoversTest, WhatDoesNotStayIsWithdrawnThroughTheFirstDescriptor)
{
    judge = by_refusals;
    const std::string shares = "[Music]\nPath=/tmp/hotplug/sda1\n";
    write_file(share_file, shares);
    add("sda1");
    refusals["/tmp/hotplug/sda1"] = "it was pulled";
    with_input_closed([this] { EXPECT_EQ(take_off(), 0); });
    EXPECT_EQ(read_file(share_file), shares + "[Music]\n");
}

TEST_F(LeftoversTest, WhereNothingStaysSharesAreWithdrawnByNameAsWell)
{
    judge = by_refusals;
    const std::string shares = "[Music]\nPath=/tmp/hotplug/sda1\n";
    write_file(share_file, shares);
    add("sda1");
    refusals["/tmp/hotplug/sda1"] = "it was pulled";
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(read_file(share_file), shares + "[Music]\n");
}

TEST_F(LeftoversTest, WhatLiesOnAPartitionStaysAndGoesWithIt)
{
    judge = by_refusals;
    add("sda1");
    add("sdb1");
    for (const char* path :
         {"/tmp/hotplug/sda1/inner", "/tmp/hotplug/sdb1/inner", "/tmp/hotplug/sdc1/x"}) {
        fake_world().mounts[path] = {"/dev/y", "ext4", 0, ""};
        mention(path);
    }
    refusals["/tmp/hotplug/sdb1"] = "it was pulled";
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), (Texts{"umount /tmp/hotplug/sdc1/x", "umount /tmp/hotplug/sdb1/inner",
                                  "umount /tmp/hotplug/sdb1"}));
}

// Only what is to be seen is judged; what it hides goes or stays with it.
TEST_F(LeftoversTest, OfSeveralMountsAtOnePlaceTheLastIsJudged)
{
    judge = by_refusals;
    add("sda1");
    mention("/tmp/hotplug/sda1");
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(taken_off(), Texts{});
    refusals["/tmp/hotplug/sda1"] = "it was pulled";
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(fake_world().count("umount"), 2);
    EXPECT_EQ(told()[0], "prepare(#)/tmp/hotplug/sda1 does not stay mounted: it was pulled");
    EXPECT_EQ(told()[1], "prepare(#)/tmp/hotplug/sda1 is unmounted");
}

TEST_F(LeftoversTest, WhatIsHiddenIsNotJudged)
{
    static std::vector<int32_t> judged;
    judged.clear();
    judge = [](void*, const MountinfoEntry& mount) -> const char* {
        judged.push_back(mount.id);
        return nullptr;
    };
    add("sda1");
    text += "37 36 8:2 / /tmp/hotplug/sda1 rw - ext4 /dev/x rw\n";
    text += "38 37 8:3 / /tmp/hotplug/sda1/inner rw - ext4 /dev/x rw\n";
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(judged, std::vector<int32_t>{37});
}

TEST_F(LeftoversTest, SharesOfOthersAreNotWrittenTo)
{
    judge = by_refusals;
    write_file("/tmp/victim", "[Films]\nPath=/tmp/hotplug/sdb1\n");
    remove(share_file);
    EXPECT_EQ(link("/tmp/victim", share_file), 0);
    add("sda1");
    add("sdb1");
    refusals["/tmp/hotplug/sdb1"] = "it was pulled";
    EXPECT_EQ(take_off(), 0);
    EXPECT_EQ(told().at(1),
              "prepare(#)shares stay in /tmp/vynas.dir.conf: Operation not permitted");
    EXPECT_EQ(read_file("/tmp/victim"), "[Films]\nPath=/tmp/hotplug/sdb1\n");
    EXPECT_EQ(taken_off(), Texts{"umount /tmp/hotplug/sdb1"});
}
