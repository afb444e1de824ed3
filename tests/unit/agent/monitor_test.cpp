// The monitor in a process of its own, told of events by the test, before a daemon that notes what
// it is told.
#include "agent/limits.h"
#include "agent/modes.h"
#include "common/clock.h"
#include "fake_netlink.h"
#include "fake_sysfs.h"
#include "support/child.h"
#include "support/files.h"
#include "test_daemon.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>

using Told = std::vector<std::string>;

static constexpr char state[] = "/tmp/agent.state";

// The system call that this kernel does not have; 0 for none.
static long missing_call;

extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...);

long __wrap_syscall(long number, ...)
{
    if (number == missing_call && number != 0) {
        errno = ENOSYS;
        return -1;
    }
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3],
                          arguments[4], arguments[5]);
}

class MonitorTest : public testing::Test {
  protected:
    MonitorTest()
    {
        daemon_forget_record();
        fake_netlink_open();
    }
    ~MonitorTest() override
    {
        EXPECT_EQ(agent_ > 0 ? stop() : 0, 0);
        fake_netlink_close();
        unlink(state);
    }

    void start()
    {
        fflush(nullptr);
        agent_ = fork();
        if (agent_ != 0) {
            EXPECT_TRUE(wait_for([this] { return handles_signals(); }));
            return;
        }
        const AgentSettings settings = {
            AGENT_MONITOR, false, 0, FakeSysfs::root, FakeSysfs::proc, FakeSysfs::mounts, state_};
        exit(monitor_run(settings));
    }

    // Or has ended.
    bool handles_signals() const
    {
        const std::string status = read_file("/proc/" + std::to_string(agent_) + "/status");
        return !exists("/proc/" + std::to_string(agent_)) ||
               status.find("zombie") != std::string::npos || blocked_signals() == signals;
    }

    // Of those that it handles, as a mask.
    uint64_t blocked_signals() const
    {
        const std::string status = read_file("/proc/" + std::to_string(agent_) + "/status");
        const size_t mask = status.find("SigBlk:");
        if (mask == std::string::npos)
            return 0;
        return strtoull(status.c_str() + mask + 7, nullptr, 16) & signals;
    }

    static constexpr uint64_t signals =
        uint64_t{1} << (SIGTERM - 1) | uint64_t{1} << (SIGINT - 1) | uint64_t{1} << (SIGHUP - 1);

    // Ends it with a signal and returns its exit status.
    int stop(int number = SIGTERM)
    {
        kill(agent_, number);
        int status = 0;
        EXPECT_EQ(waitpid(agent_, &status, 0), agent_);
        agent_ = -1;
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

    // How many processes it watches.
    int watched() const
    {
        int count = 0;
        for (const auto& entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(agent_) + "/fd")) {
            std::error_code gone_meanwhile;
            const std::string kind = std::filesystem::read_symlink(entry.path(), gone_meanwhile);
            count += kind.find("pidfd") != std::string::npos ? 1 : 0;
        }
        return count;
    }

    bool is_asleep() const
    {
        return read_file("/proc/" + std::to_string(agent_) + "/stat").find(") S ") !=
               std::string::npos;
    }

    void plug()
    {
        sysfs_.add_stick("sda", "8:0");
        sysfs_.add_partition("sda", "sda1", "8:1");
    }

    // Waits until the daemons have been told this much, which must be this.
    static void expect_told(const Told& wanted)
    {
        EXPECT_TRUE(wait_for([&] { return daemon_told().size() >= wanted.size(); }));
        EXPECT_EQ(daemon_told(), wanted);
    }

    // An unknown device's remove comes through when all that came before it has.
    void expect_nothing_more(const Told& wanted)
    {
        fake_netlink_send("remove", "/block/sdz", 8, 400 + marks_);
        Told all = wanted;
        for (int i = 0; i <= marks_; i++)
            all.push_back("-8:" + std::to_string(400 + i));
        marks_++;
        EXPECT_TRUE(wait_for([&] { return daemon_told().size() >= all.size(); }));
        Told told = daemon_told();
        std::erase_if(told, [](const std::string& text) { return text.rfind("-8:4", 0) == 0; });
        EXPECT_EQ(told, wanted);
    }

    FakeSysfs sysfs_;
    pid_t agent_ = -1;
    const char* state_ = state;
    int marks_ = 0;
};

TEST_F(MonitorTest, TellsOfWhatIsPluggedAndOfWhatComesAndGoes)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    sysfs_.add_card("mmcblk0", "179:0");
    sysfs_.add_partition("mmcblk0", "mmcblk0p1", "179:1");
    fake_netlink_send("add", "/block/mmcblk0", 179, 0);
    fake_netlink_send("add", "/block/mmcblk0/mmcblk0p1", 179, 1);
    fake_netlink_send("add", "/block/sda", 8, 0); // was told before
    expect_told({"+8:0", "+8:1", "+179:0", "+179:1"});
    sysfs_.remove_disk("sda");
    fake_netlink_send("remove", "/block/sda/sda1", 8, 1);
    fake_netlink_send("remove", "/block/sda", 8, 0);
    expect_nothing_more({"+8:0", "+8:1", "+179:0", "+179:1", "-8:1", "-8:0"});
}

TEST_F(MonitorTest, PassesOverWhatIsNoEventOfItsKind)
{
    TestDaemon daemon;
    plug();
    start();
    expect_told({"+8:0", "+8:1"});
    for (const char* bytes : {"foreign", "", "rubbish", "add@/x"})
        fake_netlink_send_bytes(bytes);
    fake_netlink_send_bytes(std::string(8192, 'a'));
    fake_netlink_send("remove", "/block/../sda", 8, 0);
    fake_netlink_send("remove", "/block/loop0", 7, 0);
    fake_netlink_send("bind", "/block/sda", 8, 0);
    expect_nothing_more({"+8:0", "+8:1"});
}

TEST_F(MonitorTest, TellsOfAChangedMedium)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.add_partition("sda", "sda2", "8:2");
    fake_netlink_send("change", "/block/sda", 8, 0, "DISK_EJECT_REQUEST=1\n");
    fake_netlink_send("change", "/block/sda", 8, 0, "DISK_MEDIA_CHANGE=1\n");
    expect_nothing_more({"+8:0", "+8:1", "-8:1", "-8:0", "+8:0", "+8:2"});
}

TEST_F(MonitorTest, LooksThroughEverythingWhenEventsWereLost)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    sysfs_.add_stick("sdb", "8:16");
    sysfs_.remove_partition("sda", "sda1");
    fake_netlink_send_bytes("lost");
    expect_nothing_more({"+8:0", "+8:1", "-8:1", "+8:16"});
}

TEST_F(MonitorTest, LooksThroughEverythingAfterAHangup)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    sysfs_.add_stick("sdb", "8:16");
    kill(agent_, SIGHUP);
    expect_told({"+8:0", "+8:1", "+8:16"});
    kill(agent_, SIGHUP);
    expect_nothing_more({"+8:0", "+8:1", "+8:16"});
}

TEST_F(MonitorTest, WaitsForTheDaemon)
{
    plug();
    start();
    usleep(500000); // it tries in vain
    sysfs_.add_stick("sdb", "8:16");
    fake_netlink_send("add", "/block/sdb", 8, 16);
    const TestDaemon daemon;
    expect_told({"+8:0", "+8:1", "+8:16"});
    expect_nothing_more({"+8:0", "+8:1", "+8:16"});
}

TEST_F(MonitorTest, WaitsForTheDaemonFromTheFirstEventOn)
{
    start();
    EXPECT_TRUE(wait_for([this] { return is_asleep(); })); // nothing is plugged
    const TestDaemon daemon;
    plug();
    fake_netlink_send("add", "/block/sda", 8, 0);
    fake_netlink_send("add", "/block/sda/sda1", 8, 1);
    expect_told({"+8:0", "+8:1"});
    expect_nothing_more({"+8:0", "+8:1"});
}

TEST_F(MonitorTest, TellsADaemonThatWasRestartedOfEverything)
{
    plug();
    auto daemon = std::make_unique<TestDaemon>();
    start();
    expect_told({"+8:0", "+8:1"});
    for (int turn = 0; turn < 2; turn++) {
        daemon->end();
        daemon_forget_record();
        daemon = std::make_unique<TestDaemon>();
        expect_told({"+8:0", "+8:1"});
    }
}

TEST_F(MonitorTest, WatchesOneDaemonAfterRestarts)
{
    plug();
    auto daemon = std::make_unique<TestDaemon>();
    start();
    expect_told({"+8:0", "+8:1"});
    if (watched() == 0)
        GTEST_SKIP() << "this system has no pidfd_open";
    for (int turn = 0; turn < 3; turn++) {
        EXPECT_EQ(watched(), 1) << turn;
        daemon->end();
        daemon_forget_record();
        daemon = std::make_unique<TestDaemon>();
        expect_told({"+8:0", "+8:1"});
    }
    EXPECT_EQ(watched(), 1);
}

#ifdef SYS_pidfd_open
TEST_F(MonitorTest, TellsADaemonOnceThatItCannotWatch)
{
    missing_call = SYS_pidfd_open;
    plug();
    auto daemon = std::make_unique<TestDaemon>();
    start();
    missing_call = 0;
    expect_told({"+8:0", "+8:1"});
    expect_nothing_more({"+8:0", "+8:1"});
    expect_nothing_more({"+8:0", "+8:1"});
    EXPECT_EQ(watched(), 0);
    daemon.reset();
    daemon_forget_record();
    daemon = std::make_unique<TestDaemon>();
    fake_netlink_send("add", "/block/loop0", 7, 0); // at each event it looks for the daemon
    expect_told({"+8:0", "+8:1"});
}
#endif

TEST_F(MonitorTest, TellsANewDaemonNothingOfThePast)
{
    plug();
    auto daemon = std::make_unique<TestDaemon>();
    start();
    expect_told({"+8:0", "+8:1"});
    daemon->stop();
    sysfs_.remove_disk("sda");
    fake_netlink_send("remove", "/block/sda/sda1", 8, 1);
    fake_netlink_send("remove", "/block/sda", 8, 0);
    sysfs_.add_stick("sdb", "8:16");
    fake_netlink_send("add", "/block/sdb", 8, 16);
    daemon->end();
    daemon_forget_record();
    daemon = std::make_unique<TestDaemon>();
    expect_told({"+8:16"});
}

TEST_F(MonitorTest, TellsNothingTwiceWhenItIsStartedAgain)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    EXPECT_EQ(stop(), 0);
    start();
    expect_nothing_more({"+8:0", "+8:1"});
}

TEST_F(MonitorTest, TellsOfTheDifferencesWhenItIsStartedAgain)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    EXPECT_EQ(stop(SIGINT), 0);
    sysfs_.remove_partition("sda", "sda1");
    sysfs_.add_stick("sdb", "8:16");
    start();
    expect_nothing_more({"+8:0", "+8:1", "-8:1", "+8:16"});
}

TEST_F(MonitorTest, TakesADeviceBackThatAnotherReplacedWhileItDidNotRun)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    EXPECT_EQ(stop(), 0);
    sysfs_.remove_disk("sda");
    sysfs_.add_stick("sda", "8:0", {{"serial", "OTHER"}});
    sysfs_.add_partition("sda", "sda1", "8:1");
    start();
    expect_nothing_more({"+8:0", "+8:1", "-8:1", "-8:0", "+8:0", "+8:1"});
}

TEST_F(MonitorTest, TellsANewDaemonOfEverythingWhenBothAreStartedAgain)
{
    plug();
    auto daemon = std::make_unique<TestDaemon>();
    start();
    expect_told({"+8:0", "+8:1"});
    EXPECT_EQ(stop(), 0);
    daemon->end();
    daemon_forget_record();
    daemon = std::make_unique<TestDaemon>();
    start();
    expect_nothing_more({"+8:0", "+8:1"});
}

TEST_F(MonitorTest, KnowsWhatItToldAfterItWasKilled)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    EXPECT_TRUE(wait_for([] { return read_file(state).find(" sda1 ") != std::string::npos; }));
    EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
    start();
    expect_nothing_more({"+8:0", "+8:1"});
}

// A pipe opens only when somebody opens its other end: it stands for a drive that takes its time.
TEST_F(MonitorTest, ADriveThatTakesItsTimeKeepsNobodyWaiting)
{
    ASSERT_EQ(mkfifo("/dev/sda", 0600), 0);
    sysfs_.add_stick("sda", "8:0", {}, {{"size", "0"}});
    sysfs_.add_stick("sdb", "8:16");
    const TestDaemon daemon;
    start();
    expect_told({"+8:16"});
    EXPECT_EQ(blocked_signals(), signals);
    sysfs_.remove_disk("sdb");
    EXPECT_EQ(kill(agent_, SIGHUP), 0);
    expect_told({"+8:16", "-8:16"});
    const std::string children =
        "/proc/" + std::to_string(agent_) + "/task/" + std::to_string(agent_) + "/children";
    const pid_t asker = atoi(read_file(children).c_str()); // in the drive still
    EXPECT_GT(asker, 0);
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(wait_for([asker] { return kill(asker, 0) != 0; })) << "is left behind";
    unlink("/dev/sda");
}

TEST_F(MonitorTest, WaitsAMomentForAMessageUnderWayWhenItEnds)
{
    plug();
    TestDaemonManners manners;
    manners.holds = true;
    const TestDaemon daemon(manners);
    start();
    expect_told({"+8:0"});
    const uint64_t before = clock_now();
    EXPECT_EQ(stop(), 0);
    EXPECT_LT(clock_now() - before, agent_close_wait - 500);
    EXPECT_NE(read_file(state).find(" sda "), std::string::npos); // it counts as delivered
    EXPECT_EQ(daemon_told(), Told{"+8:0"});
}

TEST_F(MonitorTest, TakesAMessageUnderWayForDeliveredWhenItEnds)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    daemon.stop();
    sysfs_.add_stick("sdb", "8:16");
    sysfs_.add_stick("sdc", "8:32");
    fake_netlink_send("add", "/block/sdb", 8, 16);
    fake_netlink_send("add", "/block/sdc", 8, 32);
    usleep(300000); // the first is under way, most likely; if not, nothing else comes out
    EXPECT_EQ(stop(), 0);
    daemon.go_on();
    start();
    expect_nothing_more({"+8:0", "+8:1", "+8:16", "+8:32"});
}

TEST_F(MonitorTest, TellsOfTheOthersWhileOneDeviceCannotBeLookedAt)
{
    plug();
    sysfs_.add_stick("sdb", "8:16");
    const std::string holders = std::string(FakeSysfs::root) + "/block/sdb/holders";
    ASSERT_EQ(rmdir(holders.c_str()), 0);
    write_file(holders, "");
    const TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    expect_nothing_more({"+8:0", "+8:1"});
    unlink(holders.c_str());
    ASSERT_EQ(mkdir(holders.c_str(), 0755), 0);
    EXPECT_TRUE(wait_for([] { // by itself
        const Told told = daemon_told();
        return std::find(told.begin(), told.end(), "+8:16") != told.end();
    }));
}

TEST_F(MonitorTest, NeedsNoStateFile)
{
    state_ = "";
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    EXPECT_EQ(stop(), 0);
    EXPECT_FALSE(exists(state));
    start();
    expect_nothing_more({"+8:0", "+8:1", "+8:0", "+8:1"}); // as is to be expected
}

TEST_F(MonitorTest, RunsWithoutADirectoryForItsStateFile)
{
    state_ = "/tmp/nothing/state";
    plug();
    TestDaemon daemon;
    start();
    expect_nothing_more({"+8:0", "+8:1"});
}

TEST_F(MonitorTest, TakesAStateFileThatIsNoneForNothing)
{
    write_file(state, "vyhotplug-agent 1\ndaemon x");
    plug();
    TestDaemon daemon;
    start();
    expect_nothing_more({"+8:0", "+8:1"});
}

TEST_F(MonitorTest, SendsAgainWhatTheDaemonDidNotRead)
{
    plug();
    TestDaemonManners manners;
    manners.unread = 3;
    TestDaemon daemon(manners);
    start();
    expect_nothing_more({"unread", "unread", "unread", "+8:0", "+8:1"});
}

TEST_F(MonitorTest, ReadsEventsWhileTheDaemonStandsStill)
{
    plug();
    TestDaemon daemon;
    start();
    expect_told({"+8:0", "+8:1"});
    daemon.stop();
    for (int i = 2; i < 200; i++) { // more than fit between the two unless somebody reads
        sysfs_.add_partition("sda", "sda" + std::to_string(i), "8:" + std::to_string(i));
        fake_netlink_send("add", "/block/sda/sda" + std::to_string(i), 8, i);
    }
    daemon.go_on();
    Told wanted;
    for (int i = 0; i < 200; i++)
        wanted.push_back("+8:" + std::to_string(i));
    expect_nothing_more(wanted);
}

TEST_F(MonitorTest, EndsWhileItWaitsForTheDaemon)
{
    plug();
    start();
    usleep(300000);
    EXPECT_EQ(stop(), 0);
}

TEST_F(MonitorTest, FailsWhereThereIsNoListening)
{
    fake_netlink_close();
    start();
    int status = 0;
    EXPECT_EQ(waitpid(agent_, &status, 0), agent_);
    agent_ = -1;
    EXPECT_EQ(WEXITSTATUS(status), 1);
}
