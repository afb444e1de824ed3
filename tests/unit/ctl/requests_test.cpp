#include "ctl/requests.h"

#include "ctl/call_mount.h"
#include "fake/fake_world.h"
#include "lib/str.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/called.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

// A service that gives the test's answer, or closes the connection without one.
class RequestsTest : public testing::Test {
  protected:
    RequestsTest()
    {
        str_cpy(item_.name, "sda1");
        service_.answer = [this](const std::string&) { return answer_; };
    }

    static void mount_it()
    {
        (void)mkdir("/tmp/ctl/mounts/sda1", 0755);
        ASSERT_EQ(mount("x", "/tmp/ctl/mounts/sda1", "tmpfs", 0, nullptr), 0);
    }

    CtlWorld world_;
    CtlService service_;
    Item item_ = {};
    std::string answer_;
    const Texts& told_ = service_.told;
};

TEST_F(RequestsTest, AreMadeFiveTimesWhereNoAnswerComes)
{
    const uint64_t began = fake_world().monotonic_usec;
    EXPECT_EQ(request_unmount(world_.setup, item_, true), EXIT_DONE) << "it is not mounted";
    EXPECT_EQ(told_, Texts{"ACTION=unmount,sda1,force"});
    service_.told.clear();
    EXPECT_EQ(request_mount(world_.setup, item_), EXIT_FAILED);
    EXPECT_EQ(told_, Texts(5, "ACTION=mount,sda1"));
    EXPECT_EQ(fake_world().monotonic_usec - began, 5 * 3000000U) << "each time it may be late";
}

TEST_F(RequestsTest, AreNotMadeAgainOnceTheyAreCarriedOut)
{
    int looks = 0;
    fake_world().on_sleep = [&](uint64_t) {
        if (++looks == 20) // in the second attempt
            mount_it();
    };
    EXPECT_EQ(request_mount(world_.setup, item_), EXIT_DONE);
    EXPECT_EQ(told_, Texts(2, "ACTION=mount,sda1"));
}

TEST_F(RequestsTest, ThatAreRefusedAreNotMadeAgain)
{
    answer_ = "faild";
    EXPECT_EQ(request_mount(world_.setup, item_), EXIT_FAILED);
    mount_it();
    EXPECT_EQ(request_unmount(world_.setup, item_, false), EXIT_BUSY);
    EXPECT_EQ(told_, (Texts{"ACTION=mount,sda1", "ACTION=unmount,sda1"}));
}

TEST_F(RequestsTest, TellWhyInWordsThatNoTerminalObeys)
{
    CtlWorld::add_usb_disk("sda", "8:0", "1000");
    CtlWorld::add_partition("sda", "sda1", "8:1");
    write_file(ctl_not_mounted, "sda1\t8:1\trefused\text4\tsda1 holds ext4, but the kernel refused "
                                "it: \033[2Jbad\t-\n");
    answer_ = "faild";
    testing::internal::CaptureStderr();
    EXPECT_EQ(request_mount(world_.setup, item_), EXIT_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vyhotplugctl: sda1 could not be mounted: holds ext4, but the kernel refused it: "
              "\\x1b[2Jbad\n");
}

TEST_F(RequestsTest, TheKernelsTableCountsAndNotTheAnswer)
{
    answer_ = "success";
    EXPECT_EQ(request_mount(world_.setup, item_), EXIT_FAILED);
    mount_it();
    answer_ = "faild";
    EXPECT_EQ(request_mount(world_.setup, item_), EXIT_DONE);
}

TEST_F(RequestsTest, WhereTheTableCannotBeReadTheDirectoryIsAsked)
{
    char directory[PATH_MAX];
    for (const bool mounted : {false, true}) {
        const MountinfoEntry mount = {};
        item_.mount = mounted ? nullptr : &mount; // as it was before
        if (mounted)
            mount_it();
        memory_fail(1, true);
        EXPECT_EQ(request_is_mounted(world_.setup, item_, directory), mounted);
        EXPECT_TRUE(memory_failed());
        EXPECT_STREQ(directory, "/tmp/ctl/mounts/sda1");
    }
    item_.mount = nullptr;
}

TEST_F(RequestsTest, WithoutAServiceTheyAreNotMade)
{
    service_.end();
    EXPECT_EQ(request_mount(world_.setup, item_), EXIT_NO_SERVICE);
    EXPECT_EQ(fake_world().slept_usec, 0U);
}

TEST_F(RequestsTest, AnEjectKeepsNothingOfWhatItLookedAt)
{
    CtlWorld::add_usb_disk("sda", "8:0", "1000");
    CtlWorld::add_partition("sda", "sda1", "8:1");
    std::string word = "sda1";
    char* words[] = {word.data()};
    CallArgs args = {};
    args.setup = &world_.setup;
    args.out.out = stdout;
    args.words = words;
    args.count = 1;
    memory_watch(true);
    EXPECT_EQ(call_eject(args), EXIT_FAILED) << "the disk does not know the call";
    EXPECT_EQ(memory_kept(), 0U);
}

} // namespace
