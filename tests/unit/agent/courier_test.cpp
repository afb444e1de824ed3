#include "agent/courier.h"

#include "fake/fake_log.h"
#include "support/child.h"
#include "support/files.h"
#include "test_daemon.h"

#include <gtest/gtest.h>
#include <poll.h>

using Told = std::vector<std::string>;

class CourierTest : public testing::Test {
  protected:
    CourierTest()
    {
        daemon_forget_record();
        courier_init(&courier_, {this, met, missed, delivered});
    }
    ~CourierTest() override
    {
        courier_hang_up(&courier_);
        message_queue_cut(&courier_.queue, 0);
    }

    static bool met(void* self, int)
    {
        auto* test = static_cast<CourierTest*>(self);
        test->met_++;
        if (test->pauses_at_ != 0)
            courier_pause(&test->courier_, test->pauses_at_);
        return test->sends_;
    }
    static void missed(void* self) { static_cast<CourierTest*>(self)->missed_++; }
    static void delivered(void* self, const QueuedMessage* message)
    {
        static_cast<CourierTest*>(self)->delivered_.push_back(message->text);
    }

    void put(const std::string& text)
    {
        ASSERT_EQ(message_queue_put(&courier_.queue, MESSAGE_ADD, 0, text.c_str()), 0);
    }

    // Goes on, at the clock's time, until nothing is left to do.
    void run()
    {
        const bool done = wait_for([this] {
            courier_advance(&courier_, courier_now());
            return courier_.queue.count == 0 && !courier_.visit;
        });
        EXPECT_TRUE(done);
    }

    Courier courier_;
    bool sends_ = true;
    uint64_t pauses_at_ = 0; // a time: the owner pauses when it meets the daemon
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
    EXPECT_EQ(courier_timeout(&courier_, 1000), -1);
    courier_advance(&courier_, 1000);
    EXPECT_EQ(met_ + missed_, 0);
    EXPECT_EQ(courier_.connection, -1);
}

TEST_F(CourierTest, TriesAgainLaterAndLater)
{
    put("ACTION=remove,MAJOR=8,MINOR=1");
    uint64_t now = courier_now();
    for (const int pause : {250, 500, 1000, 2000, 2000, 2000}) {
        courier_advance(&courier_, now);
        EXPECT_EQ(courier_timeout(&courier_, now), pause);
        const int missed = missed_;
        courier_advance(&courier_, now + static_cast<unsigned>(pause) - 1);
        EXPECT_EQ(missed_, missed);
        now += static_cast<unsigned>(pause);
    }
    EXPECT_EQ(missed_, 6);
    const TestDaemon daemon;
    courier_advance(&courier_, now);
    EXPECT_EQ(courier_.pause, 0U); // the next pause is a short one again
    run();
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

TEST_F(CourierTest, SendsAgainWhenTheDaemonDiesUnderWay)
{
    TestDaemon first;
    first.stop();
    put("ACTION=add,MAJOR=8,MINOR=1");
    courier_advance(&courier_, courier_now());
    EXPECT_TRUE(courier_.under_way);
    first.end();
    const TestDaemon second;
    run();
    EXPECT_EQ(daemon_told(), Told{"+8:1"});
    EXPECT_EQ(delivered_.size(), 1U);
}

TEST_F(CourierTest, TakesAMessageForDeliveredWhenTheDaemonIsSlow)
{
    TestDaemonManners manners;
    manners.holds = true;
    const TestDaemon daemon(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    const uint64_t now = courier_now();
    courier_advance(&courier_, now);
    EXPECT_TRUE(courier_.under_way);
    EXPECT_EQ(courier_timeout(&courier_, now), static_cast<int>(agent_close_wait));
    courier_advance(&courier_, now + agent_close_wait - 1);
    EXPECT_TRUE(delivered_.empty());
    courier_advance(&courier_, now + agent_close_wait);
    EXPECT_EQ(delivered_.size(), 1U);
    EXPECT_EQ(courier_.connection, -1);
    EXPECT_TRUE(wait_for([] { return daemon_told() == Told{"+8:1"}; }));
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
    uint64_t now = courier_now();
    for (int i = 0; i < 10; i++)
        courier_advance(&courier_, now += agent_close_wait);
    EXPECT_LT(delivered_.size(), 3U); // the rest finds no room
    EXPECT_EQ(missed_, 0);
    daemon.go_on();
    EXPECT_TRUE(wait_for([&] {
        courier_advance(&courier_, now += agent_retry_most);
        return courier_.queue.count == 0;
    }));
    EXPECT_TRUE(wait_for([] { return daemon_told().size() >= 3; }));
    EXPECT_EQ(daemon_told(), (Told{"+8:1", "+8:2", "+8:3"}));
}

TEST_F(CourierTest, VisitsWithoutAMessage)
{
    const TestDaemon daemon;
    courier_.visit = true;
    EXPECT_EQ(courier_timeout(&courier_, 1000), 0);
    run();
    EXPECT_EQ(met_, 1);
    EXPECT_TRUE(wait_for([] { return daemon_visits() == 1; }));
    EXPECT_EQ(courier_.connection, -1);
}

TEST_F(CourierTest, SendsNothingWhereTheOwnerWantsNothingSent)
{
    const TestDaemon daemon;
    sends_ = false;
    put("ACTION=add,MAJOR=8,MINOR=1");
    courier_advance(&courier_, courier_now());
    EXPECT_EQ(met_, 1);
    EXPECT_EQ(courier_.connection, -1);
    EXPECT_EQ(courier_.queue.count, 1U);
    sends_ = true;
    run();
    EXPECT_EQ(daemon_told(), Told{"+8:1"});
}

TEST_F(CourierTest, LetsTheOwnersPausesGrow)
{
    const TestDaemon daemon;
    sends_ = false;
    put("ACTION=add,MAJOR=8,MINOR=1");
    uint64_t now = courier_now();
    for (const int pause : {250, 500, 1000, 2000, 2000}) {
        pauses_at_ = now;
        courier_.visit = true;
        courier_advance(&courier_, now);
        EXPECT_EQ(courier_timeout(&courier_, now), pause);
        EXPECT_EQ(courier_.connection, -1);
        const int met = met_;
        courier_advance(&courier_, now + static_cast<unsigned>(pause) - 1);
        EXPECT_EQ(met_, met);
        now += static_cast<unsigned>(pause);
    }
    EXPECT_EQ(met_, 5);
    pauses_at_ = 0;
    courier_advance(&courier_, now);
    EXPECT_EQ(courier_.pause, 0U); // the next pause is a short one again
    EXPECT_EQ(courier_timeout(&courier_, now), 0);
}

TEST_F(CourierTest, LeavesAMessageUnderWayAlone)
{
    TestDaemonManners manners;
    manners.holds = true;
    const TestDaemon daemon(manners);
    put("ACTION=add,MAJOR=8,MINOR=1");
    const uint64_t now = courier_now();
    courier_advance(&courier_, now);
    courier_pause(&courier_, now);
    EXPECT_EQ(courier_timeout(&courier_, now), static_cast<int>(agent_close_wait));
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
