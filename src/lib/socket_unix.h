// Local stream sockets (unix(7)) with a time limit on each transfer.
//
// A name that begins with '/' is a path, which must not exist before it is listened on; any other
// lives in the abstract namespace, padded with zero bytes to the full length of the address. The
// last byte of the address is always zero: a path is cut to 107 characters, another name to 106.
//
// All descriptors are closed across exec(3): a hook or driver that is started meanwhile has none.
//
// One connection carries one request and at most one answer, each a text with its zero byte, sent
// and read in one piece. Failures are logged here, at error level. Callable from any thread.
#pragma once

#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>

// Returns owned: a non-blocking listening descriptor; -1.
[[nodiscard]] int unix_create_listen_socket(const char* name);

// Returns owned: a non-blocking connected descriptor; -1. Where both are given and *size (bytes)
// suffices, stores the peer's address and its length; else leaves them as they are.
[[nodiscard]] int unix_accept_addr(int listener, void* address, socklen_t* size);

// Returns owned: a blocking connected descriptor; -1.
[[nodiscard]] int unix_create_socket(const char* name);

// Who is at the other end: of an accepted connection the process that connected, of a connected one
// the process that listens, as they were at that moment (SO_PEERCRED, unix(7)).
struct UnixPeer {
    uid_t uid;
    pid_t pid; // may have ended since
};

// Returns 0; a negated errno.
[[nodiscard]] int unix_peer(int fd, UnixPeer* peer);

// Whether the peer is root or the own user: whoever else is there has no business with the service.
[[nodiscard]] bool unix_peer_is_trusted(const UnixPeer& peer);

// Sends once, with send(2)'s `flags`, when the socket becomes writable in time. Returns the bytes
// sent; 0 when it did not; a negated errno.
[[nodiscard]] ssize_t unix_send(int fd, const void* buffer, size_t length, int flags,
                                int timeout_ms);

// Receives once, with recv(2)'s `flags`, when something arrives in time. Returns the bytes
// received; 0 when the peer has closed; -EAGAIN when nothing arrived; a negated errno.
[[nodiscard]] ssize_t unix_recieve(int fd, void* buffer, size_t capacity, int flags,
                                   int timeout_ms);
