// A daemon from its start over one plugged device to its end, with every allocation and call
// failing once.
#include "core/daemon.h"
#include "core/recieve.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "support/child.h"
#include "support/failing_calls.h"
#include "support/files.h"
#include "sweep/sweep.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr uint64_t idle_pause_usec = 1200000;
constexpr int pauses_of_a_run = 5;
constexpr char message[] = "ACTION=add,MAJOR=8,MINOR=1,SID=ABC";

// Sends a message and waits until the daemon has closed the connection, for a while; an empty
// message closes at once. What the sender does is not counted among the daemon's calls.
void send_message(const std::string& text)
{
    calls_overlook(true);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path + 1, hotplug_socket_name);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        !text.empty() && send(fd, text.c_str(), text.size() + 1, MSG_NOSIGNAL) > 0) {
        pollfd wait = {.fd = fd, .events = POLLIN, .revents = 0};
        poll(&wait, 1, 3000);
    }
    close(fd);
    calls_overlook(false);
}

struct DaemonRun {
    DaemonCtx ctx = {};
    int pauses = 0;
    int result = 0;

    // How often the receive thread has begun to wait for a connection.
    static size_t waits()
    {
        size_t count = 0;
        for (const std::string& call : fake_world().calls("select "))
            count += call.find(" 0 1000000") != std::string::npos ? 1 : 0;
        return count;
    }

    // Waits until it has done so more often, or has ended.
    bool receives(size_t before)
    {
        EXPECT_TRUE(
            wait_for([this, before] { return waits() > before || flag_get(&ctx.running) == 0; }));
        return flag_get(&ctx.running) != 0;
    }

    void plug()
    {
        if (!receives(0))
            return;
        const size_t before = waits();
        send_message(message);
        receives(before);
    }

    void idle()
    {
        pauses++;
        if (pauses == 2)
            plug();
        if (pauses >= pauses_of_a_run) {
            flag_set(&ctx.running, 0);
            send_message(""); // wakes the receive thread
        }
    }

    Scenario scenario()
    {
        Scenario made;
        made.threads = true;
        made.prepare = [this] {
            mkdir("/tmp/dev", 0755);
            mkdir("/tmp/mnt", 0755);
            unlink("/tmp/dev/sda1");
            rmdir("/tmp/mnt/sda1");
            write_file("/tmp/sweep.conf", "mountpath=/tmp/mnt\ndevicepath=/tmp/dev\nvfatoptions=x\n"
                                          "ntfsoptions=y\nextfsoptions=z\n");
            write_file("/etc/mtab", "");
            fake_world().media["/tmp/dev/sda1"] = {"ext4", 0};
            fake_world().on_sleep = [this](uint64_t usec) {
                if (usec == idle_pause_usec)
                    idle();
            };
            ctx = {};
            ctx.running = 1;
            strcpy(ctx.confpath, "/tmp/sweep.conf");
            pauses = 0;
        };
        made.run = [this] { result = daemon_run(&ctx); };
        made.check = [this](bool struck) {
            EXPECT_TRUE(result == 0 || (struck && result == -1));
            EXPECT_EQ(ctx.running, 0);
            EXPECT_EQ(ctx.config, nullptr);
        };
        made.keeps_options = true;
        return made;
    }
};

TEST(Sweep, ADaemonsLifeWithoutMemory)
{
    DaemonRun run;
    sweep_allocations(run.scenario());
}

TEST(Sweep, ADaemonsLifeWithFailingCalls)
{
    DaemonRun run;
    sweep_calls(run.scenario());
}

} // namespace
