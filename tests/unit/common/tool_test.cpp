#include "common/tool.h"

#include "fake/fake_world.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>

#include <string>

using Texts = std::vector<std::string>;

namespace {

class ToolTest : public testing::Test {
  protected:
    ~ToolTest() override { fake_world_reset(); }

    static void reader(const std::string& output, int status = 0, int polls = 0)
    {
        FakeRun run;
        run.output = output;
        run.wait_status = status;
        run.polls = polls;
        fake_world().programs["reader"].push_back(run);
    }

    void start(uint32_t limit = 1000)
    {
        char name[] = "reader";
        char* const argv[] = {name, nullptr};
        tool_start(&tool_, argv, text_, sizeof text_, now_, limit);
    }

    ToolState advance(uint64_t milliseconds)
    {
        now_ += milliseconds;
        tool_advance(&tool_, now_);
        return tool_.state;
    }

    Tool tool_;
    char text_[16] = "before";
    uint64_t now_ = 5000;
};

} // namespace

TEST_F(ToolTest, PrintsAndEnds)
{
    reader("some words", 3 << 8);
    start();
    EXPECT_EQ(tool_.state, ToolState::running);
    EXPECT_GE(tool_descriptor(&tool_), 0);
    EXPECT_EQ(tool_due(&tool_, now_), now_ + 1000);
    EXPECT_EQ(advance(1), ToolState::ended);
    EXPECT_EQ(tool_.status, 3);
    EXPECT_STREQ(text_, "some words");
    EXPECT_EQ(tool_descriptor(&tool_), -1);
    EXPECT_EQ(tool_due(&tool_, now_), UINT64_MAX);
    EXPECT_TRUE(fake_world().calls("kill").empty());
}

TEST_F(ToolTest, IsLookedAtOftenOnceItHasPrintedAll)
{
    reader("x", 0, 2);
    start();
    EXPECT_EQ(advance(0), ToolState::running);
    EXPECT_EQ(tool_descriptor(&tool_), -1);
    EXPECT_EQ(tool_due(&tool_, now_), now_ + 5);
    EXPECT_EQ(advance(5), ToolState::running);
    EXPECT_EQ(advance(5), ToolState::ended);
}

TEST_F(ToolTest, IsKilledWhenItsTimeIsUp)
{
    reader("x", 0, -1);
    start();
    EXPECT_EQ(advance(999), ToolState::running);
    EXPECT_EQ(advance(1), ToolState::timed_out);
    EXPECT_EQ(fake_world().calls("kill "), Texts{"kill 5001 9"});
    EXPECT_EQ(advance(1), ToolState::timed_out) << "and stays so";
}

TEST_F(ToolTest, IsKilledWhenItPrintsTooMuch)
{
    reader(std::string(sizeof text_ - 1, 'x'));
    start();
    EXPECT_EQ(advance(1), ToolState::ended);
    EXPECT_EQ(std::string(text_), std::string(sizeof text_ - 1, 'x'));
    reader(std::string(sizeof text_, 'x'));
    start();
    EXPECT_EQ(advance(1), ToolState::too_long);
    EXPECT_EQ(fake_world().calls("kill "), Texts{"kill 5002 9"});
}

TEST_F(ToolTest, TellsHowItEnded)
{
    const struct {
        int status;
        ToolState state;
    } rows[] = {
        {0, ToolState::ended},
        {2 << 8, ToolState::ended},
        {1 << 8, ToolState::not_started},
        {SIGSEGV, ToolState::crashed},
    };
    for (const auto& row : rows) {
        reader("", row.status);
        start();
        EXPECT_EQ(advance(1), row.state) << row.status;
    }
    reader("");
    start();
    fake_world().fail("waitpid", 1, ECHILD);
    EXPECT_EQ(advance(1), ToolState::crashed);
}

TEST_F(ToolTest, IsNotStartedWithoutAPipeOrAProcess)
{
    for (const char* call : {"pipe", "spawn"}) {
        fake_world().fail(call, 1, EMFILE);
        start();
        EXPECT_EQ(tool_.state, ToolState::not_started) << call;
        EXPECT_EQ(tool_descriptor(&tool_), -1);
        EXPECT_EQ(advance(5000), ToolState::not_started);
        EXPECT_STREQ(text_, "");
    }
}

TEST_F(ToolTest, IsKilledWhereAnotherIsStarted)
{
    reader("x", 0, -1);
    reader("y");
    start();
    EXPECT_EQ(advance(1), ToolState::running);
    start();
    EXPECT_EQ(fake_world().calls("kill "), Texts{"kill 5001 9"});
    EXPECT_EQ(advance(1), ToolState::ended);
    EXPECT_STREQ(text_, "y");
}

TEST_F(ToolTest, StoppedItIsKilledOnce)
{
    reader("x", 0, -1);
    start();
    tool_stop(&tool_);
    tool_stop(&tool_);
    EXPECT_EQ(tool_.state, ToolState::none);
    EXPECT_EQ(fake_world().calls("kill "), Texts{"kill 5001 9"});
    reader("", 0, 0);
    tool_reap();
    EXPECT_EQ(fake_world().calls("waitpid -1"), Texts{"waitpid -1 1"});
}
