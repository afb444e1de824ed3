#include "ctl/call_mount.h"

#include "fake/fake_world.h"
#include "support/files.h"
#include "unit/ctl/called.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

std::string mount_point(const std::string& name)
{
    return "/tmp/ctl/mounts/" + name;
}

void mount_it(const std::string& name)
{
    (void)mkdir(mount_point(name).c_str(), 0755);
    ASSERT_EQ(mount("x", mount_point(name).c_str(), "tmpfs", 0, nullptr), 0);
}

// Two partitions of a disk whose node is a loop device's, and a service that mounts and unmounts.
class CallMount : public testing::Test {
  protected:
    CallMount()
    {
        CtlWorld::add_usb_disk("sda", "7:3", "1000");
        CtlWorld::add_partition("sda", "sda1", "8:1");
        CtlWorld::add_partition("sda", "sda2", "8:2");
        EXPECT_EQ(mknod("/dev/sda", S_IFBLK | 0600, makedev(7, 3)), 0);
        write_file(delete_file, "-");
        write_file(remove_file, "-");
        service_.answer = [this](const std::string& request) { return serve(request); };
    }

    std::string serve(const std::string& request)
    {
        const size_t comma = request.find(',');
        const std::string name =
            request.substr(comma + 1, request.find(',', comma + 1) - comma - 1);
        if (request == refused_)
            return answer_;
        if (request.starts_with("ACTION=mount,"))
            mount_it(name);
        else
            EXPECT_EQ(umount2(mount_point(name).c_str(), MNT_DETACH), 0);
        if (request == interrupted_)
            (void)raise(signal_);
        return "success";
    }

    Called mount_call(const std::string& word) { return called(call_mount, args_, {word}); }
    Called unmount_call(const std::string& word) { return called(call_unmount, args_, {word}); }
    Called eject(const std::string& word) { return called(call_eject, args_, {word}); }

    static constexpr char delete_file[] = "/tmp/ctl/sys/devices/usb-sda/host/delete";
    static constexpr char remove_file[] = "/tmp/ctl/sys/devices/usb-sda/remove";

    CtlWorld world_;
    CtlService service_;
    CallArgs args_ = args_of(world_.setup);
    std::string refused_;     // the request that is not carried out
    std::string answer_;      // and what comes then
    std::string interrupted_; // the request that a signal comes with
    int signal_ = SIGTERM;    // and which
};

} // namespace

// ---- mount ----

TEST_F(CallMount, WhatIsNotMountedIsMounted)
{
    const Called first = mount_call("sda1");
    EXPECT_EQ(first.status, EXIT_DONE);
    EXPECT_EQ(first.out, "sda1 is mounted: /tmp/ctl/mounts/sda1\n");
    const Called second = mount_call("sda1");
    EXPECT_EQ(second.status, EXIT_DONE);
    EXPECT_EQ(second.out, "sda1 is mounted already: /tmp/ctl/mounts/sda1\n");
    EXPECT_EQ(service_.told, Texts{"ACTION=mount,sda1"});
}

TEST_F(CallMount, ADiskIsAllOfItsPartitions)
{
    refused_ = "ACTION=mount,sda1";
    answer_ = "faild";
    const Called result = mount_call("sda");
    EXPECT_EQ(result.status, EXIT_FAILED) << "one of them is not";
    EXPECT_EQ(result.out, "sda2 is mounted: /tmp/ctl/mounts/sda2\n");
    EXPECT_EQ(result.err, "vyhotplugctl: sda1 could not be mounted; what the service told: "
                          "journalctl -u vyhotplugd\n");
    EXPECT_EQ(service_.told, (Texts{"ACTION=mount,sda1", "ACTION=mount,sda2"}));
}

TEST_F(CallMount, TheReasonIsTheOneAfterTheRequest)
{
    write_file(ctl_not_mounted, "sda1\t8:1\tencrypted\t-\tsda1 is encrypted\t-\n");
    service_.answer = [](const std::string&) {
        write_file(ctl_not_mounted, "sda1\t8:1\trefused\text4\tsda1 is damaged\t-\n");
        return "faild";
    };
    const Called result = mount_call("sda1");
    EXPECT_EQ(result.status, EXIT_FAILED);
    EXPECT_EQ(result.err, "vyhotplugctl: sda1 could not be mounted: is damaged\n");
}

TEST_F(CallMount, AWordForSeveralThatIsNoDiskIsRefused)
{
    write_file(ctl_shares, "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n"
                           "[Music]\nIdentifier=1:2:a:2\nPath=/tmp/ctl/mounts/sda2\n");
    const Called result = mount_call("Music");
    EXPECT_EQ(result.status, EXIT_WRONG_CALL);
    EXPECT_EQ(result.err, "Music fits 2:\n  sda1  Music\n  sda2  Music\n");
    EXPECT_EQ(service_.told, Texts{});
}

TEST_F(CallMount, WhatIsNotPluggedIsNotMounted)
{
    write_file(ctl_devices, "[1:2:c:1]\nComment=away\n");
    const Called known = mount_call("1:2:c:1");
    EXPECT_EQ(known.status, EXIT_NO_DISK);
    EXPECT_EQ(known.err, "vyhotplugctl: 1:2:c:1 is not plugged\n");
    const Called unknown = mount_call("sdx");
    EXPECT_EQ(unknown.status, EXIT_NO_DISK);
    EXPECT_EQ(unknown.err,
              "vyhotplugctl: nothing here is called sdx; see: vyhotplugctl status --all\n");
}

TEST_F(CallMount, WithoutAServiceNothingIsDone)
{
    service_.end();
    for (const auto& call : {call_mount, call_unmount, call_eject}) {
        const Called result = called(call, args_, {"sda1"});
        EXPECT_EQ(result.status, EXIT_NO_SERVICE);
        EXPECT_EQ(result.err, "vyhotplugctl: the service is not running\n");
    }
}

// ---- unmount ----

TEST_F(CallMount, WhatIsMountedIsUnmounted)
{
    mount_it("sda1");
    const Called first = unmount_call("sda1");
    EXPECT_EQ(first.status, EXIT_DONE);
    EXPECT_EQ(first.out, "sda1 is unmounted\n");
    const Called second = unmount_call("sda1");
    EXPECT_EQ(second.status, EXIT_DONE);
    EXPECT_EQ(second.out, "sda1 is not mounted\n");
    EXPECT_EQ(service_.told, Texts{"ACTION=unmount,sda1"});
}

TEST_F(CallMount, ABusyOneTellsWhoHoldsIt)
{
    mount_it("sda1");
    refused_ = "ACTION=unmount,sda1";
    answer_ = "faild";
    const Called nobody = unmount_call("sda1");
    EXPECT_EQ(nobody.status, EXIT_BUSY);
    EXPECT_EQ(nobody.err, "sda1 could not be unmounted; nobody was seen to hold it\n");
    const FdGuard file(open("/tmp/ctl/mounts/sda1/x", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    const Called held = unmount_call("sda1");
    EXPECT_EQ(held.status, EXIT_BUSY);
    EXPECT_EQ(held.err.find("sda1 is busy:\n  "), 0U) << held.err;
    EXPECT_NE(held.err.find("of root, file) /tmp/ctl/mounts/sda1/x\n"), std::string::npos)
        << held.err;
}

TEST_F(CallMount, ItWaitsUntilNobodyHoldsIt)
{
    mount_it("sda1");
    FdGuard file(open("/tmp/ctl/mounts/sda1/x", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    args_.wait_s = 3;
    const Called held = unmount_call("sda1");
    EXPECT_EQ(held.status, EXIT_BUSY);
    EXPECT_EQ(held.err.find("sda1 is busy:\n"), 0U) << held.err;
    EXPECT_EQ(fake_world().slept_usec, 3000000U);
    EXPECT_EQ(service_.told, Texts{});
    fake_world().on_sleep = [&file](uint64_t) { file.reset(-1); };
    const Called freed = unmount_call("sda1");
    EXPECT_EQ(freed.status, EXIT_DONE);
    EXPECT_EQ(freed.err, "");
    EXPECT_EQ(fake_world().slept_usec, 3200000U);
}

TEST_F(CallMount, ByForceItTellsWhoLosesIt)
{
    mount_it("sda1");
    const FdGuard file(open("/tmp/ctl/mounts/sda1/x", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    args_.force = true;
    args_.wait_s = 3;
    const Called result = unmount_call("sda1");
    EXPECT_EQ(result.status, EXIT_DONE);
    EXPECT_EQ(result.err.find("sda1 is busy:\n"), 0U) << result.err;
    EXPECT_EQ(service_.told, Texts{"ACTION=unmount,sda1,force"});
    EXPECT_EQ(fake_world().slept_usec, 0U);
}

TEST_F(CallMount, AServiceThatDoesNotAnswerIsToldOf)
{
    mount_it("sda1");
    refused_ = "ACTION=unmount,sda1";
    const Called result = unmount_call("sda1");
    EXPECT_EQ(result.status, EXIT_FAILED);
    EXPECT_EQ(result.err, "vyhotplugctl: the service does not answer\n");
}

// ---- eject ----

TEST_F(CallMount, AnEjectSwitchesTheWholeDiskOff)
{
    for (const char* name : {"sda1", "sda2", "sdb1"})
        mount_it(name);
    const Called result = eject("sda1");
    EXPECT_EQ(result.status, EXIT_DONE) << result.err;
    EXPECT_EQ(result.out, "sda is unmounted and switched off: safe to pull\n");
    EXPECT_EQ(service_.told, (Texts{"ACTION=unmount,sda1", "ACTION=unmount,sda2"}));
    EXPECT_EQ(read_file(delete_file), "1");
    EXPECT_EQ(read_file(remove_file), "1");
}

TEST_F(CallMount, AnEjectUnmountsOnlyWhatIsMounted)
{
    mount_it("sda2");
    ASSERT_EQ(unlink(remove_file), 0);
    const Called result = eject("sda");
    EXPECT_EQ(result.status, EXIT_DONE);
    EXPECT_EQ(result.out, "sda is unmounted and gone from the machine: safe to pull\n");
    EXPECT_EQ(service_.told, Texts{"ACTION=unmount,sda2"});
}

TEST_F(CallMount, AnEjectOfWhatHasBeenPulledMeanwhileIsDone)
{
    ASSERT_EQ(unlink("/dev/sda"), 0);
    for (const int gone : {ENOENT, ENODEV, ENXIO}) {
        fake_world().fail("mknod", 1, gone);
        const Called result = eject("sda");
        EXPECT_EQ(result.status, EXIT_DONE);
        EXPECT_EQ(result.out, "sda is unmounted: safe to pull\n");
    }
    for (const int wrong : {EIO, EACCES}) {
        fake_world().fail("mknod", 1, wrong);
        const Called result = eject("sda");
        EXPECT_EQ(result.status, EXIT_FAILED);
        EXPECT_EQ(result.err,
                  std::string("vyhotplugctl: sda is unmounted, but not switched off: ") +
                      strerror(wrong) + "\n");
    }
}

TEST_F(CallMount, ACardsSlotHasNothingToBeSwitchedOff)
{
    const std::string block = std::string(ctl_sysfs) + "/block/mmcblk0";
    std::filesystem::create_directories(block);
    write_file(block + "/dev", "179:0\n");
    write_file(block + "/size", "1000\n");
    fake_world().fail("mknod", 1, EACCES);
    const Called result = eject("mmcblk0");
    EXPECT_EQ(result.status, EXIT_DONE) << result.err;
    EXPECT_EQ(result.out, "mmcblka is unmounted: safe to pull\n");
}

TEST_F(CallMount, ADiskThatSysfsDoesNotShowIsUnmounted)
{
    mount_it("sdc1");
    const Called result = eject("sdc1");
    EXPECT_EQ(result.status, EXIT_DONE);
    EXPECT_EQ(result.out, "sdc is unmounted: safe to pull\n");
    EXPECT_EQ(service_.told, Texts{"ACTION=unmount,sdc1"});
}

TEST_F(CallMount, ADirectoryIsNoDisk)
{
    write_file(ctl_shares, "[Folder]\nPath=/tmp\nIdentifier=disk:f\n");
    const Called result = eject("Folder");
    EXPECT_EQ(result.status, EXIT_NO_DISK);
    EXPECT_EQ(result.err,
              "vyhotplugctl: nothing here is called Folder; see: vyhotplugctl status --all\n");
}

TEST_F(CallMount, ADiskThatIsHeldStaysWhole)
{
    mount_it("sda1");
    mount_it("sda2");
    const FdGuard file(open("/tmp/ctl/mounts/sda1/x", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    const Called result = eject("sda");
    EXPECT_EQ(result.status, EXIT_BUSY);
    EXPECT_EQ(result.err.find("sda1 is busy:\n"), 0U) << result.err;
    EXPECT_EQ(service_.told, Texts{});
    EXPECT_EQ(read_file(delete_file), "-");
    EXPECT_EQ(fake_world().slept_usec, 0U);
    args_.wait_s = 2;
    EXPECT_EQ(eject("sda").status, EXIT_BUSY);
    EXPECT_EQ(fake_world().slept_usec, 2000000U);
}

TEST_F(CallMount, APartitionThatIsNotGivenBackHasTheDiskMountedAgain)
{
    mount_it("sda1");
    mount_it("sda2");
    refused_ = "ACTION=unmount,sda2";
    answer_ = "faild";
    const Called result = eject("sda");
    EXPECT_EQ(result.status, EXIT_BUSY);
    EXPECT_EQ(result.err, "sda stays mounted\n");
    ASSERT_GE(service_.told.size(), 3U);
    EXPECT_EQ(service_.told[2], "ACTION=mount,sda1");
    EXPECT_EQ(read_file(delete_file), "-");
}

TEST_F(CallMount, AnInterruptionHasTheDiskMountedAgain)
{
    interrupted_ = "ACTION=unmount,sda1";
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        mount_it("sda1");
        mount_it("sda2");
        service_.told.clear();
        signal_ = number;
        (void)signal(number, SIG_DFL); // whoever starts the tests may have it ignored
        const Called result = eject("sda");
        (void)signal(number, SIG_IGN); // which takes what is pending
        EXPECT_EQ(result.status, EXIT_FAILED);
        EXPECT_EQ(result.err, "sda stays mounted\n");
        EXPECT_EQ(service_.told, (Texts{"ACTION=unmount,sda1", "ACTION=mount,sda1"}));
        EXPECT_EQ(read_file(delete_file), "-");
        for (const char* name : {"sda1", "sda2"})
            ASSERT_EQ(umount(mount_point(name).c_str()), 0);
    }
}

TEST_F(CallMount, AnInterruptionThatIsIgnoredIsNone)
{
    mount_it("sda1");
    mount_it("sda2");
    interrupted_ = "ACTION=unmount,sda1";
    signal_ = SIGHUP;
    (void)signal(SIGHUP, SIG_IGN); // as nohup(1) does
    const Called result = eject("sda");
    (void)signal(SIGHUP, SIG_DFL);
    EXPECT_EQ(result.status, EXIT_DONE) << result.err;
    EXPECT_EQ(service_.told, (Texts{"ACTION=unmount,sda1", "ACTION=unmount,sda2"}));
}

TEST_F(CallMount, WhatIsMountedElsewhereTooHasTheDiskMountedAgain)
{
    mount_it("sda1");
    ASSERT_EQ(mkdir("/tmp/elsewhere", 0755), 0);
    ASSERT_EQ(mount("/tmp/ctl/mounts/sda1", "/tmp/elsewhere", nullptr, MS_BIND, nullptr), 0);
    const Called result = eject("sda");
    EXPECT_EQ(result.status, EXIT_BUSY);
    EXPECT_EQ(result.err, "sda1 is mounted elsewhere, by somebody else: /tmp/elsewhere\n"
                          "sda stays mounted\n");
    EXPECT_EQ(service_.told, (Texts{"ACTION=unmount,sda1", "ACTION=mount,sda1"}));
    EXPECT_EQ(read_file(delete_file), "-");
}
