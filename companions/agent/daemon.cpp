#include "agent/daemon.h"

#include "lib/file.h"
#include "lib/log.h"
#include "lib/str.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

static constexpr char log_tag[] = "courier";
static constexpr char socket_name[] = "vyhotplugd";
static constexpr char boot_id_path[] = "/proc/sys/kernel/random/boot_id";
static constexpr int start_field = 22; // of /proc/PID/stat, see proc(5)

// ---- the process ----

int daemon_parse_start(const char* text, uint64_t* start)
{
    // The program's name stands in parentheses and may hold blanks and parentheses itself.
    const char* at = strrchr(text, ')');
    for (int field = 2; at != nullptr && field < start_field; field++)
        at = strchr(at + 1, ' ');
    if (at == nullptr || at[1] < '0' || at[1] > '9')
        return -EINVAL;
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = strtoull(at + 1, &end, 10);
    if (errno != 0 || *end != ' ')
        return -EINVAL;
    *start = number;
    return 0;
}

// Whether there is nothing to be read, not even later.
static bool is_final(int result)
{
    return result == -ENOENT || result == -ESRCH || result == -EACCES || result == -EPERM ||
           result == -EINVAL;
}

// Returns 0; -ESRCH when there is no such process; another negated errno when that cannot be said
// now.
static int identify(pid_t pid, DaemonIdentity* identity)
{
    char path[48];
    FileBytes content;
    *identity = {.pid = pid > 0 ? pid : -1, .start = 0, .boot = ""};
    (void)snprintf(path, sizeof path, "/proc/%ld/stat", static_cast<long>(pid));
    int result = pid > 0 ? file_read_all(path, 0, FILE_ANY_SIZE, &content) : 0;
    if (result == 0 && pid > 0)
        result = daemon_parse_start(content.bytes.get(), &identity->start);
    if (result != 0)
        return is_final(result) ? -ESRCH : result;
    result = file_read_all(boot_id_path, 0, FILE_ANY_SIZE, &content);
    if (result == 0)
        str_ncpy(identity->boot, content.bytes.get(), sizeof identity->boot);
    identity->boot[strspn(identity->boot, "0123456789abcdef-")] = '\0';
    return is_final(result) ? 0 : result; // an old kernel, or without sysctl
}

bool daemon_is_same(const DaemonIdentity& a, const DaemonIdentity& b)
{
    return a.pid == b.pid && a.start == b.start && strcmp(a.boot, b.boot) == 0;
}

bool daemon_runs(const DaemonIdentity& identity)
{
    DaemonIdentity now;
    const int result = identity.pid > 0 ? identify(identity.pid, &now) : -ESRCH;
    return result == 0 ? daemon_is_same(now, identity) : result != -ESRCH;
}

int daemon_watch(const DaemonIdentity& identity)
{
    if (identity.pid <= 0)
        return -EPERM;
#ifdef SYS_pidfd_open
    FdGuard fd(static_cast<int>(syscall(SYS_pidfd_open, identity.pid, 0))); // closed across exec
    if (fd.get() < 0)
        return -errno;
    if (!daemon_runs(identity)) // its number may be another's by now
        return -ESRCH;
    return fd.take();
#else
    return -ENOSYS;
#endif
}

// ---- messages ----

void courier_hang_up(Courier* courier)
{
    courier->connection.reset(-1);
}

void courier_hurry(Courier* courier, uint64_t deadline)
{
    if (deadline < courier->deadline)
        courier->deadline = deadline;
}

static CourierEvent fail(Courier* courier, int error, uint64_t now)
{
    VY_LOG(LOG_INFO, "message not delivered, will be sent again (%s)", strerror(error));
    courier_hang_up(courier);
    retry_later(&courier->retry, now);
    return COURIER_WAITS;
}

void courier_send(Courier* courier, const char* message, uint64_t now)
{
    if (message == nullptr) {
        courier->retry = {};
        return courier_hang_up(courier);
    }
    const size_t size = strlen(message) + 1;
    const ssize_t sent =
        send(courier->connection.get(), message, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent != static_cast<ssize_t>(size)) {
        (void)fail(courier, sent < 0 ? errno : EMSGSIZE, now);
        return;
    }
    VY_LOG(LOG_DEBUG, "sent %s", message);
    courier->deadline = now + agent_close_wait;
}

static CourierEvent look_for_end(Courier* courier, uint64_t now)
{
    char ignored[64]; // a hotplug message gets no answer
    ssize_t count = 1;
    while (count > 0)
        count = recv(courier->connection.get(), ignored, sizeof ignored, MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN)
        return fail(courier, errno, now);
    if (count < 0 && now < courier->deadline)
        return COURIER_WAITS;
    if (count < 0)
        VY_LOG(LOG_WARNING, "the daemon is slow; the message lies in its queue");
    courier_hang_up(courier);
    courier->retry = {};
    return COURIER_DELIVERED;
}

// Whether the listener may be the daemon: anybody can take its name while it is away. One that may
// not is told of once, until the daemon is back.
static bool is_believed(Courier* courier, const ucred& peer)
{
    if (peer.uid == 0 || peer.uid == geteuid()) {
        courier->stranger_told = false;
        return true;
    }
    if (courier->stranger_told)
        return false;
    VY_LOG(LOG_WARNING, "process %ld of user %lu listens in the daemon's place and is not believed",
           static_cast<long>(peer.pid), static_cast<unsigned long>(peer.uid));
    courier->stranger_told = true;
    return false;
}

// Connects. Returns 0; -EACCES for a listener that is not believed, which is told; another negated
// errno.
static int meet(Courier* courier, DaemonIdentity* daemon)
{
    sockaddr_un address = {}; // an abstract name, padded with zero bytes to the end
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, socket_name, strlen(socket_name));
    ucred peer = {};
    socklen_t size = sizeof peer;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    courier->connection.reset(fd);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return -errno;
    return is_believed(courier, peer) ? identify(peer.pid, daemon) : -EACCES;
}

CourierEvent courier_advance(Courier* courier, bool wanted, uint64_t now, DaemonIdentity* daemon)
{
    if (courier->connection.get() >= 0)
        return look_for_end(courier, now);
    if (!wanted || now < courier->retry.due)
        return COURIER_WAITS;
    const int result = meet(courier, daemon);
    if (result == 0)
        return COURIER_MET;
    courier_hang_up(courier);
    retry_later(&courier->retry, now);
    if (result == -ECONNREFUSED || result == -ENOENT)
        return COURIER_MISSED;
    if (result != -EACCES)
        VY_LOG(LOG_INFO, "connection put off (%s)", strerror(-result));
    return COURIER_WAITS;
}

uint64_t courier_due(const Courier* courier, bool wanted)
{
    if (courier->connection.get() >= 0)
        return courier->deadline;
    return wanted ? courier->retry.due : agent_never;
}
