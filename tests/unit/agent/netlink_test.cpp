// Which messages of the kernel's socket are taken. What recvmsg(2) returns comes from the test.
#include "agent/netlink.h"

#include "agent/limits.h"
#include "fake/fake_log.h"
#include "lib/guard.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>

namespace {

struct Received {
    std::string bytes;
    unsigned port = 0;
    pid_t process = 0;
    uid_t user = 0;
    bool has_sender = true;
    bool has_credentials = true;
    int error = 0;
};

Received next;

} // namespace

extern "C" ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags);

ssize_t __wrap_recvmsg(int, msghdr* message, int)
{
    if (next.error != 0) {
        errno = next.error;
        return -1;
    }
    const size_t room = message->msg_iov->iov_len;
    const size_t size = std::min(next.bytes.size(), room);
    memcpy(message->msg_iov->iov_base, next.bytes.data(), size);
    message->msg_flags = next.bytes.size() > room ? MSG_TRUNC : 0;
    auto* sender = static_cast<sockaddr_nl*>(message->msg_name);
    sender->nl_pid = next.port;
    message->msg_namelen = next.has_sender ? sizeof *sender : 0;
    const ucred credentials = {.pid = next.process, .uid = next.user, .gid = 0};
    cmsghdr* control = CMSG_FIRSTHDR(message);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_CREDENTIALS;
    control->cmsg_len = CMSG_LEN(sizeof credentials);
    memcpy(CMSG_DATA(control), &credentials, sizeof credentials);
    if (!next.has_credentials)
        message->msg_controllen = 0;
    return static_cast<ssize_t>(size);
}

class Netlink : public testing::Test {
  protected:
    Netlink()
    {
        next = {.bytes = "add@/x"};
        fake_log_clear();
    }

    ssize_t take() { return netlink_take(-1, buffer_, sizeof buffer_); }

    char buffer_[16];
};

TEST_F(Netlink, TakesTheKernelsMessage)
{
    EXPECT_EQ(take(), 6);
    EXPECT_EQ(std::string(buffer_, 6), "add@/x");
    next.bytes = std::string(sizeof buffer_, 'a'); // as much as fits
    EXPECT_EQ(take(), 16);
}

TEST_F(Netlink, TakesAMessageThatWasCutForLost)
{
    next.bytes = std::string(sizeof buffer_ + 1, 'a');
    EXPECT_EQ(take(), -ENOBUFS);
}

TEST_F(Netlink, PassesOverWhatIsNotTheKernels)
{
    const struct {
        unsigned port;
        pid_t process;
        uid_t user;
    } rows[] = {{4711, 4711, 0}, {0, 4711, 0}, {4711, 0, 0}, {0, 0, 1000}};
    for (const auto& row : rows) {
        next.port = row.port;
        next.process = row.process;
        next.user = row.user;
        EXPECT_EQ(take(), 0) << row.port << " " << row.process << " " << row.user;
    }
    next.bytes = std::string(sizeof buffer_ + 1, 'a');
    EXPECT_EQ(take(), 0); // nobody but the kernel has events looked for
    const FakeLogLine line = fake_log_lines()[1];
    EXPECT_EQ(fake_log_texts()[1], "netlink(#)dropped: message of process 4711, user 0");
    EXPECT_EQ(line.priority, LOG_INFO);
}

TEST(NetlinkSocket, HearsTheKernelAndNeverWaits)
{
    const FdGuard fd(netlink_open());
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
    sockaddr_nl address = {};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    EXPECT_EQ(address.nl_groups, 1U); // the kernel's own events
    int value = 0;
    size = sizeof value;
    EXPECT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &value, &size), 0);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &value, &size), 0);
    EXPECT_EQ(value, 2 * agent_netlink_buffer); // the kernel adds what it takes itself
    EXPECT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_PROTOCOL, &value, &size), 0);
    EXPECT_EQ(value, NETLINK_KOBJECT_UEVENT);
}

TEST(NetlinkSocket, IsNoneWhereAStepFails)
{
    const int before = open_descriptors();
    const struct {
        const char* call;
        int nth;
        int result;
    } rows[] = {{"socket", 1, -EMFILE}, {"setsockopt", 2, -EMFILE}, {"bind", 1, -EMFILE}};
    for (const auto& row : rows) {
        call_fail(row.call, row.nth, EMFILE);
        EXPECT_EQ(netlink_open(), row.result) << row.call;
        EXPECT_TRUE(call_failed()) << row.call;
    }
    EXPECT_EQ(open_descriptors(), before);
}

// Without the right to ask for more than the system allows.
TEST(NetlinkSocket, TakesTheRoomThatItIsAllowed)
{
    call_fail("setsockopt", 1, EPERM);
    const FdGuard fd(netlink_open());
    EXPECT_TRUE(call_failed());
    const FdGuard usual(socket(AF_NETLINK, SOCK_DGRAM, NETLINK_KOBJECT_UEVENT));
    int room = 0;
    int most = 0;
    socklen_t size = sizeof room;
    const int much = 1 << 30; // cut to what is allowed
    EXPECT_EQ(setsockopt(usual.get(), SOL_SOCKET, SO_RCVBUF, &much, sizeof much), 0);
    EXPECT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &room, &size), 0);
    EXPECT_EQ(getsockopt(usual.get(), SOL_SOCKET, SO_RCVBUF, &most, &size), 0);
    EXPECT_EQ(room, std::min(most, 2 * agent_netlink_buffer));
}

TEST_F(Netlink, PassesOverWhatTellsNoSender)
{
    next.has_sender = false;
    EXPECT_EQ(take(), 0);
    next = {.bytes = "add@/x", .has_credentials = false};
    EXPECT_EQ(take(), 0);
}

TEST_F(Netlink, TellsWhatFailed)
{
    for (const int error : {EAGAIN, ENOBUFS, EBADF}) {
        next.error = error;
        EXPECT_EQ(take(), -error);
    }
}
