// Cases that do what cases should not: selftest.py looks at what has become of them, and of those
// behind.
#include "support/files.h"
#include "support/fresh_case.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Whether all is as in a new process and a new world.
void expect_fresh()
{
    EXPECT_FALSE(exists("/tmp/left"));
    EXPECT_FALSE(exists("/media/left/inside"));
    EXPECT_EQ(read_file("/etc/mtab"), "");
    EXPECT_EQ(read_file("/proc/self/mounts").find("/run/left"), std::string::npos);
    char directory[64];
    EXPECT_STREQ(getcwd(directory, sizeof directory), "/");
    EXPECT_EQ(getenv("VY_LEFT"), nullptr);
    EXPECT_EQ(umask(022), 022U);
    struct sigaction action;
    sigaction(SIGUSR1, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
    struct stat status;
    EXPECT_EQ(stat("/run", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
    EXPECT_TRUE(exists("/dev/null"));
}

void* wait_for_ever(void*)
{
    for (;;)
        pause();
}

TEST(Bad, A_ChangesEverything)
{
    expect_fresh();
    write_file("/tmp/left", "x");
    mkdir("/media/left", 0);
    write_file("/media/left/inside", "x");
    unlink("/etc/mtab");
    EXPECT_EQ(symlink("/proc/mounts", "/etc/mtab"), 0);
    unlink("/dev/null");
    mkdir("/run/left", 0755);
    EXPECT_EQ(mount("left", "/run/left", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(chdir("/tmp"), 0);
    setenv("VY_LEFT", "1", 1);
    umask(0);
    signal(SIGUSR1, SIG_IGN);
    chmod("/run", 0);
    if (fork() == 0)
        wait_for_ever(nullptr);
}
TEST(Bad, B_FindsNothingOfIt)
{
    expect_fresh();
}
TEST(Bad, C_Fails)
{
    EXPECT_TRUE(false);
}
TEST(Bad, D_Crashes)
{
    abort();
}
TEST(Bad, E_Ends)
{
    exit(0);
}
TEST(Bad, F_LeavesADescriptor)
{
    EXPECT_GE(open("/tmp", O_RDONLY), 0);
}
TEST(Bad, G_MayLeaveAStream)
{
    fresh_case_may_leave_streams();
    EXPECT_GE(open("/tmp", O_RDONLY), 0);
}
TEST(Bad, H_IsSkipped)
{
    GTEST_SKIP() << "this kernel is too good";
}
TEST(Bad, I_Hangs)
{
    wait_for_ever(nullptr);
}
TEST(Bad, J_ReturnsTwice)
{
    (void)!fork();
}
TEST(Bad, K_Passes)
{
    expect_fresh();
}
TEST(Bad, L_LeavesAThread)
{
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, nullptr, wait_for_ever, nullptr), 0);
}

} // namespace
