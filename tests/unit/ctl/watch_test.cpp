#include "ctl/call_watch.h"
#include "ctl/status.h"

#include "fake/fake_world.h"
#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/called.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

constexpr char shares[] = "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n";

// The call in a thread, until nobody reads what it tells any more.
class WatchTest : public testing::Test {
  protected:
    WatchTest()
    {
        setenv("TZ", "UTC", 1);
        (void)signal(SIGPIPE, SIG_IGN);
        write_file(ctl_shares, shares);
        write_file(ctl_devices, "[1:2:a:1]\nComment=old\n");
    }

    void start(bool json)
    {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        begin(json, ends);
    }

    void begin(bool json, const int (&ends)[2])
    {
        reader_.reset(ends[0]);
        args_.json = json;
        args_.out.out = fdopen(ends[1], "w");
        thread_ = std::thread([this] { status_ = call_watch(args_); });
    }

    // The next line that it tells; "" when none comes.
    std::string line()
    {
        std::string text;
        pollfd waited = {.fd = reader_.get(), .events = POLLIN, .revents = 0};
        char c = 0;
        while (poll(&waited, 1, 20000) == 1 && read(reader_.get(), &c, 1) == 1 && c != '\n')
            text += c;
        return text;
    }

    // Whether every thread but this one sleeps.
    static bool sleeps()
    {
        for (const std::string& task : names_in("/proc/self/task")) {
            const std::string stat = read_file("/proc/self/task/" + task + "/stat");
            const size_t state = stat.rfind(") ") + 2;
            if (task != std::to_string(getpid()) && stat.at(state) != 'S')
                return false;
        }
        return true;
    }

    // Bytes of events of files that it has not taken.
    static int events_waiting()
    {
        int bytes = 0;
        for (const std::string& fd : names_in("/proc/self/fd")) {
            char target[64] = "";
            const std::string path = "/proc/self/fd/" + fd;
            if (readlink(path.c_str(), target, sizeof target - 1) > 0 &&
                strcmp(target, "anon_inode:inotify") == 0) {
                EXPECT_EQ(ioctl(std::stoi(fd), FIONREAD, &bytes), 0);
            }
        }
        return bytes;
    }

    // Ends it, and returns its status.
    int end()
    {
        reader_.reset(-1);
        write_file(ctl_shares, "[New]\nIdentifier=1:2:x:1\nPath=/tmp/ctl/mounts/sdx1\n");
        thread_.join();
        (void)fclose(args_.out.out);
        return status_;
    }

    CtlWorld world_;
    CtlService service_;
    CallArgs args_ = args_of(world_.setup);
    FdGuard reader_;
    std::thread thread_;
    int status_ = -1;
};

} // namespace

TEST(Watch, ThatCannotLookHasFailed)
{
    const CtlWorld world;
    CallArgs args = {};
    args.setup = &world.setup;
    args.out.out = stdout;
    memory_fail(1, true);
    EXPECT_EQ(call_watch(args), EXIT_FAILED);
    EXPECT_TRUE(memory_failed());
}

TEST_F(WatchTest, ALineAsThingsHappen)
{
    start(false);
    EXPECT_EQ(line(), "22:13:20  sda1  unmounted  Music");
    write_file(std::string(ctl_shares) + ".new",
               "[Songs]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n");
    ASSERT_EQ(rename("/tmp/ctl/shares.new", ctl_shares), 0);
    EXPECT_EQ(line(), "22:13:20  sda1  changed  Songs");
    write_file(ctl_devices, "[1:2:a:1]\nComment=new\n");
    EXPECT_EQ(line(), "22:13:20  sda1  changed  Songs") << "written in its place";
    ASSERT_EQ(mkdir("/tmp/ctl/mounts/sda1", 0755), 0);
    ASSERT_EQ(mount("x", "/tmp/ctl/mounts/sda1", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(line(), "22:13:20  sda1  mounted  Songs");
    EXPECT_EQ(line(), "22:13:20  sda1  shared  Songs");
    ASSERT_EQ(umount("/tmp/ctl/mounts/sda1"), 0);
    EXPECT_EQ(line(), "22:13:20  sda1  unmounted  Songs");
    ASSERT_EQ(unlink(ctl_shares), 0);
    EXPECT_EQ(line(), "22:13:20  sda1  pulled  Songs");
    ASSERT_EQ(rename(ctl_devices, "/tmp/elsewhere"), 0);
    EXPECT_EQ(line(), "22:13:20  1:2:a:1  forgotten");
    EXPECT_EQ(end(), EXIT_FAILED) << "nobody reads it";
}

TEST_F(WatchTest, AReasonIsToldWithIt)
{
    CtlWorld::add_usb_disk("sdc", "8:32", "1000");
    start(false);
    EXPECT_EQ(line(), "22:13:20  sda1  unmounted  Music");
    EXPECT_EQ(line(), "22:13:20  sdc0  waiting");
    write_file(ctl_not_mounted, "sdc\t8:32\trefused\text4\tsdc is \033damaged\t-\n");
    EXPECT_EQ(line(), "22:13:20  sdc0  not mounted: is \\x1bdamaged");
    EXPECT_EQ(end(), EXIT_FAILED);
}

TEST_F(WatchTest, AServiceThatEndsAndStartsIsSeenWithTheNextThing)
{
    start(false);
    EXPECT_EQ(line(), "22:13:20  sda1  unmounted  Music");
    service_.end();
    write_file(ctl_devices, "[1:2:a:1]\nComment=new\n");
    EXPECT_EQ(line(), "22:13:20  the service has ended");
    EXPECT_EQ(line(), "22:13:20  sda1  changed  Music");
    EXPECT_EQ(end(), EXIT_FAILED);
}

TEST_F(WatchTest, OfSeveralThingsAtOnceNoneIsMissed)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int size = fcntl(ends[1], F_SETPIPE_SZ, 4096);
    ASSERT_GT(size, 0);
    const std::string full(static_cast<size_t>(size) - 1, '.');
    ASSERT_EQ(write(ends[1], full.c_str(), full.size()), static_cast<ssize_t>(full.size()));
    ASSERT_EQ(write(ends[1], "\n", 1), 1);
    begin(false, ends); // and waits until its first line is read
    EXPECT_TRUE(wait_for([] { return fake_world().count("time") > 0; }));
    for (const char* other : {"a", "bb", "a-longer-name-than-the-others"})
        write_file(std::string("/tmp/ctl/") + other, "");
    write_file(ctl_devices, "[1:2:a:1]\nComment=new\n");
    EXPECT_EQ(line(), full);
    EXPECT_EQ(line(), "22:13:20  sda1  unmounted  Music");
    EXPECT_EQ(line(), "22:13:20  sda1  changed  Music");
    EXPECT_EQ(end(), EXIT_FAILED);
}

TEST_F(WatchTest, OtherFilesWakeItForNothing)
{
    start(false);
    EXPECT_EQ(line(), "22:13:20  sda1  unmounted  Music");
    EXPECT_TRUE(wait_for(sleeps));
    CtlWorld::add_usb_disk("sdc", "8:32", "1000"); // which the next look sees
    write_file("/tmp/ctl/other", "");
    EXPECT_TRUE(wait_for([] { return events_waiting() == 0; }));
    EXPECT_TRUE(wait_for(sleeps));
    pollfd waited = {.fd = reader_.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&waited, 1, 0), 0) << "it has looked";
    write_file(ctl_devices, "[1:2:a:1]\nComment=new\n");
    EXPECT_EQ(line(), "22:13:20  sda1  changed  Music");
    EXPECT_EQ(line(), "22:13:20  sdc0  plugged");
    EXPECT_EQ(end(), EXIT_FAILED);
}

TEST_F(WatchTest, ForProgramsEachIsAnObject)
{
    start(true);
    const std::string present = line();
    const std::string begin = R"({"call":"watch","version":1,"time_s":1700000000,"event":")";
    EXPECT_EQ(present.find(begin + R"(present","item":{"name":"sda1","identity":"1:2:a:1",)"), 0U)
        << present;
    EXPECT_NE(present.find(R"("device":{)"), std::string::npos) << "all that is known of it";
    service_.end();
    write_file(ctl_devices, "[1:2:a:1]\nComment=new\n");
    EXPECT_EQ(line(), begin + R"(service_ended","item":null})");
    EXPECT_EQ(line().find(begin + R"(changed","item":{"name":"sda1")"), 0U);
    EXPECT_EQ(end(), EXIT_FAILED);
}
