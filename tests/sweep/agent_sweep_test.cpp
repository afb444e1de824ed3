// The agent with every allocation and call failing once. Whatever fails, and once only, the daemon
// is told all of it in the end: no message is lost, and none is half a message.
#include "agent/modes.h"
#include "agent/state_file.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/failing_calls.h"
#include "support/files.h"
#include "sweep/sweep.h"
#include "unit/agent/fake_netlink.h"
#include "unit/agent/fake_sysfs.h"
#include "unit/agent/test_daemon.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Told = std::vector<std::string>;

constexpr char folder[] = "/tmp/agent-sweep";
const std::string state_file = std::string(folder) + "/state";
const std::string not_mounted = std::string(folder) + "/not-mounted";

// The daemon, in this process: whoever waits lets it work.
class InnerDaemon {
  public:
    InnerDaemon() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path + 1, "vyhotplugd");
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 16), 0);
    }
    ~InnerDaemon()
    {
        hang_up();
        close(listener_);
    }
    InnerDaemon(const InnerDaemon&) = delete;
    InnerDaemon& operator=(const InnerDaemon&) = delete;

    void serve()
    {
        if (connection_ < 0)
            connection_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        char text[600];
        const ssize_t length = connection_ >= 0 ? recv(connection_, text, sizeof text, 0) : -1;
        if (length > 0) {
            EXPECT_EQ(strnlen(text, static_cast<size_t>(length)) + 1, static_cast<size_t>(length));
            told.push_back(short_form(text));
        }
        if (length >= 0)
            hang_up();
    }

    Told told;

  private:
    void hang_up()
    {
        if (connection_ >= 0)
            close(connection_);
        connection_ = -1;
    }

    int listener_;
    int connection_ = -1;
};

// What happens while the agent waits: the daemon works, and time passes.
struct Outside {
    std::unique_ptr<InnerDaemon> daemon;
    std::function<void(uint64_t ms)> on_time; // with the time since the beginning
    uint64_t begin_usec = 0;
    int waits = 0;

    void pass(int timeout_ms)
    {
        constexpr int most = 5000;
        const auto ms =
            static_cast<uint64_t>(timeout_ms < 0 || timeout_ms > most ? most : timeout_ms);
        fake_world().pass(ms * 1000, ms * 1000);
        if (on_time)
            on_time((fake_world().monotonic_usec - begin_usec) / 1000);
    }
};

} // namespace

static int wait_outside(Outside* outside, pollfd* fds, nfds_t count, int timeout)
{
    if (++outside->waits > 5000)
        abort(); // it waits for ever
    outside->daemon->serve();
    if (__real_poll(fds, count, 0) == 0)
        outside->pass(timeout);
    return __real_poll(fds, count, 0);
}

namespace {

// A stick with a partition, an empty drive, a blkid.
struct Plugged {
    std::unique_ptr<FakeSysfs> sysfs;
    std::unique_ptr<Outside> around;
    AgentSettings settings = {};
    int status = -1;

    void prepare()
    {
        sysfs = std::make_unique<FakeSysfs>();
        sysfs->add_stick("sda", "8:0");
        sysfs->add_partition("sda", "sda1", "8:1");
        make_directory();
        settings.sysfs = FakeSysfs::root;
        settings.proc = FakeSysfs::proc;
        settings.mounts = FakeSysfs::mounts;
        settings.config = "/tmp/agent-sweep/none.conf";
        settings.state = state_file.c_str();
        settings.not_mounted = not_mounted.c_str();
        settings.wait = 10;
        around = std::make_unique<Outside>();
        around->daemon = std::make_unique<InnerDaemon>();
        around->begin_usec = fake_world().monotonic_usec;
        sweep_polling([this](pollfd* fds, nfds_t count, int timeout) {
            return wait_outside(around.get(), fds, count, timeout);
        });
    }

    static void make_directory()
    {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
    }

    void finish()
    {
        for (int i = 0; i < 3; i++) // what was sent and not waited for
            around->daemon->serve();
        told = around->daemon->told;
        told.erase(std::unique(told.begin(), told.end()), told.end()); // sent again
        sweep_polling(nullptr);
        around.reset();
        sysfs.reset();
    }

    Told told;
};

// ---- one event ----

Scenario one_event(Plugged* plugged)
{
    Scenario scenario;
    scenario.prepare = [plugged] { plugged->prepare(); };
    scenario.run = [plugged] {
        const char* const environment[] = {"ACTION=add",      "DEVPATH=/block/sda/sda1",
                                           "SUBSYSTEM=block", "MAJOR=8",
                                           "MINOR=1",         nullptr};
        plugged->status = oneshot_once(plugged->settings, environment);
    };
    scenario.finish = [plugged] { plugged->finish(); };
    scenario.check = [plugged](bool struck) {
        const Told whole = {"+8:1"};
        EXPECT_TRUE(plugged->status == 0 || (plugged->status == 1 && struck)) << plugged->status;
        EXPECT_TRUE(plugged->told == whole || (plugged->status == 1 && plugged->told.empty()));
    };
    return scenario;
}

TEST(Sweep, AgentTellsOfOneEventWithFailingCalls)
{
    Plugged plugged;
    sweep_calls(one_event(&plugged));
}

TEST(Sweep, AgentTellsOfOneEventWithoutMemory)
{
    Plugged plugged;
    sweep_allocations(one_event(&plugged));
}

// ---- the monitor's life ----

// Whether the one is what is left of the other where some was left out.
bool is_part_of(const Told& part, const Told& all)
{
    auto at = all.begin();
    for (const std::string& text : part) {
        at = std::find(at, all.end(), text);
        if (at == all.end())
            return false;
        at++;
    }
    return true;
}

// A stick is plugged, is not mounted, and is pulled; then the agent is ended.
struct Life : Plugged {
    std::string kept;     // in not-mounted, before it is pulled
    bool lasting = false; // memory stays short
    bool pulled = false;
    bool ended = false;

    void prepare_life()
    {
        fake_netlink_open();
        prepare();
        sysfs->add_stick("sdb", "8:16", {}, {{"size", "0"}});
        fake_world().programs["blkid"] = {
            FakeRun{0, 1, "ID_FS_TYPE=crypto_LUKS\nID_FS_USAGE=crypto\n"},
            FakeRun{0, 1, "ID_FS_TYPE=crypto_LUKS\nID_FS_USAGE=crypto\n"}};
        kept.clear();
        pulled = ended = false;
        around->on_time = [this](uint64_t ms) { happen(ms); };
    }

    void happen(uint64_t ms)
    {
        if (ms >= 40000 && !pulled) {
            pulled = true;
            kept = exists(not_mounted) ? read_file(not_mounted) : "";
            sysfs->remove_disk("sda");
            fake_netlink_send("remove", "/block/sda/sda1", 8, 1);
            fake_netlink_send("remove", "/block/sda", 8, 0);
        } else if (ms >= 60000 && !ended) {
            ended = true;
            kill(getpid(), SIGTERM);
        }
    }

    void finish_life()
    {
        sigset_t all;
        sigfillset(&all);
        const timespec none = {};
        while (sigtimedwait(&all, nullptr, &none) > 0) {
        } // a signal that was not taken
        sigprocmask(SIG_UNBLOCK, &all, nullptr);
        finish();
        fake_netlink_close();
    }

    // Lines of the monitor's that begin so.
    static long logged(const std::string& words)
    {
        const auto lines = fake_log_texts();
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find("monitor(#)" + words) == 0;
        });
    }

    void check(bool struck) const
    {
        // A daemon that is said to have gone, or not to be known, is another, which is told of what
        // is plugged, and of what went only if it knew of that.
        const bool lost = logged("the daemon has gone") > 0 || logged("daemon") > 1;
        const Told all = {"+8:0", "+8:1", "-8:1", "-8:0"};
        EXPECT_EQ(status, 0);
        const Told plugged = {"+8:0", "+8:1"};
        if (lost || lasting)
            EXPECT_TRUE(struck && is_part_of(told, all)) << testing::PrintToString(told);
        else
            EXPECT_EQ(told, all);
        EXPECT_TRUE(lasting || is_part_of(plugged, told)) << testing::PrintToString(told);
        const std::string empty = "sdb\t8:16\tno-medium\t-\tsdb is empty: no medium\t-\n";
        EXPECT_TRUE(struck ||
                    (kept.find("sda1\t8:1\t") == 0 && kept.find(empty) != std::string::npos))
            << kept;
        EXPECT_TRUE(kept.empty() || kept.back() == '\n') << kept;
        for (const std::string& name : names_in(folder))
            EXPECT_TRUE(name == "state" || (struck && name == "not-mounted")) << name;
        Announcer announcer;
        DaemonIdentity daemon;
        const int result = state_load(state_file.c_str(), &daemon, &announcer);
        EXPECT_TRUE(result == 0 || (struck && result == -ENOENT)) << result;
        EXPECT_TRUE(struck || daemon.pid == getpid());
    }
};

Scenario monitors_life(Life* life)
{
    Scenario scenario;
    scenario.prepare = [life] { life->prepare_life(); };
    scenario.lasting = &life->lasting;
    scenario.run = [life] { life->status = monitor_run(life->settings); };
    scenario.finish = [life] { life->finish_life(); };
    scenario.check = [life](bool struck) { life->check(struck); };
    return scenario;
}

TEST(Sweep, AgentsLifeWithFailingCalls)
{
    Life life;
    sweep_calls(monitors_life(&life));
}

TEST(Sweep, AgentsLifeWithoutMemory)
{
    Life life;
    sweep_allocations(monitors_life(&life));
}

} // namespace
