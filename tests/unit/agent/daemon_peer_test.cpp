#include "agent/daemon_peer.h"

#include "lib/guard.h"
#include "support/child.h"
#include "test_daemon.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>

TEST(DaemonConnect, FindsNoDaemonWhereThereIsNone)
{
    EXPECT_EQ(daemon_connect(), -ECONNREFUSED);
}

TEST(DaemonIdentify, TellsWhichProcessListens)
{
    TestDaemon daemon;
    const FdGuard fd(daemon_connect());
    ASSERT_GE(fd.get(), 0);
    DaemonIdentity identity;
    ASSERT_EQ(daemon_identify(fd.get(), &identity), 0);
    EXPECT_EQ(identity.pid, daemon.pid());
    EXPECT_GT(identity.start, 0U);
    EXPECT_EQ(strlen(identity.boot), 36U);
    EXPECT_TRUE(daemon_runs(identity));
    daemon.end();
    EXPECT_FALSE(daemon_runs(identity));
    EXPECT_EQ(daemon_identify(fd.get(), &identity), -ESRCH);
}

TEST(DaemonIdentify, TellsDaemonsApart)
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
    const FdGuard fd(daemon_connect());
    DaemonIdentity identity;
    ASSERT_EQ(daemon_identify(fd.get(), &identity), 0);
    DaemonIdentity other = identity;
    other.start++; // the number is used again
    EXPECT_FALSE(daemon_runs(other));
    other = identity;
    strcpy(other.boot, "another boot");
    EXPECT_FALSE(daemon_runs(other));
    EXPECT_FALSE(daemon_runs({}));
    EXPECT_FALSE(daemon_runs({-1, 0, ""}));
}

TEST(DaemonWatch, TellsWhenItEnds)
{
    TestDaemon daemon;
    const FdGuard fd(daemon_connect());
    DaemonIdentity identity;
    ASSERT_EQ(daemon_identify(fd.get(), &identity), 0);
    const FdGuard watch(daemon_watch(identity));
    if (watch.get() == -1)
        GTEST_SKIP() << "this system has no pidfd_open";
    pollfd news = {.fd = watch.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&news, 1, 0), 0);
    daemon.end();
    EXPECT_EQ(poll(&news, 1, 60000), 1);
    EXPECT_EQ(daemon_watch(identity), -ESRCH);
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
