#include "ksmbd/connections.h"

#include "lib/guard.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

static constexpr size_t answer_size = 16384; // the kernel fills no more at a time
static constexpr time_t patience_s = 1;

// What the kernel calls TCP_LISTEN and TCP_TIME_WAIT are nobody's connections.
static constexpr uint32_t states = ~((1U << 10) | (1U << 6));

namespace {

struct Request {
    nlmsghdr head;
    inet_diag_req_v2 what;
};

struct Connections {
    inet_diag_sockid* list; // owned
    size_t count;
};

} // namespace

static void connections_release(Connections* connections)
{
    free(connections->list);
}
using ConnectionsGuard = Guard<Connections, connections_release>; // of a record on the stack

// Returns a descriptor; a negated errno.
static int open_diag()
{
    FdGuard fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (fd.get() < 0)
        return -errno;
    const timeval limit = {.tv_sec = patience_s, .tv_usec = 0};
    if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        return -errno;
    return fd.take();
}

// Asks for something of this family's connections, `which` those of a port or a single one.
static int ask(int fd, uint8_t family, uint16_t type, uint16_t flags, const inet_diag_sockid* which)
{
    Request request = {};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = type;
    request.head.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    request.what.sdiag_family = family;
    request.what.sdiag_protocol = IPPROTO_TCP;
    request.what.idiag_states = states;
    request.what.id = *which;
    return send(fd, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request) ? 0
                                                                                         : -errno;
}

static int append(Connections* connections, const inet_diag_sockid* id)
{
    const size_t bytes = (connections->count + 1) * sizeof(inet_diag_sockid);
    auto* larger = static_cast<inet_diag_sockid*>(realloc(connections->list, bytes));
    if (larger == nullptr)
        return -ENOMEM;
    connections->list = larger;
    larger[connections->count++] = *id;
    return 0;
}

// Lends what stands behind the header.
static const void* content_of(const nlmsghdr* message)
{
    return reinterpret_cast<const char*>(message) + NLMSG_HDRLEN;
}

static int error_in(const nlmsghdr* message)
{
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr)))
        return -EPROTO;
    nlmsgerr error;
    memcpy(&error, content_of(message), sizeof error);
    return error.error;
}

// Takes one message of an answer. Returns 1 while more is to come, 0 at the end, a negated errno.
static int take_message(const nlmsghdr* message, Connections* connections)
{
    if (message->nlmsg_type == NLMSG_DONE)
        return 0;
    if (message->nlmsg_type == NLMSG_ERROR)
        return error_in(message);
    if (connections == nullptr || message->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg)))
        return -EPROTO;
    inet_diag_msg found;
    memcpy(&found, content_of(message), sizeof found);
    const int result = append(connections, &found.id);
    return result == 0 ? 1 : result;
}

// Reads answers up to their end; null where none but an acknowledgement is due. Returns 0 or a
// negated errno.
static int take_answer(int fd, Connections* connections)
{
    alignas(nlmsghdr) char answer[answer_size];
    int more = 1;
    while (more == 1) {
        const ssize_t size = recv(fd, answer, sizeof answer, 0);
        if (size <= 0)
            return size < 0 ? -errno : -EPROTO;
        size_t left = static_cast<size_t>(size);
        const char* at = answer;
        while (more == 1 && left >= sizeof(nlmsghdr)) {
            const void* aligned = at; // as the buffer is, and each step
            const auto* message = static_cast<const nlmsghdr*>(aligned);
            if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > left)
                return -EPROTO;
            more = take_message(message, connections);
            const size_t step = NLMSG_ALIGN(message->nlmsg_len);
            at += step;
            left = left > step ? left - step : 0;
        }
    }
    return more;
}

// Ends these; one that has ended meanwhile is ended. Returns 0 or a negated errno.
static int end_all(int fd, uint8_t family, const Connections* connections)
{
    for (size_t i = 0; i < connections->count; i++) {
        int result = ask(fd, family, SOCK_DESTROY, NLM_F_ACK, &connections->list[i]);
        if (result == 0)
            result = take_answer(fd, nullptr);
        if (result != 0 && result != -ENOENT)
            return result;
    }
    return 0;
}

// Returns how many were ended; a negated errno.
static int end_family(int fd, uint8_t family, uint16_t port)
{
    Connections connections = {};
    const ConnectionsGuard held(&connections);
    inet_diag_sockid which = {};
    which.idiag_sport = htons(port);
    int result = ask(fd, family, SOCK_DIAG_BY_FAMILY, NLM_F_DUMP, &which);
    if (result == 0)
        result = take_answer(fd, &connections);
    if (result == 0)
        result = end_all(fd, family, &connections);
    return result == 0 ? static_cast<int>(connections.count) : result;
}

int connections_end(uint16_t port)
{
    const int opened = open_diag();
    if (opened < 0)
        return opened;
    const FdGuard fd(opened);
    const int older = end_family(fd.get(), AF_INET, port);
    // A machine without the second kind has none to end.
    const int newer = older < 0 ? older : end_family(fd.get(), AF_INET6, port);
    if (newer == -ENOENT)
        return older;
    return newer < 0 ? newer : older + newer;
}
