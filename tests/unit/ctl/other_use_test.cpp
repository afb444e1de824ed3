#include "ctl/other_use.h"

#include "support/child.h"
#include "support/failing_calls.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/made_view.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <string>
#include <vector>

namespace {

// A disk with a partition that the service has mounted, and one that it has not.
class OtherUse : public testing::Test {
  protected:
    OtherUse()
    {
        view_.add_part("sda", "sda", 0);
        view_.add_part("sda1", "sda", 1);
        view_.add_part("sda2", "sda", 2);
        view_.add_part("sdb1", "sdb", 17);
        view_.add_mount(1, "/mounts/sda1");
        view_.add_mount(17, "/elsewhere/b");
        view_.add("sda1", "a:1", ITEM_SHARED);
        view_.add("sda2", "a:2", ITEM_WAITING);
    }

    // Whether any use of sda is told.
    bool ask()
    {
        view_.view.items[0].mount = &view_.view.mounts->entries[0];
        const Item* items[] = {&view_.view.items[0], &view_.view.items[1]};
        const Targets parts = {.items = items, .count = 2, .disk = true};
        return other_use_tell(view_.view, parts, &view_.view.disks->parts[0]);
    }

    // What is told of sda.
    std::string told(bool expected = true)
    {
        testing::internal::CaptureStderr();
        EXPECT_EQ(ask(), expected);
        return testing::internal::GetCapturedStderr();
    }

    MadeView view_;
};

// A process of a sandbox, which has a mount namespace of its own.
pid_t sandboxed()
{
    return waiting_child([] { return unshare(CLONE_NEWNS) == 0; });
}

// Whether anything that the service has mounted is mounted still.
bool ask_left()
{
    return other_use_tell_left({.items = nullptr, .count = 0, .disk = true});
}

std::string without_descriptors(size_t few, const std::function<bool()>& ask)
{
    testing::internal::CaptureStderr();
    with_few_descriptors(few, [&ask] { EXPECT_TRUE(ask()); });
    return testing::internal::GetCapturedStderr();
}

std::string unseen()
{
    return std::string("vyhotplugctl: what else uses it cannot be seen: ") + strerror(EMFILE) +
           "\n";
}

} // namespace

TEST_F(OtherUse, WhatTheServiceHasMountedIsItsOwn)
{
    view_.add_mount(1, "/elsewhere/too");
    EXPECT_EQ(told(false), "") << "which shows when it is unmounted";
}

TEST_F(OtherUse, AMountOfWhatTheServiceHasNotMounted)
{
    view_.add_mount(2, "/elsewhere/\033x");
    EXPECT_EQ(told(), "sda2 is mounted elsewhere, by somebody else: /elsewhere/\\x1bx\n");
    view_.add_mount(0, "/whole");
    EXPECT_EQ(told(), "sda is mounted elsewhere, by somebody else: /whole\n"
                      "sda2 is mounted elsewhere, by somebody else: /elsewhere/\\x1bx\n");
}

TEST_F(OtherUse, NumbersMustBeBothTheSame)
{
    view_.add_mount(2, "/elsewhere/x").major = 9;
    EXPECT_EQ(told(false), "");
}

TEST_F(OtherUse, ADeviceThatIsMadeOfIt)
{
    view_.view.disks->parts[3].held = true;
    EXPECT_EQ(told(false), "");
    view_.view.disks->parts[2].held = true;
    EXPECT_EQ(told(), "sda2 is part of another device: LVM, RAID or encryption\n");
}

TEST_F(OtherUse, WithoutADiskNothingIsKnown)
{
    const Targets parts = {.items = nullptr, .count = 0, .disk = true};
    view_.view.disks->parts[1].held = true;
    EXPECT_FALSE(other_use_tell(view_.view, parts, nullptr));
}

// ---- looks that fail ----

TEST_F(OtherUse, WithoutDescriptorsItIsInUse)
{
    (void)sandboxed();
    const auto told_with = [this](size_t few) {
        return without_descriptors(few, [this] { return ask(); });
    };
    EXPECT_EQ(told(false), "");
    EXPECT_EQ(told_with(0), unseen() + unseen() + unseen()) << "whether each part is a swap area";
    // Of all processes, of one, of its mounts.
    for (const size_t few : {1, 2, 3})
        EXPECT_EQ(told_with(few), unseen()) << few;
    with_few_descriptors(4, [this] { EXPECT_FALSE(ask()); });
    call_fail("open", 4, EMFILE); // of this process, behind the swap areas
    EXPECT_EQ(told(), unseen());
    EXPECT_TRUE(call_failed());
}

TEST(OtherUseLeft, WithoutDescriptorsItIsMountedStill)
{
    (void)sandboxed();
    EXPECT_FALSE(ask_left());
    EXPECT_EQ(without_descriptors(0, ask_left), unseen());
    for (const size_t few : {1, 2, 3})
        EXPECT_EQ(without_descriptors(few, ask_left), unseen()) << few;
    with_few_descriptors(4, [] { EXPECT_FALSE(ask_left()); });
}

TEST_F(OtherUse, WithoutMemoryItIsInUse)
{
    (void)sandboxed();
    int struck = 0;
    for (;; struck++) {
        memory_fail(struck + 1);
        testing::internal::CaptureStderr();
        const bool any = ask() || ask_left();
        (void)testing::internal::GetCapturedStderr();
        if (!memory_failed())
            break;
        EXPECT_TRUE(any) << struck;
    }
    EXPECT_GT(struck, 5);
}

TEST_F(OtherUse, AProcessThatEndsIsPassedOver)
{
    const pid_t pid = sandboxed();
    call_before("open", 5, [pid] { // of its table of mounts
        (void)kill(pid, SIGKILL);
        siginfo_t ended;
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
    });
    EXPECT_EQ(told(false), "");
    EXPECT_TRUE(call_failed());
    EXPECT_EQ(told(false), "") << "and one that nobody waits for";
}

// ---- what is left ----

TEST(OtherUseLeft, IsWhatIsMountedStill)
{
    ASSERT_EQ(mkdir("/tmp/held", 0755), 0);
    ASSERT_EQ(mount("x", "/tmp/held", "tmpfs", 0, nullptr), 0);
    struct stat status;
    ASSERT_EQ(stat("/tmp/held", &status), 0);
    MadeView view;
    MountinfoEntry& entry = view.add_mount(minor(status.st_dev), "/mounts/sda1");
    entry.major = major(status.st_dev);
    view.add("sda1", "a:1", ITEM_SHARED).mount = &entry;
    view.add("sda2", "a:2", ITEM_WAITING);
    const Item* items[] = {&view.view.items[1], &view.view.items[0]};
    const Targets parts = {.items = items, .count = 2, .disk = true};
    testing::internal::CaptureStderr();
    EXPECT_TRUE(other_use_tell_left(parts));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "sda1 is mounted elsewhere, by somebody else: /tmp/held\n");
    entry.minor++;
    entry.major = 3;
    EXPECT_FALSE(other_use_tell_left(parts));
    ASSERT_EQ(umount("/tmp/held"), 0);
}
