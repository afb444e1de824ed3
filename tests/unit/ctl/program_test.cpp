#include "ctl/program.h"

#include "ctl/status.h"
#include "lib/version.h"
#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// The command in a child, on the files of the test.
class Program : public testing::Test {
  protected:
    static ChildResult run(std::vector<std::string> words)
    {
        words.insert(words.begin(), {"vyhotplugctl", "-f", "/tmp/ctl/config", "--sysfs", ctl_sysfs,
                                     "--run", "/tmp/ctl/run"});
        return run_main(ctl_main, words);
    }

    static void expect_wrong(const std::vector<std::string>& words, const std::string& why)
    {
        const ChildResult result = run(words);
        EXPECT_EQ(result.status, EXIT_WRONG_CALL);
        EXPECT_EQ(result.err, "vyhotplugctl: " + why + "\nTry: vyhotplugctl help\n");
        EXPECT_EQ(result.out, "");
    }

    CtlWorld world_;
};

} // namespace

TEST_F(Program, WithoutACallItTellsTheStatus)
{
    for (const auto& words : std::vector<std::vector<std::string>>{{}, {"status"}}) {
        const ChildResult result = run(words);
        EXPECT_EQ(result.status, EXIT_NO_SERVICE);
        EXPECT_EQ(result.out.find("Nothing is plugged.\n"), 0U) << result.out;
    }
}

TEST_F(Program, LooksWhereItIsTold)
{
    CtlWorld::add_usb_disk("sdc", "8:32", "1000");
    write_file(ctl_not_mounted, "sdc\t8:32\trefused\text4\tsdc is damaged\t-\n");
    const ChildResult result = run({"show", "sdc"});
    EXPECT_EQ(result.status, EXIT_DONE) << result.err;
    EXPECT_NE(result.out.find("\n               why  is damaged\n"), std::string::npos)
        << result.out;
    const ChildResult other = run({"--run", "/tmp/none", "show", "sdc"});
    EXPECT_EQ(other.out.find("why"), std::string::npos);
    EXPECT_EQ(run({"--sysfs", "/tmp/none", "show", "sdc"}).status, EXIT_NO_DISK);
    const ChildResult none = run({"--file", "/tmp/none", "show", "sdc"});
    EXPECT_EQ(none.status, EXIT_FAILED);
    EXPECT_EQ(none.err, "vyhotplugctl: /tmp/none: No such file or directory\n");
}

TEST_F(Program, AComplaintIsWrittenAtOnce)
{
    int ends[2];
    char text[256] = "";
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(run_child([&ends] {
#ifdef __UCLIBC__
                  // Once it was written to, by a case before, a stream gets no other buffer there.
                  // Opened anew it has one by itself: what is missing is seen elsewhere.
                  if (freopen("/dev/null", "w", stderr) == nullptr)
                      return -1;
#endif
                  (void)dup2(ends[1], fileno(stderr));
                  return call_main(ctl_main, {"vyhotplugctl", "-f", "/tmp/none", "show", "sdc"});
              }).status,
              EXIT_FAILED);
    EXPECT_GT(recv(ends[0], text, sizeof text - 1, MSG_DONTWAIT), 0);
    EXPECT_STREQ(text, "vyhotplugctl: /tmp/none: No such file or directory\n");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Program, OptionsStandBeforeOrBehindTheCall)
{
    for (const auto& words :
         std::vector<std::vector<std::string>>{{"--json", "status"}, {"status", "--json"}})
        EXPECT_EQ(run(words).out.find(R"({"call":"status","version":1,"service_runs":false,)"), 0U);
}

TEST_F(Program, AllIsWithWhatIsNotPlugged)
{
    write_file(ctl_devices, "[1:2:c:1]\nComment=away\n");
    EXPECT_EQ(run({"status"}).out.find("1:2:c:1"), std::string::npos);
    EXPECT_NE(run({"status", "--all"}).out.find("1:2:c:1"), std::string::npos);
}

TEST_F(Program, ACallThatThereIsNotIsWrong)
{
    expect_wrong({"stat"}, "no such call: stat");
    expect_wrong({""}, "no such call: ");
}

TEST_F(Program, EachCallHasItsNumberOfWords)
{
    expect_wrong({"status", "sda"}, "unexpected: sda");
    expect_wrong({"show"}, "something is missing; TARGET");
    expect_wrong({"show", "sda", "sdb"}, "unexpected: sdb");
    expect_wrong({"set", "sda"}, "something is missing; TARGET KEY=VALUE... [--wait SECONDS]");
    expect_wrong({"unset", "sda"}, "something is missing; TARGET KEY... [--wait SECONDS]");
    expect_wrong({"edit", "sda", "sdb"}, "unexpected: sdb");
    for (const char* call : {"who", "forget", "mount", "unmount", "eject"}) {
        EXPECT_EQ(run({call}).status, EXIT_WRONG_CALL) << call;
        expect_wrong({call, "sda", "sdb"}, "unexpected: sdb");
    }
    for (const char* call : {"watch", "users", "check"})
        expect_wrong({call, "sda"}, "unexpected: sda");
}

TEST_F(Program, EachCallHasItsOptions)
{
    const struct {
        const char* call;
        const char* options;
    } rows[] = {{"status", "json all"},
                {"show", "json"},
                {"who", "json"},
                {"set", "wait"},
                {"unset", "wait"},
                {"edit", ""},
                {"forget", "wait"},
                {"mount", ""},
                {"unmount", "force wait"},
                {"eject", "wait"},
                {"watch", "json"},
                {"users", "json"},
                {"check", "json configuration"},
                {"help", ""}};
    for (const auto& row : rows) {
        for (const char* option : {"json", "all", "force", "wait", "configuration"}) {
            // What nothing fits, so that nothing is done.
            std::vector<std::string> words = {row.call, std::string("--") + option};
            if (std::string(option) == "wait")
                words.emplace_back("0");
            const bool fits = std::string(row.options).find(option) != std::string::npos;
            if (fits && std::string(row.call) == "watch")
                continue; // it does not end
            const ChildResult result = run(words);
            const bool refused = result.err.find(std::string("an option that is not for ") +
                                                 row.call) != std::string::npos;
            const bool missing = result.err.find("something is missing") != std::string::npos;
            EXPECT_TRUE(missing || refused != fits) << row.call << " " << option << result.err;
            if (!missing)
                continue;
            words.insert(words.begin() + 1, {"nothing", "comment=x"});
            if (std::string(row.call) != "set")
                words[2] = "comment";
            if (std::string(row.call) != "set" && std::string(row.call) != "unset")
                words.erase(words.begin() + 2);
            const ChildResult full = run(words);
            EXPECT_EQ(full.err.find("an option that is not for") == std::string::npos, fits)
                << row.call << " " << option << full.err;
        }
    }
}

TEST_F(Program, AnOptionThatThereIsNotIsWrong)
{
    const ChildResult result = run({"--colour"});
    EXPECT_EQ(result.status, EXIT_WRONG_CALL);
    EXPECT_NE(result.err.find("vyhotplugctl: wrong option\nTry: vyhotplugctl help\n"),
              std::string::npos);
}

TEST_F(Program, AWaitIsOfSecondsUpToADay)
{
    for (const char* seconds : {"", "x", "-1", "+1", " 1", "1x", "86401", "99999999999"})
        expect_wrong({"set", "nothing", "comment=x", "--wait", seconds},
                     std::string("not a number of seconds up to a day: ") + seconds);
    for (const char* seconds : {"0", "9", "86400"})
        EXPECT_EQ(run({"set", "nothing", "comment=x", "--wait", seconds}).status, EXIT_NO_DISK);
}

TEST_F(Program, OnlyRootChangesAnything)
{
    for (const char* call : {"set", "unset", "edit", "forget", "mount", "unmount", "eject"}) {
        const ChildResult result = run_child([call] {
            std::vector<std::string> words = {"vyhotplugctl", call, "sda"};
            if (std::string(call).find("set") != std::string::npos)
                words.emplace_back("comment");
            const bool other = seteuid(1) == 0;
            const int status = call_main(ctl_main, words);
            return other && seteuid(0) == 0 ? status : 99;
        });
        const std::string name = call;
        EXPECT_EQ(result.status, EXIT_FAILED) << name;
        EXPECT_EQ(result.err, "vyhotplugctl: only root can " + name + "; try: sudo vyhotplugctl " +
                                  name + " ...\n");
    }
}

TEST_F(Program, ItsVersionAndItsHelpNeedNoConfiguration)
{
    const ChildResult version = run_main(ctl_main, {"vyhotplugctl", "--version"});
    EXPECT_EQ(version.status, EXIT_DONE);
    EXPECT_EQ(version.out, std::string("vyhotplugctl ") + vy_build + "\n");
    for (const char* word : {"help", "--help"}) {
        const ChildResult help = run_main(ctl_main, {"vyhotplugctl", word});
        EXPECT_EQ(help.status, EXIT_DONE) << help.err;
        EXPECT_EQ(help.out.find("usage: vyhotplugctl [CALL] [OPTION]... [TARGET]...\n\n"
                                "  status [--all] [--json]\n        what is plugged"),
                  0U)
            << help.out;
        EXPECT_NE(help.out.find("\n  edit [TARGET]\n"), std::string::npos);
    }
}

TEST_F(Program, WhatCannotBePrintedIsAFailure)
{
    for (const auto& words : std::vector<std::vector<std::string>>{{"vyhotplugctl", "--version"},
                                                                   {"vyhotplugctl", "help"}}) {
        const ChildResult result = run_child([&words] {
            return freopen("/dev/full", "w", stdout) != nullptr ? call_main(ctl_main, words) : 99;
        });
        EXPECT_EQ(result.status, EXIT_FAILED);
        EXPECT_EQ(result.err, "vyhotplugctl: No space left on device\n");
    }
    const ChildResult other = run_child([] {
        return freopen("/dev/full", "w", stdout) != nullptr
                   ? call_main(ctl_main, {"vyhotplugctl", "-f", "/tmp/ctl/config", "status"})
                   : 99;
    });
    EXPECT_EQ(other.status, EXIT_NO_SERVICE) << "the first that was wrong";
}

TEST_F(Program, NothingOfWhatItReadIsKept)
{
    testing::internal::CaptureStderr();
    memory_watch(true);
    EXPECT_EQ(call_main(ctl_main, {"vyhotplugctl", "-f", "/tmp/ctl/config", "show", "nothing"}),
              EXIT_NO_DISK);
    EXPECT_EQ(memory_kept(), 0U);
    memory_watch(false);
    (void)testing::internal::GetCapturedStderr();
}
