#include "agent/daemon.h"

#include "common/clock.h"
#include "fake/fake_log.h"
#include "support/child.h"
#include "support/files.h"
#include "test_daemon.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <deque>

using Told = std::vector<std::string>;

class CourierTest : public testing::Test {
  protected:
    CourierTest() { daemon_forget_record(); }

    void put(const std::string& text) { waiting_.push_back(text); }

    // Advances once, and answers what has happened.
    CourierEvent advance(uint64_t now)
    {
        DaemonIdentity daemon;
        const bool wanted = !waiting_.empty() || visits_;
        const CourierEvent event = courier_advance(&courier_, wanted, now, &daemon);
        met_ += event == COURIER_MET ? 1 : 0;
        missed_ += event == COURIER_MISSED ? 1 : 0;
        if (event == COURIER_MET) {
            visits_ = false;
            courier_send(&courier_, waiting_.empty() ? nullptr : waiting_.front().c_str(), now);
        } else if (event == COURIER_DELIVERED) {
            delivered_.push_back(waiting_.front());
            waiting_.pop_front();
        }
        return event;
    }

    // Goes on until nothing more can be done at that time.
    void advance_all(uint64_t now)
    {
        while (advance(now) != COURIER_WAITS) {
        }
    }

    // Goes on, at the clock's time, until nothing is left to do.
    void run()
    {
        const bool done = wait_for([this] {
            advance_all(clock_now());
            return waiting_.empty() && !visits_;
        });
        EXPECT_TRUE(done);
    }

    uint64_t due() const { return courier_due(&courier_, !waiting_.empty() || visits_); }

    Courier courier_;
    std::deque<std::string> waiting_;
    bool visits_ = false;
    int met_ = 0;
    int missed_ = 0;
    Told delivered_;
};

TEST_F(CourierTest, DeliversInOrder)
{
    const TestDaemon daemon;
    for (int i = 0; i < 20; i++)
        put("ACTION=add,MAJOR=8,MINOR=" + std::to_string(i));
    run();
    ASSERT_EQ(daemon_told().size(), 20U);
    EXPECT_EQ(daemon_told(true), delivered_);
    EXPECT_EQ(met_, 20);
    EXPECT_EQ(daemon_visits(), 0);
}

TEST_F(CourierTest, SendsTheLongestMessageWhole)
{
    const TestDaemon daemon;
    put(std::string(agent_message_size - 1, 'x'));
    run();
    EXPECT_EQ(daemon_told(true), Told{std::string(agent_message_size - 1, 'x')});
}

TEST_F(CourierTest, HasNothingToWaitForWithoutMessages)
{
    EXPECT_EQ(due(), agent_never);
    EXPECT_EQ(advance(1000), COURIER_WAITS);
    EXPECT_EQ(met_ + missed_, 0);
    EXPECT_EQ(courier_descriptor(&courier_), -1);
}

TEST_F(CourierTest, TriesAgainLaterAndLater)
{
    put("ACTION=remove,MAJOR=8,MINOR=1");
    uint64_t now = clock_now();
    for (const uint32_t pause : {250U, 500U, 1000U, 2000U, 2000U, 2000U}) {
        EXPECT_EQ(advance(now), COURIER_MISSED);
        EXPECT_EQ(due(), now + pause);
        EXPECT_EQ(advance(now + pause - 1), COURIER_WAITS);
        now += pause;
    }
    EXPECT_EQ(missed_, 6);
    TestDaemon daemon;
    for (int i = 0; i < 2; i++) { // a visit counts as success too
        EXPECT_EQ(advance(now), COURIER_MET);
        run();
        daemon.end();
        put("ACTION=remove,MAJOR=8,MINOR=2");
        now = clock_now();
        EXPECT_EQ(advance(now), COURIER_MISSED);
        EXPECT_EQ(due(), now + 250); // the next pause is a short one again
        waiting_.clear();
        visits_ = true;
        now += 250;
        new (&daemon) TestDaemon;
    }
    EXPECT_EQ(daemon_told(), Told{"-8:1"});
}

TEST_F(CourierTest, SendsAgainWhatWasNotRead)
{
    TestDaemonManners manners;
    manners.unread = 2;
    const TestDaemon daemon(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    put("ACTION=add,MAJOR=8,MINOR=2");
    run();
    EXPECT_EQ(daemon_told(), (Told{"unread", "unread", "+8:1", "+8:2"}));
    EXPECT_EQ(delivered_.size(), 2U);
}

// A daemon whose queue is full resets each connection: it is left more and more time.
TEST_F(CourierTest, SendsAgainLaterAndLaterWhatIsReset)
{
    TestDaemonManners manners;
    manners.unread = 5;
    const TestDaemon daemon(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    uint64_t now = clock_now();
    for (const uint32_t pause : {250U, 500U, 1000U, 2000U, 2000U}) {
        EXPECT_EQ(advance(now), COURIER_MET);
        EXPECT_TRUE(wait_for([&] { // the connection is reset
            EXPECT_EQ(advance(now), COURIER_WAITS);
            return courier_descriptor(&courier_) < 0;
        }));
        EXPECT_EQ(due(), now + pause);
        now += pause;
    }
    EXPECT_EQ(missed_, 0);
    EXPECT_EQ(advance(now), COURIER_MET);
    run();
    EXPECT_EQ(delivered_.size(), 1U);
    EXPECT_EQ(daemon_told().back(), "+8:1");
}

TEST_F(CourierTest, DoesNotBelieveAListenerOfAnotherUser)
{
    const TestDaemonManners manners = {.stranger = true};
    TestDaemon stranger(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    uint64_t now = clock_now();
    for (const uint32_t pause : {250U, 500U, 1000U, 2000U, 2000U}) {
        EXPECT_EQ(advance(now), COURIER_WAITS);
        EXPECT_EQ(courier_descriptor(&courier_), -1);
        EXPECT_EQ(due(), now + pause);
        now += pause;
    }
    EXPECT_TRUE(wait_for([] { return daemon_visits() == 5; }));
    EXPECT_EQ(daemon_told(), Told{});
    stranger.end();
    const TestDaemon daemon;
    run();
    EXPECT_EQ(daemon_told(), Told{"+8:1"});
}

TEST_F(CourierTest, TellsOfAStrangerOnceUntilTheDaemonIsBack)
{
    for (int turn = 0; turn < 2; turn++) {
        fake_log_clear();
        courier_.retry = {};
        const TestDaemonManners manners = {.stranger = true};
        TestDaemon stranger(manners);
        visits_ = true;
        for (uint64_t now = 1000; now < 9000; now += agent_retry_most)
            EXPECT_EQ(advance(now), COURIER_WAITS);
        EXPECT_EQ(fake_log_texts(),
                  Told{"courier(#)process " + std::to_string(stranger.pid()) +
                       " of user 1234 listens in the daemon's place and is not believed"});
        stranger.end();
        const TestDaemon daemon;
        EXPECT_EQ(advance(100000), COURIER_MET);
    }
}

TEST_F(CourierTest, SendsAgainWhenTheDaemonDiesUnderWay)
{
    TestDaemon first;
    first.stop();
    put("ACTION=add,MAJOR=8,MINOR=1");
    advance_all(clock_now());
    EXPECT_TRUE((courier_descriptor(&courier_) >= 0));
    first.end();
    const TestDaemon second;
    run();
    EXPECT_EQ(daemon_told(), Told{"+8:1"});
    EXPECT_EQ(delivered_.size(), 1U);
}

// The daemon closes between connect and send. Whoever writes then gets a signal, unless he asks for
// none.
TEST_F(CourierTest, SendsAgainWhenTheDaemonHasClosedAlready)
{
    const ChildResult result = run_child([this] {
        TestDaemon deaf(TestDaemonManners{.deaf = true});
        DaemonIdentity daemon;
        const uint64_t now = clock_now();
        if (courier_advance(&courier_, true, now, &daemon) != COURIER_MET)
            return 1;
        pollfd closed = {.fd = courier_descriptor(&courier_), .events = 0, .revents = 0};
        if (poll(&closed, 1, 60000) != 1) // POLLHUP
            return 2;
        courier_send(&courier_, "ACTION=add,MAJOR=8,MINOR=1", now);
        return (courier_descriptor(&courier_) >= 0) || courier_due(&courier_, true) != now + 250
                   ? 3
                   : 0;
    });
    EXPECT_EQ(result.status, 0);
    const TestDaemon second;
    put("ACTION=add,MAJOR=8,MINOR=1");
    run();
    EXPECT_EQ(daemon_told(), (Told{"deaf", "+8:1"}));
}

TEST_F(CourierTest, TakesAMessageForDeliveredWhenTheDaemonIsSlow)
{
    TestDaemonManners manners;
    manners.holds = true;
    const TestDaemon daemon(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    const uint64_t now = clock_now();
    advance_all(now);
    EXPECT_TRUE((courier_descriptor(&courier_) >= 0));
    EXPECT_EQ(due(), now + agent_close_wait);
    EXPECT_EQ(advance(now + agent_close_wait - 1), COURIER_WAITS);
    EXPECT_EQ(advance(now + agent_close_wait), COURIER_DELIVERED);
    EXPECT_EQ(courier_descriptor(&courier_), -1);
    EXPECT_TRUE(wait_for([] { return daemon_told() == Told{"+8:1"}; }));
}

TEST_F(CourierTest, CanBeHurried)
{
    TestDaemonManners manners;
    manners.holds = true;
    const TestDaemon daemon(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    const uint64_t now = clock_now();
    advance_all(now);
    courier_hurry(&courier_, now + 2 * agent_close_wait); // no sooner
    EXPECT_EQ(due(), now + agent_close_wait);
    courier_hurry(&courier_, now + 1000);
    EXPECT_EQ(due(), now + 1000);
    EXPECT_EQ(advance(now + 1000), COURIER_DELIVERED);
}

TEST_F(CourierTest, DropsWhatIsUnderWayWhenItHangsUp)
{
    TestDaemonManners manners;
    manners.holds = true;
    const TestDaemon daemon(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    advance_all(clock_now());
    courier_hang_up(&courier_);
    EXPECT_FALSE((courier_descriptor(&courier_) >= 0));
    EXPECT_EQ(courier_descriptor(&courier_), -1);
    EXPECT_TRUE(delivered_.empty());
}

TEST_F(CourierTest, PassesAnAnswerOver)
{
    TestDaemonManners manners;
    manners.answers = true;
    const TestDaemon daemon(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    put("ACTION=add,MAJOR=8,MINOR=2");
    run();
    EXPECT_EQ(daemon_told(), (Told{"+8:1", "+8:2"}));
}

TEST_F(CourierTest, WaitsForItsTurnWhereManyWait)
{
    TestDaemonManners manners;
    manners.backlog = 0;
    TestDaemon daemon(manners);
    daemon.stop();
    put("ACTION=add,MAJOR=8,MINOR=1");
    put("ACTION=add,MAJOR=8,MINOR=2");
    put("ACTION=add,MAJOR=8,MINOR=3");
    uint64_t now = clock_now();
    for (int i = 0; i < 10; i++)
        advance_all(now += agent_close_wait);
    EXPECT_LT(delivered_.size(), 3U); // the rest finds no room
    EXPECT_EQ(missed_, 0);
    daemon.go_on();
    EXPECT_TRUE(wait_for([&] {
        advance_all(now += agent_retry_most);
        return waiting_.empty();
    }));
    EXPECT_TRUE(wait_for([] { return daemon_told().size() >= 3; }));
    EXPECT_EQ(daemon_told(), (Told{"+8:1", "+8:2", "+8:3"}));
}

TEST_F(CourierTest, VisitsWithoutAMessage)
{
    const TestDaemon daemon;
    visits_ = true;
    EXPECT_EQ(due(), 0U);
    run();
    EXPECT_EQ(met_, 1);
    EXPECT_TRUE(wait_for([] { return daemon_visits() == 1; }));
    EXPECT_EQ(courier_descriptor(&courier_), -1);
}

TEST_F(CourierTest, HoldsNoDescriptorsInTheEnd)
{
    const int before = open_descriptors();
    TestDaemonManners manners;
    manners.unread = 3;
    const TestDaemon daemon(manners);
    for (int i = 0; i < 10; i++)
        put("ACTION=add,MAJOR=8,MINOR=1");
    run();
    EXPECT_EQ(open_descriptors(), before);
}
