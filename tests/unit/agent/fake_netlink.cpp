#include "fake_netlink.h"

#include "agent/netlink.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

static int ends[2] = {-1, -1}; // the test's, the agent's

void fake_netlink_open()
{
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
}

void fake_netlink_close()
{
    close(ends[0]);
    close(ends[1]);
    ends[0] = ends[1] = -1;
}

void fake_netlink_send_bytes(const std::string& bytes)
{
    EXPECT_EQ(send(ends[0], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
}

void fake_netlink_send(const std::string& action, const std::string& devpath, int major, int minor,
                       const std::string& more)
{
    std::string bytes = action + "@" + devpath + "\nACTION=" + action + "\nDEVPATH=" + devpath +
                        "\nSUBSYSTEM=block\nMAJOR=" + std::to_string(major) +
                        "\nMINOR=" + std::to_string(minor) + "\n" + more;
    for (char& c : bytes) {
        if (c == '\n')
            c = '\0';
    }
    fake_netlink_send_bytes(bytes);
}

int netlink_open()
{
    return ends[1] >= 0 ? dup(ends[1]) : -EPROTONOSUPPORT;
}

ssize_t netlink_take(int fd, char* buffer, size_t size)
{
    const ssize_t length = recv(fd, buffer, size, MSG_DONTWAIT);
    if (length < 0)
        return -errno;
    const std::string bytes(buffer, static_cast<size_t>(length));
    if (bytes == "lost")
        return -ENOBUFS;
    return bytes == "foreign" ? 0 : length;
}
