#include "ctl/service.h"

#include "ctl/machine.h"
#include "ctl/processes.h"
#include "lib/socket_unix.h"
#include "lib/sys.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

static constexpr char socket_name[] = "vyhotplugd";
static constexpr char socket_table[] = "/proc/net/unix";
static constexpr int send_limit_ms = 1500;
static constexpr int tick_ms = 1000;

// Lends the nth word of a line, from 0 on, and all that stands behind it; "" without one.
static const char* word_of(const char* line, int nth)
{
    line += strspn(line, " ");
    for (; nth > 0; nth--) {
        line += strcspn(line, " ");
        line += strspn(line, " ");
    }
    return line;
}

// "address: count protocol flags type state inode path": a listening one has the flag 0x10000. The
// zero bytes that the name is padded with are printed as "@".
bool service_line(const char* line)
{
    const char* flags = word_of(line, 3);
    const char* name = word_of(line, 7);
    if ((strtoull(flags, nullptr, 16) & 0x10000U) == 0 || name[0] != '@')
        return false;
    const size_t length = sizeof socket_name - 1;
    return strncmp(name + 1, socket_name, length) == 0 &&
           strchr("\n", name[1 + length + strspn(name + 1 + length, "@")]) != nullptr;
}

int service_look(bool* runs)
{
    const int result = machine_any_line(
        socket_table, [](char* line, void*) { return service_line(line); }, nullptr);
    *runs = result > 0;
    // A kernel without sockets, or one that hides them: nobody listens whom this program could ask.
    return result < 0 && result != -EACCES ? result : 0;
}

bool service_listens()
{
    bool runs = false;
    return service_look(&runs) == 0 && runs;
}

// Connects to the service. Returns 0; -ESRCH; -EPERM.
static int connect_service(FdGuard* fd, UnixPeer* peer)
{
    if (!service_listens())
        return -ESRCH;
    fd->reset(unix_create_socket(socket_name));
    if (fd->get() < 0 || unix_peer(fd->get(), peer) != 0)
        return -ESRCH;
    return unix_peer_is_trusted(*peer) ? 0 : -EPERM;
}

int service_reload()
{
    FdGuard fd;
    UnixPeer peer;
    const int result = connect_service(&fd, &peer);
    if (result != 0)
        return result;
    return peer.pid > 0 ? sys_kill(peer.pid, SIGHUP) : -ESRCH;
}

bool service_config(char (&path)[PATH_MAX])
{
    FdGuard fd;
    UnixPeer peer;
    return connect_service(&fd, &peer) == 0 && process_file_option(peer.pid, path);
}

ServiceAnswer service_request(const char* action, const char* target, bool force, int limit_ms,
                              Progress* progress)
{
    FdGuard fd;
    UnixPeer peer;
    if (connect_service(&fd, &peer) != 0)
        return SERVICE_GONE;
    char message[128];
    const int length =
        snprintf(message, sizeof message, "ACTION=%s,%s%s", action, target, force ? ",force" : "");
    if (length < 0 || static_cast<size_t>(length) >= sizeof message)
        return SERVICE_REFUSED;
    const auto size = static_cast<size_t>(length) + 1;
    if (unix_send(fd.get(), message, size, MSG_NOSIGNAL, send_limit_ms) !=
        static_cast<ssize_t>(size))
        return SERVICE_SILENT;
    for (int waited = 0; waited < limit_ms; waited += tick_ms) {
        const ssize_t received = unix_recieve(fd.get(), message, sizeof message, 0, tick_ms);
        if (received > 0)
            return message[0] == 's' ? SERVICE_DONE : SERVICE_REFUSED;
        if (received != -EAGAIN)
            return SERVICE_SILENT;
        progress_tick(progress, waited + tick_ms);
    }
    return SERVICE_SILENT;
}
