#include "agent/daemon_peer.h"

#include "lib/guard.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

static constexpr char socket_name[] = "vyhotplugd";
static constexpr char boot_id_path[] = "/proc/sys/kernel/random/boot_id";
static constexpr int start_field = 22; // of /proc/PID/stat, see proc(5)

int daemon_connect()
{
    FdGuard fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.get() < 0)
        return -errno;
    sockaddr_un address = {}; // an abstract name, padded with zero bytes to the end
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, socket_name, strlen(socket_name));
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return -errno;
    return fd.take();
}

// ---- identity ----

int daemon_parse_start(const char* text, uint64_t* start)
{
    // The program's name stands in parentheses and may hold blanks and parentheses itself.
    const char* at = strrchr(text, ')');
    if (at == nullptr)
        return -EINVAL;
    for (int field = 2; field < start_field; field++) {
        at = strchr(at + 1, ' ');
        if (at == nullptr)
            return -EINVAL;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = strtoull(at + 1, &end, 10);
    if (at[1] < '0' || at[1] > '9' || errno != 0 || *end != ' ')
        return -EINVAL;
    *start = number;
    return 0;
}

// Reads the beginning of a file; "" when it cannot be read.
static void read_text(const char* path, char* text, size_t size)
{
    text[0] = '\0';
    const FdGuard fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return;
    const ssize_t count = read(fd.get(), text, size - 1);
    text[count > 0 ? count : 0] = '\0';
}

static int read_start(pid_t pid, uint64_t* start)
{
    char path[48];
    char text[1024];
    (void)snprintf(path, sizeof path, "/proc/%ld/stat", static_cast<long>(pid));
    read_text(path, text, sizeof text);
    return daemon_parse_start(text, start);
}

static void read_boot(char (&boot)[boot_id_size])
{
    read_text(boot_id_path, boot, sizeof boot);
    boot[strspn(boot, "0123456789abcdef-")] = '\0';
}

int daemon_identify(int connection, DaemonIdentity* identity)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return -errno;
    DaemonIdentity found = {};
    found.pid = peer.pid > 0 ? peer.pid : -1;
    if (found.pid > 0 && read_start(found.pid, &found.start) != 0)
        return -ESRCH;
    read_boot(found.boot);
    *identity = found;
    return 0;
}

bool daemon_is_same(const DaemonIdentity& a, const DaemonIdentity& b)
{
    return a.pid == b.pid && a.start == b.start && strcmp(a.boot, b.boot) == 0;
}

bool daemon_runs(const DaemonIdentity& identity)
{
    DaemonIdentity now = {};
    now.pid = identity.pid;
    if (identity.pid <= 0 || read_start(now.pid, &now.start) != 0)
        return false;
    read_boot(now.boot);
    return daemon_is_same(now, identity);
}

// ---- watching ----

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
