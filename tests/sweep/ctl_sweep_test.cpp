// The calls of vyhotplugctl that tell something, with every allocation and every call failing once:
// one tells that it has failed, or what it tells is true.
#include "ctl/call_check.h"
#include "ctl/call_status.h"
#include "ctl/call_users.h"
#include "ctl/call_watch.h"
#include "fake/fake_world.h"
#include "support/failing_calls.h"
#include "support/files.h"
#include "sweep/ctl_swept.h"
#include "sweep/sweep.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

static bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// Whether it is the whole answer but for some of its characters: the stream refused them, which who
// flushes it sees.
static bool is_part(const std::string& told, const std::string& whole)
{
    size_t at = 0;
    for (const char c : whole)
        at += at < told.size() && told[at] == c ? 1 : 0;
    return at == told.size() && told.size() < whole.size();
}

static bool is_object(const std::string& told)
{
    return told.starts_with("{") && told.ends_with("}\n");
}

namespace {

// A call that prints JSON of a disk that is plugged, and of one that is known.
struct Telling {
    SweptCall call;
    SweptService service;
    std::string whole; // what it prints when nothing fails

    explicit Telling(int (*made)(const CallArgs& args)) : call(made, {"Music"})
    {
        CtlWorld::add_usb_disk("sdc", "8:32", "1000");
        write_file(ctl_not_mounted, "sdc\t8:32\trefused\text4\tsdc is damaged\te2fsck\n");
        write_file(ctl_shares,
                   "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\nVID=1\nPID=2\n"
                   "Volume Label=Music\nStatus=Unmount\n");
        write_file(ctl_devices, "[1:2:a:1]\nShare Name=Music\nFull Access Users=0,1,\n");
        call.args.json = true;
        call.args.all = true;
        call.check = [this](bool struck) { check(struck); };
    }

    void check(bool struck)
    {
        if (whole.empty())
            whole = call.told;
        EXPECT_TRUE(struck || (call.told == whole && call.result != EXIT_FAILED));
        EXPECT_TRUE(struck || calls_counted()["fwrite"] > 0) << "what is told goes through it";
        if (struck && call.result != EXIT_FAILED && is_part(call.told, whole) &&
            !is_object(call.told))
            return;
        EXPECT_TRUE(!has(call.told, R"("service_runs":false)") || call.was_denied());
        // An answer is one whole object; a failure is told in words.
        EXPECT_EQ(is_object(call.told), call.result != EXIT_FAILED);
        EXPECT_TRUE(call.result != EXIT_FAILED || !call.complaints.empty());
    }
};

} // namespace

TEST(Sweep, TellingTheStatusWithoutMemory)
{
    Telling telling(call_status);
    sweep_allocations(telling.call.scenario());
}

TEST(Sweep, TellingTheStatusWithFailingCalls)
{
    Telling telling(call_status);
    sweep_calls(telling.call.scenario());
}

TEST(Sweep, ShowingOneWithoutMemory)
{
    Telling telling(call_show);
    sweep_allocations(telling.call.scenario());
}

TEST(Sweep, ShowingOneWithFailingCalls)
{
    Telling telling(call_show);
    sweep_calls(telling.call.scenario());
}

namespace {

// The users, one of whom has a password of Samba's.
struct Users {
    static constexpr char programs[] = "/usr/local/sbin";
    static constexpr char anna[] = R"("name":"anna","full_name":"Anna","samba_password":)";
    const std::string users = read_file("/etc/passwd");
    Telling telling{call_users};

    Users()
    {
        const std::string asked = std::string(programs) + "/pdbedit";
        EXPECT_EQ(mount("x", programs, "tmpfs", 0, nullptr), 0);
        write_file(asked, "");
        EXPECT_EQ(chmod(asked.c_str(), 0755), 0);
        write_file("/etc/passwd", users + "anna:x:4711:4711:Anna:/:/bin/sh\n");
        telling.call.prepare = [asked] {
            fake_world().programs[asked] = {{0, 0, "anna:4711:Anna\n"}};
        };
        telling.call.check = [this](bool struck) { check(struck); };
    }
    ~Users()
    {
        write_file("/etc/passwd", users);
        EXPECT_EQ(umount(programs), 0);
    }

    void check(bool struck)
    {
        telling.check(struck);
        EXPECT_TRUE(has(telling.whole, std::string(anna) + "true"));
        // Where Samba cannot be asked, that she has none is not known.
        EXPECT_FALSE(has(telling.call.told, std::string(anna) + "false"));
        EXPECT_TRUE(is_part(telling.call.told, telling.whole) || has(telling.call.told, anna));
    }
};

} // namespace

TEST(Sweep, TellingTheUsersWithoutMemory)
{
    Users users;
    sweep_allocations(users.telling.call.scenario());
}

TEST(Sweep, TellingTheUsersWithFailingCalls)
{
    Users users;
    sweep_calls(users.telling.call.scenario());
}

// ---- who ----

namespace {

// A mounted share of which this process holds two files: one that cannot be asked is passed over.
struct Holding {
    SweptCall call{call_who, {"sda1"}};
    FdGuard held[2];
    std::string file = swept_directory("sda1") + "/held";
    std::string whole;

    Holding()
    {
        swept_mount("sda1");
        for (size_t i = 0; i < 2; i++)
            held[i].reset(
                open((file + std::to_string(i)).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        call.args.json = true;
        call.check = [this](bool struck) { check(struck); };
    }
    ~Holding()
    {
        for (FdGuard& fd : held)
            fd.reset(-1);
        EXPECT_TRUE(swept_unmount("sda1"));
    }

    void check(bool struck)
    {
        if (whole.empty())
            whole = call.told;
        if (struck && call.result == EXIT_DONE && is_part(call.told, whole) &&
            !is_object(call.told))
            return;
        // That it is held is told, or else that it cannot be seen.
        EXPECT_TRUE(has(call.told, file) || !call.complaints.empty() || call.was_denied());
        EXPECT_EQ(is_object(call.told), call.result == EXIT_DONE);
    }
};

} // namespace

TEST(Sweep, TellingWhoHoldsOneWithoutMemory)
{
    Holding holding;
    sweep_allocations(holding.call.scenario());
}

TEST(Sweep, TellingWhoHoldsOneWithFailingCalls)
{
    Holding holding;
    sweep_calls(holding.call.scenario());
}

// ---- check ----

namespace {

// What is wrong of each kind that is looked at in files.
constexpr const char* wrong[] = {R"("configuration")", R"("open_to_others")",
                                 R"("directory_missing")"};

// A configuration with mistakes, which are told whatever fails, or else that they cannot be.
struct Checking {
    SweptCall call{call_check, {}};
    std::string whole;

    explicit Checking(bool offline)
    {
        write_file("/tmp/ctl/config",
                   "smbconfigpath=/tmp/ctl/shares\ndeviceconfigpath=/tmp/ctl/devices\n"
                   "mountpath=/tmp/ctl/mounts\ndevicepath=/tmp/ctl/nodes\nnokey=1\n");
        write_file(ctl_devices, "[1:2:a:1]\nNo Key=1\nFull Access Users=77777,\n");
        EXPECT_EQ(chmod(ctl_devices, 0666), 0);
        call.args.json = true;
        call.args.offline = offline;
        call.check = [this](bool struck) { check(struck); };
    }

    void check(bool struck)
    {
        EXPECT_EQ(call.result, EXIT_FAILED);
        if (whole.empty())
            whole = call.told;
        EXPECT_TRUE(struck || call.told == whole);
        if (struck && is_part(call.told, whole) &&
            (!is_object(call.told) || call.was_not_written()))
            return;
        EXPECT_TRUE(is_object(call.told) || (call.told.empty() && !call.complaints.empty()));
        for (const char* id : wrong)
            EXPECT_TRUE(has(call.told, id) || call.told.empty()) << id;
        if (call.args.offline || call.told.empty() || call.error == ENOENT)
            return; // there is no device file
        EXPECT_TRUE(has(call.told, R"("settings")"));
        // The reader is the service's, and works with what it could have of the file.
        EXPECT_TRUE(has(call.told, R"("no_such_user")") || has(call.told, "cannot be read") ||
                    call.error == ENOMEM || call.error == EIO);
    }
};

} // namespace

TEST(Sweep, CheckingTheConfigurationWithoutMemory)
{
    Checking checking(true);
    sweep_allocations(checking.call.scenario());
}

TEST(Sweep, CheckingTheConfigurationWithFailingCalls)
{
    Checking checking(true);
    sweep_calls(checking.call.scenario());
}

TEST(Sweep, CheckingEverythingWithoutMemory)
{
    Checking checking(false);
    sweep_allocations(checking.call.scenario());
}

TEST(Sweep, CheckingEverythingWithFailingCalls)
{
    Checking checking(false);
    sweep_calls(checking.call.scenario());
}

// ---- watch ----

namespace {

// What happens while the call waits: the next thing as soon as nothing wakes it any more, and in
// the end waiting fails.
struct Happening {
    SweptCall call{call_watch, {}};
    SweptService service;
    static constexpr char present[] =
        R"({"call":"watch","version":1,"time_s":1700000000,"event":"present","item":{"name":"sda1")";
    int polls = 0;
    int steps = 0; // that have been made
    std::string whole;

    Happening()
    {
        call.args.json = true;
        call.prepare = [this] {
            write_file(ctl_shares, "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n");
            write_file(ctl_devices, "[1:2:a:1]\nComment=old\n");
            polls = steps = 0;
        };
        call.check = [this](bool struck) { check(struck); };
        sweep_polling([this](pollfd* fds, nfds_t count, int) { return wait(fds, count); });
    }
    ~Happening() { sweep_polling(nullptr); }

    int wait(pollfd* fds, nfds_t count)
    {
        if (++polls > 100)
            abort(); // it is woken for nothing
        const int ready = __real_poll(fds, count, 0);
        if (ready != 0)
            return ready;
        if (steps == 0)
            write_file(ctl_devices, "[1:2:a:1]\nComment=new\n");
        else if (steps == 1)
            write_file(ctl_shares, "[Songs]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n");
        errno = EIO;
        return ++steps <= 2 ? __real_poll(fds, count, 0) : -1;
    }

    void check(bool struck)
    {
        if (whole.empty())
            whole = call.told;
        EXPECT_TRUE(struck || call.told == whole);
        EXPECT_EQ(call.result, EXIT_FAILED);
        EXPECT_TRUE(!has(call.told, "service_ended") || call.was_denied());
        if (steps <= 2) { // it has ended before, which is told here or by who flushes the stream
            EXPECT_TRUE(!call.complaints.empty() || !call.told.empty());
            return;
        }
        if (struck && (is_part(call.told, whole) || call.was_denied()))
            return;
        EXPECT_TRUE(call.told.starts_with(present));
        EXPECT_TRUE(has(call.told, R"("comment":"new")"));
        EXPECT_TRUE(has(call.told, R"("share":"Songs")"));
        EXPECT_TRUE(call.told.ends_with("}\n"));
    }
};

} // namespace

TEST(Sweep, WatchingWithoutMemory)
{
    Happening happening;
    sweep_allocations(happening.call.scenario());
}

TEST(Sweep, WatchingWithFailingCalls)
{
    Happening happening;
    sweep_calls(happening.call.scenario());
}
