#include "tools/mount_client.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "lib/guard.h"
#include "lib/socket_unix.h"
#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <ostream>
#include <thread>

namespace {

const char mount_usage[] = "mount command.\n"
                           "Usage : vymount {option}.\n"
                           "\n"
                           "option:\n"
                           "  all     : mount all hotplug device.\n"
                           "  sd      : mount all scsi disk device.\n"
                           "  sda     : mount sda.\n"
                           "  sda0    : mount sda0. (set able 0 to 15)\n"
                           "  mmcblk  : mount all mmc block device.\n"
                           "\n";
const char unmount_usage[] = "unmount command.\n"
                             "Usage : vyunmount {option}.\n"
                             "\n"
                             "option:\n"
                             " all     : umount all hotplug device.\n"
                             " sd      : umount all sd device.\n"
                             " sda     : umount sda.\n"
                             " sda0    : umount sda0. (set able 0 to 15)\n"
                             " mmcblk  : umount all mmc block device.\n"
                             "\n";

struct Client {
    const char* word;
    int (*run)(int argc, char* argv[]);
    int (*command)(const char* target);
    const char* usage;
    const char* answer_wait; // microseconds
};

void PrintTo(const Client& client, std::ostream* out)
{
    *out << client.word;
}

const Client clients[] = {
    {"mount", hotplug_mount_main, hotplug_cmd_mount, mount_usage, "60000000"},
    {"unmount", hotplug_unmount_main, hotplug_cmd_unmount, unmount_usage, "30000000"},
};

// Waits for a descriptor for a minute at most.
bool is_readable(int fd)
{
    pollfd waiting = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&waiting, 1, 60000) == 1;
}

// What a daemon hears on one connection, to which it gives an answer.
class FakeDaemon {
  public:
    explicit FakeDaemon(std::string answer) : answer_(std::move(answer)) {}

    // In a thread of its own.
    void serve()
    {
        thread_ = std::thread([this] { take_connection(); });
    }

    // What came, until the client closed; "nobody" when none connected.
    std::string heard()
    {
        thread_.join();
        return heard_;
    }

    int listener() const { return listener_.get(); }

  private:
    void take_connection()
    {
        if (!is_readable(listener_.get()))
            return;
        const FdGuard connection(accept(listener_.get(), nullptr, nullptr));
        heard_ = receive(connection.get());
        if (heard_.empty())
            return;
        EXPECT_EQ(send(connection.get(), answer_.data(), answer_.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(answer_.size()));
    }

    static std::string receive(int fd)
    {
        char buffer[1024];
        const ssize_t length = is_readable(fd) ? recv(fd, buffer, sizeof buffer, 0) : 0;
        return std::string(buffer, length > 0 ? static_cast<size_t>(length) : 0);
    }

    FdGuard listener_{unix_create_listen_socket("vyhotplugd")};
    std::string answer_;
    std::string heard_ = "nobody";
    std::thread thread_;
};

class ClientTest : public testing::TestWithParam<Client> {
  protected:
    const Client& client() const { return GetParam(); }

    std::string name() const { return std::string("vy") + client().word; }

    std::string line(const std::string& target, const std::string& outcome) const
    {
        return std::string(client().word) + " " + target + " - " + outcome + ".\n";
    }

    // Runs the client, with the daemon beside it in the same child.
    ChildResult ask(FakeDaemon* daemon, const std::vector<std::string>& arguments)
    {
        std::vector<std::string> all = {name()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return run_child([&] {
            daemon->serve();
            const int result = call_main(client().run, all);
            write_file("/run/heard", daemon->heard());
            return result;
        });
    }

    // Asks for "sda1" and expects this outcome.
    void expect_outcome(const std::string& answer, const std::string& outcome)
    {
        FakeDaemon daemon(answer);
        const ChildResult result = ask(&daemon, {"sda1"});
        EXPECT_EQ(result.err, line("sda1", outcome)) << answer;
        EXPECT_EQ(result.out, "") << answer;
        EXPECT_EQ(result.status, 0) << answer;
    }

    static std::string heard() { return read_file("/run/heard"); }

    std::string message(const std::string& target) const
    {
        const std::string text = std::string("ACTION=") + client().word + "," + target;
        return std::string(text.c_str(), text.size() + 1);
    }
};

INSTANTIATE_TEST_SUITE_P(Each, ClientTest, testing::ValuesIn(clients),
                         [](const auto& row) { return std::string(row.param.word); });

// ---- before the daemon is asked ----

TEST_P(ClientTest, IsForRootOnly)
{
    FakeDaemon daemon("success");
    const ChildResult result = run_child([&] {
        (void)!setuid(65534);
        return call_main(client().run, {name(), "sda1"});
    });
    EXPECT_EQ(result.err, "root only.\n");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.status, 255);
    EXPECT_EQ(accept(daemon.listener(), nullptr, nullptr), -1); // nobody came
    EXPECT_EQ(errno, EAGAIN);
}

TEST_P(ClientTest, AsksForRootBeforeItLooksForATarget)
{
    const ChildResult result = run_child([&] {
        (void)!setuid(65534);
        return call_main(client().run, {name()});
    });
    EXPECT_EQ(result.err, "root only.\n");
}

TEST_P(ClientTest, WithoutATargetTellsHowToUseIt)
{
    const ChildResult result = run_main(client().run, {name()});
    EXPECT_EQ(result.err, client().usage);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.status, 255);
}

// ---- the outcome ----

TEST_P(ClientTest, TellsASuccess)
{
    expect_outcome(std::string("success", 8), "success");
}

// Kept: the exit status tells nothing.
TEST_P(ClientTest, TellsAFailureWithStatus0)
{
    expect_outcome(std::string("faild", 6), "failed");
}

TEST_P(ClientTest, OnlyTheAnswersFirstSevenBytesCount)
{
    expect_outcome("success", "success");
    expect_outcome("successful in every way", "success");
    expect_outcome("succes", "failed");
    expect_outcome(std::string("succes\0s", 8), "failed");
    expect_outcome("Success", "failed");
    expect_outcome(" success", "failed");
    expect_outcome("failed", "failed");
    expect_outcome(std::string(1, '\0'), "failed");
    expect_outcome("success" + std::string(500, '!'), "success");
}

TEST_P(ClientTest, ADaemonThatClosesWithoutAnAnswerIsAFailure)
{
    expect_outcome("", "failed");
}

// The name is free to everybody while the daemon does not run.
TEST_P(ClientTest, WhoTookTheDaemonsNameIsNotBelieved)
{
    const ChildResult result = run_child([&] {
        EXPECT_EQ(seteuid(1234), 0);
        FakeDaemon daemon("success"); // listens as somebody else
        EXPECT_EQ(seteuid(0), 0);
        daemon.serve();
        const int status = call_main(client().run, {name(), "sda1"});
        write_file("/run/heard", daemon.heard());
        return status;
    });
    EXPECT_EQ(result.err, line("sda1", "failed"));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(heard(), "") << "nothing is said to it";
}

// Between the connection and the message: no signal may end the client before it has told.
TEST_P(ClientTest, ADaemonThatClosesBeforeTheMessageIsAFailure)
{
    const ChildResult result = run_child([&] {
        FdGuard listener(unix_create_listen_socket("vyhotplugd"));
        fake_world().on_select = [&] { listener.reset(-1); };
        return call_main(client().run, {name(), "sda1"});
    });
    EXPECT_EQ(result.err, line("sda1", "failed"));
    EXPECT_EQ(result.status, 0);
}

TEST_P(ClientTest, WithoutADaemonItFails)
{
    const ChildResult result = run_main(client().run, {name(), "all"});
    EXPECT_EQ(result.err, line("all", "failed"));
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.status, 0);
}

TEST_P(ClientTest, TheLibraryLogsAMissingDaemon)
{
    EXPECT_EQ(client().command("all"), -1);
    ASSERT_EQ(fake_log_texts().size(), 1U);
    EXPECT_EQ(fake_log_texts()[0],
              "socket_unix(#)Error - connect (err=" + std::to_string(ECONNREFUSED) + ")");
}

// ---- the message ----

TEST_P(ClientTest, SendsTheTargetAsItIsWithAZeroByte)
{
    for (const char* target : {"sda1", "all", "no such thing", "a,force", ""}) {
        FakeDaemon daemon("success");
        EXPECT_EQ(ask(&daemon, {target}).err, line(target, "success"));
        EXPECT_EQ(heard(), message(target));
    }
}

TEST_P(ClientTest, IgnoresFurtherArguments)
{
    FakeDaemon daemon("success");
    EXPECT_EQ(ask(&daemon, {"sda1", "extra"}).err, line("sda1", "success"));
    EXPECT_EQ(heard(), message("sda1"));
}

TEST_P(ClientTest, AnOptionIsATargetToo)
{
    FakeDaemon daemon("faild");
    EXPECT_EQ(ask(&daemon, {"-h"}).err, line("-h", "failed"));
    EXPECT_EQ(heard(), message("-h"));
}

TEST_P(ClientTest, SendsAMessageOf127Characters)
{
    const std::string target(127 - message("").size() + 1, 'x');
    FakeDaemon daemon("success");
    EXPECT_EQ(ask(&daemon, {target}).err, line(target, "success"));
    EXPECT_EQ(heard().size(), 128U);
    EXPECT_EQ(heard(), message(target));
}

TEST_P(ClientTest, SendsNothingForATargetThatIsTooLong)
{
    for (const size_t length : {size_t{128}, size_t{129}, size_t{5000}}) {
        const std::string target(length - message("").size() + 1, 'x');
        FakeDaemon daemon("success");
        const ChildResult result = ask(&daemon, {target});
        EXPECT_EQ(result.err, line(target, "failed")) << length;
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(heard(), "") << length;
    }
}

// ---- waiting ----

TEST_P(ClientTest, WaitsForItsAnswerAsLongAsItsWorkMayTake)
{
    FakeDaemon daemon("");
    fake_world().select_expires = 2; // the message goes, no answer comes
    EXPECT_EQ(client().command("all"), -1);
    const std::vector<std::string> waits = fake_world().calls("select");
    ASSERT_EQ(waits.size(), 2U);
    EXPECT_NE(waits[0].find(" 1 1500000"), std::string::npos) << waits[0];
    EXPECT_NE(waits[1].find(std::string(" 0 ") + client().answer_wait), std::string::npos)
        << waits[1];
}

TEST_P(ClientTest, AMessageThatDoesNotGoInTimeIsAFailure)
{
    FakeDaemon daemon("");
    fake_world().select_expires = 1;
    EXPECT_EQ(client().command("all"), -1);
    EXPECT_EQ(fake_world().count("select"), 1); // no answer is waited for
}

TEST_P(ClientTest, AWaitThatFailsIsAFailure)
{
    for (const int nth : {1, 2}) {
        FakeDaemon daemon("");
        fake_world().fail("select", nth, EINTR);
        EXPECT_EQ(client().command("all"), -1) << nth;
        fake_world_reset();
    }
}

TEST_P(ClientTest, TellsTheFailureOfAWaitThatRanOut)
{
    FakeDaemon daemon("");
    const ChildResult result = run_child([&] {
        fake_world().select_expires = 2;
        return call_main(client().run, {name(), "sda1"});
    });
    EXPECT_EQ(result.err, line("sda1", "failed"));
    EXPECT_EQ(result.status, 0);
}

TEST_P(ClientTest, HoldsNoConnectionAfterwards)
{
    FakeDaemon daemon("success");
    const int before = open_descriptors();
    fake_world().select_expires = 1;
    EXPECT_EQ(client().command("all"), -1);
    EXPECT_EQ(client().command(std::string(500, 'x').c_str()), -1);
    fake_world().select_expires = 2;
    EXPECT_EQ(client().command("all"), -1);
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
