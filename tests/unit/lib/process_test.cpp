// Children in the scripted world: which descriptors are held, how often and how long is waited.
#include "lib/process.h"

#include "fake/fake_world.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Signals = std::vector<std::pair<pid_t, int>>;

constexpr int sentinel = 4711;

char program[] = "mlabel";
char argument[] = "-s";
char* arguments[] = {program, argument, nullptr};

class Children : public testing::Test {
  protected:
    Children() { fake_world_reset(); }
    // A child that ends with this wait status after so many looks (-1: never).
    pid_t start(int wait_status, int looks)
    {
        FakeRun run;
        run.wait_status = wait_status;
        run.polls = looks;
        world.programs[program].push_back(run);
        return vy_fork_exec(program, arguments, nullptr, nullptr, nullptr);
    }
    pid_t start_endless() { return start(0, -1); }
    FakeWorld& world = fake_world();
};

// ---- starting ----

TEST_F(Children, StartIsTheChildsPid)
{
    EXPECT_EQ(vy_fork_exec(program, arguments, nullptr, nullptr, nullptr), 5001);
    EXPECT_EQ(world.journal, std::vector<std::string>{"spawn mlabel mlabel -s"});
}

TEST_F(Children, StartWithoutStreamsMakesNoPipe)
{
    const int before = open_descriptors();
    (void)vy_fork_exec(program, arguments, nullptr, nullptr, nullptr);
    EXPECT_EQ(world.count("pipe"), 0);
    EXPECT_EQ(open_descriptors(), before);
}

// Which streams are asked for, and so how many pipes.
struct StreamsRow {
    const char* what;
    bool in;
    bool out;
    bool err;
};

void PrintTo(const StreamsRow& row, std::ostream* out)
{
    *out << row.what;
}

constexpr StreamsRow every_row[] = {{"none", false, false, false},   {"in", true, false, false},
                                    {"out", false, true, false},     {"err", false, false, true},
                                    {"in, out", true, true, false},  {"in, err", true, false, true},
                                    {"out, err", false, true, true}, {"all", true, true, true}};

class Streams : public testing::TestWithParam<StreamsRow> {
  protected:
    Streams() { fake_world_reset(); }
    pid_t start()
    {
        const StreamsRow& row = GetParam();
        return vy_fork_exec(program, arguments, row.in ? &in : nullptr, row.out ? &out : nullptr,
                            row.err ? &err : nullptr);
    }
    int asked() const { return GetParam().in + GetParam().out + GetParam().err; }

    FakeWorld& world = fake_world();
    int in = sentinel;
    int out = sentinel;
    int err = sentinel;
};

TEST_P(Streams, ParentKeepsOneEndOfEachPipe)
{
    const int before = open_descriptors();
    ASSERT_GT(start(), 0);
    EXPECT_EQ(open_descriptors(), before + asked());
    EXPECT_EQ(world.count("pipe"), asked());
    const std::pair<int, int> ends[] = {{in, O_WRONLY}, {out, O_RDONLY}, {err, O_RDONLY}};
    const bool wanted[] = {GetParam().in, GetParam().out, GetParam().err};
    for (int i = 0; i < 3; i++) {
        if (!wanted[i]) {
            EXPECT_EQ(ends[i].first, sentinel) << "stored without being asked, stream " << i;
            continue;
        }
        EXPECT_EQ(fcntl(ends[i].first, F_GETFL) & O_ACCMODE, ends[i].second) << "stream " << i;
        close(ends[i].first);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_P(Streams, EveryPipeThatFailsClosesAllBefore)
{
    for (int nth = 1; nth <= asked(); nth++) {
        fake_world_reset();
        world.fail("pipe", nth, EMFILE);
        const int before = open_descriptors();
        EXPECT_EQ(start(), -EMFILE) << "pipe " << nth;
        EXPECT_EQ(open_descriptors(), before) << "pipe " << nth;
        EXPECT_EQ(world.count("pipe"), nth) << "went on after the failure";
        EXPECT_EQ(world.count("spawn"), 0) << "pipe " << nth;
    }
}

TEST_P(Streams, ForkThatFailsClosesAll)
{
    world.fail("spawn", 1, EAGAIN);
    const int before = open_descriptors();
    EXPECT_EQ(start(), -EAGAIN);
    EXPECT_EQ(open_descriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Asked, Streams, testing::ValuesIn(every_row));

TEST_F(Children, OutputIsReadFromTheDescriptorThatWasStored)
{
    FakeRun run;
    run.output = "Volume label is STICK\n";
    world.programs[program].push_back(run);
    int out = -1;
    ASSERT_GT(vy_fork_exec(program, arguments, nullptr, &out, nullptr), 0);
    char text[64] = {};
    EXPECT_EQ(read(out, text, sizeof text), 22);
    EXPECT_STREQ(text, "Volume label is STICK\n");
    EXPECT_EQ(read(out, text, sizeof text), 0) << "the parent still holds the write end";
    close(out);
}

// ---- waiting ----

TEST_F(Children, WaitStoresTheExitStatus)
{
    for (const int status : {0, 1, 127, 128, 255}) {
        const pid_t pid = start(status << 8, 0);
        int stored = sentinel;
        EXPECT_EQ(vy_wait(pid, 0, &stored, 1000), 0);
        EXPECT_EQ(stored, status);
    }
}

TEST_F(Children, WaitStoresMinusOneForAChildThatASignalKilled)
{
    for (const int status : {SIGKILL, SIGSEGV, SIGABRT | 0x80}) { // 0x80: it left a core
        const pid_t pid = start(status, 0);
        int stored = sentinel;
        EXPECT_EQ(vy_wait(pid, 0, &stored, 1000), 0) << status;
        EXPECT_EQ(stored, -1) << status;
    }
}

TEST_F(Children, WaitTakesAnExitForOneWhateverTheCoreBitSays)
{
    int stored = sentinel;
    EXPECT_EQ(vy_wait(start(5 << 8 | 0x80, 0), 0, &stored, 1000), 0);
    EXPECT_EQ(stored, 5);
}

TEST_F(Children, WaitCanDoWithoutAPlaceForTheStatus)
{
    EXPECT_EQ(vy_wait(start(0, 0), 0, nullptr, 1000), 0);
    EXPECT_EQ(vy_wait(start_endless(), 0, nullptr, 1000), 1);
}

TEST_F(Children, WaitLooksEvery200Milliseconds)
{
    const pid_t pid = start(0, 2);
    world.journal.clear();
    EXPECT_EQ(vy_wait(pid, 0, nullptr, 60000), 0);
    EXPECT_EQ(world.journal,
              (std::vector<std::string>{"waitpid 5001 1", "nanosleep 200000", "waitpid 5001 1",
                                        "nanosleep 200000", "waitpid 5001 1"}));
    static_assert(WNOHANG == 1);
}

struct PollsRow {
    int timeout_ms;
    int polls;
};

void PrintTo(const PollsRow& row, std::ostream* out)
{
    *out << row.timeout_ms << " ms";
}

class Polls : public Children, public testing::WithParamInterface<PollsRow> {};

TEST_P(Polls, AreTheTimeOutDividedBy200)
{
    const pid_t pid = start_endless();
    int stored = sentinel;
    EXPECT_EQ(vy_wait(pid, 0, &stored, GetParam().timeout_ms), 1);
    EXPECT_EQ(stored, -1);
    EXPECT_EQ(world.count("waitpid"), GetParam().polls);
    EXPECT_EQ(world.count("nanosleep"), GetParam().polls) << "a look without its sleep";
    EXPECT_EQ(world.slept_usec, static_cast<uint64_t>(GetParam().polls) * 200000);
    EXPECT_EQ(world.signals, Signals{});
}

INSTANTIATE_TEST_SUITE_P(Rows, Polls,
                         testing::Values(PollsRow{0, 0}, PollsRow{1, 0}, PollsRow{199, 0},
                                         PollsRow{200, 1}, PollsRow{399, 1}, PollsRow{400, 2},
                                         PollsRow{20000, 100}, PollsRow{60000, 300},
                                         PollsRow{-2, 0}, PollsRow{INT_MIN, 0}));

TEST_F(Children, WaitSeesAChildEndAtTheLastLook)
{
    const pid_t pid = start(3 << 8, 4);
    int stored = sentinel;
    EXPECT_EQ(vy_wait(pid, VY_WAIT_INTERRUPT, &stored, 1000), 0);
    EXPECT_EQ(stored, 3);
    EXPECT_EQ(world.signals, Signals{});
}

// It has ended by the time of a sixth look, but there is none.
TEST_F(Children, WaitDoesNotLookAfterTheLastSleep)
{
    const pid_t pid = start(0, 5);
    EXPECT_EQ(vy_wait(pid, 0, nullptr, 1000), 1);
    EXPECT_EQ(world.count("waitpid"), 5);
}

TEST_F(Children, WaitOfLessThan200MissesAChildThatHasEnded)
{
    int stored = sentinel;
    EXPECT_EQ(vy_wait(start(0, 0), VY_WAIT_INTERRUPT, &stored, 199), 1);
    EXPECT_EQ(stored, -1);
    EXPECT_EQ(world.count("waitpid"), 0);
    EXPECT_EQ(world.slept_usec, 0U);
    EXPECT_EQ(world.signals, (Signals{{5001, SIGINT}}));
}

TEST_F(Children, WaitThatRunsOutInterruptsTheChildWhenAsked)
{
    const pid_t pid = start_endless();
    int stored = sentinel;
    EXPECT_EQ(vy_wait(pid, VY_WAIT_INTERRUPT, &stored, 400), 1);
    EXPECT_EQ(stored, -1);
    EXPECT_EQ(world.signals, (Signals{{pid, SIGINT}}));
}

TEST_F(Children, InterruptedChildIsNotReaped)
{
    const pid_t pid = start_endless();
    (void)vy_wait(pid, VY_WAIT_INTERRUPT, nullptr, 400);
    EXPECT_EQ(world.journal.back(), "kill 5001 2") << "something follows the signal";
}

TEST_F(Children, InterruptThatFailsIsNoFailureOfTheWait)
{
    const pid_t pid = start_endless();
    world.kill_errors[pid] = ESRCH;
    int stored = sentinel;
    EXPECT_EQ(vy_wait(pid, VY_WAIT_INTERRUPT, &stored, 400), 1);
    EXPECT_EQ(stored, -1);
}

TEST_F(Children, OnlyTheLowestFlagInterrupts)
{
    EXPECT_EQ(VY_WAIT_INTERRUPT, 1);
    EXPECT_EQ(vy_wait(start_endless(), 2, nullptr, 200), 1);
    EXPECT_EQ(world.signals, Signals{});
    const pid_t pid = start_endless();
    EXPECT_EQ(vy_wait(pid, 3, nullptr, 200), 1);
    EXPECT_EQ(world.signals, (Signals{{pid, SIGINT}}));
}

TEST_F(Children, WaitWithoutLimitBlocksOnce)
{
    const pid_t pid = start(7 << 8, 1000);
    world.journal.clear();
    int stored = sentinel;
    EXPECT_EQ(vy_wait(pid, VY_WAIT_INTERRUPT, &stored, -1), 0);
    EXPECT_EQ(stored, 7);
    EXPECT_EQ(world.journal, std::vector<std::string>{"waitpid 5001 0"});
}

TEST_F(Children, WaitThatFailsIsItsErrnoAndStoresNothing)
{
    for (const int timeout_ms : {1000, -1}) {
        const pid_t pid = start(0, 0);
        world.fail("waitpid", 1, ECHILD);
        int stored = sentinel;
        EXPECT_EQ(vy_wait(pid, VY_WAIT_INTERRUPT, &stored, timeout_ms), -ECHILD);
        EXPECT_EQ(stored, sentinel);
        EXPECT_EQ(world.signals, Signals{});
        EXPECT_EQ(world.slept_usec, 0U);
        fake_world_reset();
    }
}

TEST_F(Children, WaitThatASignalCutsShortIsNotTriedAgain)
{
    const pid_t pid = start(0, 0);
    world.fail("waitpid", 1, EINTR);
    EXPECT_EQ(vy_wait(pid, 0, nullptr, -1), -EINTR);
    EXPECT_EQ(world.count("waitpid"), 1);
}

TEST_F(Children, SleepThatASignalCutsShortIsMadeUpFor)
{
    const pid_t pid = start_endless();
    world.fail("nanosleep", 1, EINTR);
    EXPECT_EQ(vy_wait(pid, 0, nullptr, 400), 1);
    EXPECT_EQ(world.slept_usec, 400000U);
    EXPECT_EQ(world.count("waitpid"), 2);
}

TEST_F(Children, SleepThatFailsDoesNotEndTheWait)
{
    const pid_t pid = start(0, 2);
    world.fail("nanosleep", 0, EINVAL);
    EXPECT_EQ(vy_wait(pid, 0, nullptr, 1000), 0);
}

} // namespace
