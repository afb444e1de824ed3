#include "agent/daemon.h"

#include "lib/guard.h"
#include "support/child.h"
#include "support/failing_calls.h"
#include "support/files.h"
#include "test_daemon.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>

// Connects and tells which daemon is there.
static CourierEvent meet(Courier* courier, DaemonIdentity* identity)
{
    return courier_advance(courier, true, 0, identity);
}

static DaemonIdentity identify()
{
    Courier courier;
    DaemonIdentity identity = {};
    EXPECT_EQ(meet(&courier, &identity), COURIER_MET);
    return identity;
}

TEST(DaemonIdentity, TellsWhichProcessListens)
{
    TestDaemon daemon;
    const DaemonIdentity identity = identify();
    EXPECT_EQ(identity.pid, daemon.pid());
    EXPECT_GT(identity.start, 0U);
    EXPECT_EQ(strlen(identity.boot), 36U);
    EXPECT_TRUE(daemon_runs(identity));
    daemon.end();
    EXPECT_FALSE(daemon_runs(identity));
}

// The listener's process has gone, its socket is another's: it is looked for again, later and
// later.
TEST(DaemonIdentity, IsNoneOfAProcessThatHasGone)
{
    const TestDaemon daemon(TestDaemonManners{.orphaned = true});
    Courier courier;
    DaemonIdentity identity = {};
    uint64_t now = 1000;
    for (const uint32_t pause : {250U, 500U, 1000U, 2000U, 2000U}) {
        EXPECT_EQ(courier_advance(&courier, true, now, &identity), COURIER_WAITS);
        EXPECT_EQ(courier_due(&courier, true), now + pause);
        EXPECT_EQ(courier_descriptor(&courier), -1);
        now += pause;
    }
}

TEST(DaemonIdentity, TellsDaemonsApart)
{
    const DaemonIdentity daemon = {1, 2, "boot"};
    EXPECT_TRUE(daemon_is_same(daemon, {1, 2, "boot"}));
    EXPECT_FALSE(daemon_is_same(daemon, {2, 2, "boot"}));
    EXPECT_FALSE(daemon_is_same(daemon, {1, 3, "boot"}));
    EXPECT_FALSE(daemon_is_same(daemon, {1, 2, "boots"}));
}

TEST(DaemonRuns, DoesNotTakeAnotherProcessForIt)
{
    const TestDaemon daemon;
    const DaemonIdentity identity = identify();
    DaemonIdentity other = identity;
    other.start++; // the number is used again
    EXPECT_FALSE(daemon_runs(other));
    other = identity;
    strcpy(other.boot, "another boot");
    EXPECT_FALSE(daemon_runs(other));
    EXPECT_FALSE(daemon_runs({}));
    EXPECT_FALSE(daemon_runs({-1, 0, ""}));
}

// All that it was told would be told again, and what went meanwhile never.
TEST(DaemonIdentity, IsNotAnothersBecauseAFileCannotBeRead)
{
    const TestDaemon daemon;
    const DaemonIdentity known = identify();
    for (const char* call : {"open", "read"}) {
        int nth = 0;
        for (bool struck = true; struck;) {
            Courier courier;
            DaemonIdentity identity = {};
            call_fail(call, ++nth, call[0] == 'o' ? EMFILE : EIO);
            const CourierEvent event = meet(&courier, &identity);
            struck = call_failed();
            EXPECT_TRUE(event == COURIER_MET ? daemon_is_same(identity, known) : struck) << call;
            call_fail(call, nth, call[0] == 'o' ? EMFILE : EIO);
            EXPECT_TRUE(daemon_runs(known)) << call;
            EXPECT_EQ(call_failed(), struck);
        }
        EXPECT_GT(nth, 2) << "the process, the boot";
    }
}

TEST(DaemonWatch, TellsWhenItEnds)
{
    TestDaemon daemon;
    const DaemonIdentity identity = identify();
    const FdGuard watch(daemon_watch(identity));
    if (watch.get() == -ENOSYS)
        GTEST_SKIP() << "this system has no pidfd_open";
    ASSERT_GE(watch.get(), 0);
    pollfd news = {.fd = watch.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&news, 1, 0), 0);
    daemon.end();
    EXPECT_EQ(poll(&news, 1, 60000), 1);
    EXPECT_EQ(daemon_watch(identity), -ESRCH);
}

TEST(DaemonWatch, MayBeTheFirstDescriptor)
{
    const TestDaemon daemon;
    const DaemonIdentity identity = identify();
    int watch = -1;
    with_input_closed([&] { watch = daemon_watch(identity); });
    if (watch == -ENOSYS)
        GTEST_SKIP() << "this system has no pidfd_open";
    EXPECT_EQ(watch, 0);
}

// Its number is used anew: the descriptor would be another process's.
TEST(DaemonWatch, IsNotForAnotherProcessWithItsNumber)
{
    const TestDaemon daemon;
    DaemonIdentity other = identify();
    other.start++;
    const int before = open_descriptors();
    const int watch = daemon_watch(other);
    if (watch == -ENOSYS)
        GTEST_SKIP() << "this system has no pidfd_open";
    EXPECT_EQ(watch, -ESRCH);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(DaemonWatch, IsNotForAProcessThatCannotBeSeen)
{
    EXPECT_EQ(daemon_watch({-1, 0, ""}), -EPERM);
}

TEST(DaemonStart, IsTheTwentySecondField)
{
    const std::string before = " S 1 12 12 0 -1 4194560 1 0 0 0 0 0 0 0 20 0 1 0 ";
    const auto parse = [](const std::string& text, uint64_t* start) {
        return daemon_parse_start(text.c_str(), start);
    };
    uint64_t start = 0;
    ASSERT_EQ(parse("12 (vyhotplugd)" + before + "4711 1 2 3\n", &start), 0);
    EXPECT_EQ(start, 4711U);
    ASSERT_EQ(parse("12 (a) 1 2 (b)" + before + "18446744073709551615 1\n", &start), 0);
    EXPECT_EQ(start, UINT64_MAX);
    for (const std::string& wrong :
         {std::string(), std::string("12"), std::string("12 (x)"), "12 (x)" + before,
          "12 (x)" + before + "4711", "12 (x)" + before + "x 1", "12 (x)" + before + "-1 1",
          "12 (x)" + before + "18446744073709551616 1", "12 (x)" + before + " 4711 1"})
        EXPECT_EQ(parse(wrong, &start), -EINVAL) << wrong;
    EXPECT_EQ(start, UINT64_MAX);
}
