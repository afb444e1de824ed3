// What the command for people reads, with every allocation and call failing once: it tells that it
// has failed, or what it tells is true.
#include "ctl/call_status.h"
#include "fake/fake_world.h"
#include "support/files.h"
#include "sweep/sweep.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <fcntl.h>
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
