#include "ctl/call_edit.h"

#include "fake/fake_world.h"
#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/called.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

namespace {

// A share that is plugged, one that is known, a service, and an editor that the test plays.
class CallEdit : public testing::Test {
  protected:
    CallEdit()
    {
        write_file(ctl_shares, "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n");
        write_file(ctl_devices, before);
        fake_world().programs["sh"].assign(5, {});
        fake_world().on_spawn = [this](const std::vector<std::string>& arguments) {
            draft_ = arguments.back();
            shown_ = read_file(draft_);
            if (editor_)
                write_file(draft_, editor_(shown_));
        };
    }

    Called edit() { return called(call_edit, args_, {}); }

    // The same in a child, with somebody who answers.
    ChildResult edit_with(const std::string& answers)
    {
        write_file("/tmp/answers", answers);
        return run_child([this] {
            if (freopen("/tmp/answers", "r", stdin) == nullptr)
                return 99;
            args_.out.out = stdout;
            return call_edit(args_);
        });
    }

    // Whether it waits for a signal beside something else.
    static bool has_signalfd(pid_t pid)
    {
        const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
        std::error_code gone;
        std::error_code closed;
        std::filesystem::directory_iterator entry(folder, gone);
        for (; !gone && entry != end(entry); entry.increment(gone)) {
            if (std::filesystem::read_symlink(*entry, closed) == "anon_inode:[signalfd]")
                return true;
        }
        return false;
    }

    // The same in a child that Ctrl-C comes to when it is asked.
    ChildResult edit_interrupted()
    {
        int input[2];
        EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
        const auto editor = editor_;
        editor_ = [editor](const std::string& text) {
            const pid_t edited = getpid();
            if (fork() == 0) {
                while (kill(edited, has_signalfd(edited) ? SIGINT : 0) == 0)
                    (void)usleep(2000);
                _exit(0);
            }
            return editor(text);
        };
        const ChildResult result = run_child([this, &input] {
            (void)signal(SIGINT, SIG_DFL); // whoever starts the tests may have it ignored
            (void)dup2(input[0], STDIN_FILENO);
            args_.out.out = stdout;
            return call_edit(args_);
        });
        close(input[0]);
        close(input[1]);
        return result;
    }

    // What lies in /tmp of what was edited.
    static std::string drafts()
    {
        std::string found;
        for (const std::string& name : names_in("/tmp"))
            found += name.starts_with("vyhotplugctl-") ? read_file("/tmp/" + name) : "";
        return found;
    }

    static std::string replaced(std::string text, const std::string& from, const std::string& to)
    {
        const size_t at = text.find(from);
        EXPECT_NE(at, std::string::npos) << text;
        return at == std::string::npos ? text : text.replace(at, from.size(), to);
    }

    static constexpr char before[] = "[1:2:a:1]\nShare Name=Music\nComment=old\n"
                                     "[1:2:c:1]\nComment=away\n";

    CtlWorld world_;
    CtlService service_;
    CallArgs args_ = args_of(world_.setup);
    std::function<std::string(const std::string& text)> editor_;
    std::string draft_; // its path
    std::string shown_; // what stood in it
};

} // namespace

TEST_F(CallEdit, WhatIsChangedIsSet)
{
    editor_ = [](const std::string& text) {
        return replaced(text, "comment = old", "comment = new");
    };
    const Called result = edit();
    EXPECT_EQ(result.status, EXIT_DONE) << result.err;
    EXPECT_EQ(result.out, "1:2:a:1 is set\n");
    EXPECT_EQ(read_file(ctl_devices),
              "[1:2:a:1]\nComment=new\nShare Name=Music\n[1:2:c:1]\nComment=away\n");
    EXPECT_EQ(drafts(), "");
}

TEST_F(CallEdit, WhatIsTakenOutIsForgotten)
{
    editor_ = [](const std::string& text) { return text.substr(0, text.find("\n[1:2:c:1]")); };
    const Called result = edit();
    EXPECT_EQ(result.status, EXIT_DONE) << result.err;
    EXPECT_EQ(result.out, "1:2:c:1 is forgotten\n");
    EXPECT_EQ(read_file(ctl_devices), "[1:2:a:1]\nShare Name=Music\nComment=old\n");
}

TEST_F(CallEdit, NothingIsChanged)
{
    const Called result = edit();
    EXPECT_EQ(result.status, EXIT_DONE);
    EXPECT_EQ(result.out, "nothing is changed\n");
    EXPECT_EQ(read_file(ctl_devices), before);
    EXPECT_FALSE(exists(draft_));
    EXPECT_NE(shown_.find("\n[1:2:a:1]\n"), std::string::npos);
    EXPECT_NE(shown_.find("\n[1:2:c:1]\n"), std::string::npos);
}

TEST_F(CallEdit, OneTargetIsShownAlone)
{
    const Called result = called(call_edit, args_, {"Music"});
    EXPECT_EQ(result.status, EXIT_DONE);
    EXPECT_NE(shown_.find("\n[1:2:a:1]\n"), std::string::npos);
    EXPECT_EQ(shown_.find("\n[1:2:c:1]\n"), std::string::npos);
}

TEST_F(CallEdit, ATargetThatThereIsNotIsToldOf)
{
    const Called result = called(call_edit, args_, {"sdx"});
    EXPECT_EQ(result.status, EXIT_NO_DISK);
    EXPECT_EQ(result.err,
              "vyhotplugctl: nothing here is called sdx; see: vyhotplugctl status --all\n");
    EXPECT_EQ(fake_world().count("spawn"), 0);
}

// ---- the editor ----

TEST_F(CallEdit, TheEditorHasTheTerminalAndTheEnvironmentsWord)
{
    (void)edit();
    ASSERT_EQ(fake_world().spawned.size(), 1U);
    const std::vector<std::string>& arguments = fake_world().spawned[0];
    ASSERT_EQ(arguments.size(), 5U);
    EXPECT_EQ(arguments[0] + " " + arguments[1] + " " + arguments[3], "sh -c sh");
    EXPECT_EQ(arguments[2].find("e=${VISUAL:-${EDITOR:-}}\n"), 0U);
    for (const int stream : fake_world().streams[0])
        EXPECT_GE(stream, 3) << "those below are closed before they are copied";
}

TEST_F(CallEdit, AnInterruptionIsTheEditorsOwn)
{
    (void)signal(SIGINT, SIG_DFL); // whoever starts the tests may have it ignored
    for (int i = 0; i < 3; i++)
        fake_world().fail("waitpid", i + 1, EINTR);
    EXPECT_EQ(edit().status, EXIT_DONE);
    EXPECT_EQ(fake_world().count("waitpid"), 4);
    struct sigaction now = {};
    EXPECT_EQ(sigaction(SIGINT, nullptr, &now), 0);
    EXPECT_TRUE(now.sa_handler == SIG_DFL) << "and afterwards it is not";
}

TEST_F(CallEdit, AnEditorThatFailsChangesNothing)
{
    editor_ = [](const std::string&) { return ""; };
    fake_world().programs["sh"] = {{1 << 8, 0, ""}};
    const Called failed = edit();
    EXPECT_EQ(failed.status, EXIT_FAILED);
    EXPECT_EQ(failed.err, "vyhotplugctl: the editor failed, nothing is changed\n");
    fake_world().fail("spawn", 1, EAGAIN);
    EXPECT_EQ(edit().err, "vyhotplugctl: the editor failed, nothing is changed\n");
    EXPECT_EQ(read_file(ctl_devices), before);
    EXPECT_EQ(drafts(), "");
}

TEST_F(CallEdit, WhatAnEditorHasSavedBeforeItFailsIsKept)
{
    editor_ = [](const std::string& text) {
        return replaced(text, "comment = old", "comment = new");
    };
    fake_world().programs["sh"] = {{1 << 8, 0, ""}};
    const std::string told = edit().err;
    EXPECT_EQ(told, "vyhotplugctl: the editor failed, nothing is changed\n"
                    "vyhotplugctl: what you wrote is in " +
                        draft_ + "\n");
    EXPECT_NE(read_file(draft_).find("\ncomment = new\n"), std::string::npos);
    EXPECT_EQ(read_file(ctl_devices), before);
}

TEST_F(CallEdit, AnEditorThatFailsAndHasSavedNothingLeavesNothing)
{
    fake_world().programs["sh"] = {{1 << 8, 0, ""}};
    EXPECT_EQ(edit().err, "vyhotplugctl: the editor failed, nothing is changed\n");
    EXPECT_EQ(drafts(), "");
}

TEST_F(CallEdit, WhatCannotBeReadBackIsKept)
{
    for (const int nth : {1, 2}) { // of the editor's rounds
        int round = 0;
        editor_ = [&round, nth](const std::string& text) {
            memory_fail(++round == nth ? 1 : 0);
            return text.find("colour") == std::string::npos
                       ? replaced(text, "comment = old", "colour = red")
                       : text;
        };
        const ChildResult result = edit_with("y\n");
        EXPECT_EQ(result.status, EXIT_FAILED);
        EXPECT_NE(result.err.find(std::string(strerror(ENOMEM)) +
                                  "\nvyhotplugctl: what you wrote is in /tmp/vyhotplugctl-"),
                  std::string::npos)
            << result.err;
        EXPECT_NE(drafts().find("\ncolour = red\n"), std::string::npos);
        for (const std::string& name : names_in("/tmp")) {
            if (name.starts_with("vyhotplugctl-"))
                unlink(("/tmp/" + name).c_str());
        }
    }
}

TEST_F(CallEdit, WhatTheEditorTookAwayIsNotSaidToBeThere)
{
    fake_world().on_spawn = [](const std::vector<std::string>& arguments) {
        EXPECT_EQ(unlink(arguments.back().c_str()), 0);
    };
    EXPECT_EQ(edit().err.find("what you wrote"), std::string::npos);
}

TEST_F(CallEdit, ATextThatComesBackEmptyForgetsNothing)
{
    for (const char* text : {"", " \t\r\n\n"}) {
        editor_ = [text](const std::string&) { return text; };
        const Called result = edit();
        EXPECT_EQ(result.status, EXIT_FAILED);
        EXPECT_EQ(result.err, "vyhotplugctl: the text came back empty, nothing is changed\n");
        EXPECT_EQ(read_file(ctl_devices), before);
        EXPECT_FALSE(exists(draft_));
    }
}

// ---- wrong lines ----

TEST_F(CallEdit, WrongLinesMayBeEditedAgain)
{
    editor_ = [](const std::string& text) {
        return text.find("colour") == std::string::npos
                   ? replaced(text, "comment = old", "colour = red")
                   : replaced(text, "colour = red", "comment = new");
    };
    for (const char* answer : {"y\n", "\n"}) {
        write_file(ctl_devices, before);
        const ChildResult result = edit_with(answer);
        EXPECT_EQ(result.status, EXIT_DONE) << result.err;
        EXPECT_EQ(result.out, "1:2:a:1 is set\n");
        EXPECT_NE(result.err.find("no such setting: colour\nEdit again? [Y/n] "), std::string::npos)
            << result.err;
        EXPECT_NE(read_file(ctl_devices).find("\nComment=new\n"), std::string::npos);
        EXPECT_EQ(drafts(), "");
    }
}

TEST_F(CallEdit, WhoGivesUpKeepsWhatWasWritten)
{
    editor_ = [](const std::string& text) {
        return replaced(text, "comment = old", "colour = red");
    };
    for (const char* answer : {"n\n", "N\n", "q\n", ""}) {
        const ChildResult result = edit_with(answer);
        EXPECT_EQ(result.status, EXIT_FAILED);
        EXPECT_NE(result.err.find("vyhotplugctl: what you wrote is in /tmp/vyhotplugctl-"),
                  std::string::npos)
            << result.err;
        EXPECT_EQ(read_file(ctl_devices), before);
        EXPECT_NE(drafts().find("\ncolour = red\n"), std::string::npos);
    }
}

TEST_F(CallEdit, AnInterruptionAtTheQuestionKeepsWhatWasWritten)
{
    editor_ = [](const std::string& text) {
        return replaced(text, "comment = old", "colour = red");
    };
    const ChildResult result = edit_interrupted();
    EXPECT_EQ(result.status, EXIT_FAILED);
    EXPECT_NE(result.err.find("Edit again? [Y/n] \nvyhotplugctl: what you wrote is in "
                              "/tmp/vyhotplugctl-"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(read_file(ctl_devices), before);
    EXPECT_NE(drafts().find("\ncolour = red\n"), std::string::npos);
}

TEST_F(CallEdit, AnInterruptionWhileItIsSetKeepsWhatWasWritten)
{
    fake_world().on_sleep = [](uint64_t) { (void)raise(SIGINT); }; // and nothing is taken
    editor_ = [](const std::string& text) {
        return replaced(text, "comment = old", "comment = new");
    };
    const ChildResult result = run_child([this] {
        (void)signal(SIGINT, SIG_DFL);
        args_.out.out = stdout;
        return call_edit(args_);
    });
    EXPECT_EQ(result.status, EXIT_FAILED);
    EXPECT_EQ(result.err.find(
                  "vyhotplugctl: interrupted; the service has not been seen to take the change\n"
                  "vyhotplugctl: what you wrote is in /tmp/vyhotplugctl-"),
              0U)
        << result.err;
    EXPECT_NE(read_file(ctl_devices).find("\nComment=new\n"), std::string::npos);
    EXPECT_NE(drafts().find("\ncomment = new\n"), std::string::npos);
}

TEST_F(CallEdit, AnInterruptionOfTheEditorByOthersSetsNothing)
{
    int number = SIGTERM;
    editor_ = [&number](const std::string& text) {
        (void)raise(number);
        return replaced(text, "comment = old", "comment = new");
    };
    for (const int ended : {0, 1 << 8}) {
        fake_world().programs["sh"] = {{ended, 0, ""}};
        const ChildResult result = run_child([this, number] {
            (void)signal(number, SIG_DFL);
            args_.out.out = stdout;
            return call_edit(args_);
        });
        EXPECT_EQ(result.status, EXIT_FAILED);
        EXPECT_NE(result.err.find("vyhotplugctl: what you wrote is in /tmp/vyhotplugctl-"),
                  std::string::npos)
            << result.err;
        EXPECT_EQ(read_file(ctl_devices), before);
        number = SIGHUP;
    }
}

TEST_F(CallEdit, WithoutAServiceWhatWasWrittenIsKept)
{
    editor_ = [this](const std::string& text) {
        service_.end();
        return replaced(text, "comment = old", "comment = new");
    };
    const Called result = edit();
    EXPECT_EQ(result.status, EXIT_NO_SERVICE);
    EXPECT_NE(result.err.find("vyhotplugctl: what you wrote is in " + draft_ + "\n"),
              std::string::npos)
        << result.err;
    EXPECT_NE(read_file(draft_).find("\ncomment = new\n"), std::string::npos);
    EXPECT_EQ(result.out, "");
}
