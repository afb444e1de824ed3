#include "share/server_control.h"

#include "samba/samba_server.h"

#include "config/ini.h"
#include "fake/fake_log.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

const std::string program = "/tmp/smbcontrol";
const std::string record = "/tmp/record";

std::string control_program = program;
const BridgeConfig config = {.includepath = nullptr,
                             .administrator = nullptr,
                             .guest = nullptr,
                             .forceuser = nullptr,
                             .control = control_program.data(),
                             .own = {}};

class ServerControlTest : public testing::Test {
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

    static void tell(const std::vector<std::string>& names, int64_t limit_ms = server_limit_ms)
    {
        const SectionListGuard list(vylist_create());
        for (const std::string& name : names)
            vylist_insert(list.get(), vylist_end(list.get()), strdup(name.c_str()));
        ServerTask* tasks = nullptr;
        ASSERT_EQ(server_tasks_make(&samba_server, list.get(), &tasks), 0);
        ServerControl control = {
            .server = &samba_server, .config = &config, .limit_ms = limit_ms, .tasks = nullptr};
        server_control_add(&control, tasks);
        server_control_finish(&control);
        EXPECT_EQ(control.tasks, nullptr);
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

TEST_F(ServerControlTest, ReloadsAndCloses)
{
    install("[ $2 = reload-config ] || sleep 0.3");
    tell({"A", "two  words"});
    EXPECT_NE(read_file(record).find("2:smbd reload-config\n"), std::string::npos);
    EXPECT_NE(read_file(record).find("4:smbd close-share -- A\n"), std::string::npos);
    EXPECT_NE(read_file(record).find("4:smbd close-share -- two  words\n"), std::string::npos);
    EXPECT_EQ(lines_of(read_file(record)), 3U);
}

// What came back before the reload is closed by this.
TEST_F(ServerControlTest, WhatIsClosedBeforeTheReloadHasEndedIsClosedOnceMore)
{
    install("[ $2 = close-share ] || sleep 0.5; echo \"$2 ends\" >>" + record);
    tell({"A"});
    const std::string text = read_file(record);
    EXPECT_EQ(lines_of(text), 6U);
    EXPECT_LT(text.find("close-share ends\n"), text.find("reload-config ends\n"));
    EXPECT_EQ(text.substr(text.find("reload-config ends\n")),
              "reload-config ends\n4:smbd close-share -- A\nclose-share ends\n");
    EXPECT_EQ(fake_log_texts(), (std::vector<std::string>{"samba_control(#)close share A"}));
}

TEST_F(ServerControlTest, NothingWaitsForAReloadThatHangs)
{
    install("[ $2 = close-share ] || exec sleep 1000");
    const SectionListGuard none(vylist_create());
    const SectionListGuard one(vylist_create());
    vylist_insert(one.get(), vylist_end(one.get()), strdup("A"));
    ServerControl control = {
        .server = &samba_server, .config = &config, .limit_ms = 1500, .tasks = nullptr};
    for (const vylist* closed : {none.get(), one.get()}) {
        ServerTask* tasks = nullptr;
        ASSERT_EQ(server_tasks_make(&samba_server, closed, &tasks), 0);
        server_control_add(&control, tasks);
    }
    const auto closes = "4:smbd close-share -- A\n";
    for (int tries = 0; tries < 1000 && read_file(record).find(closes) == std::string::npos;
         tries++)
        usleep(1000);
    EXPECT_NE(control.tasks, nullptr) << "the reloads still run";
    EXPECT_NE(read_file(record).find(closes), std::string::npos);
    server_control_finish(&control);
}

TEST_F(ServerControlTest, ClosesAnyNumberOfShares)
{
    install("[ $2 = reload-config ] || sleep 0.3");
    tell(std::vector<std::string>(30, "A"));
    EXPECT_EQ(lines_of(read_file(record)), 31U);
}

TEST_F(ServerControlTest, AllIsDoneWhenItReturns)
{
    install("[ $2 = reload-config ] || sleep 0.3; echo done >>" + record);
    tell({"A", "B", "C"});
    EXPECT_EQ(lines_of(read_file(record)), 8U);
}

TEST_F(ServerControlTest, AFailureEndsNothing)
{
    install("[ $2 = reload-config ] || sleep 0.3; exit 3");
    tell({"A"});
    EXPECT_EQ(lines_of(read_file(record)), 2U);
    EXPECT_EQ(fake_log_texts(),
              (std::vector<std::string>{"samba_control(#)close share A",
                                        "samba_control(#)smbcontrol failed (3)",
                                        "samba_control(#)smbcontrol failed (3)"}));
}

TEST_F(ServerControlTest, AProgramThatIsMissingIsAFailureOfTheSameKind)
{
    tell({});
    EXPECT_EQ(fake_log_texts(),
              (std::vector<std::string>{"samba_control(#)smbcontrol failed (1)"}));
}

TEST_F(ServerControlTest, WhatHangsIsKilled)
{
    install("exec sleep 1000");
    const auto start = std::chrono::steady_clock::now();
    tell({"A", "B"}, 1500);
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(1400)); // all together
    EXPECT_LT(taken, std::chrono::seconds(30));
    EXPECT_EQ(lines_of(read_file(record)), 3U);
    int killed = 0;
    for (const std::string& text : fake_log_texts())
        killed += text == "samba_control(#)smbcontrol does not end, it is killed" ? 1 : 0;
    EXPECT_EQ(killed, 3);
}

// A time that is over while it is looked at is waited for no longer, and nothing is left behind.
TEST_F(ServerControlTest, WhatHasNoTimeAtAllIsKilledAtOnce)
{
    install("exec sleep 1000");
    tell(std::vector<std::string>(20, "A"), 0);
    EXPECT_GE(fake_log_texts().size(), 21U);
}

// Each has its own: on a slow processor they take seconds, and eight run at a time.
TEST_F(ServerControlTest, ManySharesHaveMoreTime)
{
    install("[ $2 = reload-config ] || sleep 1.5");
    tell(std::vector<std::string>(20, "A"), 4000);
    EXPECT_EQ(lines_of(read_file(record)), 21U);
    for (const std::string& text : fake_log_texts())
        EXPECT_EQ(text, "samba_control(#)close share A");
}
