// Pid files, sockets, children and clocks with every call failing once.
#include "fake/fake_world.h"
#include "lib/process.h"
#include "lib/socket_unix.h"
#include "lib/vytime.h"
#include "support/files.h"
#include "sweep/sweep.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <unistd.h>

namespace {

TEST(Sweep, TakingTheLockWithFailingCalls)
{
    int fd = -1;
    Scenario scenario;
    scenario.run = [&] { fd = vy_create_pid_file("sweep"); };
    scenario.prepare = [] { unlink("/var/run/sweep.pid"); };
    scenario.finish = [&] {
        if (fd >= 0)
            close(fd);
    };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(struck ? fd == -1 : fd >= 0);
        if (fd >= 0) {
            EXPECT_EQ(read_file("/var/run/sweep.pid"), std::to_string(getpid()) + "\n");
        }
    };
    sweep_calls(scenario);
}

TEST(Sweep, SignallingByPidFileWithFailingCalls)
{
    int result = 0;
    Scenario scenario;
    scenario.prepare = [] { write_file("/var/run/other.pid", "812\n"); };
    scenario.run = [&] { result = vy_sigsend_pid_file("/var/run/other.pid", 1); };
    scenario.check = [&](bool struck) {
        // Who signals and who does not: a close that fails changes nothing.
        EXPECT_EQ(result == 0, !fake_world().signals.empty());
        EXPECT_TRUE(struck || result == 0);
    };
    sweep_calls(scenario);
}

TEST(Sweep, AConversationWithFailingCalls)
{
    int listener = -1;
    int client = -1;
    int server = -1;
    ssize_t sent = 0;
    ssize_t received = 0;
    char buffer[16];
    Scenario scenario;
    scenario.prepare = [&] { listener = client = server = -1; };
    scenario.run = [&] {
        sent = received = 0;
        listener = unix_create_listen_socket("sweep");
        if (listener < 0)
            return;
        client = unix_create_socket("sweep");
        if (client < 0)
            return;
        server = unix_accept_addr(listener, nullptr, nullptr);
        if (server < 0)
            return;
        sent = unix_send(client, "hello", 6, 0, 1000);
        received = unix_recieve(server, buffer, sizeof buffer, 0, 1000);
    };
    scenario.finish = [&] {
        for (const int fd : {listener, client, server}) {
            if (fd >= 0)
                close(fd);
        }
    };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(struck || (sent == 6 && received == 6));
        EXPECT_TRUE(listener >= 0 || (client == -1 && server == -1));
    };
    sweep_calls(scenario);
}

TEST(Sweep, ChildrenWithFailingCalls)
{
    pid_t pid = 0;
    int waited = 0;
    int status = 0;
    int fds[3] = {-1, -1, -1};
    Scenario scenario;
    scenario.prepare = [&] {
        fake_world().programs["tool"] = {FakeRun{3 << 8, 2, ""}};
        fds[0] = fds[1] = fds[2] = -1;
        status = 0;
    };
    scenario.run = [&] {
        char name[] = "tool";
        char* const argv[] = {name, nullptr};
        pid = vy_fork_exec("tool", argv, &fds[0], &fds[1], &fds[2]);
        waited = pid > 0 ? vy_wait(pid, VY_WAIT_INTERRUPT, &status, 2000) : -1;
    };
    scenario.finish = [&] {
        for (const int fd : fds) {
            if (fd >= 0)
                close(fd);
        }
    };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(struck || (pid > 0 && waited == 0 && status == 3));
        EXPECT_TRUE(pid > 0 || fds[0] + fds[1] + fds[2] == -3);
        EXPECT_TRUE(waited <= 0);
    };
    sweep_calls(scenario);
}

TEST(Sweep, ClocksWithFailingCalls)
{
    vytime now = {.low = 7, .high = 7};
    int read = 0;
    int slept = 0;
    Scenario scenario;
    scenario.prepare = [&] { now = {.low = 7, .high = 7}; };
    scenario.run = [&] {
        read = vytime_get(&now, CLOCK_MONOTONIC);
        slept = vytime_msleep(1500);
    };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(struck || (read == 0 && slept == 0));
        EXPECT_TRUE(read == 0 || (now.low == 7 && now.high == 7));
        // An interrupted sleep goes on; another failure ends it.
        EXPECT_TRUE(slept == 0 ? fake_world().slept_usec == 1500000 : slept == -1);
    };
    sweep_calls(scenario);
}

} // namespace
