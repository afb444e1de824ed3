// The command for people, with every allocation and call failing once: it tells that it has failed,
// or what it tells is true.
#include "ctl/call_set.h"
#include "ctl/call_status.h"
#include "fake/fake_world.h"
#include "lib/socket_unix.h"
#include "support/failing_calls.h"
#include "support/files.h"
#include "sweep/sweep.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

constexpr char told_file[] = "/tmp/ctl/told";

// A call that prints JSON of a disk that is plugged, and of one that is known.
struct Telling {
    CtlWorld world;
    int (*call)(const CallArgs& args);
    char target[8] = "Music";
    char* words[1] = {target};
    CallArgs args = {};
    int complaints = -1; // where they go
    int result = 0;
    std::string whole; // what it prints when nothing fails

    explicit Telling(int (*made)(const CallArgs& args)) : call(made)
    {
        CtlWorld::add_usb_disk("sdc", "8:32", "1000");
        write_file(ctl_not_mounted, "sdc\t8:32\trefused\text4\tsdc is damaged\te2fsck\n");
        write_file(ctl_shares,
                   "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\nVID=1\nPID=2\n"
                   "Volume Label=Music\nStatus=Unmount\n");
        write_file(ctl_devices, "[1:2:a:1]\nShare Name=Music\nFull Access Users=0,1,\n");
        args.setup = &world.setup;
        args.words = words;
        args.count = 1;
        args.json = true;
        args.all = true;
        args.wait_s = -1;
    }

    Scenario scenario()
    {
        Scenario scenario;
        scenario.prepare = [this] {
            args.out.out = fopen(told_file, "w");
            complaints = dup(STDERR_FILENO);
            (void)dup2(fileno(args.out.out), STDERR_FILENO);
        };
        scenario.run = [this] { result = call(args); };
        scenario.finish = [this] {
            fclose(args.out.out);
            (void)dup2(complaints, STDERR_FILENO);
            close(complaints);
        };
        scenario.check = [this](bool struck) { check(struck); };
        return scenario;
    }

    void check(bool struck)
    {
        const std::string told = read_file(told_file);
        if (whole.empty())
            whole = told;
        EXPECT_TRUE(struck || (told == whole && result != EXIT_FAILED)) << told;
        EXPECT_FALSE(told.empty());
        if (struck && result != EXIT_FAILED && is_part(told))
            return; // the stream refused some of it: who flushes it sees that
        // An answer is one whole object; a failure is told in words.
        const bool answered = told.starts_with("{") && told.ends_with("}\n");
        EXPECT_EQ(answered, result != EXIT_FAILED) << result << told;
    }

    // Whether it is the whole answer but for some of its characters.
    bool is_part(const std::string& told) const
    {
        size_t at = 0;
        for (const char c : whole)
            at += at < told.size() && told[at] == c ? 1 : 0;
        return at == told.size() && told.size() < whole.size();
    }
};

} // namespace

TEST(Sweep, TellingTheStatusWithoutMemory)
{
    Telling telling(call_status);
    sweep_allocations(telling.scenario());
}

TEST(Sweep, TellingTheStatusWithFailingCalls)
{
    Telling telling(call_status);
    sweep_calls(telling.scenario());
}

TEST(Sweep, ShowingOneWithoutMemory)
{
    Telling telling(call_show);
    sweep_allocations(telling.scenario());
}

TEST(Sweep, ShowingOneWithFailingCalls)
{
    Telling telling(call_show);
    sweep_calls(telling.scenario());
}

namespace {

constexpr char before[] = "# by hand\n[1:2:a:1]\nShare Name=Music\nFull Access Users=0,1,\n"
                          "[1:2:b:2]\nComment=kept\n";

// A setting that is made while a service listens, which reads the file when it is told to and drops
// the line that it does not know. It does so while the call sleeps, and nothing of its own fails.
struct Setting {
    CtlWorld world;
    int listener = unix_create_listen_socket("vyhotplugd");
    char target[8] = "Music";
    char assignment[16] = "comment=new";
    char* words[2] = {target, assignment};
    CallArgs args = {};
    int complaints = -1; // where they go
    int result = 0;
    std::string after; // the file, where nothing fails

    Setting()
    {
        args.setup = &world.setup;
        args.words = words;
        args.count = 2;
        args.wait_s = 8;
    }
    ~Setting() { close(listener); }

    static std::string without_mark(std::string text)
    {
        const size_t at = text.find("ctlchange");
        return at == std::string::npos ? text : text.erase(at, text.find('\n', at) + 1 - at);
    }

    // The connections of who asked for its number.
    void hang_up() const
    {
        int peer = -1;
        while ((peer = accept(listener, nullptr, nullptr)) >= 0)
            close(peer);
    }

    void serve() const
    {
        calls_overlook(true);
        hang_up();
        if (!fake_world().signals.empty())
            write_file(ctl_devices, without_mark(read_file(ctl_devices)));
        calls_overlook(false);
    }

    Scenario scenario()
    {
        Scenario scenario;
        scenario.prepare = [this] {
            write_file(ctl_devices, before);
            fake_world().on_sleep = [this](uint64_t) { serve(); };
            args.out.out = fopen(told_file, "w");
            complaints = dup(STDERR_FILENO);
            (void)dup2(fileno(args.out.out), STDERR_FILENO);
        };
        scenario.run = [this] { result = call_set(args); };
        scenario.finish = [this] {
            fclose(args.out.out);
            (void)dup2(complaints, STDERR_FILENO);
            close(complaints);
            hang_up();
        };
        scenario.check = [this](bool struck) { check(struck); };
        return scenario;
    }

    void check(bool struck)
    {
        const std::string file = read_file(ctl_devices);
        const std::string words_told = read_file(told_file);
        if (after.empty()) {
            after = file;
            EXPECT_NE(after.find("\nComment=new\n"), std::string::npos) << after;
        }
        EXPECT_TRUE(struck || result == EXIT_DONE) << words_told;
        if (result == EXIT_DONE) {
            EXPECT_EQ(file, after) << words_told; // and the service has written it
            return;
        }
        // It may have come as far as the file, and then that is told.
        if (file != before) {
            EXPECT_EQ(without_mark(file), after);
            EXPECT_NE(words_told.find("in the file"), std::string::npos) << words_told;
        }
    }
};

} // namespace

TEST(Sweep, SettingOneWithoutMemory)
{
    Setting setting;
    sweep_allocations(setting.scenario());
}

TEST(Sweep, SettingOneWithFailingCalls)
{
    Setting setting;
    sweep_calls(setting.scenario());
}
