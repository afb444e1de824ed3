// A bridge that serves in a process of its own, and the whole program around it, with Samba's
// table.
#include "share/serve.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "samba/samba_server.h"
#include "share/share_program.h"
#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr int patience_ms = 10000;
const std::string share_file = "/tmp/vynas.dir.conf";
const std::string place = "/tmp/hotplug";
const std::string include_path = "/tmp/samba/shares.conf";
const std::string own_file = "/tmp/bridge.conf";
const std::string service_file = "/tmp/service.conf";
const std::string log_file = "/tmp/log";
const std::string pid_file = "/var/run/vynas-fssd.pid";

const std::string fixed = "[Fixed]\nPath=/tmp/fixed\n";
const std::string stick = "[Stick]\nPath=/tmp/hotplug/sda1\nIdentifier=1234:00ab:A:1\n";

class ServeTest : public testing::Test {
  protected:
    ServeTest()
    {
        FakeRun succeeds;
        fake_world().programs["smbcontrol"].assign(100, succeeds);
        for (const char* directory : {"/tmp/fixed", "/tmp/hotplug", "/tmp/hotplug/sda1"})
            mkdir(directory, 0755);
        EXPECT_EQ(mount("disk", "/tmp/hotplug/sda1", "tmpfs", 0, nullptr), 0);
        write_file(own_file, "includepath = " + include_path + "\n");
        write_file(service_file, "smbconfigpath = " + share_file + "\nmountpath = " + place + "\n");
        write_file(share_file, fixed);
    }
    ~ServeTest() override
    {
        if (child_ > 0)
            (void)end(SIGKILL);
        fake_world_reset();
    }

    // Serves in a child, which does `before` first and leaves its log in a file.
    void start(const std::function<void()>& before = {})
    {
        child_ = fork();
        if (child_ == 0)
            _exit(serve(before));
        EXPECT_GT(child_, 0);
    }

    static int serve(const std::function<void()>& before)
    {
        const BridgeConfigGuard config(bridge_config_load(own_file.c_str(), &samba_server.keys));
        Bridge bridge = {};
        bridge_init(&bridge, &samba_server, config.get(), share_file.c_str(), place.c_str(),
                    nullptr);
        fake_log_clear();
        serve_block_signals();
        if (before)
            before();
        const int status = serve_until_told(&bridge);
        const rlimit enough = {256, 256};
        (void)setrlimit(RLIMIT_NOFILE, &enough);
        std::string log;
        for (const FakeLogLine& line : fake_log_lines())
            log += std::to_string(line.priority) + line.text.substr(line.text.find(')')) + "\n";
        write_file(log_file, log);
        return status;
    }

    void tell(int number) const { EXPECT_EQ(kill(child_, number), 0); }

    // The child's exit status.
    int end(int number)
    {
        tell(number);
        return wait_for_end();
    }
    int wait_for_end()
    {
        int status = 0;
        const bool ended =
            wait_for([&] { return waitpid(child_, &status, WNOHANG) == child_; }, patience_ms);
        EXPECT_TRUE(ended);
        if (!ended) {
            (void)kill(child_, SIGKILL);
            (void)waitpid(child_, &status, 0);
        }
        child_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    }

    // Whether the list of shares comes to hold so many.
    static bool comes_to(size_t shares)
    {
        return wait_for(
            [&] {
                const std::string text = read_file(include_path);
                size_t count = 0;
                for (size_t at = 0; (at = text.find("\tpath = ", at)) != std::string::npos; at++)
                    count++;
                return text.find("[global]") != std::string::npos && count == shares;
            },
            patience_ms);
    }

    static bool logged(const std::string& line)
    {
        return ("\n" + read_file(log_file)).find("\n" + line + "\n") != std::string::npos;
    }

    static ChildResult program(Texts arguments)
    {
        arguments.insert(arguments.begin(), {"vynas-samba", "-f", service_file, "-c", own_file});
        return run_main(
            [](int argc, char* argv[]) { return share_program(argc, argv, &samba_server); },
            arguments);
    }

    pid_t child_ = -1;
};

} // namespace

// ---- what is waited for ----

TEST_F(ServeTest, RefreshesAtItsStartAndWheneverItIsTold)
{
    start();
    ASSERT_TRUE(comes_to(1));
    for (const size_t shares : {2U, 1U, 2U}) {
        write_file(share_file, shares == 2 ? fixed + stick : fixed);
        tell(SIGHUP);
        ASSERT_TRUE(comes_to(shares));
    }
    EXPECT_EQ(end(SIGTERM), EXIT_SUCCESS);
    EXPECT_TRUE(logged("6)start"));
    EXPECT_TRUE(logged("6)end"));
}

TEST_F(ServeTest, AnInterruptEndsItToo)
{
    start();
    ASSERT_TRUE(comes_to(1));
    EXPECT_EQ(end(SIGINT), EXIT_SUCCESS);
}

TEST_F(ServeTest, WhatIsUnmountedGoesByItself)
{
    write_file(share_file, fixed + stick);
    start();
    ASSERT_TRUE(comes_to(2));
    ASSERT_EQ(umount("/tmp/hotplug/sda1"), 0);
    ASSERT_TRUE(comes_to(1));
    EXPECT_EQ(end(SIGTERM), EXIT_SUCCESS);
}

TEST_F(ServeTest, IsSlowedDownByNobodyButNeverSlowsItselfDown)
{
    constexpr struct {
        int before;
        int served;
    } rows[] = {{0, -15}, {5, -15}, {-15, -15}, {-20, -20}};
    const int usual = getpriority(PRIO_PROCESS, 0);
    if (setpriority(PRIO_PROCESS, 0, -20) != 0)
        GTEST_SKIP() << "this system gives no right to be urgent";
    ASSERT_EQ(setpriority(PRIO_PROCESS, 0, usual), 0);
    for (const auto& row : rows) {
        unlink(include_path.c_str());
        start([&] { (void)setpriority(PRIO_PROCESS, 0, row.before); });
        ASSERT_TRUE(comes_to(1));
        EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(child_)), row.served);
        EXPECT_EQ(end(SIGTERM), EXIT_SUCCESS);
    }
}

TEST_F(ServeTest, WithoutSignalsItDoesNotServe)
{
    start([] {
        const rlimit none = {0, 256};
        (void)setrlimit(RLIMIT_NOFILE, &none);
    });
    EXPECT_EQ(wait_for_end(), EXIT_FAILURE);
    EXPECT_EQ(read_file(log_file), "3)cannot wait for signals (24)\n");
    EXPECT_FALSE(exists(include_path));
}

TEST_F(ServeTest, WithoutTheTableOfMountsItServesAllTheSame)
{
    start([] {
        const auto next = static_cast<rlim_t>(dup(0));
        close(static_cast<int>(next));
        const rlimit one_more = {next + 1, 256};
        (void)setrlimit(RLIMIT_NOFILE, &one_more);
        raise(SIGTERM); // blocked: what it hears first
    });
    EXPECT_EQ(wait_for_end(), EXIT_SUCCESS);
    EXPECT_TRUE(logged("4)/proc/self/mountinfo cannot be watched (24)"));
    EXPECT_TRUE(logged("6)end"));
}

// ---- the program ----

TEST_F(ServeTest, TheProgramTellsWhatItIs)
{
    const ChildResult help = program({"--help"});
    EXPECT_EQ(help.status, EXIT_SUCCESS);
    EXPECT_EQ(help.out, samba_server.help);
    EXPECT_EQ(help.err, "");
    const ChildResult version = program({"--version"});
    EXPECT_EQ(version.status, EXIT_SUCCESS);
    EXPECT_EQ(version.out.rfind("vynas-samba ", 0), 0U);
    const ChildResult wrong = program({"more"});
    EXPECT_EQ(wrong.status, EXIT_FAILURE);
    EXPECT_EQ(wrong.out, "");
    EXPECT_EQ(wrong.err, samba_server.help);
}

TEST_F(ServeTest, TheProgramPrintsTheListAndWritesNone)
{
    const ChildResult result = program({"--print"});
    EXPECT_EQ(result.status, EXIT_SUCCESS);
    EXPECT_NE(result.out.find("\n\tpath = /tmp/fixed\n"), std::string::npos);
    EXPECT_FALSE(exists(include_path));
}

TEST_F(ServeTest, TheProgramWritesTheListOnce)
{
    EXPECT_EQ(program({"--once"}).status, EXIT_SUCCESS);
    ASSERT_TRUE(comes_to(1));
    EXPECT_EQ(unlink(include_path.c_str()), 0);
    EXPECT_EQ(mkdir(include_path.c_str(), 0755), 0);
    EXPECT_EQ(program({"--once"}).status, EXIT_FAILURE);
}

TEST_F(ServeTest, TheProgramServesAloneAndLeavesNoPidBehind)
{
    child_ = fork();
    if (child_ == 0)
        _exit(program({}).status);
    ASSERT_TRUE(comes_to(1));
    const ChildResult second = program({});
    EXPECT_EQ(second.status, EXIT_FAILURE);
    const int served = std::stoi(read_file(pid_file));
    EXPECT_EQ(kill(served, SIGTERM), 0);
    EXPECT_EQ(wait_for_end(), EXIT_SUCCESS);
    EXPECT_TRUE(exists(pid_file));
    EXPECT_EQ(read_file(pid_file), "");
}

// Whoever starts it may have closed its input: the lock is descriptor 0 then, or the signals are.
TEST_F(ServeTest, TheFirstDescriptorIsAsGoodAsAnyOther)
{
    start([] { close(STDIN_FILENO); });
    ASSERT_TRUE(comes_to(1));
    EXPECT_EQ(end(SIGTERM), EXIT_SUCCESS);
    unlink(include_path.c_str());
    child_ = fork();
    if (child_ == 0) {
        close(STDIN_FILENO);
        _exit(program({}).status);
    }
    ASSERT_TRUE(comes_to(1));
    EXPECT_EQ(kill(std::stoi(read_file(pid_file)), SIGTERM), 0);
    EXPECT_EQ(wait_for_end(), EXIT_SUCCESS);
}

TEST_F(ServeTest, TheProgramNeedsNoneOfItsFiles)
{
    unlink(own_file.c_str());
    unlink(service_file.c_str());
    EXPECT_EQ(program({"--print"}).status, EXIT_SUCCESS);
}
