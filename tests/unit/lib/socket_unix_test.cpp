// Real sockets; failures of single calls and the waiting times come from the fakes.
#include "lib/socket_unix.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

// Closes what a test has opened.
class Sockets : public testing::Test {
  protected:
    Sockets()
    {
        fake_world_reset();
        fake_log_clear();
    }
    ~Sockets() override
    {
        for (const int fd : held)
            close(fd);
        unlink(path);
    }
    int hold(int fd)
    {
        if (fd >= 0)
            held.push_back(fd);
        return fd;
    }
    void release(int fd)
    {
        std::erase(held, fd);
        close(fd);
    }
    int listen_on(const std::string& name) { return hold(unix_create_listen_socket(name.c_str())); }
    int connect_to(const std::string& name) { return hold(unix_create_socket(name.c_str())); }

    // A connected pair: the accepted end (non-blocking) and the client's (blocking).
    struct Pair {
        int server;
        int client;
    };
    Pair connected()
    {
        const int listener = listen_on("pair");
        const int client = connect_to("pair");
        const int server = hold(unix_accept_addr(listener, nullptr, nullptr));
        EXPECT_GE(server, 0);
        return {server, client};
    }
    static std::string one_error(const char* message, int error)
    {
        return std::string("socket_unix(#)Error - ") + message + " (err=" + std::to_string(error) +
               ")";
    }
    static void expect_error(const char* message, int error)
    {
        EXPECT_EQ(fake_log_texts(), Texts{one_error(message, error)});
        for (const FakeLogLine& line : fake_log_lines())
            EXPECT_EQ(line.priority, LOG_ERR);
    }

    static constexpr char path[] = "/tmp/unit.socket";
    std::vector<int> held;
};

// A hook that is started meanwhile gets none of them, whatever its number.
TEST_F(Sockets, AllAreClosedAcrossExec)
{
    const int listener = listen_on("pair");
    const int client = connect_to("pair");
    const int server = hold(unix_accept_addr(listener, nullptr, nullptr));
    for (const int fd : {listener, client, server})
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << fd;
}

TEST_F(Sockets, EachMayBeTheFirstDescriptor)
{
    with_input_closed([this] {
        const int listener = unix_create_listen_socket("first");
        EXPECT_EQ(listener, 0);
        const int moved = hold(fcntl(listener, F_DUPFD_CLOEXEC, 10));
        close(listener);
        const int client = unix_create_socket("first");
        EXPECT_EQ(client, 0);
        hold(fcntl(client, F_DUPFD_CLOEXEC, 10));
        close(client);
        const int server = unix_accept_addr(moved, nullptr, nullptr);
        EXPECT_EQ(server, 0);
        close(server);
    });
    EXPECT_EQ(fake_log_texts(), Texts{});
}

// ---- addresses ----

// What the kernel was given as a listening socket's address.
struct Address {
    sockaddr_un bytes = {};
    socklen_t size = sizeof bytes;

    explicit Address(int fd)
    {
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&bytes), &size), 0);
    }
    std::string path() const { return {bytes.sun_path, sizeof bytes.sun_path}; }
};

std::string padded(std::string text)
{
    text.resize(108, '\0');
    return text;
}

TEST_F(Sockets, AbstractNameIsAZeroByteTheNameAndZeroesUpTo110Bytes)
{
    ASSERT_EQ(sizeof(sockaddr_un), 110U);
    const Address address(listen_on("vyhotplugd"));
    EXPECT_EQ(address.bytes.sun_family, AF_UNIX);
    EXPECT_EQ(address.size, 110U);
    EXPECT_EQ(address.path(), padded(std::string(1, '\0') + "vyhotplugd"));
    EXPECT_FALSE(exists("vyhotplugd"));
}

// Peers that build the address themselves must use the full length, and then they meet.
TEST_F(Sockets, PeerMeetsTheNameWithAllItsZeroesOnly)
{
    ASSERT_GE(listen_on("vyhotplugd"), 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, "vyhotplugd", 10);
    const auto* peer = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(connect(hold(socket(AF_UNIX, SOCK_STREAM, 0)), peer, 110), 0);
    EXPECT_EQ(
        connect(hold(socket(AF_UNIX, SOCK_STREAM, 0)), peer, offsetof(sockaddr_un, sun_path) + 11),
        -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(Sockets, ClientUsesTheSameAddress)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, "vyhotplugd", 10);
    const int listener = hold(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), 110), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    EXPECT_GE(connect_to("vyhotplugd"), 0);
}

struct NameRow {
    const char* what;
    std::string name;
    size_t kept; // characters of the name in the address
};

// Byte 107 of the address's name is always zero, so one character more is lost than the room asks.
TEST_F(Sockets, AbstractNamesAreCutBeforeByte107)
{
    const NameRow rows[] = {{"105 characters", std::string(105, 'n'), 105},
                            {"106 characters", std::string(106, 'n'), 106},
                            {"108 characters", std::string(108, 'n'), 106},
                            {"500 characters", std::string(500, 'n'), 106}};
    for (const NameRow& row : rows) {
        const int listener = listen_on(row.name);
        EXPECT_EQ(Address(listener).path(),
                  padded(std::string(1, '\0') + row.name.substr(0, row.kept)))
            << row.what;
        release(listener);
    }
}

TEST_F(Sockets, AbstractNameOf107CharactersLeavesByte107Zero)
{
    const int listener = listen_on(std::string(107, 'n'));
    EXPECT_EQ(Address(listener).path(), padded(std::string(1, '\0') + std::string(106, 'n')));
}

TEST_F(Sockets, LongNamesThatDifferBehindTheCutAreOne)
{
    ASSERT_GE(listen_on(std::string(106, 'n')), 0);
    EXPECT_GE(connect_to(std::string(106, 'n') + "-more"), 0);
}

TEST_F(Sockets, PathMakesASocketFile)
{
    const int listener = listen_on(path);
    struct stat status = {};
    ASSERT_EQ(stat(path, &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(Address(listener).path(), padded(path));
    EXPECT_GE(connect_to(path), 0);
}

TEST_F(Sockets, PathsAreCutTo107Characters)
{
    for (const size_t length : {106U, 107U, 108U, 109U, 300U}) {
        std::string name = "/tmp/";
        name.resize(length, 'p');
        const std::string kept = name.substr(0, 107);
        const int listener = listen_on(name);
        EXPECT_TRUE(exists(kept)) << length << " characters";
        EXPECT_GE(connect_to(name), 0) << length << " characters";
        release(listener);
        unlink(kept.c_str());
    }
}

TEST_F(Sockets, EmptyNameIsAbstract)
{
    EXPECT_EQ(Address(listen_on("")).path(), padded(""));
}

// ---- listening ----

int socket_option(int fd, int option)
{
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &value, &size), 0);
    return value;
}

TEST_F(Sockets, ListenerIsAListeningStreamSocketThatDoesNotBlock)
{
    const int listener = listen_on("vyhotplugd");
    EXPECT_EQ(socket_option(listener, SO_DOMAIN), AF_UNIX);
    EXPECT_EQ(socket_option(listener, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(socket_option(listener, SO_ACCEPTCONN), 1);
    EXPECT_EQ(socket_option(listener, SO_REUSEADDR), 1);
    EXPECT_NE(fcntl(listener, F_GETFL) & O_NONBLOCK, 0);
}

// The kernel lets one connection more wait than the backlog says.
TEST_F(Sockets, ListenerHasABacklogOf128)
{
    ASSERT_GE(listen_on("vyhotplugd"), 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, "vyhotplugd", 10);
    int waiting = 0;
    while (waiting < 1000) {
        const int client = hold(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        ASSERT_GE(client, 0);
        if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            break;
        waiting++;
    }
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(waiting, 129);
}

TEST_F(Sockets, ListenerLogsNothingWhenAllIsWell)
{
    ASSERT_GE(listen_on("vyhotplugd"), 0);
    EXPECT_EQ(fake_log_texts(), Texts{});
}

struct StepRow {
    const char* what;
    const char* call;
    int nth;
    const char* message;
};

// Every step that fails: its line, -1, nothing left open, the name free again.
TEST_F(Sockets, ListenerWhoseStepFailsIsClosedAndLogged)
{
    const StepRow rows[] = {
        {"socket", "socket", 1, "create socket"},
        {"F_GETFL", "fcntl", 1, "get socket flag"},
        {"F_SETFL", "fcntl", 2, "set socket flag"},
        {"SO_REUSEADDR", "setsockopt", 1, "set socket flag"},
        {"listen", "listen", 1, "listen"},
    };
    for (const StepRow& row : rows) {
        SCOPED_TRACE(row.what);
        fake_log_clear();
        const int before = open_descriptors();
        call_fail(row.call, row.nth, ENOBUFS);
        const int listener = unix_create_listen_socket("vyhotplugd");
        EXPECT_TRUE(call_failed());
        EXPECT_EQ(listener, -1);
        expect_error(row.message, ENOBUFS);
        EXPECT_EQ(open_descriptors(), before) << "a descriptor was left open";
    }
    EXPECT_GE(listen_on("vyhotplugd"), 0) << "the name was left taken";
}

TEST_F(Sockets, ListenerWithoutADescriptorToSpareFails)
{
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int listener = unix_create_listen_socket("vyhotplugd");
    const int client = unix_create_socket("vyhotplugd");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(listener, -1);
    EXPECT_EQ(client, -1);
    EXPECT_EQ(fake_log_texts(),
              (Texts{one_error("create socket", EMFILE), one_error("create socket", EMFILE)}));
}

TEST_F(Sockets, ListenerOnANameThatIsTakenFails)
{
    ASSERT_GE(listen_on("vyhotplugd"), 0);
    const int before = open_descriptors();
    EXPECT_EQ(unix_create_listen_socket("vyhotplugd"), -1);
    expect_error("bind", EADDRINUSE);
    EXPECT_EQ(open_descriptors(), before);
}

// A socket file is not removed first, though nobody listens on it any more.
TEST_F(Sockets, ListenerOnALeftOverSocketFileFails)
{
    release(listen_on(path));
    ASSERT_TRUE(exists(path));
    EXPECT_EQ(unix_create_listen_socket(path), -1);
    expect_error("bind", EADDRINUSE);
    EXPECT_TRUE(exists(path));
}

TEST_F(Sockets, ListenerInADirectoryThatIsNotThereFails)
{
    EXPECT_EQ(unix_create_listen_socket("/tmp/none/unit.socket"), -1);
    expect_error("bind", ENOENT);
}

// ---- accepting ----

TEST_F(Sockets, AcceptedConnectionDoesNotBlock)
{
    const Pair pair = connected();
    EXPECT_NE(fcntl(pair.server, F_GETFL) & O_NONBLOCK, 0);
    char byte;
    EXPECT_EQ(recv(pair.server, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Sockets, AcceptWithNobodyWaitingFails)
{
    const int listener = listen_on("vyhotplugd");
    EXPECT_EQ(unix_accept_addr(listener, nullptr, nullptr), -1);
    expect_error("accept socket", EAGAIN);
}

TEST_F(Sockets, AcceptOnWhatIsNoListenerFails)
{
    EXPECT_EQ(unix_accept_addr(-1, nullptr, nullptr), -1);
    expect_error("accept socket", EBADF);
}

TEST_F(Sockets, AcceptedConnectionWhoseFlagsFailIsClosedAndLogged)
{
    const int listener = listen_on("vyhotplugd");
    const StepRow rows[] = {{"F_GETFL", "fcntl", 1, "get socket flag"},
                            {"F_SETFL", "fcntl", 2, "set socket flag"}};
    for (const StepRow& row : rows) {
        SCOPED_TRACE(row.what);
        fake_log_clear();
        const int client = connect_to("vyhotplugd");
        const int before = open_descriptors();
        call_fail(row.call, row.nth, ENOBUFS);
        const int server = unix_accept_addr(listener, nullptr, nullptr);
        EXPECT_TRUE(call_failed());
        EXPECT_EQ(server, -1);
        expect_error(row.message, ENOBUFS);
        EXPECT_EQ(open_descriptors(), before) << "a descriptor was left open";
        char byte;
        EXPECT_EQ(recv(client, &byte, 1, 0), 0) << "the client sees its connection closed";
    }
}

// A client with an address of its own, and the place for it that accept is given.
class PeerAddress : public Sockets {
  protected:
    PeerAddress()
    {
        listener = listen_on("vyhotplugd");
        const int client = hold(socket(AF_UNIX, SOCK_STREAM, 0));
        own.sun_family = AF_UNIX;
        memcpy(own.sun_path, path, sizeof path);
        EXPECT_EQ(bind(client, reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
        sockaddr_un listening = {};
        listening.sun_family = AF_UNIX;
        memcpy(listening.sun_path + 1, "vyhotplugd", 10);
        EXPECT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&listening), sizeof listening),
                  0);
        memset(buffer, '~', sizeof buffer);
        memset(blank, '~', sizeof blank);
    }
    bool buffer_is_untouched() { return memcmp(buffer, blank, sizeof buffer) == 0; }

    sockaddr_un own = {};
    const socklen_t own_size = offsetof(sockaddr_un, sun_path) + sizeof path;
    int listener;
    char buffer[128];
    char blank[128];
};

TEST_F(PeerAddress, IsStoredWithItsLength)
{
    socklen_t size = sizeof buffer;
    EXPECT_GE(hold(unix_accept_addr(listener, buffer, &size)), 0);
    EXPECT_EQ(size, own_size);
    EXPECT_EQ(memcmp(buffer, &own, own_size), 0);
    EXPECT_EQ(memcmp(buffer + own_size, blank, sizeof buffer - own_size), 0)
        << "more than the address was stored";
}

TEST_F(PeerAddress, IsStoredWhereItJustFits)
{
    socklen_t size = own_size;
    EXPECT_GE(hold(unix_accept_addr(listener, buffer, &size)), 0);
    EXPECT_EQ(size, own_size);
    EXPECT_EQ(memcmp(buffer, &own, own_size), 0);
}

TEST_F(PeerAddress, ThatDoesNotFitIsLeftOut)
{
    socklen_t size = own_size - 1;
    EXPECT_GE(hold(unix_accept_addr(listener, buffer, &size)), 0);
    EXPECT_EQ(size, own_size - 1);
    EXPECT_TRUE(buffer_is_untouched());
}

TEST_F(PeerAddress, WithoutABufferIsLeftOut)
{
    socklen_t size = sizeof buffer;
    EXPECT_GE(hold(unix_accept_addr(listener, nullptr, &size)), 0);
    EXPECT_EQ(size, sizeof buffer);
}

TEST_F(PeerAddress, WithoutASizeIsLeftOut)
{
    EXPECT_GE(hold(unix_accept_addr(listener, buffer, nullptr)), 0);
    EXPECT_TRUE(buffer_is_untouched());
}

TEST_F(Sockets, PeerWithoutANameHasTheFamilyAlone)
{
    const int listener = listen_on("vyhotplugd");
    (void)connect_to("vyhotplugd");
    sockaddr_un address = {};
    socklen_t size = sizeof address;
    EXPECT_GE(hold(unix_accept_addr(listener, &address, &size)), 0);
    EXPECT_EQ(size, sizeof address.sun_family);
    EXPECT_EQ(address.sun_family, AF_UNIX);
}

// ---- connecting ----

TEST_F(Sockets, ConnectedSocketBlocks)
{
    ASSERT_GE(listen_on("vyhotplugd"), 0);
    const int client = connect_to("vyhotplugd");
    ASSERT_GE(client, 0);
    EXPECT_EQ(fcntl(client, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(socket_option(client, SO_TYPE), SOCK_STREAM);
}

TEST_F(Sockets, ConnectWhereNobodyListensFails)
{
    const int before = open_descriptors();
    EXPECT_EQ(unix_create_socket("vyhotplugd"), -1);
    expect_error("connect", ECONNREFUSED);
    EXPECT_EQ(open_descriptors(), before) << "a descriptor was left open";
}

TEST_F(Sockets, ConnectToAPathThatIsNotThereFails)
{
    EXPECT_EQ(unix_create_socket(path), -1);
    expect_error("connect", ENOENT);
}

TEST_F(Sockets, ConnectWithoutASocketFails)
{
    call_fail("socket", 1, ENFILE);
    const int client = unix_create_socket("vyhotplugd");
    EXPECT_TRUE(call_failed());
    EXPECT_EQ(client, -1);
    expect_error("create socket", ENFILE);
}

// ---- sending ----

// Fills the way to the peer until nothing more goes in.
void fill(int fd)
{
    const std::vector<char> block(4096, 'x');
    while (send(fd, block.data(), block.size(), MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Sockets, SendIsHowManyBytesWent)
{
    const Pair pair = connected();
    EXPECT_EQ(unix_send(pair.server, "success", 8, 0, 1500), 8);
    char text[16] = {};
    EXPECT_EQ(recv(pair.client, text, sizeof text, MSG_DONTWAIT), 8);
    EXPECT_STREQ(text, "success");
}

// Not an error code: whoever sends takes any count below the whole for failure.
TEST_F(Sockets, SendIntoAFullSocketIsZero)
{
    const Pair pair = connected();
    fill(pair.server);
    EXPECT_EQ(unix_send(pair.server, "success", 8, 0, 0), 0);
    EXPECT_EQ(unix_send(pair.server, "success", 8, 0, 10), 0);
}

TEST_F(Sockets, SendIsNotContinued)
{
    const Pair pair = connected();
    const std::vector<char> large(8 << 20, 'x');
    const ssize_t sent = unix_send(pair.server, large.data(), large.size(), 0, 1500);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<ssize_t>(large.size()));
    EXPECT_EQ(fake_world().count("select"), 1);
}

TEST_F(Sockets, SendPassesItsFlagsOn)
{
    const Pair pair = connected();
    release(pair.client);
    const auto handler = signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(unix_send(pair.server, "success", 8, MSG_NOSIGNAL, 1500), -EPIPE)
        << "without the flag a signal would have ended this process";
    signal(SIGPIPE, handler);
}

TEST_F(Sockets, SendOnWhatIsNoSocketIsItsErrno)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    hold(ends[0]);
    hold(ends[1]);
    EXPECT_EQ(unix_send(ends[1], "success", 8, 0, 1500), -ENOTSOCK);
}

TEST_F(Sockets, SendWhoseWaitFailsIsItsErrno)
{
    const Pair pair = connected();
    fake_world().fail("select", 1, EINTR);
    EXPECT_EQ(unix_send(pair.server, "success", 8, 0, 1500), -EINTR);
    char byte;
    EXPECT_EQ(recv(pair.client, &byte, 1, MSG_DONTWAIT), -1) << "sent though";
    EXPECT_EQ(unix_send(-1, "success", 8, 0, 1500), -EBADF);
}

// ---- receiving ----

TEST_F(Sockets, ReceiveIsHowManyBytesCame)
{
    const Pair pair = connected();
    ASSERT_EQ(send(pair.client, "ACTION=mount", 13, 0), 13);
    char text[512] = {};
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 2000), 13);
    EXPECT_STREQ(text, "ACTION=mount");
}

TEST_F(Sockets, ReceiveTakesNoMoreThanTheCapacity)
{
    const Pair pair = connected();
    ASSERT_EQ(send(pair.client, "ACTION=mount", 13, 0), 13);
    char text[512] = {};
    EXPECT_EQ(unix_recieve(pair.server, text, 6, 0, 2000), 6);
    EXPECT_STREQ(text, "ACTION");
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 2000), 7);
    EXPECT_STREQ(text, "=mount");
}

TEST_F(Sockets, ReceiveOfNothingIsTryAgain)
{
    const Pair pair = connected();
    char text[16];
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 0), -EAGAIN);
    EXPECT_EQ(fake_world().count("select"), 1) << "polled more than once";
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 10), -EAGAIN);
    EXPECT_EQ(unix_recieve(pair.client, text, sizeof text, 0, 10), -EAGAIN) << "blocking socket";
}

TEST_F(Sockets, ReceiveWithoutTimeTakesWhatIsWaiting)
{
    const Pair pair = connected();
    ASSERT_EQ(send(pair.client, "x", 2, 0), 2);
    char text[16];
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 0), 2);
}

TEST_F(Sockets, ReceiveFromAPeerThatHasClosedIsZero)
{
    const Pair pair = connected();
    release(pair.client);
    char text[16];
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 2000), 0);
}

TEST_F(Sockets, ReceiveGetsWhatWasSentBeforeTheEnd)
{
    const Pair pair = connected();
    ASSERT_EQ(send(pair.client, "x", 2, 0), 2);
    release(pair.client);
    char text[16];
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 2000), 2);
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 2000), 0);
}

TEST_F(Sockets, ReceivePassesItsFlagsOn)
{
    const Pair pair = connected();
    ASSERT_EQ(send(pair.client, "x", 2, 0), 2);
    char text[16];
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, MSG_PEEK, 2000), 2);
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 0), 2) << "taken by the peek";
}

TEST_F(Sockets, ReceiveOnWhatIsNoSocketIsItsErrno)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    hold(ends[0]);
    hold(ends[1]);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    char text[16];
    EXPECT_EQ(unix_recieve(ends[0], text, sizeof text, 0, 2000), -ENOTSOCK);
}

TEST_F(Sockets, ReceiveWhoseWaitFailsIsItsErrno)
{
    const Pair pair = connected();
    ASSERT_EQ(send(pair.client, "x", 2, 0), 2);
    fake_world().fail("select", 1, EINTR);
    char text[16];
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 2000), -EINTR);
    EXPECT_EQ(unix_recieve(pair.server, text, sizeof text, 0, 0), 2) << "received though";
    EXPECT_EQ(unix_recieve(-1, text, sizeof text, 0, 2000), -EBADF);
}

TEST_F(Sockets, TransfersLogNothing)
{
    const Pair pair = connected();
    char text[16];
    (void)unix_recieve(pair.server, text, sizeof text, 0, 0);
    (void)unix_recieve(-1, text, sizeof text, 0, 0);
    (void)unix_send(-1, text, sizeof text, 0, 0);
    EXPECT_EQ(fake_log_texts(), Texts{});
}

TEST_F(Sockets, TimeOutsAreMilliseconds)
{
    const Pair pair = connected();
    ASSERT_EQ(send(pair.client, "0123456789", 10, 0), 10);
    const struct {
        int timeout_ms;
        const char* usec;
    } rows[] = {{0, "0"},          {1, "1000"},       {999, "999000"},
                {1500, "1500000"}, {2000, "2000000"}, {60000, "60000000"}};
    for (const auto& row : rows) {
        fake_world().journal.clear();
        char byte;
        EXPECT_EQ(unix_send(pair.server, "x", 1, 0, row.timeout_ms), 1);
        EXPECT_EQ(unix_recieve(pair.server, &byte, 1, 0, row.timeout_ms), 1);
        const std::string waiter = "select " + std::to_string(pair.server);
        EXPECT_EQ(fake_world().journal,
                  (Texts{waiter + " 1 " + row.usec, waiter + " 0 " + row.usec}))
            << row.timeout_ms << " ms";
    }
}

} // namespace
