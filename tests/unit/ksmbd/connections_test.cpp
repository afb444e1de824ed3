#include "ksmbd/connections.h"

#include "lib/guard.h"
#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace {

// Two ends of a connection to a port of this machine, and who listens there.
struct Connection {
    FdGuard listener;
    FdGuard server;
    FdGuard client;
};

void set_loopback_up()
{
    const FdGuard fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    memcpy(request.ifr_name, "lo", 3);
    ASSERT_EQ(ioctl(fd.get(), SIOCGIFFLAGS, &request), 0);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    ASSERT_EQ(ioctl(fd.get(), SIOCSIFFLAGS, &request), 0);
}

// Returns the port.
uint16_t make(Connection* made)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    made->listener.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    made->client.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    auto* at = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(made->listener.get(), at, size), 0);
    EXPECT_EQ(listen(made->listener.get(), 1), 0);
    EXPECT_EQ(getsockname(made->listener.get(), at, &size), 0);
    EXPECT_EQ(connect(made->client.get(), at, size), 0);
    made->server.reset(accept4(made->listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_GE(made->server.get(), 0);
    return ntohs(address.sin_port);
}

bool is_over(const FdGuard& fd)
{
    pollfd one = {.fd = fd.get(), .events = POLLIN, .revents = 0};
    return poll(&one, 1, 0) == 1 && (one.revents & (POLLHUP | POLLERR)) != 0;
}

} // namespace

TEST(Connections, ThoseOfThePortEndAndNoOthers)
{
    set_loopback_up();
    Connection ours;
    Connection others;
    const uint16_t port = make(&ours);
    (void)make(&others);
    const int ended = connections_end(port);
    if (ended == -EOPNOTSUPP || ended == -ENOENT || ended == -EPROTONOSUPPORT)
        GTEST_SKIP() << "this kernel cannot end connections";
    EXPECT_EQ(ended, 1);
    EXPECT_TRUE(is_over(ours.server));
    EXPECT_TRUE(is_over(ours.client));
    EXPECT_FALSE(is_over(others.server));
    EXPECT_FALSE(is_over(ours.listener));
    EXPECT_EQ(connections_end(port), 0);
}

TEST(Connections, AreAskedForWithoutASocketForOthers)
{
    int ended = 0;
    EXPECT_TRUE(inheritable_after([&] { ended = connections_end(1); }).empty());
    if (ended < 0)
        GTEST_SKIP() << "this kernel cannot end connections";
}

TEST(Connections, AreAskedForThroughTheFirstDescriptor)
{
    const int usual = connections_end(1);
    with_input_closed([&] { EXPECT_EQ(connections_end(1), usual); });
}

TEST(Connections, AnyNumberOfThem)
{
    set_loopback_up();
    std::vector<Connection> all(200);
    const uint16_t port = make(&all[0]);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    for (size_t i = 1; i < all.size(); i++) {
        all[i].client.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(
            connect(all[i].client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        all[i].server.reset(accept4(all[0].listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    const int ended = connections_end(port);
    if (ended == -EOPNOTSUPP || ended == -ENOENT || ended == -EPROTONOSUPPORT)
        GTEST_SKIP() << "this kernel cannot end connections";
    EXPECT_EQ(ended, 200);
    for (const Connection& one : all)
        EXPECT_TRUE(is_over(one.client));
}
