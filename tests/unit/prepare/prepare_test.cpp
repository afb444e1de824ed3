#include "prepare/prepare.h"

#include "fake/fake_world.h"
#include "lib/version.h"
#include "support/child.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
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
        for (const char* setting : {"symlinks", "regular", "fifos"})
            set_kernel(setting, "1\n");
    }

    // What the kernel's setting reads here, whatever it is on this machine.
    static void set_kernel(const std::string& setting, const char* value)
    {
        const std::string path = "/proc/sys/fs/protected_" + setting;
        write_file("/etc/kernel." + setting, value);
        EXPECT_EQ(
            mount(("/etc/kernel." + setting).c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
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

TEST_F(PrepareTest, WorksThroughTheFirstDescriptor)
{
    static constexpr char share_service[] = "/var/run/vynas-fssd.pid";
    write_file(share_service, "4711\n");
    int result = -1;
    with_input_closed([&] { result = surroundings(); });
    EXPECT_EQ(result, 0);
    struct stat status = {};
    EXPECT_EQ(stat(share_service, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    for (const char* path : {"/tmp/vyhotplugd", "/run/vyhotplugd"})
        expect_directory(path);
    EXPECT_EQ(told, Texts{});
}

// Whoever got there before the file-sharing service may have laid anything there.
TEST_F(PrepareTest, LeavesAloneWhatIsNoPidFileOfTheFileSharingService)
{
    static constexpr char share_service[] = "/var/run/vynas-fssd.pid";
    write_file("/var/victim", "");
    ASSERT_EQ(chmod("/var/victim", 0644), 0);
    ASSERT_EQ(symlink("/var/victim", share_service), 0);
    EXPECT_EQ(surroundings(), 0);
    struct stat status = {};
    EXPECT_EQ(stat("/var/victim", &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    ASSERT_EQ(unlink(share_service), 0);
    ASSERT_EQ(mkfifo(share_service, 0644), 0);
    const ChildResult result = run_child([] {
        alarm(20); // it is not waited for
        return prepare_surroundings(config_file) == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(stat(share_service, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(PrepareTest, OpensNothingForAnotherProgram)
{
    write_file(copy_file, "[x]\n");
    write_file("/var/run/vynas-fssd.pid", "4711\n");
    for (int run = 0; run < 2; run++) {
        const ChildResult result = run_child([] {
            for (const std::string& opened : inheritable_after([] {
                     (void)prepare_surroundings(config_file);
                     (void)prepare_save(config_file);
                 }))
                puts(opened.c_str());
            return 0;
        });
        EXPECT_EQ(result.out, "");
    }
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

TEST_F(PrepareTest, PidFilesAreRootsAlone)
{
    EXPECT_EQ(surroundings(), 0);
    struct stat status = {};
    EXPECT_EQ(lstat(pid_file, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    for (const char* path : {pid_file, "/var/run/vynas-fssd.pid"}) {
        write_file(path, "1\n");
        EXPECT_EQ(chmod(path, 01204), 0);
    }
    EXPECT_EQ(surroundings(), 0);
    for (const char* path : {pid_file, "/var/run/vynas-fssd.pid"}) {
        EXPECT_EQ(lstat(path, &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0600U) << path;
        EXPECT_EQ(read_file(path), "1\n");
    }
    EXPECT_EQ(told, Texts{});
}

TEST_F(PrepareTest, AnAdministratorsOwnPidFileIsNotMadePrivate)
{
    write_file("/var/run/vynas-fssd.pid", "1\n");
    EXPECT_EQ(chown("/var/run/vynas-fssd.pid", 1234, 1234), 0);
    EXPECT_EQ(chmod("/var/run/vynas-fssd.pid", 0644), 0);
    EXPECT_EQ(surroundings(), 0);
    struct stat status = {};
    EXPECT_EQ(lstat("/var/run/vynas-fssd.pid", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0644U);
}

TEST_F(PrepareTest, RefusesWhereItCannotKnow)
{
    EXPECT_EQ(symlink("/etc/passwd", pid_file), 0);
    EXPECT_EQ(surroundings(), -1);
    EXPECT_EQ(told.size(), 1U);
}

// ---- mistakes ----

TEST_F(PrepareTest, TellsMistakesInTheConfiguration)
{
    write_config("/run/vyhotplugd/files/shares", "/run/vyhotplugd/files/devices",
                 "mountpath=/media/vyhotplug\ndevicepath=/dev/vyhotplug\ndefualtgid=100\n"
                 "mountfs=fat,ntsf\ndefaultfilepermission=rw-rw-r--\nmountflags=nosiud\n");
    EXPECT_EQ(surroundings(), 0);
    const std::string at = std::string(config_file) + ":";
    EXPECT_EQ(
        told,
        (Texts{at + "5: defualtgid is no key, write defaultgid; it is passed over",
               at + "6: mountfs: ntsf is no word for it, write ntfs; it is passed over",
               at + "7: defaultfilepermission: rw-rw-r-- is no number, write 664; 664 is taken",
               at + "8: mountflags: nosiud is no word for it, write nosuid; it is passed over"}));
    told.clear();
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(told, Texts{}) << "it is told once for each start";
}

TEST_F(PrepareTest, TellsTheNumberToWriteForAName)
{
    write_file("/etc/passwd", read_file("/etc/passwd") + "anna:x:1001:1001::/:/bin/sh\n");
    EXPECT_EQ(surroundings(), 0);
    write_file("/tmp/vyhotplugd/hotplug.dev.conf",
               "[x]\nFull Access Users=anna,nobody-of-that-name\n");
    const Texts expected = {"/run/vyhotplugd/files/hotplug.dev.conf:2: [x] FullAccessUsers: anna "
                            "is no user id, write 1001 "
                            "for anna; it is passed over",
                            "/run/vyhotplugd/files/hotplug.dev.conf:2: [x] FullAccessUsers: "
                            "nobody-of-that-name is no user "
                            "id; it is passed over"};
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(told, expected);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(told, expected) << "once for each version of the file";
    EXPECT_EQ(read_file(copy_file), "[x]\nFull Access Users=anna,nobody-of-that-name\n");
    // What the service makes of it leaves the copy as a generation.
    write_file("/tmp/vyhotplugd/hotplug.dev.conf", "[x]\nFull Access Users=\n");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(std::string(copy_file) + ".1"),
              "[x]\nFull Access Users=anna,nobody-of-that-name\n");
    write_file("/tmp/vyhotplugd/hotplug.dev.conf", "[x]\nFull Access Users=anna\n");
    told.clear();
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(told, Texts{expected[0]}) << "and at the start";
}

TEST_F(PrepareTest, WarnsOfAKernelThatDoesNotProtectRoot)
{
    static const char behind[] =
        " is 0, the kernel does not keep root from what others lay in /tmp: set it to 1";
    for (const char* setting : {"symlinks", "regular", "fifos"}) {
        set_kernel(setting, "0\n");
        EXPECT_EQ(surroundings(), 0);
        EXPECT_EQ(told, Texts{std::string("fs.protected_") + setting + behind});
        told.clear();
        set_kernel(setting, "2\n");
    }
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(told, Texts{});
}

// ---- what stays mounted ----

TEST_F(PrepareTest, NotesMountsOnlyWhereTheyAreTakenOver)
{
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(save(), 0);
    EXPECT_FALSE(exists("/run/vyhotplugd/mounts"));
    write_file(config_file, read_file(config_file) + "adopt=enable\n");
    EXPECT_EQ(save(), 0);
    EXPECT_TRUE(exists("/run/vyhotplugd/mounts"));
    unlink("/run/vyhotplugd/mounts");
    fake_world().fail("rename", 1, ENOSPC);
    EXPECT_EQ(save(), 0) << "the settings are saved";
    EXPECT_EQ(told,
              Texts{"what is mounted is not noted, a restart will unmount it: No space left on "
                    "device"});
}

TEST_F(PrepareTest, NotesThatCannotBeReadAreTold)
{
    write_file(config_file, read_file(config_file) + "adopt=enable\n");
    mkdir("/run/vyhotplugd", 0755);
    mkdir("/run/vyhotplugd/mounts", 0755);
    EXPECT_EQ(surroundings(), 0);
    EXPECT_EQ(told, Texts{"/run/vyhotplugd/mounts cannot be read: Invalid argument"});
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
    std::string other = read_file(config_file);
    other.replace(other.find("/media/vyhotplug"), strlen("/media/vyhotplug"), "/media/other");
    write_file("/etc/other.conf", other);
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

TEST_F(PrepareTest, FailsWhereNobodyTakesWhatItPrints)
{
    for (const char* option : {"--version", "--help"}) {
        const ChildResult result = run_child([option] {
            EXPECT_NE(freopen("/dev/full", "w", stdout), nullptr);
            return call_main(prepare_main, {"vyhotplug-prepare", option});
        });
        EXPECT_EQ(result.status, 1) << option;
        EXPECT_EQ(result.err, "vyhotplug-prepare: cannot write to standard output\n");
    }
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
