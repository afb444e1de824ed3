// What the agent opens is its own: a program that is started meanwhile has nothing of it.
#include "agent/block_device.h"
#include "agent/btrfs.h"
#include "agent/daemon.h"
#include "agent/kernel_log.h"
#include "agent/lookout.h"
#include "agent/medium.h"
#include "agent/netlink.h"
#include "fake_medium.h"
#include "fake_sysfs.h"
#include "support/child.h"
#include "support/failing_calls.h"
#include "support/files.h"
#include "test_daemon.h"

#include <gtest/gtest.h>

#include <unistd.h>

using Opened = std::vector<std::string>;

static BlockName name_of(const char* text)
{
    BlockName name;
    EXPECT_TRUE(block_name_parse(text, &name));
    return name;
}

TEST(Inheritance, OfDisksIsNone)
{
    FakeMedium medium;
    medium.add_node("sda");
    medium.add_node("btrfs-control");
    EXPECT_EQ(inheritable_after([] {
                  medium_touch(name_of("sda"));
                  (void)btrfs_register(name_of("sda"));
              }),
              Opened{});
    EXPECT_EQ(calls_counted()["open"], 2);
}

TEST(Inheritance, OfSysfsIsNone)
{
    FakeSysfs sysfs;
    sysfs.add_stick("sda", "8:0");
    sysfs.add_partition("sda", "sda1", "8:1");
    BlockList list;
    EXPECT_EQ(inheritable_after([&] { (void)block_list_read(FakeSysfs::root, &list); }), Opened{});
    EXPECT_EQ(list.count, 2U);
}

TEST(FirstDescriptor, IsAsGoodAsAnyOtherForSysfs)
{
    FakeSysfs sysfs;
    sysfs.add_stick("sda", "8:0");
    BlockList list;
    with_input_closed([&] { EXPECT_EQ(block_list_read(FakeSysfs::root, &list), 0); });
    EXPECT_EQ(list.count, 1U);
}

TEST(FirstDescriptor, IsAsGoodAsAnyOtherForDisks)
{
    FakeMedium medium;
    medium.add_node("btrfs-control");
    with_input_closed([] { EXPECT_EQ(btrfs_register(name_of("sda")), 1); });
}

TEST(FirstDescriptor, IsAsGoodAsAnyOtherForTheKernel)
{
    write_file("/tmp/log", "");
    with_input_closed([] {
        KernelLog log;
        kernel_log_open(&log, "/tmp/log");
        write_file("/tmp/log", "3,1,2,-;XFS (sda1): new\n");
        kernel_log_take(&log, 1);
        EXPECT_NE(kernel_log_find(&log, name_of("sda1"), "", "", 0), nullptr);
        log.fd.reset(-1);
        const FdGuard events(netlink_open());
        EXPECT_EQ(events.get(), 0);
    });
    unlink("/tmp/log");
}

TEST(Inheritance, OfTheKernelIsNone)
{
    KernelLog log;
    Lookout lookout;
    AgentSettings settings;
    write_file("/tmp/log", "");
    EXPECT_EQ(inheritable_after([&] {
                  kernel_log_open(&log, "/tmp/log");
                  lookout_open(&lookout, &settings);
                  const FdGuard events(netlink_open());
                  EXPECT_GE(events.get(), 0);
              }),
              Opened{});
    EXPECT_GE(log.fd.get(), 0);
    EXPECT_GE(lookout.mounts.get(), 0);
    lookout_close(&lookout);
    unlink("/tmp/log");
}

TEST(FirstDescriptor, IsAsGoodAsAnyOtherForTheDaemon)
{
    daemon_forget_record();
    const TestDaemon daemon;
    Courier courier;
    DaemonIdentity identity;
    const std::string message = "ACTION=add,MAJOR=8,MINOR=1";
    with_input_closed([&] {
        EXPECT_EQ(courier_advance(&courier, true, 1, &identity), COURIER_MET);
        EXPECT_EQ(courier_descriptor(&courier), 0);
        courier_send(&courier, message.c_str(), 1);
        EXPECT_TRUE(wait_for(
            [&] { return courier_advance(&courier, true, 1, &identity) == COURIER_DELIVERED; }));
    });
    EXPECT_EQ(daemon_told(true), Opened{message});
}

TEST(Inheritance, OfTheDaemonIsNone)
{
    const TestDaemon daemon;
    Courier courier;
    DaemonIdentity identity;
    EXPECT_EQ(inheritable_after(
                  [&] { EXPECT_EQ(courier_advance(&courier, true, 1, &identity), COURIER_MET); }),
              Opened{});
}
