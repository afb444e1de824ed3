// The real clocks. Only lower bounds on time: a loaded machine may always be late.
#include "lib/vytime.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <sys/time.h>
#include <time.h>

namespace {

volatile sig_atomic_t alarms = 0;

void count_alarm(int)
{
    alarms = alarms + 1;
}

uint64_t monotonic_usec()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

TEST(RealClock, IsReadInMicroseconds)
{
    const uint64_t before = monotonic_usec();
    vytime now;
    ASSERT_EQ(vytime_get(&now, CLOCK_MONOTONIC), 0);
    EXPECT_GE(vytime_count(now), before);
    EXPECT_LE(vytime_count(now), monotonic_usec());
}

TEST(RealClock, ThatIsNotThereIsItsErrno)
{
    vytime now = vytime_make(77);
    EXPECT_EQ(vytime_get(&now, 9999), -EINVAL);
    EXPECT_EQ(vytime_count(now), 77U);
}

TEST(RealClock, PendingFollowsTheWallClock)
{
    vytime now;
    ASSERT_EQ(vytime_get(&now, CLOCK_REALTIME), 0);
    EXPECT_EQ(vytime_pending(now, vytime_make(3600U * 1000000)), 1);
    EXPECT_EQ(vytime_pending(vytime_make(vytime_count(now) - 2), vytime_make(1)), 0);
}

// A signal every 20 milliseconds, of which none ends the sleep.
TEST(RealSleep, LastsItsWholeTimeThroughSignals)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = count_alarm; // without SA_RESTART
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    const itimerval every = {.it_interval = {0, 20000}, .it_value = {0, 20000}};
    const itimerval never = {};
    alarms = 0;
    const uint64_t start = monotonic_usec();
    setitimer(ITIMER_REAL, &every, nullptr);
    const int result = vytime_msleep(200);
    setitimer(ITIMER_REAL, &never, nullptr);
    const uint64_t slept = monotonic_usec() - start;
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(result, 0);
    EXPECT_GE(slept, 200000U);
    EXPECT_GE(alarms, 1) << "it was not interrupted at all";
}

TEST(RealSleep, LastsItsTime)
{
    const uint64_t start = monotonic_usec();
    EXPECT_EQ(vytime_usleep(3000), 0);
    EXPECT_GE(monotonic_usec() - start, 3000U);
    EXPECT_EQ(vytime_msleep(3), 0);
    EXPECT_GE(monotonic_usec() - start, 6000U);
    EXPECT_EQ(vytime_sleep(1), 0);
    EXPECT_GE(monotonic_usec() - start, 1006000U);
}

TEST(RealStopwatch, Runs)
{
    vytime_watch watch = {};
    ASSERT_EQ(vytime_stopwatch(&watch, VYTIME_WATCH_START), 0);
    EXPECT_TRUE(watch.start_sec != 0 || watch.start_nsec != 0);
    ASSERT_EQ(vytime_stopwatch(&watch, VYTIME_WATCH_STOP), 0);
    EXPECT_EQ(watch.runs, 1);
}

} // namespace
