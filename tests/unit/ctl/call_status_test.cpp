#include "ctl/call_status.h"

#include "ctl/call_check.h"
#include "ctl/call_users.h"
#include "fake/fake_world.h"
#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/called.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

constexpr char sda1[] = "/tmp/ctl/mounts/sda1";

// A share that is mounted and half full, one that is not, and one that is known.
class CallStatus : public testing::Test {
  protected:
    CallStatus()
    {
        write_file(ctl_shares,
                   "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\nVolume "
                   "Label=MUSIC\nSpeed=480\n"
                   "[Photos]\nIdentifier=1:2:b:1\nPath=/tmp/ctl/mounts/sdb1\nFile System=vfat\n");
        write_file(ctl_devices, "[1:2:a:1]\nRead Only=1\nFull Access Users=0,1,\n"
                                "[1:2:c:1]\nShare Name=Away\n");
        EXPECT_EQ(mkdir(sda1, 0755), 0);
        EXPECT_EQ(mount("x", sda1, "tmpfs", 0, "size=1m"), 0);
        write_file(std::string(sda1) + "/half", std::string(512 << 10, 'h'));
    }

    Called status() { return called(call_status, args_, {}); }
    Called show(const std::string& word) { return called(call_show, args_, {word}); }
    Called who(const std::string& word) { return called(call_who, args_, {word}); }

    static size_t count_of(const std::string& text, const std::string& part)
    {
        size_t count = 0;
        for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at++)
            count++;
        return count;
    }

    CtlWorld world_;
    CtlService service_;
    CallArgs args_ = args_of(world_.setup);
};

} // namespace

// ---- status ----

TEST_F(CallStatus, IsATable)
{
    const Called result = status();
    EXPECT_EQ(result.status, EXIT_DONE);
    const std::string table =
        "PARTITION  SHARE   STATE        SIZE  USED   FILESYSTEM  MODE       WHO\n"
        "sda1       Music   shared     1.0 MB   50 %  tmpfs       read-only  root, daemon\n"
        "sdb1       Photos  unmounted                 vfat                   everybody\n";
    EXPECT_EQ(result.out.substr(0, table.size()), table);
    EXPECT_EQ(result.out.find("Away"), std::string::npos);
    args_.all = true;
    EXPECT_NE(status().out.find("\n1:2:c:1    Away    not plugged"), std::string::npos);
}

TEST_F(CallStatus, AReasonStandsBehindTheState)
{
    CtlWorld::add_usb_disk("sdc", "8:32", "1000");
    write_file(ctl_not_mounted, "sdc\t8:32\trefused\text4\tsdc is damaged\t-\n");
    EXPECT_NE(status().out.find("not mounted: is damaged  512 kB"), std::string::npos);
}

TEST_F(CallStatus, ProblemsStandBelowAndNotesDoNot)
{
    service_.end();
    const Called result = status();
    EXPECT_EQ(result.status, EXIT_NO_SERVICE);
    EXPECT_NE(result.out.find("\n! the service is not running\n"), std::string::npos);
    args_.json = true;
    const std::string json = status().out;
    EXPECT_EQ(json.find(R"({"call":"status","version":1,"service_runs":false,"items":[{"name")"),
              0U);
    EXPECT_EQ(count_of(json, R"("state":)"), 2U);
    EXPECT_EQ(count_of(json, R"("device":{)"), 2U) << "all that is known of each";
    EXPECT_NE(json.find(R"("problems":[{"id":"service_not_running","severity":"problem",)"),
              std::string::npos);
    EXPECT_TRUE(json.ends_with("]}\n"));
    args_.all = true;
    EXPECT_EQ(count_of(status().out, R"("state":)"), 3U);
}

TEST_F(CallStatus, NothingIsPlugged)
{
    ASSERT_EQ(umount(sda1), 0);
    write_file(ctl_shares, "");
    EXPECT_EQ(status().out.find("Nothing is plugged.\n"), 0U);
}

// ---- show and who ----

TEST_F(CallStatus, OneIsShownWhole)
{
    CtlWorld::add_usb_disk("sda", "8:0", "1000");
    CtlWorld::add_partition("sda", "sda1", "8:1");
    write_file("/tmp/ctl/sys/devices/usb-sda/manufacturer", "Maker\n");
    const FdGuard file(open("/tmp/ctl/mounts/sda1/half", O_RDONLY | O_CLOEXEC));
    const Called result = show("sda1");
    EXPECT_EQ(result.status, EXIT_DONE);
    const std::string begin = "         partition  sda1\n"
                              "          identity  1:2:a:1\n"
                              "             state  shared\n"
                              "      share's name  Music\n"
                              "             label  MUSIC\n"
                              "         directory  /tmp/ctl/mounts/sda1\n"
                              "        filesystem  tmpfs\n"
                              "              node  x\n"
                              "           mounted  read and write\n"
                              "       mount flags  rw,relatime\n"
                              "              size  1.0 MB, 524 kB used, 524 kB free\n"
                              "     kernel's name  sda1\n"
                              "            vendor  Maker\n"
                              "           product  Flash\n"
                              "            serial  S_1\n"
                              "            Mbit/s  480\n"
                              "     who may enter  root, daemon\n"
                              "         read-only  yes\n"
                              "             guest  no\n";
    EXPECT_EQ(result.out.substr(0, begin.size()), begin);
    EXPECT_NE(result.out.find("\n              full  root, daemon\n           held by\n  "),
              std::string::npos)
        << result.out;
    EXPECT_TRUE(result.out.ends_with(" of root, file) /tmp/ctl/mounts/sda1/half\n"));
}

TEST_F(CallStatus, WhatIsNotMountedHasNoHolders)
{
    CtlWorld::add_usb_disk("sdb", "8:16", "1000");
    CtlWorld::add_partition("sdb", "sdb1", "8:17");
    const Called result = show("Photos");
    EXPECT_EQ(result.status, EXIT_DONE);
    EXPECT_NE(result.out.find("\n              size  51 kB\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("held by"), std::string::npos);
    EXPECT_EQ(result.out.find("mounted  "), std::string::npos);
    EXPECT_EQ(who("Photos").out, "Nobody holds sdb1.\n");
}

TEST_F(CallStatus, WhoHoldsItIsALineEach)
{
    EXPECT_EQ(who("sda1").out, "Nobody holds sda1.\n");
    const FdGuard file(open("/tmp/ctl/mounts/sda1/half", O_RDONLY | O_CLOEXEC));
    const Called result = who("sda1");
    EXPECT_EQ(result.out.find("  "), 0U);
    EXPECT_TRUE(result.out.ends_with(" of root, file) /tmp/ctl/mounts/sda1/half\n"));
    EXPECT_EQ(result.err, "");
}

TEST_F(CallStatus, WhoHoldsADirectoryOfTheMachine)
{
    std::filesystem::create_directories("/tmp/photos/2024");
    std::filesystem::create_directories("/tmp/photos2");
    std::filesystem::create_symlink("/tmp/photos", "/tmp/album");
    write_file("/tmp/photos/2024/one", "");
    write_file("/tmp/photos2/two", "");
    write_file(ctl_shares, "[Photos]\nIdentifier=disk:photos\nPath=/tmp/album\n");
    const FdGuard beside(open("/tmp/photos2/two", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(who("Photos").out, "Nobody holds disk:photos.\n");
    EXPECT_EQ(show("Photos").out.find("held by"), std::string::npos);
    const FdGuard file(open("/tmp/photos/2024/one", O_RDONLY | O_CLOEXEC));
    const Called held = who("Photos");
    EXPECT_TRUE(held.out.ends_with(" of root, file) /tmp/photos/2024/one\n")) << held.out;
    EXPECT_EQ(count_of(held.out, "\n"), 1U);
    const Called shown = show("Photos");
    EXPECT_TRUE(shown.out.ends_with(" of root, file) /tmp/photos/2024/one\n")) << shown.out;
    ASSERT_EQ(unlink("/tmp/photos/2024/one"), 0);
    EXPECT_TRUE(who("Photos").out.ends_with(" of root, file) /tmp/photos/2024/one (deleted)\n"));
}

TEST_F(CallStatus, WhatIsMountedBelowASharedDirectoryIsOfIt)
{
    std::filesystem::create_directories("/tmp/photos/mounted");
    ASSERT_EQ(mount("x", "/tmp/photos/mounted", "tmpfs", 0, nullptr), 0);
    write_file("/tmp/photos/mounted/one", "");
    write_file(ctl_shares, "[Photos]\nIdentifier=disk:photos\nPath=/tmp/photos\n");
    const FdGuard file(open("/tmp/photos/mounted/one", O_RDONLY | O_CLOEXEC));
    const Called held = who("Photos");
    EXPECT_TRUE(held.out.ends_with(" of root, file) /tmp/photos/mounted/one\n")) << held.out;
    // What somebody else has at that path, in another root or table of mounts, is another file.
    ASSERT_EQ(mount("x", "/tmp/photos/mounted", "tmpfs", 0, nullptr), 0);
    write_file("/tmp/photos/mounted/one", "");
    EXPECT_EQ(who("Photos").out, "Nobody holds disk:photos.\n");
}

TEST_F(CallStatus, WithoutMemoryNothingIsToldOfHolders)
{
    const FdGuard file(open("/tmp/ctl/mounts/sda1/half", O_RDONLY | O_CLOEXEC));
    for (int nth = 1;; nth++) {
        memory_fail(nth);
        const Called result = who("sda1");
        if (!memory_failed())
            break;
        EXPECT_EQ(result.out.empty(), result.status != EXIT_DONE) << nth << result.out;
    }
}

TEST_F(CallStatus, ForProgramsShowHasMoreThanWho)
{
    const FdGuard file(open("/tmp/ctl/mounts/sda1/half", O_RDONLY | O_CLOEXEC));
    args_.json = true;
    const std::string whole = show("sda1").out;
    EXPECT_EQ(whole.find(R"({"call":"show","version":1,"item":{"name":"sda1",)"), 0U);
    EXPECT_NE(whole.find(R"(},"samba":null,"ksmbd":null,"holders":[{"pid":)"), std::string::npos)
        << whole;
    EXPECT_NE(whole.find(R"("device":{)"), std::string::npos);
    const std::string holders = who("sda1").out;
    EXPECT_EQ(holders.find(R"({"call":"who","version":1,"item":{"name":"sda1",)"), 0U);
    EXPECT_NE(holders.find(R"("hidden_users":[]}},"holders":[{"pid":)"), std::string::npos)
        << holders;
    EXPECT_TRUE(holders.ends_with("]}\n"));
}

TEST_F(CallStatus, WhatThereIsNotIsToldOf)
{
    for (const auto& call : {call_show, call_who}) {
        const Called result = called(call, args_, {"sdx"});
        EXPECT_EQ(result.status, EXIT_NO_DISK);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err,
                  "vyhotplugctl: nothing here is called sdx; see: vyhotplugctl status --all\n");
    }
}

// ---- check ----

TEST_F(CallStatus, ACheckOfTheConfigurationAlone)
{
    ASSERT_EQ(mkdir("/tmp/ctl/nodes", 0755), 0);
    args_.offline = true;
    const Called well = called(call_check, args_, {});
    EXPECT_EQ(well.status, EXIT_DONE);
    EXPECT_EQ(well.out, "All is well.\n");
    ASSERT_EQ(rmdir("/tmp/ctl/nodes"), 0);
    const Called wrong = called(call_check, args_, {});
    EXPECT_EQ(wrong.status, EXIT_FAILED);
    EXPECT_EQ(wrong.out, "devicepath /tmp/ctl/nodes: No such file or directory\n"
                         "    vyhotplug-prepare\n");
    args_.json = true;
    const Called json = called(call_check, args_, {});
    EXPECT_EQ(json.status, EXIT_FAILED);
    EXPECT_EQ(json.out.find(R"({"call":"check","version":1,"problems":[{"id":"directory_missing")"),
              0U);
    EXPECT_TRUE(json.out.ends_with("}]}\n"));
    args_.offline = false;
    EXPECT_NE(called(call_check, args_, {}).out.find("agent_not_running"), std::string::npos);
}

// ---- users ----

TEST_F(CallStatus, UsersArePeopleAndWhoHasAPassword)
{
    write_file("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n"
                              "low:x:999:1:Low:/:/bin/sh\n"
                              "anna:x:1000:1:Anna Blum,Room 1,,:/:/bin/sh\n"
                              "ben:x:59999:1::/:/bin/sh\n"
                              "high:x:60000:1:High:/:/bin/sh\n");
    EXPECT_EQ(called(call_users, args_, {}).out, "anna  1000\nben  59999\n");
    std::filesystem::create_directories("/etc/ksmbd");
    write_file("/etc/ksmbd/ksmbdpwd.db", "anna:aGFzaA==\nlow:aGFzaA==\n");
    EXPECT_EQ(called(call_users, args_, {}).out, "low  999  ksmbd password\n"
                                                 "anna  1000  ksmbd password\n"
                                                 "ben  59999  no ksmbd password\n");
    args_.json = true;
    EXPECT_EQ(called(call_users, args_, {}).out,
              R"({"call":"users","version":1,"users":[)"
              R"({"uid":999,"name":"low","full_name":"Low","samba_password":null,)"
              R"("ksmbd_password":true},)"
              R"({"uid":1000,"name":"anna","full_name":"Anna Blum","samba_password":null,)"
              R"("ksmbd_password":true},)"
              R"({"uid":59999,"name":"ben","full_name":null,"samba_password":null,)"
              R"("ksmbd_password":false}]})"
              "\n");
    const ChildResult child = run_child([this] {
        args_.out.out = stdout;
        const bool other = seteuid(1) == 0;
        const int status = call_users(args_);
        return other && seteuid(0) == 0 ? status : 99;
    });
    EXPECT_EQ(child.status, EXIT_DONE);
    EXPECT_EQ(child.out.find("true"), std::string::npos) << "root alone is told";
}
