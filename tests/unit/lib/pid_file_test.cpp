// Pid files: real files and locks below the private world's /var/run; signals go to the scripted
// world.
#include "lib/process.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Signals = std::vector<std::pair<pid_t, int>>;
using Texts = std::vector<std::string>;

const std::string run = "/var/run/";

// ---- the daemon's own ----

class PidFile : public testing::Test {
  protected:
    PidFile() { fake_log_clear(); }
    ~PidFile() override
    {
        if (fd >= 0)
            close(fd);
        unlink(path.c_str());
    }
    int create()
    {
        fd = vy_create_pid_file("unit");
        return fd;
    }
    // Tries, in vain, with a file that another has written.
    void expect_failure()
    {
        const int before = open_descriptors();
        EXPECT_EQ(vy_create_pid_file("unit"), -1);
        EXPECT_EQ(open_descriptors(), before) << "a descriptor was left open";
        EXPECT_TRUE(fake_log_lines().empty()) << "the caller logs, not this module";
    }
    mode_t mode()
    {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    const std::string path = run + "unit.pid";
    const std::string own = std::to_string(getpid()) + "\n";
    int fd = -1;
};

TEST_F(PidFile, HoldsThePidAndANewline)
{
    ASSERT_GE(create(), 0);
    EXPECT_EQ(read_file(path), own);
}

TEST_F(PidFile, ReplacesAllThatALongerFileHeld)
{
    write_file(path, "a file that is much longer than any pid\nof two lines\n");
    ASSERT_GE(create(), 0);
    EXPECT_EQ(read_file(path), own);
}

// The mode is decimal 644, which is octal 1204; who repairs it changes what others see.
TEST_F(PidFile, IsCreatedWithTheOddMode)
{
    const mode_t before = umask(0);
    ASSERT_GE(create(), 0);
    umask(before);
    EXPECT_EQ(mode(), 01204U);
}

TEST_F(PidFile, ModeIsSubjectToTheUmask)
{
    const mode_t before = umask(0204);
    ASSERT_GE(create(), 0);
    umask(before);
    EXPECT_EQ(mode(), 01000U);
}

TEST_F(PidFile, ModeOfAFileThatIsThereStays)
{
    write_file(path, "1\n");
    chmod(path.c_str(), 0600);
    ASSERT_GE(create(), 0);
    EXPECT_EQ(mode(), 0600U);
}

TEST_F(PidFile, DescriptorIsForWritingOnly)
{
    ASSERT_GE(create(), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
}

TEST_F(PidFile, DescriptorMayBeTheFirst)
{
    with_input_closed([this] {
        EXPECT_EQ(create(), 0);
        fd = fcntl(fd, F_DUPFD_CLOEXEC, 10);
    });
    EXPECT_EQ(read_file(path), std::to_string(getpid()) + "\n");
}

TEST_F(PidFile, DescriptorIsClosedAcrossExec)
{
    ASSERT_GE(create(), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(PidFile, IsLockedExclusively)
{
    ASSERT_GE(create(), 0);
    const int other = open(path.c_str(), O_RDONLY);
    EXPECT_EQ(flock(other, LOCK_SH | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    close(other);
}

TEST_F(PidFile, SecondTakerInThisProcessFails)
{
    ASSERT_GE(create(), 0);
    expect_failure();
    EXPECT_EQ(read_file(path), own);
}

// The lock is asked for before the file is cut, so the first taker's pid stays readable.
TEST_F(PidFile, SecondTakerLeavesTheFileOfAnotherProcess)
{
    int told[2];
    int held[2];
    ASSERT_EQ(pipe(told), 0);
    ASSERT_EQ(pipe(held), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        close(held[1]);
        const char answer = vy_create_pid_file("unit") >= 0 ? 'y' : 'n';
        char wait_for_end;
        _exit(write(told[1], &answer, 1) == 1 && read(held[0], &wait_for_end, 1) == 0 ? 0 : 1);
    }
    char answer = '?';
    ASSERT_EQ(read(told[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    const std::string content = std::to_string(holder) + "\n";
    EXPECT_EQ(read_file(path), content);
    expect_failure();
    EXPECT_EQ(read_file(path), content);

    close(held[1]);
    close(held[0]);
    EXPECT_EQ(waitpid(holder, nullptr, 0), holder);
    EXPECT_GE(create(), 0) << "the lock went with its holder";
    EXPECT_EQ(read_file(path), own);
    close(told[0]);
    close(told[1]);
}

// A child that locks the file, for whom it is readable, and holds it until it is killed.
class Locker {
  public:
    // `real` and `effective`: its users. `heir`: it leaves the lock to a child of its own and ends.
    Locker(const std::string& path, uid_t real, uid_t effective, bool heir = false)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        child_ = fork();
        if (child_ == 0)
            hold(path, real, effective, heir, ready[1]);
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1) << "it could not lock the file";
        close(ready[0]);
        if (heir) {
            EXPECT_EQ(waitpid(child_, nullptr, 0), child_);
        }
    }
    ~Locker()
    {
        kill(-child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }

  private:
    [[noreturn]] static void hold(const std::string& path, uid_t real, uid_t effective, bool heir,
                                  int ready)
    {
        setpgid(0, 0);
        const int fd = open(path.c_str(), O_RDONLY);
        if (setresuid(real, effective, real) != 0 || flock(fd, LOCK_EX | LOCK_NB) != 0)
            _exit(1);
        if (heir && fork() != 0)
            _exit(write(ready, "x", 1) == 1 ? 0 : 1);
        if (!heir && write(ready, "x", 1) != 1)
            _exit(1);
        for (;;)
            pause();
    }

    pid_t child_;
};

// Everybody may read the file, and so lock it.
TEST_F(PidFile, LockThatIsNotRootsKeepsNobodyFromStarting)
{
    write_file(path, "1\n");
    for (const bool heir : {false, true}) {
        constexpr uid_t users[] = {1234, 0};
        for (const uid_t effective : users) { // with root's rights, as a set-user-id program
            const Locker locker(path, 1234, effective, heir);
            ASSERT_GE(create(), 0) << effective << heir;
            EXPECT_EQ(read_file(path), own);
            EXPECT_EQ(vy_create_pid_file("unit"), -1) << "the new file is locked";
            close(fd);
            fd = -1;
        }
    }
}

TEST_F(PidFile, LockOfRootsDoes)
{
    write_file(path, "1\n");
    const Locker locker(path, 0, 0);
    expect_failure();
    EXPECT_EQ(read_file(path), "1\n");
}

TEST_F(PidFile, WithAForeignLockThatCannotBeRemovedFails)
{
    write_file(path, "1\n");
    const Locker locker(path, 1234, 1234);
    fake_world().fail("unlink", 1, EROFS);
    expect_failure();
}

TEST_F(PidFile, CanBeTakenAgainOnceClosed)
{
    ASSERT_GE(create(), 0);
    close(fd);
    EXPECT_GE(create(), 0);
}

TEST_F(PidFile, WithoutItsDirectoryFails)
{
    EXPECT_EQ(vy_create_pid_file("no-such-directory/unit"), -1);
}

TEST_F(PidFile, ThatIsADirectoryFails)
{
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    expect_failure();
    rmdir(path.c_str());
}

TEST_F(PidFile, ThatCannotBeCutFails)
{
    ASSERT_EQ(symlink("/dev/null", path.c_str()), 0);
    expect_failure();
}

// Room for one byte: a pid written in part is a failure.
TEST_F(PidFile, ThatCannotBeWrittenWholeFails)
{
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t room : {rlim_t{0}, rlim_t{1}}) {
        const rlimit tight = {room, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
        const int result = vy_create_pid_file("unit");
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
        EXPECT_EQ(result, -1) << "room for " << room;
    }
    signal(SIGXFSZ, handler);
    EXPECT_GE(create(), 0) << "the lock was not given back";
}

TEST_F(PidFile, ThatCannotBeClosedAcrossExecFails)
{
    call_fail("fcntl", 1, EBADF);
    expect_failure();
    EXPECT_TRUE(call_failed());
    EXPECT_GE(create(), 0) << "the lock was not given back";
}

TEST_F(PidFile, LongNameIsCutWithItsEnding)
{
    const std::string cut = run + std::string(246, 'n'); // 255 bytes of path
    fd = vy_create_pid_file(std::string(300, 'n').c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_file(cut), own);
    unlink(cut.c_str());
}

TEST_F(PidFile, NameThatJustFitsKeepsItsEnding)
{
    const std::string name(242, 'n');
    fd = vy_create_pid_file(name.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(exists(run + name + ".pid"));
    unlink((run + name + ".pid").c_str());
}

// ---- another daemon's ----

class SignalTest {
  protected:
    SignalTest()
    {
        fake_world_reset();
        fake_log_clear();
    }
    FakeWorld& world = fake_world();
};

struct ContentRow {
    const char* what;
    std::string content;
    pid_t pid; // 0: not taken for a pid
};

void PrintTo(const ContentRow& row, std::ostream* out)
{
    *out << row.what;
}

class PidFileContent : public SignalTest, public testing::TestWithParam<ContentRow> {};

TEST_P(PidFileContent, DecidesWhoIsSignalled)
{
    const std::string path = run + "other.pid";
    write_file(path, GetParam().content);
    const int before = open_descriptors();
    const int result = vy_sigsend_pid_file(path.c_str(), SIGHUP);
    EXPECT_EQ(open_descriptors(), before) << "a descriptor was left open";
    if (GetParam().pid != 0) {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(world.signals, (Signals{{GetParam().pid, SIGHUP}}));
    } else {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(world.signals, Signals{});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Pids, PidFileContent,
    testing::Values(ContentRow{"digits and a newline", "812\n", 812},
                    ContentRow{"digits alone", "812", 812},
                    ContentRow{"blanks in front", "  812\n", 812},
                    ContentRow{"leading zeros are decimal", "0812\n", 812},
                    ContentRow{"the largest", "2147483647\n", 2147483647},
                    ContentRow{"15 digits", "000000000000812", 812},
                    ContentRow{"15 digits and a newline", "000000000000812\n", 812},
                    ContentRow{"14 digits, a newline and more", "00000000000812\n99999\n", 812},
                    ContentRow{"a zero byte behind the digits", std::string("812\0x", 5), 812}));

INSTANTIATE_TEST_SUITE_P(
    CutToFifteen, PidFileContent,
    testing::Values(ContentRow{"16 digits", "0000000000000812", 81},
                    ContentRow{"16 digits and a newline", "0000000000000812\n", 81},
                    ContentRow{"a long line of digits", "000000000000812345678901234567890", 812},
                    ContentRow{"letters behind the fifteenth", "000000000000812abc\n", 812}));

INSTANTIATE_TEST_SUITE_P(
    NoPid, PidFileContent,
    testing::Values(ContentRow{"nothing", "", 0}, ContentRow{"a newline alone", "\n", 0},
                    ContentRow{"a zero byte in front", std::string("\000812\n", 5), 0},
                    ContentRow{"letters behind the digits", "812abc\n", 0},
                    ContentRow{"letters", "running\n", 0}, ContentRow{"two newlines", "812\n\n", 0},
                    ContentRow{"a second line", "812\n813\n", 0},
                    ContentRow{"a blank behind the digits", "812 \n", 0},
                    ContentRow{"a carriage return", "812\r\n", 0},
                    ContentRow{"hexadecimal", "0x32C\n", 0},
                    ContentRow{"more than 32 bits", "99999999999\n", 0},
                    ContentRow{"blanks alone", "   \n", 0}));

class PidFileSignal : public SignalTest, public testing::Test {};

TEST_F(PidFileSignal, IsTheOneThatIsAskedFor)
{
    write_file(run + "other.pid", "812\n");
    EXPECT_EQ(vy_sigsend_pid_file("/var/run/other.pid", SIGTERM), 0);
    EXPECT_EQ(world.signals, (Signals{{812, SIGTERM}}));
}

TEST_F(PidFileSignal, FailureOfKillIsPassedOnInErrno)
{
    write_file(run + "other.pid", "812\n");
    for (const int error : {ESRCH, EPERM}) {
        world.kill_errors[812] = error;
        errno = 0;
        EXPECT_EQ(vy_sigsend_pid_file("/var/run/other.pid", SIGHUP), -1);
        EXPECT_EQ(errno, error);
    }
}

TEST_F(PidFileSignal, TellsWhichFileItOpensAtDebugLevel)
{
    (void)vy_sigsend_pid_file("/var/run/none.pid", SIGHUP);
    (void)vy_sigsend_pid_file("x.pid", SIGHUP);
    EXPECT_EQ(fake_log_texts(), (Texts{"process(#)open pid file (/var/run/none.pid)",
                                       "process(#)open pid file (x.pid)"}));
    EXPECT_EQ(fake_log_lines()[0].priority, LOG_DEBUG);
}

TEST_F(PidFileSignal, WithoutTheFileFails)
{
    EXPECT_EQ(vy_sigsend_pid_file("/var/run/none.pid", SIGHUP), -1);
    EXPECT_EQ(world.signals, Signals{});
}

TEST_F(PidFileSignal, FileThatCannotBeReadFails)
{
    const int before = open_descriptors();
    EXPECT_EQ(vy_sigsend_pid_file("/var/run", SIGHUP), -1);
    EXPECT_EQ(open_descriptors(), before) << "a descriptor was left open";
    EXPECT_EQ(world.signals, Signals{});
}

TEST_F(PidFileSignal, AbsoluteNameMayLieAnywhere)
{
    write_file("/tmp/anywhere", "812\n");
    EXPECT_EQ(vy_sigsend_pid_file("/tmp/anywhere", SIGHUP), 0);
}

TEST_F(PidFileSignal, AbsoluteNameMayBeLong)
{
    std::string path = "/tmp";
    for (int i = 0; i < 3; i++) {
        path += "/" + std::string(200, 'd');
        (void)mkdir(path.c_str(), 0700);
    }
    write_file(path + "/pid", "812\n");
    EXPECT_EQ(vy_sigsend_pid_file((path + "/pid").c_str(), SIGHUP), 0);
}

// A relative name gets a newline behind it: kept, nobody passes one.
TEST_F(PidFileSignal, RelativeNameIsNotTheFileOfThatName)
{
    write_file(run + "x.pid", "812\n");
    EXPECT_EQ(vy_sigsend_pid_file("x.pid", SIGHUP), -1);
    EXPECT_EQ(world.signals, Signals{});
}

TEST_F(PidFileSignal, RelativeNameIsLookedForWithANewline)
{
    write_file("/var/run//x.pid\n", "812\n");
    EXPECT_EQ(vy_sigsend_pid_file("x.pid", SIGHUP), 0);
    EXPECT_EQ(world.signals, (Signals{{812, SIGHUP}}));
    unlink("/var/run/x.pid\n");
}

TEST_F(PidFileSignal, RelativeNameOf256BytesIsTooLong)
{
    const std::string fits(244, 'n'); // 255 bytes with what is put around it
    const std::string longer(245, 'n');
    write_file(run + fits + "\n", "812\n");
    write_file(run + longer + "\n", "812\n");
    write_file(run + longer, "812\n"); // what a path that is cut would lead to
    EXPECT_EQ(vy_sigsend_pid_file(fits.c_str(), SIGHUP), 0);
    EXPECT_EQ(vy_sigsend_pid_file(longer.c_str(), SIGHUP), -1);
    EXPECT_EQ(vy_sigsend_pid_file(std::string(4000, 'n').c_str(), SIGHUP), -1);
    EXPECT_EQ(world.signals, (Signals{{812, SIGHUP}}));
}

} // namespace
