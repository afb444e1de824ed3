#include "lib/socket_unix.h"

#include "lib/guard.h"
#include "lib/log.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/un.h>

static constexpr char log_tag[] = "socket_unix";
static constexpr int listen_backlog = 128;

static sockaddr_un make_address(const char* name)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // An abstract name is one zero byte and then the name.
    const size_t start = name[0] == '/' ? 0 : 1;
    const size_t room = sizeof address.sun_path - start;
    memcpy(address.sun_path + start, name, strnlen(name, room));
    address.sun_path[sizeof address.sun_path - 1] = '\0';
    return address;
}

static int set_nonblocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        VY_LOG(LOG_ERR, "Error - get socket flag (err=%d)", errno);
        return -1;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        VY_LOG(LOG_ERR, "Error - set socket flag (err=%d)", errno);
        return -1;
    }
    return 0;
}

static int create_stream_socket()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        VY_LOG(LOG_ERR, "Error - create socket (err=%d)", errno);
    return fd < 0 ? -1 : fd;
}

int unix_create_listen_socket(const char* name)
{
    FdGuard fd(create_stream_socket());
    if (fd.get() < 0)
        return -1;
    if (set_nonblocking(fd.get()) != 0)
        return -1;
    const int on = 1;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        VY_LOG(LOG_ERR, "Error - set socket flag (err=%d)", errno);
        return -1;
    }
    const sockaddr_un address = make_address(name);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        VY_LOG(LOG_ERR, "Error - bind (err=%d)", errno);
        return -1;
    }
    if (listen(fd.get(), listen_backlog) < 0) {
        VY_LOG(LOG_ERR, "Error - listen (err=%d)", errno);
        return -1;
    }
    return fd.take();
}

int unix_accept_addr(int listener, void* address, socklen_t* size)
{
    sockaddr_storage peer;
    static_assert(sizeof peer == 128);
    socklen_t length = sizeof peer;
    FdGuard fd(accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC));
    if (fd.get() < 0) {
        VY_LOG(LOG_ERR, "Error - accept socket (err=%d)", errno);
        return -1;
    }
    if (set_nonblocking(fd.get()) != 0)
        return -1;
    if (address != nullptr && size != nullptr && *size >= length) {
        memcpy(address, &peer, length);
        *size = length;
    }
    return fd.take();
}

int unix_create_socket(const char* name)
{
    FdGuard fd(create_stream_socket());
    if (fd.get() < 0)
        return -1;
    const sockaddr_un address = make_address(name);
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        VY_LOG(LOG_ERR, "Error - connect (err=%d)", errno);
        return -1;
    }
    return fd.take();
}

int unix_peer(int fd, UnixPeer* peer)
{
    ucred credentials;
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return -errno;
    *peer = {.uid = credentials.uid, .pid = credentials.pid};
    return 0;
}

bool unix_peer_is_trusted(const UnixPeer& peer)
{
    return peer.uid == 0 || peer.uid == geteuid();
}

// Returns 1 when the socket is ready, 0 when the time ran out, a negated errno.
static int await(int fd, SysDirection direction, int timeout_ms)
{
    timeval limit = {.tv_sec = timeout_ms / 1000, .tv_usec = timeout_ms % 1000 * 1000L};
    return sys_select_one(fd, direction, &limit);
}

ssize_t unix_send(int fd, const void* buffer, size_t length, int flags, int timeout_ms)
{
    const int ready = await(fd, SYS_WRITABLE, timeout_ms);
    if (ready <= 0)
        return ready;
    const ssize_t sent = send(fd, buffer, length, flags);
    return sent < 0 ? -errno : sent;
}

ssize_t unix_recieve(int fd, void* buffer, size_t capacity, int flags, int timeout_ms)
{
    const int ready = await(fd, SYS_READABLE, timeout_ms);
    if (ready < 0)
        return ready;
    if (ready == 0)
        return -EAGAIN;
    const ssize_t received = recv(fd, buffer, capacity, flags);
    return received < 0 ? -errno : received;
}
