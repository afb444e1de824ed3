#include "ctl/problems.h"

#include "ctl/machine.h"
#include "ctl/serving_problems.h"
#include "fake/fake_world.h"
#include "lib/version.h"
#include "support/child.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"
#include "unit/ctl/made_view.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr char programs[] = "/usr/local/sbin"; // those of the test

// A configuration that is right, a view of the test's and programs that it installs and starts.
class ProblemsTest : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(mount("x", programs, "tmpfs", 0, nullptr), 0);
        fs::create_directories("/tmp/ctl/nodes");
        fs::create_directories("/tmp/running");
        ASSERT_EQ(mkfifo("/tmp/wait", 0600), 0);
    }
    ~ProblemsTest() override { problems_end(&table_); }

    // "id: text" of each problem that is found, notes in brackets; those of the machine left out.
    std::string found(ProblemScope scope)
    {
        problems_end(&table_);
        const int wrong = problems_find(world_.setup, view_.view, scope, &table_);
        int counted = 0;
        for (size_t i = 0; i < table_.count; i++)
            counted += table_.problems[i].note ? 0 : 1;
        EXPECT_EQ(wrong, counted);
        return told();
    }

    // What is to be typed against a problem; "(...)" where it is a sentence.
    std::string remedy(const std::string& id) const
    {
        for (size_t i = 0; i < table_.count; i++) {
            char text[problem_text_size];
            problem_remedy(table_.problems[i], text);
            if (table_.problems[i].id == id)
                return table_.problems[i].remedy.prose ? "(" + std::string(text) + ")" : text;
        }
        return "";
    }

    // The same of one look.
    std::string found_by(void (*look_at)(ProblemLook* look), const FileServer* server,
                         bool asks = false)
    {
        problems_end(&table_);
        ProcessTableGuard processes;
        EXPECT_EQ(processes_read(processes.out()), 0);
        ProblemLook look = {.setup = &world_.setup,
                            .view = &view_.view,
                            .table = &table_,
                            .server = server,
                            .processes = processes.get(),
                            .asks = asks};
        look_at(&look);
        return told();
    }

    std::string told() const
    {
        std::string text;
        for (size_t i = 0; i < table_.count; i++) {
            const Problem& problem = table_.problems[i];
            text += std::string(problem.note ? "(" : "") + problem.id + ": " + problem.text +
                    (problem.note ? ")" : "") + "\n";
        }
        return text;
    }

    static void install(const std::string& name, const std::string& build = vy_build)
    {
        const std::string path = std::string(programs) + "/" + name;
        write_file(path, std::string("code\0", 5) + build + std::string("\0code", 5));
        EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    }

    static pid_t start(const std::string& name, const std::string& word = "/tmp/wait")
    {
        const std::string path = "/tmp/running/" + name;
        fs::copy_file("/bin/cat", path);
        const pid_t pid = fork();
        if (pid == 0) {
            execl(path.c_str(), path.c_str(), "/tmp/wait", word.c_str(), nullptr);
            _exit(1);
        }
        EXPECT_TRUE(wait_for([&] {
            return read_file("/proc/" + std::to_string(pid) + "/cmdline").starts_with(path);
        }));
        return pid;
    }

    static void replace(const std::string& name)
    {
        EXPECT_EQ(unlink(("/tmp/running/" + name).c_str()), 0);
    }

    CtlWorld world_;
    MadeView view_;
    ProblemTable table_ = {};
    const FileServer* samba_ = &file_servers[0];
    const FileServer* ksmbd_ = &file_servers[1];
};

} // namespace

// ---- the configuration ----

TEST_F(ProblemsTest, OfAConfigurationThatIsRightThereAreNone)
{
    EXPECT_EQ(found(PROBLEMS_CONFIGURATION), "");
}

TEST_F(ProblemsTest, DirectoriesThatAreNotThere)
{
    ASSERT_EQ(rmdir("/tmp/ctl/nodes"), 0);
    ASSERT_EQ(rmdir("/tmp/ctl/mounts"), 0);
    write_file("/tmp/ctl/mounts", "");
    EXPECT_EQ(found(PROBLEMS_CONFIGURATION),
              "directory_missing: mountpath /tmp/ctl/mounts is no directory\n"
              "directory_missing: devicepath /tmp/ctl/nodes: No such file or directory\n");
}

TEST_F(ProblemsTest, FilesOutsideOfTheirFilesystem)
{
    ASSERT_EQ(mkdir("/mnt/other", 0755), 0);
    ASSERT_EQ(mount("x", "/mnt/other", "tmpfs", 0, nullptr), 0);
    write_file("/tmp/ctl/config", "smbconfigpath=/mnt/other/shares\n"
                                  "deviceconfigpath=/mnt/none/devices\n"
                                  "mountpath=/tmp/ctl/mounts\ndevicepath=/tmp/ctl/nodes\n");
    setup_end(&world_.setup);
    ASSERT_EQ(setup_begin({.config = "/tmp/ctl/config", .sysfs = ctl_sysfs, .run = "/tmp/ctl/run"},
                          &world_.setup),
              0);
    EXPECT_EQ(found(PROBLEMS_CONFIGURATION),
              "other_filesystem: /mnt/other/shares is not on the filesystem of /tmp, the service "
              "cannot replace it\n"
              "directory_missing: /mnt/none/devices: its directory is not there\n");
}

TEST_F(ProblemsTest, FilesThatOthersMayChange)
{
    write_file(ctl_devices, "");
    write_file(ctl_shares, "");
    ASSERT_EQ(chmod(ctl_shares, 0644), 0);
    ASSERT_EQ(chmod(ctl_devices, 0664), 0);
    ASSERT_EQ(chmod("/tmp/ctl/config", 0646), 0);
    EXPECT_EQ(found(PROBLEMS_CONFIGURATION),
              "open_to_others: /tmp/ctl/config may be changed by others than root\n"
              "open_to_others: /tmp/ctl/devices may be changed by others than root\n");
    EXPECT_EQ(remedy("open_to_others"),
              "chown root:root /tmp/ctl/config && chmod go-w /tmp/ctl/config");
    ASSERT_EQ(chmod(ctl_devices, 0600), 0);
    ASSERT_EQ(chmod("/tmp/ctl/config", 0644), 0);
    ASSERT_EQ(chown(ctl_shares, 1, 0), 0);
    ASSERT_EQ(chown("/tmp/ctl/config", 1, 0), 0);
    EXPECT_EQ(found(PROBLEMS_CONFIGURATION),
              "open_to_others: /tmp/ctl/config may be changed by others than root\n"
              "open_to_others: /tmp/ctl/shares may be changed by others than root\n");
}

TEST_F(ProblemsTest, FilesThatCannotBeReadAreNotTakenForRight)
{
    ASSERT_EQ(unlink("/tmp/ctl/config"), 0);
    const std::string configuration = found(PROBLEMS_CONFIGURATION);
    EXPECT_EQ(configuration,
              "configuration: /tmp/ctl/config cannot be read: No such file or directory\n");
    EXPECT_EQ(remedy("configuration"), "ls -ld /tmp/ctl/config");
    write_file(ctl_devices, "[1:2:a:1]\nColour=red\n");
    view_.view.device_file = -EACCES;
    EXPECT_NE(found(PROBLEMS_QUICK)
                  .find("settings: /tmp/ctl/devices cannot be read: Permission denied\n"),
              std::string::npos);
    EXPECT_EQ(remedy("settings"), "(chown root and chmod 644 it)");
    view_.view.device_file = -ENOENT;
    EXPECT_EQ(found(PROBLEMS_QUICK).find("settings: "), std::string::npos);
}

TEST_F(ProblemsTest, LinesThatAreNotUnderstood)
{
    write_file("/tmp/ctl/config", read_file("/tmp/ctl/config") + "colour=red\n");
    const std::string text = found(PROBLEMS_CONFIGURATION);
    EXPECT_EQ(text.find("configuration: /tmp/ctl/config:5: "), 0U) << text;
    write_file(ctl_devices, "[1:2:a:1]\nColour=red\n");
    EXPECT_EQ(found(PROBLEMS_CONFIGURATION), text);
    EXPECT_NE(found(PROBLEMS_QUICK).find("settings: /tmp/ctl/devices:2: "), std::string::npos);
}

// ---- the view ----

TEST_F(ProblemsTest, ANameThatSeveralHaveIsToldAtEachLaterOne)
{
    for (const char* name : {"sda1", "sdb1", "sdc1", "sdd1"})
        view_.add(name, std::string(name) + ":1", ITEM_SHARED).share =
            view_.text(std::string(name) == "sdb1" ? "Other"
                       : name[2] == 'd'            ? "MUSIC"
                                                   : "Music");
    view_.add("sde1", "e:1", ITEM_MOUNTED);
    const std::string text = found(PROBLEMS_QUICK);
    EXPECT_NE(text.find("name_twice: sda1 and sdc1 are both called Music: only one is shared\n"
                        "name_twice: sda1 and sdd1 are both called MUSIC: only one is shared\n"
                        "name_twice: sdc1 and sdd1 are both called MUSIC: only one is shared\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("Other"), std::string::npos);
    EXPECT_EQ(remedy("name_twice"), "vyhotplugctl set sdc1 share=NAME");
}

TEST_F(ProblemsTest, UsersThatThereAreNot)
{
    ConfDev* settings = view_.settings();
    add_user(settings->fullaccessusers, 0);
    add_user(settings->readonlyusers, 4294);
    add_user(settings->hideusers, 4295);
    add_user(settings->hideusers, 4294);
    view_.add("sda1", "a:1", ITEM_SHARED).settings = settings;
    view_.add("sdb1", "b:1", ITEM_SHARED);
    const std::string text = found(PROBLEMS_QUICK);
    EXPECT_NE(text.find("no_such_user: sda1: nobody has the user number 4294\n"
                        "no_such_user: sda1: nobody has the user number 4295\n"
                        "no_such_user: sda1: nobody has the user number 4294\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("number 0"), std::string::npos);
    EXPECT_EQ(remedy("no_such_user"), "vyhotplugctl edit sda1");
}

TEST_F(ProblemsTest, DisksThatAreNotMountedAndDirectoriesThatAreGone)
{
    view_.add("sda1", "a:1", ITEM_NOT_MOUNTED).reason = view_.text("is damaged");
    view_.add("sdb1", "b:1", ITEM_NOT_MOUNTED);
    view_.add("", "c", ITEM_GONE).directory = view_.text("/srv/c");
    view_.add("", "d", ITEM_GONE);
    view_.add("sdc1", "e:1", ITEM_WAITING);
    const std::string text = found(PROBLEMS_QUICK);
    EXPECT_TRUE(text.ends_with("not_mounted: sda1 is not mounted: is damaged\n"
                               "not_mounted: sdb1 is not mounted: \n"
                               "directory_gone: /srv/c is to be shared, and is not there\n"
                               "directory_gone: d is to be shared, and is not there\n"))
        << text;
    EXPECT_EQ(remedy("not_mounted"), "less /usr/share/doc/vyhotplugd/docs/troubleshooting.md");
}

// ---- what runs ----

TEST_F(ProblemsTest, AServiceThatDoesNotRunOrIsOld)
{
    EXPECT_EQ(found(PROBLEMS_QUICK).find("service_"), std::string::npos);
    start("vyhotplugd");
    EXPECT_EQ(found(PROBLEMS_QUICK).find("service_"), std::string::npos);
    replace("vyhotplugd");
    EXPECT_EQ(found(PROBLEMS_QUICK)
                  .find("service_replaced: the service that runs is older than the one that is "
                        "installed\n"),
              0U);
    view_.view.service_runs = false;
    EXPECT_EQ(found(PROBLEMS_QUICK).find("service_not_running: the service is not running\n"), 0U);
}

TEST_F(ProblemsTest, AnAgentThatDoesNotRunIsANoteWithoutSystemd)
{
    const std::string none = "agent_not_running: no agent runs that tells the service of disks "
                             "(mdev may do that, too)";
    EXPECT_EQ(found(PROBLEMS_QUICK).find("(" + none + ")\n"), 0U);
    fs::create_directories("/run/systemd/system");
    EXPECT_EQ(found(PROBLEMS_QUICK).find(none + "\n"), 0U);
    start("vyhotplug-agent");
    EXPECT_EQ(found(PROBLEMS_QUICK).find("agent"), std::string::npos);
    replace("vyhotplug-agent");
    EXPECT_EQ(found(PROBLEMS_QUICK)
                  .find("agent_replaced: the agent that runs is older than the one that is "
                        "installed\n"),
              0U);
}

TEST_F(ProblemsTest, ABridgeThatDoesNotRunOrIsOld)
{
    const std::string none = "bridge_not_running: no file-sharing service reads the shares\n";
    EXPECT_EQ(found_by(look_at_bridge, nullptr), none);
    EXPECT_STREQ(table_.problems[0].remedy.text, "install vynas-samba or vynas-ksmbd");
    EXPECT_EQ(found_by(look_at_bridge, ksmbd_), none);
    EXPECT_STREQ(table_.problems[0].remedy.text, "systemctl start vynas-ksmbd");
    const pid_t pid = start("vynas-ksmbd");
    write_file("/var/run/vynas-fssd.pid", std::to_string(pid));
    EXPECT_EQ(found_by(look_at_bridge, ksmbd_), "");
    EXPECT_EQ(file_server_find(), ksmbd_);
    replace("vynas-ksmbd");
    EXPECT_EQ(found_by(look_at_bridge, nullptr), "");
    EXPECT_EQ(found_by(look_at_bridge, ksmbd_),
              "bridge_replaced: the bridge that runs is older than the one that is installed\n");
}

TEST_F(ProblemsTest, WithoutABridgeThatRunsTheOneThatIsInstalledCounts)
{
    EXPECT_EQ(file_server_find(), nullptr);
    EXPECT_FALSE(file_server_is_told());
    install("vynas-ksmbd");
    EXPECT_EQ(file_server_find(), ksmbd_);
    install("vynas-samba");
    EXPECT_EQ(file_server_find(), samba_);
    write_file("/var/run/vynas-fssd.pid", std::to_string(start("else")));
    EXPECT_EQ(file_server_find(), nullptr) << "another one reads the shares";
    EXPECT_TRUE(file_server_is_told());
}

TEST_F(ProblemsTest, ProgramsOfAnotherVersion)
{
    const auto other = [](const std::string& program) {
        return std::string("other_version: this is vyhotplugctl ") + vy_build + ", and " + program +
               " is another\n";
    };
    install("vyhotplug-agent");
    install("vynas-samba", "0.1");
    install("vynas-ksmbd", std::string(vy_build) + ".1");
    EXPECT_EQ(found_by(look_at_versions, nullptr), other("vynas-samba") + other("vynas-ksmbd"));
}

// ---- what is needed ----

TEST_F(ProblemsTest, LabelToolsAreTheServicesOwn)
{
    const std::string folder = "/usr/libexec/vyhotplugd";
    if (!fs::exists("/usr/libexec"))
        fs::create_directory("/usr/libexec");
    ASSERT_EQ(mount("x", "/usr/libexec", "tmpfs", 0, nullptr), 0);
    fs::create_directory(folder);
    const auto tools = [this] {
        std::string told;
        std::string text = found(PROBLEMS_ALL);
        for (size_t at = 0; (at = text.find("label_tool", at)) != std::string::npos; at++)
            told += text.substr(at, text.find('\n', at) + 1 - at);
        return told;
    };
    const auto other = [](const std::string& name) {
        return "label_tool_missing: the service's own " + name +
               " is missing, and another one may write to the medium\n";
    };
    const auto missing = [&](const std::string& name) {
        return other(name).insert(other(name).size() - 1, ")");
    };
    const auto either = [&](const std::string& name) {
        return machine_has_program(name.c_str()) ? other(name) : missing(name);
    };
    EXPECT_EQ(tools(), either("mlabel") + missing("ntfsvlabel"));
    install("mlabel"); // that of others, which writes
    EXPECT_EQ(tools(), other("mlabel") + missing("ntfsvlabel"));
    world_.setup.config->fatvolumelabel = 0;
    EXPECT_EQ(tools(), missing("ntfsvlabel")) << "it is not run";
    world_.setup.config->labels = 1;
    EXPECT_EQ(tools(), missing("vylabel")) << "which is run for all";
    world_.setup.config->labels = 0;
    world_.setup.config->fatvolumelabel = 1;
    for (const char* name : {"/mlabel", "/ntfsvlabel"}) {
        write_file(folder + name, "");
        ASSERT_EQ(chmod((folder + name).c_str(), 0755), 0);
    }
    EXPECT_EQ(tools(), "");
}

// ---- the file server ----

TEST_F(ProblemsTest, WhatKeepsSambaFromSharing)
{
    EXPECT_EQ(found_by(look_at_file_server, nullptr), "");
    const std::string missing = "samba_missing: Samba is not installed\n";
    if (!fs::exists("/usr/sbin/smbd")) {
        EXPECT_EQ(found_by(look_at_file_server, samba_), missing);
    }
    install("smbd");
    EXPECT_EQ(found_by(look_at_file_server, samba_), "samba_not_running: Samba is not running\n");
    start("smbd");
    EXPECT_EQ(found_by(look_at_file_server, samba_), "") << "what cannot be read is believed";
    fs::create_directories("/etc/samba");
    write_file("/etc/samba/smb.conf", "[global]\n");
    EXPECT_EQ(found_by(look_at_file_server, samba_),
              "samba_not_set_up: /etc/samba/smb.conf does not include the shares\n");
    write_file("/etc/samba/smb.conf", "include = /run/vynas-samba/shares.conf\n");
    EXPECT_EQ(found_by(look_at_file_server, samba_), "");
}

TEST_F(ProblemsTest, NobodyHasASambaPassword)
{
    static constexpr char database[] = "/var/lib/samba/private/passdb.tdb";
    const std::string nobody = "samba_no_users: nobody has a Samba password\n";
    const std::string made("TDB file\0INFO/version", 21);
    const std::string config = "[global]\ninclude = /run/vynas-samba/shares.conf\n";
    fs::create_directories("/etc/samba");
    fs::create_directories("/var/lib/samba/private");
    EXPECT_EQ(found_by(look_at_server_users, samba_), "") << "there is no database yet";
    write_file(database, made);
    EXPECT_EQ(found_by(look_at_server_users, samba_), "") << "there is no configuration";
    write_file("/etc/samba/smb.conf", config);
    EXPECT_EQ(found_by(look_at_server_users, samba_), nobody);
    write_file("/etc/samba/smb.conf", config + "Passdb Backend = smbpasswd\n");
    EXPECT_EQ(found_by(look_at_server_users, samba_), "") << "they are elsewhere";
    write_file("/etc/samba/smb.conf", config);
    write_file(database, made + std::string("\0USER_anna\0", 11));
    EXPECT_EQ(found_by(look_at_server_users, samba_), "");
    EXPECT_EQ(found_by(look_at_server_users, nullptr), "");
}

TEST_F(ProblemsTest, SambaItselfKnowsWhetherAnybodyHasAPassword)
{
    install("pdbedit");
    auto& asked = fake_world().programs[std::string(programs) + "/pdbedit"];
    asked = {{0, 0, ""}, {0, 0, "anna:1001:\n"}};
    EXPECT_EQ(found_by(look_at_server_users, samba_, true),
              "samba_no_users: nobody has a Samba password\n");
    EXPECT_EQ(found_by(look_at_server_users, samba_, true), "");
}

TEST_F(ProblemsTest, WhatKeepsKsmbdFromSharing)
{
    install("ksmbd.mountd");
    utsname system = {};
    ASSERT_EQ(uname(&system), 0);
    if (fs::exists("/lib/modules")) {
        ASSERT_EQ(mount("x", "/lib/modules", "tmpfs", 0, nullptr), 0);
    }
    EXPECT_EQ(found_by(look_at_file_server, ksmbd_),
              "ksmbd_not_in_kernel: this kernel has no ksmbd\n");
    EXPECT_TRUE(file_server_in_kernel(*samba_, world_.setup)) << "it has no part there";
    fs::create_directories(std::string(ctl_sysfs) + "/class/ksmbd-control");
    EXPECT_EQ(found_by(look_at_file_server, ksmbd_), "ksmbd_not_running: ksmbd is not running\n");
    start("ksmbd.mountd");
    EXPECT_EQ(found_by(look_at_file_server, ksmbd_),
              "ksmbd_not_set_up: ksmbd.mountd does not read the shares\n");
    ProcessTableGuard processes;
    ASSERT_EQ(processes_read(processes.out()), 0);
    EXPECT_TRUE(file_server_runs(*ksmbd_, world_.setup, processes.get()));
    fs::remove(std::string(ctl_sysfs) + "/class/ksmbd-control");
    EXPECT_FALSE(file_server_runs(*ksmbd_, world_.setup, processes.get()))
        << "its part in the kernel does the work";
    fs::create_directories("/etc/ksmbd");
    write_file("/etc/ksmbd/ksmbdpwd.db", "");
    EXPECT_EQ(found_by(look_at_server_users, ksmbd_),
              "ksmbd_no_users: nobody has a ksmbd password\n");
}

TEST_F(ProblemsTest, AKsmbdThatReadsTheSharesIsStartedWithTheirList)
{
    install("ksmbd.mountd");
    fs::create_directories(std::string(ctl_sysfs) + "/class/ksmbd-control");
    start("ksmbd.mountd", "/run/vynas-ksmbd/ksmbd.conf");
    EXPECT_EQ(found_by(look_at_file_server, ksmbd_), "");
}

TEST_F(ProblemsTest, AnotherServerBesideTheOneThatTheSharesAreFor)
{
    install("smbd");
    install("ksmbd.mountd");
    start("smbd");
    start("ksmbd.mountd", "/run/vynas-ksmbd/ksmbd.conf");
    EXPECT_EQ(found_by(look_at_file_server, samba_), "") << "ksmbd's part in the kernel is missing";
    fs::create_directories(std::string(ctl_sysfs) + "/class/ksmbd-control");
    EXPECT_EQ(found_by(look_at_file_server, samba_), "other_server: ksmbd runs beside Samba\n");
    EXPECT_STREQ(table_.problems[0].remedy.text, "systemctl disable --now ksmbd");
    EXPECT_EQ(found_by(look_at_file_server, ksmbd_), "other_server: Samba runs beside ksmbd\n");
    EXPECT_STREQ(table_.problems[0].remedy.text, "systemctl disable --now smbd");
    EXPECT_EQ(found_by(look_at_file_server, nullptr), "");
}

TEST_F(ProblemsTest, AnotherServerAloneIsNotBesideAny)
{
    install("smbd");
    install("ksmbd.mountd");
    start("smbd");
    fs::create_directories(std::string(ctl_sysfs) + "/class/ksmbd-control");
    EXPECT_EQ(found_by(look_at_file_server, ksmbd_), "ksmbd_not_running: ksmbd is not running\n");
}

// ---- the network ----

TEST_F(ProblemsTest, WhatIsNotServedNeedNotBeFound)
{
    EXPECT_EQ(found_by(look_at_discovery, samba_), "");
}

TEST_F(ProblemsTest, WhatIsServedIsToBeFound)
{
    install("smbd");
    start("smbd");
    const std::string avahi = "no avahi-daemon runs: Macs and Linux do not show this machine";
    const std::string wsdd = "no wsdd runs: Windows does not show this machine";
    for (const char* name : {"avahi-daemon", "umdns", "wsdd", "wsdd2"}) {
        if (machine_has_program(name))
            GTEST_SKIP() << "this system has a " << name;
    }
    EXPECT_EQ(found_by(look_at_discovery, samba_),
              "(avahi_missing: " + avahi + ")\n(wsdd_missing: " + wsdd + ")\n");
    install("umdns");
    install("wsdd");
    EXPECT_EQ(found_by(look_at_discovery, samba_),
              "avahi_not_running: " + avahi + "\nwsdd_not_running: " + wsdd + "\n");
    start("umdns");
    start("wsdd2");
    EXPECT_EQ(found_by(look_at_discovery, samba_), "");
}

TEST_F(ProblemsTest, AvahiIsToldOfWhatIsServed)
{
    install("smbd");
    for (const char* name : {"smbd", "avahi-daemon", "wsdd"})
        start(name);
    const std::string untold = "avahi_not_told: no file tells Avahi of the file server\n";
    EXPECT_EQ(found_by(look_at_discovery, samba_), untold);
    EXPECT_EQ(found_by(look_at_discovery, nullptr), "");
    fs::create_directories("/etc/samba");
    const std::string include = "include = /run/vynas-samba/shares.conf\n";
    write_file("/etc/samba/smb.conf", include);
    EXPECT_EQ(found_by(look_at_discovery, samba_), "") << "Samba does that itself";
    write_file("/etc/samba/smb.conf", include + "Multicast DNS register = no\n");
    EXPECT_EQ(found_by(look_at_discovery, samba_), untold);
    fs::create_directories("/etc/avahi/services");
    write_file("/etc/avahi/services/own", "<type>_smb._tcp</type>");
    EXPECT_EQ(found_by(look_at_discovery, samba_), "");
    fs::remove("/etc/avahi/services/own");
    write_file("/etc/samba/smb.conf", "Multicast DNS register = no\n");
    EXPECT_EQ(found_by(look_at_discovery, samba_), "") << "which is told of as not set up";
}
