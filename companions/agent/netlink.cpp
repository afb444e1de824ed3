#include "agent/netlink.h"

#include "agent/limits.h"
#include "lib/guard.h"
#include "lib/log.h"

#include <errno.h>
#include <linux/netlink.h>
#include <string.h>
#include <sys/socket.h>

static constexpr char log_tag[] = "netlink";
static constexpr unsigned kernel_group = 1;

int netlink_open()
{
    FdGuard fd(
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    if (fd.get() < 0)
        return -errno;
    // Root gets what it asks for; others no more than the system allows. Lost events are noticed.
    const int size = agent_netlink_buffer;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        (void)setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    const int on = 1;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)
        return -errno;
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = kernel_group;
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return -errno;
    return fd.take();
}

// The kernel's own messages come from port 0 and process 0. Those that a process has the kernel
// pass on come from port 0 too, but with the process's number.
static bool is_from_kernel(msghdr* message)
{
    const auto* sender = static_cast<const sockaddr_nl*>(message->msg_name);
    const cmsghdr* control = CMSG_FIRSTHDR(message);
    if (message->msg_namelen < sizeof *sender || control == nullptr ||
        control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_CREDENTIALS ||
        control->cmsg_len < CMSG_LEN(sizeof(ucred)))
        return false;
    ucred credentials;
    memcpy(&credentials, CMSG_DATA(control), sizeof credentials);
    if (sender->nl_pid == 0 && credentials.pid == 0 && credentials.uid == 0)
        return true;
    VY_LOG(LOG_INFO, "dropped: message of process %ld, user %lu",
           static_cast<long>(credentials.pid), static_cast<unsigned long>(credentials.uid));
    return false;
}

ssize_t netlink_take(int fd, char* buffer, size_t size)
{
    sockaddr_nl sender = {};
    iovec part = {.iov_base = buffer, .iov_len = size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr message = {};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
    if (length < 0)
        return -errno;
    if (!is_from_kernel(&message))
        return 0;
    // One that is cut is longer than the kernel's are; as good as lost.
    return (message.msg_flags & MSG_TRUNC) == 0 ? length : -ENOBUFS;
}
