#include "samba/samba_control.h"

#include "config/ini.h"
#include "fake/fake_log.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

const std::string program = "/tmp/smbcontrol";
const std::string record = "/tmp/record";

class SambaControlTest : public testing::Test {
  protected:
    void SetUp() override
    {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        ASSERT_EQ(sigprocmask(SIG_BLOCK, &child, nullptr), 0);
    }

    // Puts a program there that notes its arguments, then does what `body` says.
    static void install(const std::string& body)
    {
        write_file(program, "#!/bin/sh\necho \"$#:$*\" >>" + record + "\n" + body + "\n");
        ASSERT_EQ(chmod(program.c_str(), 0755), 0);
    }

    static void tell(const std::vector<std::string>& names, int64_t limit_ms = samba_limit_ms)
    {
        const SectionListGuard list(vylist_create());
        for (const std::string& name : names)
            vylist_insert(list.get(), vylist_end(list.get()), strdup(name.c_str()));
        samba_tell(program.c_str(), list.get(), limit_ms);
    }
};

size_t lines_of(const std::string& text)
{
    size_t count = 0;
    for (const char c : text)
        count += c == '\n' ? 1 : 0;
    return count;
}

} // namespace

TEST_F(SambaControlTest, ReloadsFirstAndThenCloses)
{
    install("");
    tell({"A", "two  words"});
    EXPECT_EQ(read_file(record).substr(0, 21), "2:smbd reload-config\n");
    EXPECT_NE(read_file(record).find("4:smbd close-share -- A\n"), std::string::npos);
    EXPECT_NE(read_file(record).find("4:smbd close-share -- two  words\n"), std::string::npos);
    EXPECT_EQ(lines_of(read_file(record)), 3U);
}

TEST_F(SambaControlTest, ClosesAnyNumberOfShares)
{
    install("");
    tell(std::vector<std::string>(30, "A"));
    EXPECT_EQ(lines_of(read_file(record)), 31U);
}

TEST_F(SambaControlTest, AllIsDoneWhenItReturns)
{
    install("sleep 0.3; echo done >>" + record);
    tell({"A", "B", "C"});
    EXPECT_EQ(lines_of(read_file(record)), 8U);
}

TEST_F(SambaControlTest, AFailureEndsNothing)
{
    install("exit 3");
    tell({"A"});
    EXPECT_EQ(lines_of(read_file(record)), 2U);
    EXPECT_EQ(fake_log_texts(),
              (std::vector<std::string>{"samba_control(#)smbcontrol failed (3)",
                                        "samba_control(#)close share A",
                                        "samba_control(#)smbcontrol failed (3)"}));
}

TEST_F(SambaControlTest, AProgramThatIsMissingIsAFailureOfTheSameKind)
{
    tell({});
    EXPECT_EQ(fake_log_texts(),
              (std::vector<std::string>{"samba_control(#)smbcontrol failed (1)"}));
}

TEST_F(SambaControlTest, WhatHangsIsKilled)
{
    install("exec sleep 1000");
    const auto start = std::chrono::steady_clock::now();
    tell({"A", "B"}, 1500);
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(2900)); // the reload, and the two together
    EXPECT_LT(taken, std::chrono::seconds(30));
    EXPECT_EQ(lines_of(read_file(record)), 3U);
    int killed = 0;
    for (const std::string& text : fake_log_texts())
        killed += text == "samba_control(#)smbcontrol does not end, it is killed" ? 1 : 0;
    EXPECT_EQ(killed, 3);
}

// Each eight have their own: on a slow processor they take seconds.
TEST_F(SambaControlTest, ManySharesHaveMoreTime)
{
    install("[ $2 = reload-config ] || sleep 1.5");
    tell(std::vector<std::string>(20, "A"), 4000);
    EXPECT_EQ(lines_of(read_file(record)), 21U);
    for (const std::string& text : fake_log_texts())
        EXPECT_EQ(text, "samba_control(#)close share A");
}
