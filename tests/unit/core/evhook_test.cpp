#include "core/evhook.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

const char script[] = "/tmp/vyhotplugd-evhook.sh";
const char path[] = "/mnt/sda1";

void script_run(int wait_status, int polls = 0)
{
    fake_world().programs[script] = {{.wait_status = wait_status, .polls = polls, .output = ""}};
}

TEST(Evhook, RunsTheScriptWithTheEventsWordAndTheDirectory)
{
    struct Row {
        int code;
        const char* word;
    };
    const Row rows[] = {{HOTPLUG_EVENT_ADD, "mount"},
                        {HOTPLUG_EVENT_REMOVE, "unmount"},
                        {HOTPLUG_EVENT_MOUNT, "mount"},
                        {HOTPLUG_EVENT_UNMOUNT, "unmount"}};
    int code = 1;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.code);
        EXPECT_EQ(row.code, code++);
        fake_world_reset();
        script_run(0);
        EXPECT_EQ(daemon_call_evhook(row.code, path), 0);
        EXPECT_EQ(fake_world().spawned,
                  (std::vector<std::vector<std::string>>{{script, row.word, path}}));
    }
}

TEST(Evhook, GivesTheScriptNoPipes)
{
    script_run(0);
    EXPECT_EQ(daemon_call_evhook(1, path), 0);
    EXPECT_EQ(fake_world().count("pipe"), 0);
    EXPECT_EQ(fake_world().count("spawn"), 1);
}

TEST(Evhook, ReturnsTheScriptsExitStatus)
{
    script_run(7 << 8);
    EXPECT_EQ(daemon_call_evhook(1, path), 7);
    script_run(255 << 8);
    EXPECT_EQ(daemon_call_evhook(1, path), 255);
}

TEST(Evhook, ReturnsMinusOneForAScriptThatASignalKilled)
{
    script_run(9);
    EXPECT_EQ(daemon_call_evhook(1, path), -1);
}

TEST(Evhook, ReturnsOneWithoutAScript)
{
    EXPECT_EQ(daemon_call_evhook(1, path), 1); // the child ends so when it cannot be executed
}

TEST(Evhook, ReturnsWhatTheStartFailedWith)
{
    fake_world().fail("spawn", 1, EAGAIN);
    EXPECT_EQ(daemon_call_evhook(1, path), -EAGAIN);
}

TEST(Evhook, LooksAtTheScriptEvery200Milliseconds)
{
    script_run(3 << 8, 299);
    EXPECT_EQ(daemon_call_evhook(1, path), 3);
    EXPECT_EQ(fake_world().count("waitpid"), 300);
    EXPECT_EQ(fake_world().slept_usec, 299U * 200000U);
}

TEST(Evhook, WaitsForASlowScriptNoLongerThan60Seconds)
{
    script_run(3 << 8, -1);
    EXPECT_EQ(daemon_call_evhook(1, path), 0);
    EXPECT_EQ(fake_world().slept_usec, 60000000U);
    EXPECT_TRUE(fake_world().signals.empty()); // it is left running
}

TEST(Evhook, ReturnsZeroWhenItCannotWait)
{
    script_run(3 << 8);
    fake_world().fail("waitpid", 1, ECHILD);
    EXPECT_EQ(daemon_call_evhook(1, path), 0);
}

TEST(Evhook, RunsNothingForACodeThatItDoesNotKnow)
{
    for (const int code : {0, 5, -1, 100})
        EXPECT_EQ(daemon_call_evhook(code, path), -1) << code;
    EXPECT_EQ(fake_world().count("spawn"), 0);
}

TEST(Evhook, RunsNothingWithoutADirectory)
{
    EXPECT_EQ(daemon_call_evhook(1, nullptr), -1);
    EXPECT_EQ(daemon_call_evhook(1, ""), -1);
    EXPECT_EQ(fake_world().count("spawn"), 0);
}

TEST(Evhook, LogsTheCodeAndTheDirectoryWithItsAddress)
{
    char address[32];
    (void)snprintf(address, sizeof address, "%p", static_cast<const void*>(path));
    daemon_call_evhook(3, path);
    const std::vector<FakeLogLine> lines = fake_log_lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_EQ(fake_log_texts()[0],
              std::string("daemon(#)action 3 mntpath (") + address + ") /mnt/sda1");
}

TEST(Evhook, LogsAMissingDirectoryAsNull)
{
    char address[32];
    (void)snprintf(address, sizeof address, "%p", static_cast<void*>(nullptr));
    daemon_call_evhook(2, nullptr);
    EXPECT_EQ(fake_log_texts(),
              (std::vector<std::string>{std::string("daemon(#)action 2 mntpath (") + address +
                                        ") (null)"}));
}

TEST(Evhook, LogsWhatItDoesNotRunToo)
{
    daemon_call_evhook(9, path);
    daemon_call_evhook(1, "");
    EXPECT_EQ(fake_log_lines().size(), 2U);
}

// ---- strict ----

class StrictEvhook : public testing::Test {
  protected:
    StrictEvhook()
    {
        unlink(script);
        config.strict = 1;
        ctx.config = &config;
        write_file(script, "#!/bin/sh\n");
        fake_log_clear();
    }
    ~StrictEvhook() override { unlink(script); }

    int call() { return daemon_call_evhook(HOTPLUG_EVENT_ADD, path, &ctx); }

    // What was run, and with which arguments, when it was run by a descriptor.
    static std::string spawned()
    {
        const std::vector<std::string> calls = fake_world().calls("spawn");
        if (calls.size() != 1)
            return std::to_string(calls.size()) + " runs";
        const std::string place = "spawn /proc/" + std::to_string(getpid()) + "/fd/";
        if (calls[0].compare(0, place.size(), place) != 0)
            return calls[0];
        return "hook" + calls[0].substr(calls[0].find(' ', place.size()));
    }

    static std::vector<std::string> errors()
    {
        std::vector<std::string> found;
        for (const std::string& text : fake_log_texts()) {
            if (text.find("Error") != std::string::npos)
                found.push_back(text);
        }
        return found;
    }

    ConfHotplug config = {};
    DaemonCtx ctx = {};
};

TEST_F(StrictEvhook, RunsWhatItOpened)
{
    const int before = open_descriptors();
    (void)call();
    EXPECT_EQ(spawned(), "hook /tmp/vyhotplugd-evhook.sh mount /mnt/sda1");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(errors().empty());
}

TEST_F(StrictEvhook, AMissingHookIsNotToldAndStartsNothing)
{
    unlink(script);
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(fake_world().count("spawn"), 0);
    EXPECT_TRUE(errors().empty());
}

TEST_F(StrictEvhook, AHookOfSomebodyElsesIsNotRunAndToldOnce)
{
    ASSERT_EQ(chown(script, 1234, 1234), 0);
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(fake_world().count("spawn"), 0);
    const std::string line = std::string("daemon(#)Error - ") + script +
                             " is not run (err=" + std::to_string(EACCES) + ")";
    EXPECT_EQ(errors(), std::vector<std::string>{line});
    ASSERT_EQ(chown(script, 0, 0), 0);
    (void)call();
    EXPECT_EQ(fake_world().count("spawn"), 1);
    ASSERT_EQ(chmod(script, 0777), 0);
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errors().size(), 2U) << "it was well meanwhile";
}

TEST_F(StrictEvhook, WithoutStrictnessAnyHookIsRunByItsName)
{
    ASSERT_EQ(chown(script, 1234, 1234), 0);
    config.strict = 0;
    (void)call();
    EXPECT_EQ(fake_world().spawned,
              (std::vector<std::vector<std::string>>{{script, "mount", path}}));
}

} // namespace
