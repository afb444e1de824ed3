#include "prepare/prepare.h"

#include "fake/fake_world.h"
#include "lib/version.h"
#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr char config_file[] = "/etc/vyhotplugd/vyhotplugd.conf";
constexpr char copy_file[] = "/var/lib/vyhotplugd/hotplug.dev.conf";
constexpr char pid_file[] = "/var/run/vyhotplugd.pid";
constexpr char hook_link[] = "/tmp/vyhotplugd-evhook.sh";

// Everything below a few directories: kind and mode, owner, inode, time of the last change.
std::map<std::string, std::string> seen;

int see(const char* path, const struct stat* status, int, FTW* place)
{
    if (place->level == 0 || strncmp(path, "/run/child.", 11) == 0)
        return 0; // what is caught of a process's output comes and goes
    char text[128];
    snprintf(text, sizeof text, "%o %u %llu %lld.%ld", static_cast<unsigned>(status->st_mode),
             static_cast<unsigned>(status->st_uid), static_cast<unsigned long long>(status->st_ino),
             static_cast<long long>(status->st_ctim.tv_sec), status->st_ctim.tv_nsec);
    seen[path] = text;
    return 0;
}

std::map<std::string, std::string> everything()
{
    seen.clear();
    for (const char* top : {"/tmp", "/run", "/media", "/dev", "/etc/vyhotplugd", "/var/lib"})
        nftw(top, see, 16, FTW_PHYS | FTW_MOUNT); // not what the world keeps of the machine
    return seen;
}

class PrepareTest : public testing::Test {
  protected:
    PrepareTest()
    {
        umask(022);
        mkdir("/etc/vyhotplugd", 0755);
        mkdir("/var/lib", 0755);
        mkdir("/var/lib/vyhotplugd", 0755);
        write_config("/run/vyhotplugd/files/vynas.dir.conf",
                     "/run/vyhotplugd/files/hotplug.dev.conf");
    }
    ~PrepareTest() override { fake_world_reset(); }

    static void write_config(const std::string& shares, const std::string& devices,
                             const std::string& more = "mountpath=/media/vyhotplug\n"
                                                       "devicepath=/dev/vyhotplug\n")
    {
        write_file(config_file,
                   "smbconfigpath=" + shares + "\ndeviceconfigpath=" + devices + "\n" + more);
    }

    // Runs it in a process of its own, as it is: a configuration's option texts live until the end.
    int surroundings(const char* path = config_file)
    {
        return note(run_child([path] { return prepare_surroundings(path) == 0 ? 0 : 1; }));
    }

    int save()
    {
        return note(run_child([] { return prepare_save(config_file) == 0 ? 0 : 1; }));
    }

    // Takes what was told. Returns 0 or -1, as the function did.
    int note(const ChildResult& result)
    {
        static const std::string prefix = "vyhotplug-prepare: ";
        size_t at = 0;
        for (size_t end = 0; (end = result.err.find('\n', at)) != std::string::npos; at = end + 1) {
            const std::string line = result.err.substr(at, end - at);
            EXPECT_EQ(line.compare(0, prefix.size(), prefix), 0) << line;
            told.push_back(line.substr(prefix.size()));
        }
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(result.status == 0 || result.status == 1) << result.status;
        return result.status == 0 ? 0 : -1;
    }

    static std::string link_target(const char* path)
    {
        char target[256] = "";
        return readlink(path, target, sizeof target - 1) >= 0 ? target : "(none)";
    }

    static void expect_directory(const char* path)
    {
        struct stat status = {};
        EXPECT_EQ(lstat(path, &status), 0) << path;
        EXPECT_EQ(status.st_mode, S_IFDIR | 0755U) << path;
        EXPECT_EQ(status.st_uid, 0U) << path;
    }

    static ChildResult run(const Texts& arguments)
    {
        Texts all = {"vyhotplug-prepare"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return run_main(prepare_main, all);
    }

    Texts told;
};

} // namespace

// ---- what is made ----

TEST_F(PrepareTest, MakesTheSurroundings)
{
    EXPECT_EQ(surroundings(), 0);
    for (const char* path : {"/tmp/vyhotplugd", "/run/vyhotplugd", "/media/vyhotplug",
                             "/dev/vyhotplug", "/tmp/vynasmira"})
        expect_directory(path);
    EXPECT_EQ(link_target("/run/vyhotplugd/files"), "/tmp/vyhotplugd");
    EXPECT_EQ(link_target("/tmp/vynasmira/vyhotplugd.conf"), config_file);
    EXPECT_EQ(link_target(hook_link), "/etc/vyhotplugd/evhook");
    EXPECT_EQ(told, Texts{});
}

TEST_F(PrepareTest, ASecondRunChangesNothing)
{
    write_file(copy_file, "[x]\n");
    EXPECT_EQ(surroundings(), 0);
    const auto before = everything();
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(everything(), before);
    EXPECT_EQ(told, Texts{});
}

TEST_F(PrepareTest, OtherPathsGetTheirDirectoriesAndNothingElse)
{
    write_config("/var/a/b/shares", "/var/c/devices",
                 "mountpath=/mnt/x/y\ndevicepath=/var/nodes/\n");
    EXPECT_EQ(surroundings(), 0);
    for (const char* path : {"/var/a/b", "/var/c", "/mnt/x/y", "/var/nodes"})
        expect_directory(path);
    EXPECT_FALSE(exists("/tmp/vyhotplugd"));
    EXPECT_FALSE(exists("/run/vyhotplugd"));
    EXPECT_EQ(link_target(hook_link), "/etc/vyhotplugd/evhook");
}

TEST_F(PrepareTest, OneOfTheTwoFilesBelowTheLinkIsEnough)
{
    write_config("/tmp/shares", "/run/vyhotplugd/files/devices");
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(link_target("/run/vyhotplugd/files"), "/tmp/vyhotplugd");
}

TEST_F(PrepareTest, AConfigurationInTmpStaysWhereItIs)
{
    mkdir("/tmp/vynasmira", 0700);
    const std::string text = read_file(config_file);
    write_file("/tmp/vynasmira/vyhotplugd.conf", text);
    EXPECT_EQ(surroundings("/tmp/vynasmira/vyhotplugd.conf"), 0);
    EXPECT_EQ(link_target("/tmp/vynasmira/vyhotplugd.conf"), "(none)");
    EXPECT_EQ(read_file("/tmp/vynasmira/vyhotplugd.conf"), text);
}

TEST_F(PrepareTest, RemovesWhatOthersPutInTheWayOfTemporaryFiles)
{
    const Texts names = {"/tmp/vyhotplug.dev.conf.tmp", "/tmp/vyhotplug.dir.conf.tmp",
                         "/tmp/mntent.tmp"};
    for (const std::string& name : names)
        EXPECT_EQ(symlink(config_file, name.c_str()), 0);
    EXPECT_EQ(surroundings(), 0);
    for (const std::string& name : names)
        EXPECT_FALSE(exists(name)) << name;
    EXPECT_TRUE(exists(config_file));
}

TEST_F(PrepareTest, RestoresTheSettings)
{
    write_file(copy_file, "[x]\n");
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(read_file("/tmp/vyhotplugd/hotplug.dev.conf"), "[x]\n");
}

TEST_F(PrepareTest, DoesNotTakeOverSettingsThatOthersMade)
{
    mkdir("/tmp/vyhotplugd", 0755);
    write_file("/tmp/vyhotplugd/hotplug.dev.conf", "[evil]\nPath=/etc\n");
    EXPECT_EQ(chown("/tmp/vyhotplugd", 1234, 1234), 0);
    write_file(copy_file, "[x]\n");
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(read_file("/tmp/vyhotplugd/hotplug.dev.conf"), "[x]\n");
}

TEST_F(PrepareTest, SettingsThatCannotBeRestoredAreALesserFailure)
{
    write_file(copy_file, "[x]\n");
    EXPECT_EQ(surroundings(), 0);
    unlink("/tmp/vyhotplugd/hotplug.dev.conf");
    fake_world().fail("rename", 0, ENOSPC);
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(told, Texts{"the settings in /var/lib/vyhotplugd/"
                          "hotplug.dev.conf cannot be restored: "
                          "No space left on device"});
}

// ---- what cannot be ----

TEST_F(PrepareTest, TriesEverythingWhenSomethingFails)
{
    write_file("/media/vyhotplug", "");
    EXPECT_EQ(surroundings(), -1);
    expect_directory("/tmp/vyhotplugd");
    expect_directory("/dev/vyhotplug");
    EXPECT_EQ(link_target(hook_link), "/etc/vyhotplugd/evhook");
    EXPECT_EQ(link_target("/tmp/vynasmira/vyhotplugd.conf"), config_file);
    EXPECT_EQ(told, Texts{"/media/vyhotplug cannot be made ready: Not a directory"});
}

TEST_F(PrepareTest, WithoutItsHookTheServiceMustNotStart)
{
    write_file(hook_link, "#!/bin/sh\n");
    EXPECT_EQ(surroundings(), 0);
    unlink(hook_link);
    mkdir(hook_link, 0755);
    fake_world().fail("rename", 0, EBUSY);
    EXPECT_EQ(surroundings(), -1);
}

TEST_F(PrepareTest, WithoutTheInfoToolsLinkItStarts)
{
    mkdir("/tmp/vynasmira", 0755);
    write_file("/tmp/vynasmira/x", "");
    EXPECT_EQ(chown("/tmp/vynasmira", 1234, 1234), 0);
    EXPECT_EQ(symlink("/etc/vyhotplugd/evhook", hook_link), 0);
    EXPECT_EQ(mkdir("/run/vyhotplugd", 0755), 0);
    EXPECT_EQ(symlink("/tmp/vyhotplugd", "/run/vyhotplugd/files"), 0);
    fake_world().fail("rename", 0, EBUSY);
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(told, (Texts{std::string("/tmp/vynasmira cannot be made ready: ") + strerror(EBUSY),
                           "/tmp/vynasmira/vyhotplugd.conf cannot be made ready: "
                           "Operation not permitted"}));
    EXPECT_EQ(link_target("/tmp/vynasmira/vyhotplugd.conf"), "(none)");
}

TEST_F(PrepareTest, NeedsBothDirectoriesNamed)
{
    write_config("/tmp/a", "/tmp/b", "devicepath=/dev/vyhotplug\n");
    EXPECT_EQ(surroundings(), -1);
    write_config("/tmp/a", "/tmp/b", "mountpath=/media/vyhotplug\n");
    EXPECT_EQ(surroundings(), -1);
    EXPECT_EQ(told, (Texts{"the configuration names no mountpath",
                           "the configuration names no devicepath"}));
    EXPECT_FALSE(exists("/tmp/hotplug.dev.conf"));
    EXPECT_FALSE(exists(hook_link));
}

TEST_F(PrepareTest, NeedsAConfiguration)
{
    unlink(config_file);
    EXPECT_EQ(surroundings(), -1);
    EXPECT_EQ(save(), -1);
    EXPECT_EQ(told, Texts(2, "/etc/vyhotplugd/vyhotplugd.conf cannot be "
                             "read: No such file or directory"));
    EXPECT_FALSE(exists(hook_link));
}

// ---- the lock ----

TEST_F(PrepareTest, RefusesWhileTheServiceRuns)
{
    write_file(pid_file, "1\n");
    const int fd = open(pid_file, O_RDONLY);
    EXPECT_EQ(flock(fd, LOCK_EX), 0);
    const auto before = everything();
    EXPECT_EQ(surroundings(), -1);
    EXPECT_EQ(everything(), before);
    EXPECT_EQ(told, Texts{"vyhotplugd is running, "
                          "/var/run/vyhotplugd.pid is locked"});
    EXPECT_EQ(save(), 0) << "settings are saved while it runs";
    close(fd);
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(read_file(pid_file), "1\n");
}

TEST_F(PrepareTest, LetsTheLockGoAtItsEnd)
{
    write_file(pid_file, "1\n");
    EXPECT_EQ(surroundings(), 0);
    const int fd = open(pid_file, O_RDONLY);
    EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    close(fd);
}

TEST_F(PrepareTest, RefusesWhileAnotherRunLooksAtTheLock)
{
    write_file(pid_file, "1\n");
    const int fd = open(pid_file, O_RDONLY);
    EXPECT_EQ(flock(fd, LOCK_SH), 0);
    EXPECT_EQ(surroundings(), -1);
    close(fd);
}

TEST_F(PrepareTest, RefusesWhereItCannotKnow)
{
    EXPECT_EQ(symlink("/etc/passwd", pid_file), 0);
    EXPECT_EQ(surroundings(), -1);
    EXPECT_EQ(told.size(), 1U);
}

// ---- saving ----

TEST_F(PrepareTest, SavesTheSettings)
{
    EXPECT_EQ(surroundings(), 0);
    write_file("/tmp/vyhotplugd/hotplug.dev.conf", "[x]\n");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(copy_file), "[x]\n");
}

TEST_F(PrepareTest, SettingsThatCannotBeSavedAreAFailure)
{
    EXPECT_EQ(surroundings(), 0);
    write_file("/tmp/vyhotplugd/hotplug.dev.conf", "[x]\n");
    fake_world().fail("rename", 0, ENOSPC);
    EXPECT_EQ(save(), -1);
    EXPECT_EQ(told, Texts{"the settings in /run/vyhotplugd/files/"
                          "hotplug.dev.conf cannot be saved: No space left on device"});
}

// ---- the command line ----

TEST_F(PrepareTest, TakesItsOptions)
{
    write_file("/etc/other.conf", read_file(config_file) + "mountpath=/media/other\n");
    ChildResult result = run({"-f", "/etc/other.conf"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_TRUE(exists("/media/other"));
    EXPECT_EQ(link_target("/tmp/vynasmira/vyhotplugd.conf"), "/etc/other.conf");
    EXPECT_EQ(run({}).status, 0);
    EXPECT_EQ(link_target("/tmp/vynasmira/vyhotplugd.conf"), config_file);
    write_file("/tmp/vyhotplugd/hotplug.dev.conf", "[x]\n");
    EXPECT_EQ(run({"--save", "--file", config_file}).status, 0);
    EXPECT_EQ(read_file(copy_file), "[x]\n");
}

TEST_F(PrepareTest, WhatItMakesIsThereForAll)
{
    write_config("/var/a/b/shares", "/var/c/devices");
    umask(077);
    EXPECT_EQ(run({}).status, 0);
    for (const char* path : {"/var/a", "/var/a/b", "/var/c", "/media/vyhotplug"})
        expect_directory(path);
}

TEST_F(PrepareTest, ARelativePathIsMadeWhole)
{
    EXPECT_EQ(chdir("/etc/vyhotplugd"), 0);
    EXPECT_EQ(run({"-f", "vyhotplugd.conf"}).status, 0);
    EXPECT_EQ(link_target("/tmp/vynasmira/vyhotplugd.conf"), config_file);
    EXPECT_EQ(chdir("/"), 0);
}

TEST_F(PrepareTest, RefusesAPathThatTheServiceCouldNotTake)
{
    const ChildResult result = run({"-f", "/" + std::string(127, 'x')});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("no path that the service could read\n"), std::string::npos);
    EXPECT_FALSE(exists(hook_link));
}

TEST_F(PrepareTest, TellsItsVersionAndItsOptions)
{
    ChildResult result = run({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "vyhotplug-prepare " + std::string(vy_build) + "\n");
    result = run({"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.find("usage: vyhotplug-prepare [-f FILE] [--save]\n"), 0U);
    EXPECT_FALSE(exists(hook_link));
}

TEST_F(PrepareTest, RefusesEveryOtherCommandLine)
{
    for (const Texts& arguments :
         {Texts{"x"}, Texts{"-x"}, Texts{"-f"}, Texts{"--save", "x"}, Texts{"--save=x"}}) {
        const ChildResult result = run(arguments);
        EXPECT_EQ(result.status, 2) << arguments[0];
        EXPECT_EQ(result.out, "") << arguments[0];
        EXPECT_NE(result.err, "") << arguments[0];
    }
    EXPECT_FALSE(exists(hook_link));
}

TEST_F(PrepareTest, IsRootsOnly)
{
    const ChildResult result = run_child([] {
        EXPECT_EQ(setuid(1234), 0);
        return call_main(prepare_main, {"vyhotplug-prepare"});
    });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "root only.\n");
}

TEST_F(PrepareTest, TellsFailuresOnStandardError)
{
    unlink(config_file);
    const ChildResult result = run({});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vyhotplug-prepare: /etc/vyhotplugd/vyhotplugd.conf cannot be read: "
                          "No such file or directory\n");
}
