// The real world behind lib/sys.h: each call's success and its negated errno.
#include "lib/sys.h"

#include "lib/guard.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

const std::string place = "/tmp/place";

TEST(Sys, MkdirAndRmdir)
{
    const mode_t mask = umask(0);
    EXPECT_EQ(sys_mkdir(place.c_str(), 0700), 0);
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(place.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
    EXPECT_EQ(sys_mkdir(place.c_str(), 0700), -EEXIST);
    write_file(place + "/file", "");
    EXPECT_EQ(sys_rmdir(place.c_str()), -ENOTEMPTY);
    EXPECT_EQ(sys_unlink((place + "/file").c_str()), 0);
    EXPECT_EQ(sys_unlink((place + "/file").c_str()), -ENOENT);
    EXPECT_EQ(sys_rmdir(place.c_str()), 0);
    EXPECT_EQ(sys_rmdir(place.c_str()), -ENOENT);
}

TEST(Sys, Rename)
{
    write_file("/tmp/from", "content");
    EXPECT_EQ(sys_rename("/tmp/from", "/tmp/to"), 0);
    EXPECT_EQ(read_file("/tmp/to"), "content");
    EXPECT_EQ(sys_rename("/tmp/from", "/tmp/to"), -ENOENT);
}

TEST(Sys, MknodMakesABlockNode)
{
    ASSERT_EQ(sys_mknod("/dev/unit", S_IFBLK, makedev(8, 17)), 0);
    struct stat status = {};
    ASSERT_EQ(stat("/dev/unit", &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFBLK)) << "permission bits were set";
    EXPECT_EQ(major(status.st_rdev), 8U);
    EXPECT_EQ(minor(status.st_rdev), 17U);
    EXPECT_EQ(sys_mknod("/dev/unit", S_IFBLK, makedev(8, 17)), -EEXIST);
    EXPECT_EQ(sys_unlink("/dev/unit"), 0);
}

TEST(Sys, MountAndUmount)
{
    ASSERT_EQ(sys_mkdir(place.c_str(), 0700), 0);
    ASSERT_EQ(sys_mount("unit", place.c_str(), "tmpfs", MS_NODEV, "size=64k"), 0);
    write_file(place + "/file", "");
    EXPECT_EQ(sys_umount(place.c_str()), 0);
    EXPECT_FALSE(exists(place + "/file"));
    EXPECT_EQ(sys_umount(place.c_str()), -EINVAL);
    EXPECT_EQ(sys_umount2(place.c_str(), MNT_DETACH), -EINVAL);
    EXPECT_EQ(sys_mount("unit", place.c_str(), "no-such-type", 0, nullptr), -ENODEV);
    EXPECT_EQ(sys_rmdir(place.c_str()), 0);
}

TEST(Sys, Umount2TakesItsFlags)
{
    ASSERT_EQ(sys_mkdir(place.c_str(), 0700), 0);
    ASSERT_EQ(sys_mount("unit", place.c_str(), "tmpfs", 0, nullptr), 0);
    const int busy = open(place.c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(sys_umount(place.c_str()), -EBUSY);
    EXPECT_EQ(sys_umount2(place.c_str(), MNT_DETACH), 0);
    close(busy);
    EXPECT_EQ(sys_rmdir(place.c_str()), 0) << "still mounted on";
}

TEST(Sys, Statfs)
{
    EXPECT_EQ(sys_statfs("/tmp"), 0);
    EXPECT_EQ(sys_statfs("/tmp/none"), -ENOENT);
}

TEST(Sys, Kill)
{
    EXPECT_EQ(sys_kill(getpid(), 0), 0);
    EXPECT_EQ(sys_kill(getpid(), 9999), -EINVAL);
}

TEST(Sys, PipeIsClosedAcrossExec)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(sys_pipe(ends), 0);
    for (const int end : ends) {
        EXPECT_EQ(fcntl(end, F_GETFD), FD_CLOEXEC);
        close(end);
    }
}

TEST(Sys, PipeCarriesBytes)
{
    int ends[2];
    ASSERT_EQ(sys_pipe(ends), 0);
    char byte = 0;
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    close(ends[0]);
    close(ends[1]);
}

TEST(Sys, SpawnJoinsTheDescriptorsItIsGiven)
{
    int ends[2];
    ASSERT_EQ(sys_pipe(ends), 0);
    char echo[] = "echo";
    char word[] = "word";
    char* argv[] = {echo, word, nullptr};
    const int stdio[3] = {-1, ends[1], -1};
    const pid_t pid = sys_spawn("echo", argv, stdio);
    ASSERT_GT(pid, 0);
    close(ends[1]);
    char text[16] = {};
    EXPECT_EQ(read(ends[0], text, sizeof text), 5);
    EXPECT_STREQ(text, "word\n");
    EXPECT_EQ(read(ends[0], text, sizeof text), 0);
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(sys_waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

TEST(Sys, SpawnOfNoProgramEndsWithOne)
{
    char name[] = "vy-no-such-program";
    char* argv[] = {name, nullptr};
    const int stdio[3] = {-1, -1, -1};
    const pid_t pid = sys_spawn(name, argv, stdio);
    ASSERT_GT(pid, 0);
    int status = -1;
    EXPECT_EQ(sys_waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

// Prints what it was given, and that it has no descriptor but its streams.
static void print_words(char* const argv[])
{
    if (fcntl(3, F_GETFD) < 0)
        (void)!write(STDOUT_FILENO, argv[1], strlen(argv[1]));
}

TEST(Sys, SpawnOfWorkHasTheWordsAndTheStreamsAlone)
{
    char name[] = "print";
    char word[] = "word";
    char* argv[] = {name, word, nullptr};
    int ends[2];
    ASSERT_EQ(sys_pipe(ends), 0);
    const FdGuard out(ends[0]);
    const int stdio[3] = {-1, ends[1], -1};
    const pid_t pid = sys_spawn_work(print_words, argv, stdio);
    close(ends[1]);
    ASSERT_GT(pid, 0);
    char text[16] = "";
    EXPECT_EQ(read(out.get(), text, sizeof text - 1), 4);
    EXPECT_STREQ(text, "word");
    int status = -1;
    EXPECT_EQ(sys_waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

TEST(Sys, WaitpidWithoutAChild)
{
    EXPECT_EQ(sys_waitpid(-1, nullptr, WNOHANG), -ECHILD);
}

TEST(Sys, WaitpidWithoutHangingIsZeroWhileTheChildRuns)
{
    char sleep[] = "sleep";
    char time[] = "100000";
    char* argv[] = {sleep, time, nullptr};
    const int stdio[3] = {-1, -1, -1};
    const pid_t pid = sys_spawn("sleep", argv, stdio);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(sys_waitpid(pid, nullptr, WNOHANG), 0);
    EXPECT_EQ(sys_kill(pid, SIGKILL), 0);
    int status = 0;
    EXPECT_EQ(sys_waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST(Sys, ClocksGoTogetherWithTheLibrarys)
{
    timespec reading;
    ASSERT_EQ(sys_clock_gettime(CLOCK_REALTIME, &reading), 0);
    timeval day;
    ASSERT_EQ(sys_gettimeofday(&day), 0);
    time_t seconds = 0;
    ASSERT_EQ(sys_time(&seconds), 0);
    EXPECT_GE(day.tv_sec, reading.tv_sec);
    // The library's time() may lag behind by one tick of the kernel.
    EXPECT_GE(seconds + 1, day.tv_sec);
    EXPECT_EQ(sys_clock_gettime(9999, &reading), -EINVAL);
}

TEST(Sys, NanosleepRefusesWhatIsNoTime)
{
    const timespec wrong = {.tv_sec = 0, .tv_nsec = 1000000000};
    EXPECT_EQ(sys_nanosleep(&wrong, nullptr), -EINVAL);
    const timespec nothing = {};
    EXPECT_EQ(sys_nanosleep(&nothing, nullptr), 0);
}

class SelectOne : public testing::Test {
  protected:
    SelectOne() { EXPECT_EQ(sys_pipe(ends), 0); }
    ~SelectOne() override
    {
        close(ends[0]);
        close(ends[1]);
    }
    int ends[2];
    timeval none = {};
};

TEST_F(SelectOne, IsZeroWhenTheTimeRanOut)
{
    EXPECT_EQ(sys_select_one(ends[0], SYS_READABLE, &none), 0);
}

TEST_F(SelectOne, IsOneWhenTheDescriptorIsReady)
{
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(sys_select_one(ends[0], SYS_READABLE, &none), 1);
    EXPECT_EQ(sys_select_one(ends[0], SYS_READABLE, nullptr), 1);
}

TEST_F(SelectOne, LooksInTheDirectionThatIsAskedFor)
{
    EXPECT_EQ(sys_select_one(ends[1], SYS_WRITABLE, &none), 1);
    const std::string block(4096, 'x');
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    while (write(ends[1], block.data(), block.size()) > 0) {
    }
    EXPECT_EQ(sys_select_one(ends[1], SYS_WRITABLE, &none), 0);
    EXPECT_EQ(sys_select_one(ends[0], SYS_READABLE, &none), 1);
}

TEST_F(SelectOne, RefusesWhatFitsNoSet)
{
    for (const int fd : {-1, FD_SETSIZE, FD_SETSIZE + 1000})
        EXPECT_EQ(sys_select_one(fd, SYS_READABLE, &none), -EBADF) << fd;
}

TEST_F(SelectOne, OfAClosedDescriptorIsItsErrno)
{
    const int closed = dup(ends[0]);
    close(closed);
    EXPECT_EQ(sys_select_one(closed, SYS_READABLE, &none), -EBADF);
}

} // namespace
