// Real children: their streams, descriptors and environment, and waiting for them.
#include "lib/process.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int sentinel = 4711;
constexpr int patience_ms = 60000; // for what ends at once; a loaded machine may need a while

std::string read_all(int fd)
{
    std::string text;
    char block[4096];
    ssize_t count = 0;
    while ((count = read(fd, block, sizeof block)) > 0)
        text.append(block, static_cast<size_t>(count));
    return text;
}

// Runs a shell line. What it writes to its pipes is kept.
struct Shell {
    int in = -1;
    int out = -1;
    int err = -1;
    pid_t pid = -1;
    int status = sentinel;

    ~Shell()
    {
        for (const int fd : {in, out, err}) {
            if (fd >= 0)
                close(fd);
        }
    }
    void start(std::string line, bool with_in, bool with_out, bool with_err)
    {
        char shell[] = "sh";
        char command[] = "-c";
        char* argv[] = {shell, command, line.data(), nullptr};
        pid = vy_fork_exec("sh", argv, with_in ? &in : nullptr, with_out ? &out : nullptr,
                           with_err ? &err : nullptr);
        ASSERT_GT(pid, 0);
    }
    void close_in()
    {
        close(in);
        in = -1;
    }
    int wait() { return vy_wait(pid, 0, &status, patience_ms); }
};

std::string output_of(const std::string& line)
{
    Shell shell;
    shell.start(line, false, true, false);
    std::string text = read_all(shell.out);
    EXPECT_EQ(shell.wait(), 0);
    return text;
}

// ---- streams ----

TEST(Child, PipesCarryAllThreeStreams)
{
    Shell shell;
    shell.start("cat; echo complaint >&2", true, true, true);
    ASSERT_EQ(write(shell.in, "question\n", 9), 9);
    shell.close_in(); // cat ends only when no other write end is open
    EXPECT_EQ(read_all(shell.out), "question\n");
    EXPECT_EQ(read_all(shell.err), "complaint\n");
    EXPECT_EQ(shell.wait(), 0);
    EXPECT_EQ(shell.status, 0);
}

// The child's streams as "LINK MODE", mode 0 for reading and 1 for writing.
constexpr char describe_streams[] =
    "a=$(readlink /proc/$$/fd/0); b=$(readlink /proc/$$/fd/1); c=$(readlink /proc/$$/fd/2);"
    "m() { sed -n 's/^flags:.*\\(.\\)$/\\1/p' /proc/$$/fdinfo/$1; };"
    "i=$(m 0); j=$(m 1); k=$(m 2);"
    "echo \"$a $i, $b $j, $c $k\" >/tmp/streams";

TEST(Child, StreamsThatAreNotAskedForAreNull)
{
    Shell shell;
    shell.start(describe_streams, false, false, false);
    ASSERT_EQ(shell.wait(), 0);
    EXPECT_EQ(read_file("/tmp/streams"), "/dev/null 0, /dev/null 1, /dev/null 1\n");
}

TEST(Child, OneStreamAskedForLeavesTheOthersNull)
{
    const struct {
        bool in, out, err;
        const char* streams; // what of them is /dev/null
    } rows[] = {{true, false, false, "pipe 0, /dev/null 1, /dev/null 1\n"},
                {false, true, false, "/dev/null 0, pipe 1, /dev/null 1\n"},
                {false, false, true, "/dev/null 0, /dev/null 1, pipe 1\n"}};
    for (const auto& row : rows) {
        Shell shell;
        shell.start(describe_streams, row.in, row.out, row.err);
        ASSERT_EQ(shell.wait(), 0);
        std::string streams = read_file("/tmp/streams");
        const size_t from = streams.find("pipe:[");
        ASSERT_NE(from, std::string::npos) << streams;
        streams.replace(from, streams.find(']') + 1 - from, "pipe");
        EXPECT_EQ(streams, row.streams);
    }
}

// A stream that lands on another number ends the child. Here it does so for standard input: 0 is
// free in this process, so the pipe itself gets it and the child closes it.
TEST(Child, WhoseStreamLandsElsewhereEndsWithOne)
{
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
    close(0);
    Shell shell;
    shell.start("exit 0", true, false, false);
    const int read_end = fcntl(0, F_GETFD);
    EXPECT_EQ(shell.wait(), 0);
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    }
    EXPECT_EQ(read_end, -1) << "the parent keeps the child's end";
    EXPECT_EQ(shell.status, 1);
}

TEST(Child, WithoutANullDeviceEndsWithOne)
{
    ASSERT_EQ(rename("/dev/null", "/dev/null.away"), 0);
    Shell shell;
    shell.start("exit 0", false, false, false);
    const int result = shell.wait();
    ASSERT_EQ(rename("/dev/null.away", "/dev/null"), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(shell.status, 1);
}

// ---- descriptors ----

// The descriptors that a program finds open, without the one it looks with.
std::set<int> descriptors_of_child()
{
    char ls[] = "ls";
    char directory[] = "/proc/self/fd";
    char* argv[] = {ls, directory, nullptr};
    int out = -1;
    const pid_t pid = vy_fork_exec("ls", argv, nullptr, &out, nullptr);
    EXPECT_GT(pid, 0);
    std::istringstream names(read_all(out));
    close(out);
    EXPECT_EQ(vy_wait(pid, 0, nullptr, patience_ms), 0);
    std::set<int> found;
    for (int fd = 0; names >> fd;)
        found.insert(fd);
    found.erase(3); // the lowest that is free
    return found;
}

TEST(Child, HasDescriptors3To254ClosedAndLaterOnesOpen)
{
    std::vector<int> held;
    const int source = open("/dev/zero", O_RDONLY);
    for (const int fd : {3, 4, 100, 253, 254, 255, 256, 300}) {
        if (fcntl(fd, F_GETFD) < 0) {
            ASSERT_EQ(dup2(source, fd), fd); // without close-on-exec
            held.push_back(fd);
        }
    }
    EXPECT_EQ(descriptors_of_child(), (std::set<int>{0, 1, 2, 255, 256, 300}));
    for (const int fd : held)
        close(fd);
    close(source);
}

TEST(Child, CloseOnExecIsKeptAbove254)
{
    const int source = open("/dev/zero", O_RDONLY);
    ASSERT_EQ(dup3(source, 255, O_CLOEXEC), 255);
    EXPECT_EQ(descriptors_of_child(), (std::set<int>{0, 1, 2}));
    close(255);
    close(source);
}

TEST(Child, LeavesTheParentsDescriptorsAsTheyWere)
{
    const int before = open_descriptors();
    {
        Shell shell;
        shell.start("exit 0", true, true, true);
        EXPECT_EQ(open_descriptors(), before + 3);
        EXPECT_EQ(shell.wait(), 0);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Child, PipeThatCannotBeMadeLeavesNoDescriptor)
{
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int before = open_descriptors();
    const int next = open("/dev/null", O_RDONLY); // the lowest that is free
    close(next);
    for (const int spare : {0, 1, 2, 3, 4, 5}) { // three pipes need six
        const rlimit tight = {static_cast<rlim_t>(next + spare), limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        char name[] = "true";
        char* argv[] = {name, nullptr};
        int in = sentinel;
        int out = sentinel;
        int err = sentinel;
        const pid_t pid = vy_fork_exec("true", argv, &in, &out, &err);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(pid, -EMFILE) << spare << " to spare";
        EXPECT_EQ(open_descriptors(), before) << spare << " to spare";
    }
}

// ---- program ----

TEST(Child, GetsItsArgumentsAndTheEnvironment)
{
    setenv("VY_UNIT", "kept as it is", 1);
    char shell[] = "any name";
    char command[] = "-c";
    char line[] = "echo \"$0/$1/$2/$VY_UNIT\"";
    char zero[] = "zero";
    char one[] = "one word";
    char two[] = "";
    char* argv[] = {shell, command, line, zero, one, two, nullptr};
    int out = -1;
    const pid_t pid = vy_fork_exec("sh", argv, nullptr, &out, nullptr);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(read_all(out), "zero/one word//kept as it is\n");
    close(out);
    EXPECT_EQ(vy_wait(pid, 0, nullptr, patience_ms), 0);
    unsetenv("VY_UNIT");
}

TEST(Child, IsLookedForOnThePath)
{
    (void)mkdir("/tmp/programs", 0755);
    write_file("/tmp/programs/vy-unit-program", "#!/bin/sh\necho found\n");
    ASSERT_EQ(chmod("/tmp/programs/vy-unit-program", 0755), 0);
    const std::string path = getenv("PATH") != nullptr ? getenv("PATH") : "/bin:/usr/bin";
    setenv("PATH", ("/tmp/programs:" + path).c_str(), 1);
    char name[] = "vy-unit-program";
    char* argv[] = {name, nullptr};
    int out = -1;
    const pid_t pid = vy_fork_exec(name, argv, nullptr, &out, nullptr);
    EXPECT_EQ(read_all(out), "found\n");
    close(out);
    EXPECT_EQ(vy_wait(pid, 0, nullptr, patience_ms), 0);
    setenv("PATH", path.c_str(), 1);
}

// Seen by the parent only as an exit status.
TEST(Child, ThatIsNotFoundEndsWithOne)
{
    for (const char* program : {"vy-no-such-program", "/tmp/no/such/program", "/tmp"}) {
        std::string name = program;
        char* argv[] = {name.data(), nullptr};
        const pid_t pid = vy_fork_exec(program, argv, nullptr, nullptr, nullptr);
        EXPECT_GT(pid, 0) << program;
        int status = sentinel;
        EXPECT_EQ(vy_wait(pid, 0, &status, patience_ms), 0) << program;
        EXPECT_EQ(status, 1) << program;
    }
}

TEST(Child, IsAChildOfThisProcess)
{
    EXPECT_EQ(output_of("echo $PPID"), std::to_string(getpid()) + "\n");
}

// ---- waiting ----

TEST(ChildWait, GivesTheExitStatus)
{
    for (const int status : {0, 1, 42, 255}) {
        for (const int timeout_ms : {patience_ms, -1}) {
            Shell shell;
            shell.start("exit " + std::to_string(status), false, false, false);
            EXPECT_EQ(vy_wait(shell.pid, 0, &shell.status, timeout_ms), 0);
            EXPECT_EQ(shell.status, status);
        }
    }
}

TEST(ChildWait, GivesMinusOneForAChildThatASignalKilled)
{
    for (const int timeout_ms : {patience_ms, -1}) {
        Shell shell;
        shell.start("kill -9 $$", false, false, false);
        EXPECT_EQ(vy_wait(shell.pid, 0, &shell.status, timeout_ms), 0);
        EXPECT_EQ(shell.status, -1);
    }
}

TEST(ChildWait, ReapsTheChild)
{
    Shell shell;
    shell.start("exit 0", false, false, false);
    ASSERT_EQ(shell.wait(), 0);
    EXPECT_EQ(waitpid(shell.pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(vy_wait(shell.pid, 0, nullptr, 1000), -ECHILD);
    EXPECT_EQ(vy_wait(shell.pid, 0, nullptr, -1), -ECHILD);
}

// A child that runs until it is killed; reaped here whatever happens.
class EndlessChild : public testing::Test {
  protected:
    EndlessChild() : handler(signal(SIGINT, SIG_DFL))
    {
        char name[] = "sleep";
        char time[] = "100000";
        char* argv[] = {name, time, nullptr};
        pid = vy_fork_exec("sleep", argv, nullptr, nullptr, nullptr);
    }
    ~EndlessChild() override
    {
        if (!reaped) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        signal(SIGINT, handler);
    }
    // How it ended, waiting for that.
    int end()
    {
        int status = 0;
        reaped = waitpid(pid, &status, 0) == pid;
        EXPECT_TRUE(reaped) << "reaped already";
        return status;
    }

    void (*handler)(int);
    pid_t pid;
    bool reaped = false;
};

TEST_F(EndlessChild, RunsOnWhenTheTimeHasRunOut)
{
    int status = sentinel;
    EXPECT_EQ(vy_wait(pid, 0, &status, 200), 1);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it has been ended";
}

TEST_F(EndlessChild, IsInterruptedWhenAskedAndLeftToBeReaped)
{
    int status = sentinel;
    EXPECT_EQ(vy_wait(pid, VY_WAIT_INTERRUPT, &status, 200), 1);
    EXPECT_EQ(status, -1);
    const int ended = end();
    EXPECT_TRUE(WIFSIGNALED(ended));
    EXPECT_EQ(WTERMSIG(ended), SIGINT);
}

TEST_F(EndlessChild, IsInterruptedWithoutALookWhenTheTimeIsShort)
{
    EXPECT_EQ(vy_wait(pid, VY_WAIT_INTERRUPT, nullptr, 199), 1);
    const int ended = end();
    EXPECT_EQ(WTERMSIG(ended), SIGINT);
}

} // namespace
