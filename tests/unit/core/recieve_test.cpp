#include "core/recieve.h"

#include "device/crtsec.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "fake_start.h"
#include "lib/guard.h"
#include "lib/platform.h"
#include "lib/socket_unix.h"
#include "support/child.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

class ReceiveTest : public testing::Test {
  protected:
    ReceiveTest() { EXPECT_EQ(crtsec_init(), 0); }

    ~ReceiveTest() override
    {
        stop();
        HotplugCmd* cmd = nullptr;
        while (crtsec_cmd_dequeue(&cmd) == 0)
            drop(cmd);
        crtsec_term();
    }

    static void drop(HotplugCmd* cmd)
    {
        if (cmd->due == 0 && fcntl(cmd->fd, F_GETFD) != -1)
            close(cmd->fd);
        hotplug_cmd_free(cmd);
    }

    void start()
    {
        ASSERT_EQ(recieve_run(&arg), 0);
        started = true;
    }

    // Ends the thread and gives what it ended with.
    intptr_t stop()
    {
        void* result = nullptr;
        flag_set(&running, 0);
        fake_world_lose_patience();
        if (started)
            pthread_join(arg.thread, &result);
        started = false;
        return reinterpret_cast<intptr_t>(result);
    }

    // A connection to the thread.
    static int connect_to_daemon()
    {
        EXPECT_TRUE(wait_for([] { return fake_world().count("select") > 0; })); // it listens
        const int fd = unix_create_socket("vyhotplugd");
        EXPECT_GE(fd, 0);
        return fd;
    }

    // Sends exactly these bytes on a connection of its own, which is returned.
    static int send_bytes(const std::string& bytes)
    {
        const int fd = connect_to_daemon();
        EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        return fd;
    }

    // As send_bytes, with the zero byte that ends a message.
    static int send_text(const std::string& text)
    {
        return send_bytes(std::string(text.c_str(), text.size() + 1));
    }

    static HotplugCmd* next_command()
    {
        HotplugCmd* cmd = nullptr;
        EXPECT_TRUE(wait_for([&] { return crtsec_cmd_dequeue(&cmd) == 0; }));
        return cmd;
    }

    // The thread's end of the connection that it has read from, once it waits for others again; -1
    // before that.
    static int end_in_daemon()
    {
        int fd = -1;
        bool waits = false;
        for (const std::string& call : fake_world().calls("select ")) {
            waits = call.find(" 0 1000000") != std::string::npos;
            if (!waits)
                fd = std::stoi(call.substr(strlen("select ")));
        }
        return waits ? fd : -1;
    }

    // Whether the thread closes the connection, which it does without an answer.
    static bool is_closed_by_daemon(int fd)
    {
        char byte = 0;
        return wait_for([&] { return recv(fd, &byte, 1, MSG_DONTWAIT) == 0; });
    }

    uint8_t running = 1;
    ReceiveArg arg = {.running = &running, .status = 77, .thread = {}};
    bool started = false;
};

TEST_F(ReceiveTest, QueuesARequestWithItsOpenConnection)
{
    start();
    const FdGuard fd(send_text("ACTION=mount,sda1"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_STREQ(cmd->text, "ACTION=mount,sda1");
    EXPECT_EQ(cmd->len, 18);
    EXPECT_EQ(cmd->due, 0U);
    EXPECT_EQ(cmd->reserved, 0);
    ASSERT_EQ(send(cmd->fd, "answer", 6, MSG_NOSIGNAL), 6);
    char answer[16];
    EXPECT_EQ(recv(fd.get(), answer, sizeof answer, 0), 6);
    drop(cmd);
}

TEST_F(ReceiveTest, AnAddIsClosedAtOnceAndDueInTwoSeconds)
{
    start();
    const FdGuard fd(send_text("ACTION=add,MAJOR=8,MINOR=1"));
    EXPECT_TRUE(is_closed_by_daemon(fd.get()));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_STREQ(cmd->text, "ACTION=add,MAJOR=8,MINOR=1");
    EXPECT_EQ(cmd->due, 1000000000U + 2000000U); // the fake clock stands still
    EXPECT_EQ(fake_world().calls("clock_gettime"), (Names{"clock_gettime 1"})); // monotonic
    EXPECT_GE(cmd->fd, 0); // kept: the number of the closed connection
    EXPECT_EQ(fcntl(cmd->fd, F_GETFD), -1);
    hotplug_cmd_free(cmd);
}

TEST_F(ReceiveTest, AnAddIsDueAtOnceWithoutAClock)
{
    fake_world().fail("clock_gettime", 1, EINVAL);
    start();
    const FdGuard fd(send_text("ACTION=add,MAJOR=8,MINOR=1"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->due, 0U);
    hotplug_cmd_free(cmd);
}

TEST_F(ReceiveTest, ARemoveIsClosedAtOnceAndDueAtOnce)
{
    start();
    const FdGuard fd(send_text("ACTION=remove,MAJOR=8,MINOR=1"));
    EXPECT_TRUE(is_closed_by_daemon(fd.get()));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->due, 0U);
    EXPECT_GE(cmd->fd, 0);
    EXPECT_EQ(fcntl(cmd->fd, F_GETFD), -1);
    EXPECT_EQ(fake_world().count("clock_gettime"), 0);
    hotplug_cmd_free(cmd);
}

TEST_F(ReceiveTest, ASenderNeedNotWait)
{
    start();
    close(send_text("ACTION=remove,MAJOR=8,MINOR=1"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_STREQ(cmd->text, "ACTION=remove,MAJOR=8,MINOR=1");
    hotplug_cmd_free(cmd);
}

TEST_F(ReceiveTest, UnknownActionsAreQueuedToo)
{
    start();
    const FdGuard fd(send_text("hello"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_STREQ(cmd->text, "hello");
    EXPECT_NE(fcntl(cmd->fd, F_GETFD), -1);
    drop(cmd);
}

TEST_F(ReceiveTest, CommandsAreQueuedAsTheyCome)
{
    start();
    for (const char* text : {"ACTION=mount,1", "ACTION=mount,2", "ACTION=mount,3"}) {
        const FdGuard fd(send_text(text));
        HotplugCmd* cmd = next_command();
        ASSERT_NE(cmd, nullptr);
        EXPECT_STREQ(cmd->text, text);
        drop(cmd);
    }
}

TEST_F(ReceiveTest, OneConnectionBringsOneMessage)
{
    start();
    const FdGuard fd(send_text("ACTION=mount,1"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    ASSERT_EQ(send(fd.get(), "ACTION=mount,2", 15, MSG_NOSIGNAL), 15);
    const FdGuard other(send_text("ACTION=mount,3"));
    HotplugCmd* next = next_command();
    ASSERT_NE(next, nullptr);
    EXPECT_STREQ(next->text, "ACTION=mount,3");
    drop(cmd);
    drop(next);
}

// ---- lengths ----

TEST_F(ReceiveTest, TakesATextOf511Characters)
{
    const std::string text = "ACTION=mount," + std::string(511 - 13, 'x');
    start();
    const FdGuard fd(send_text(text));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->len, 512);
    EXPECT_EQ(cmd->text, text);
    drop(cmd);
}

TEST_F(ReceiveTest, ATextOf512BytesWithoutItsEndIsHarmless)
{
    const std::string text = "ACTION=mount," + std::string(512 - 13, 'x');
    start();
    const FdGuard fd(send_bytes(text));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->len, 512);
    EXPECT_EQ(strnlen(cmd->text, 600), 512U);
    EXPECT_EQ(cmd->text, text);
    drop(cmd);
}

TEST_F(ReceiveTest, WhatIsBeyond512BytesIsNotRead)
{
    const std::string text = "ACTION=mount," + std::string(2000, 'x');
    start();
    const FdGuard fd(send_text(text));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->len, 512);
    EXPECT_EQ(cmd->text, text.substr(0, 512));
    drop(cmd);
}

TEST_F(ReceiveTest, AShortTextWithoutItsEndIsEndedAllTheSame)
{
    start();
    const FdGuard fd(send_bytes("ACTION=mount,sda"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->len, 16);
    EXPECT_STREQ(cmd->text, "ACTION=mount,sda");
    drop(cmd);
}

// ---- dropped connections ----

TEST_F(ReceiveTest, AConnectionThatIsClosedAtOnceIsDropped)
{
    start();
    close(connect_to_daemon());
    const FdGuard fd(send_text("ACTION=mount,1"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_STREQ(cmd->text, "ACTION=mount,1");
    drop(cmd);
}

TEST_F(ReceiveTest, AConnectionThatSendsNothingIsDroppedAfterTwoSeconds)
{
    start();
    const FdGuard silent(connect_to_daemon());
    EXPECT_TRUE(is_closed_by_daemon(silent.get()));
    stop();
    HotplugCmd* cmd = nullptr;
    EXPECT_EQ(crtsec_cmd_dequeue(&cmd), -1);
    int reads = 0;
    for (const std::string& call : fake_world().calls("select"))
        reads += call.find(" 0 2000000") != std::string::npos ? 1 : 0;
    EXPECT_EQ(reads, 1);
}

// Kept: the command goes, the connection does not.
TEST_F(ReceiveTest, ACommandThatCannotBeQueuedLeavesItsConnectionOpen)
{
    start();
    ASSERT_TRUE(wait_for([] { return fake_world().count("select") > 0; }));
    const long before = memory_blocks();
    memory_fail(3); // behind the command's two blocks comes its place in the queue
    const FdGuard fd(send_text("ACTION=mount,all"));
    ASSERT_TRUE(wait_for([] { return end_in_daemon() != -1; }));
    EXPECT_TRUE(memory_failed());
    EXPECT_EQ(memory_blocks(), before);
    stop();
    HotplugCmd* cmd = nullptr;
    EXPECT_EQ(crtsec_cmd_dequeue(&cmd), -1);
    char byte = 0;
    EXPECT_EQ(recv(fd.get(), &byte, 1, MSG_DONTWAIT), -1); // 0 when it was closed
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(close(end_in_daemon()), 0);
}

// ---- strict ----

constexpr uid_t stranger = 1234;

// Whose connections this thread makes: the effective user of the thread alone, as the kernel has
// it, for the C library would change that of all threads.
class As {
  public:
    explicit As(uid_t user) { set(user); }
    ~As() { set(0); }

  private:
    static void set(uid_t user)
    {
        EXPECT_EQ(syscall(SYS_setresuid, -1, static_cast<long>(user), -1), 0);
    }
};

// A message of somebody else than root. Returns what the sender sees: 0 when the connection is
// closed as after any event, or the errno that says that it was not read.
int send_as_stranger(const std::string& text)
{
    int fd = -1;
    {
        const As as(stranger);
        fd = unix_create_socket("vyhotplugd");
    }
    const FdGuard connection(fd);
    if (send(fd, text.c_str(), text.size() + 1, MSG_NOSIGNAL) < 0)
        return errno;
    char byte = 0;
    return recv(fd, &byte, 1, 0) == 0 ? 0 : errno;
}

bool is_refused(int error)
{
    return error == ECONNRESET || error == EPIPE;
}

TEST_F(ReceiveTest, NobodyIsRefusedUnlessItIsStrict)
{
    start();
    ASSERT_TRUE(wait_for([] { return fake_world().count("select") > 0; }));
    EXPECT_EQ(send_as_stranger("ACTION=remove,MAJOR=8"), 0);
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    hotplug_cmd_free(cmd);
}

TEST_F(ReceiveTest, StrictItTakesMessagesOfRootsOnly)
{
    arg.strict = 1;
    start();
    ASSERT_TRUE(wait_for([] { return fake_world().count("select") > 0; }));
    EXPECT_TRUE(is_refused(send_as_stranger("ACTION=unmount,all,force")));
    const FdGuard fd(send_text("ACTION=mount,sda1"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    EXPECT_STREQ(cmd->text, "ACTION=mount,sda1") << "and nothing else was queued";
    drop(cmd);
    stop();
    int reads = 0;
    for (const std::string& call : fake_world().calls("select"))
        reads += call.find(" 0 2000000") != std::string::npos ? 1 : 0;
    EXPECT_EQ(reads, 1) << "a stranger's message is not even waited for";
}

std::vector<std::string> refusal_lines()
{
    std::vector<std::string> found;
    for (const std::string& text : fake_log_texts()) {
        if (text.find("Refused") != std::string::npos)
            found.push_back(text.substr(0, text.find(" (process")));
    }
    return found;
}

TEST_F(ReceiveTest, RefusalsAreToldOnceAMinuteWithTheirNumber)
{
    arg.strict = 1;
    start();
    ASSERT_TRUE(wait_for([] { return fake_world().count("select") > 0; }));
    const Names first = {"recieve(#)Refused 1 connections, the last of user 1234"};
    for (int nth = 0; nth < 20; nth++)
        EXPECT_TRUE(is_refused(send_as_stranger("x")));
    ASSERT_TRUE(wait_for([&] { return refusal_lines() == first; }));
    fake_world().pass(59999999, 0);
    EXPECT_TRUE(is_refused(send_as_stranger("x")));
    fake_world().pass(0, 1000000000000); // the clock on the wall counts for nothing
    EXPECT_TRUE(is_refused(send_as_stranger("x")));
    EXPECT_EQ(refusal_lines(), first);
    fake_world().pass(1, 0);
    EXPECT_TRUE(is_refused(send_as_stranger("x")));
    EXPECT_TRUE(wait_for([&] {
        return refusal_lines() ==
               Names{first[0], "recieve(#)Refused 22 connections, the last of user 1234"};
    }));
}

TEST_F(ReceiveTest, StrictItQueuesNoMoreThanItsLimit)
{
    arg.strict = 1;
    std::vector<HotplugCmd> waiting(strict_queue_limit);
    for (HotplugCmd& cmd : waiting)
        ASSERT_EQ(crtsec_cmd_enqueue(&cmd), 0);
    start();
    const FdGuard refused(connect_to_daemon());
    (void)send(refused.get(), "ACTION=remove", 14,
               MSG_NOSIGNAL); // which is closed when it is taken
    char byte = 0;
    EXPECT_TRUE(wait_for(
        [&] { return recv(refused.get(), &byte, 1, MSG_DONTWAIT) == 0 || errno == ECONNRESET; }));
    EXPECT_EQ(crtsec_cmd_count(), strict_queue_limit);
    HotplugCmd* cmd = nullptr;
    ASSERT_EQ(crtsec_cmd_dequeue(&cmd), 0);
    const FdGuard taken(send_text("ACTION=mount,sda1"));
    EXPECT_TRUE(wait_for([] { return crtsec_cmd_count() == strict_queue_limit; }));
    for (uint32_t left = strict_queue_limit; left > 1; left--)
        EXPECT_EQ(crtsec_cmd_dequeue(&cmd), 0);
    drop(next_command());
}

TEST_F(ReceiveTest, NotStrictItQueuesWhatComes)
{
    std::vector<HotplugCmd> waiting(strict_queue_limit);
    for (HotplugCmd& cmd : waiting)
        ASSERT_EQ(crtsec_cmd_enqueue(&cmd), 0);
    start();
    const FdGuard fd(send_text("ACTION=mount,sda1"));
    EXPECT_TRUE(wait_for([] { return crtsec_cmd_count() == strict_queue_limit + 1; }));
    HotplugCmd* cmd = nullptr;
    for (uint32_t left = strict_queue_limit; left > 0; left--)
        EXPECT_EQ(crtsec_cmd_dequeue(&cmd), 0);
    drop(next_command());
}

// A connection that waits keeps the listener ready: each attempt would follow the one before at
// once.
TEST_F(ReceiveTest, WithoutDescriptorsItPausesBeforeItTriesAgain)
{
    start();
    ASSERT_TRUE(wait_for([] { return fake_world().count("select") > 0; }));
    const FdGuard fd(socket(AF_UNIX, SOCK_STREAM, 0));
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path + 1, "vyhotplugd");
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_TRUE(wait_for([] { return fake_world().count("nanosleep") >= 3; }));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_EQ(send(fd.get(), "hello", 6, MSG_NOSIGNAL), 6);
    drop(next_command());
    stop();
    Names calls; // of the thread: a wait, and a pause behind each failure
    for (const std::string& call : fake_world().calls("")) {
        if (call == "nanosleep 100000" || call.find(" 0 1000000") != std::string::npos)
            calls.push_back(call.substr(0, call.find(' ')));
    }
    int failures = 0;
    for (const std::string& text : fake_log_texts())
        failures += text.find("accept socket") != std::string::npos ? 1 : 0;
    EXPECT_EQ(failures, fake_world().count("nanosleep"));
    for (size_t at = 1; at < calls.size(); at++)
        EXPECT_FALSE(calls[at] == "nanosleep" && calls[at - 1] == "nanosleep");
}

// ---- the loop ----

TEST_F(ReceiveTest, LooksEverySecondWhetherItIsToEnd)
{
    start();
    ASSERT_TRUE(wait_for([] { return fake_world().count("select") >= 2; }));
    EXPECT_EQ(stop(), 0);
    for (const std::string& call : fake_world().calls("select"))
        EXPECT_NE(call.find(" 0 1000000"), std::string::npos) << call;
    EXPECT_EQ(arg.status, 0);
}

TEST_F(ReceiveTest, LogsItsBeginningAndItsEnd)
{
    start();
    close(connect_to_daemon());
    stop();
    EXPECT_EQ(fake_log_texts(),
              (Names{"recieve(#)start recieve loop", "recieve(#)exit recieve loop"}));
    for (const FakeLogLine& line : fake_log_lines())
        EXPECT_EQ(line.priority, LOG_ERR);
}

TEST_F(ReceiveTest, LogsEveryTextForDebugging)
{
    start();
    const FdGuard fd(send_text("ACTION=mount,sda1"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    stop();
    const std::vector<FakeLogLine> lines = fake_log_lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(fake_log_texts()[1], "recieve(#)ACTION=mount,sda1");
    EXPECT_EQ(lines[1].priority, LOG_DEBUG);
    drop(cmd);
}

TEST_F(ReceiveTest, AnInterruptedWaitGoesOn)
{
    fake_world().fail("select", 1, EINTR);
    start();
    const FdGuard fd(send_text("ACTION=mount,1"));
    HotplugCmd* cmd = next_command();
    ASSERT_NE(cmd, nullptr);
    drop(cmd);
    EXPECT_EQ(stop(), 0);
}

TEST_F(ReceiveTest, AFailedWaitEndsTheThreadAndTheDaemon)
{
    fake_world().fail("select", 1, ENOMEM);
    start();
    EXPECT_TRUE(wait_for([&] { return flag_get(&running) == 0; }));
    EXPECT_EQ(stop(), -ENOMEM);
    EXPECT_EQ(arg.status, -ENOMEM);
    EXPECT_EQ(fake_log_texts().back(), "recieve(#)exit recieve loop");
}

TEST_F(ReceiveTest, WithoutItsSocketItEndsTheDaemon)
{
    const FdGuard taken(unix_create_listen_socket("vyhotplugd"));
    ASSERT_GE(taken.get(), 0);
    start();
    EXPECT_TRUE(wait_for([&] { return flag_get(&running) == 0; }));
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(fake_world().count("select"), 0);
    const Names texts = fake_log_texts();
    ASSERT_EQ(texts.size(), 3U);
    EXPECT_EQ(texts[0].substr(0, 15), "socket_unix(#)E");
    EXPECT_EQ(texts[1], "recieve(#)start recieve loop");
    EXPECT_EQ(texts[2], "recieve(#)exit recieve loop");
}

TEST_F(ReceiveTest, ClosesItsSocketAtTheEnd)
{
    const int before = open_descriptors();
    start();
    close(connect_to_daemon());
    stop();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(unix_create_socket("vyhotplugd"), -1);
}

TEST_F(ReceiveTest, AsksForAStackOf16KilobytesWhereThatWillDo)
{
    start();
    EXPECT_EQ(fake_start().stack_bytes, receive_stack_bytes);
#if !defined(VY_SANITIZED) && (defined(__x86_64__) || defined(__i386__))
    EXPECT_EQ(fake_start().stack_bytes, 16384U);
#endif
}

TEST_F(ReceiveTest, FailsWhenTheThreadCannotBeMade)
{
    fake_start().pthread_create_error = EAGAIN;
    EXPECT_EQ(recieve_run(&arg), -1);
    EXPECT_EQ(running, 1);
}

} // namespace
