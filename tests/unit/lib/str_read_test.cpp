// str_read on real descriptors; the scripted world notes how long it asks to wait.
#include "lib/str.h"

#include "fake/fake_world.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

class StrRead : public testing::Test {
  protected:
    StrRead()
    {
        fake_world_reset();
        EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
    }
    ~StrRead() override
    {
        close(ends[0]);
        close_writer();
    }
    void send(const std::string& text)
    {
        EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void close_writer()
    {
        if (ends[1] >= 0)
            close(ends[1]);
        ends[1] = -1;
    }
    // "select FD DIRECTION MICROSECONDS" for waiting to read from the pipe.
    std::string wait_of(const std::string& usec)
    {
        return "select " + std::to_string(ends[0]) + " 0 " + usec;
    }

    int ends[2];
    char buffer[16] = {};
};

TEST_F(StrRead, WithoutTimeOutReadsAtOnce)
{
    send("label");
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 0), 5);
    EXPECT_STREQ(buffer, "label");
    EXPECT_EQ(fake_world().count("select"), 0);
}

TEST_F(StrRead, WithoutTimeOutDoesNotWaitForData)
{
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 0), -EAGAIN);
    EXPECT_EQ(fake_world().count("select"), 0);
}

TEST_F(StrRead, ReadsNoMoreThanTheLength)
{
    send("label");
    EXPECT_EQ(str_read(ends[0], buffer, 3, 0), 3);
    EXPECT_STREQ(buffer, "lab");
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 0), 2) << "the rest is left for later";
}

TEST_F(StrRead, ReadsOnlyOnce)
{
    send("la");
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 0), 2);
}

TEST_F(StrRead, EndOfFileIsZero)
{
    close_writer();
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 0), 0);
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 1000), 0);
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, -1), 0);
}

TEST_F(StrRead, FailedReadIsItsErrno)
{
    EXPECT_EQ(str_read(-1, buffer, sizeof buffer, 0), -EBADF);
    EXPECT_EQ(str_read(ends[1], buffer, sizeof buffer, 0), -EBADF);
}

TEST_F(StrRead, FailedReadAfterTheWaitIsItsErrno)
{
    const int directory = open("/tmp", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(directory, 0);
    EXPECT_EQ(str_read(directory, buffer, sizeof buffer, 1000), -EISDIR);
    close(directory);
}

TEST_F(StrRead, WithTimeOutReadsWhatIsThere)
{
    send("label");
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 1000), 5);
    EXPECT_STREQ(buffer, "label");
    EXPECT_EQ(fake_world().count("select"), 1);
}

TEST_F(StrRead, TimeThatRanOutIsZero)
{
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 1), 0);
    EXPECT_EQ(fake_world().count("select"), 1);
}

// Whole seconds count in full, the rest of the milliseconds as microseconds.
TEST_F(StrRead, RestOfTheMillisecondsCountsAsMicroseconds)
{
    send("label");
    const struct {
        int timeout_ms;
        const char* usec;
    } rows[] = {{1, "1"},          {999, "999"},      {1000, "1000000"},
                {1500, "1000500"}, {2001, "2000001"}, {20000, "20000000"}};
    for (const auto& row : rows) {
        fake_world_reset();
        EXPECT_EQ(str_read(ends[0], buffer, 0, row.timeout_ms), 0);
        EXPECT_EQ(fake_world().journal, std::vector<std::string>{wait_of(row.usec)})
            << row.timeout_ms << " ms";
    }
}

TEST_F(StrRead, NegativeTimeOutWaitsWithoutLimit)
{
    send("label");
    for (const int timeout_ms : {-1, -1500}) {
        fake_world_reset();
        EXPECT_EQ(str_read(ends[0], buffer, 1, timeout_ms), 1);
        EXPECT_EQ(fake_world().journal, std::vector<std::string>{wait_of("-1")});
    }
}

TEST_F(StrRead, FailedWaitIsItsErrnoAndReadsNothing)
{
    send("label");
    fake_world().fail("select", 1, EINTR);
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 1000), -EINTR);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(str_read(ends[0], buffer, sizeof buffer, 0), 5) << "the data is still there";
}

} // namespace
