// The daemon on the other end of the socket: which process it is, and when it ends.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

constexpr size_t boot_id_size = 40; // bytes with the NUL

// Tells one daemon from every other. All zero: none.
struct DaemonIdentity {
    pid_t pid;
    uint64_t start;          // when the process began, in ticks since the boot
    char boot[boot_id_size]; // which boot; "" where the kernel does not say
};

// Returns owned: a non-blocking descriptor, connected to the daemon; -ECONNREFUSED when no daemon
// listens; -EAGAIN when too many wait for it already; another negated errno.
[[nodiscard]] int daemon_connect();

// Finds out which process listens at the other end; one that cannot be seen from here, being in
// another pid namespace, has the pid -1. Returns 0; -ESRCH when it has gone.
[[nodiscard]] int daemon_identify(int connection, DaemonIdentity* identity);

bool daemon_is_same(const DaemonIdentity& a, const DaemonIdentity& b);

// Whether that process still runs; false for one that cannot be seen.
bool daemon_runs(const DaemonIdentity& identity);

// Returns owned: a descriptor that becomes readable when the process ends; -ESRCH when it has
// ended; -ENOSYS where the kernel or the C library has no such thing; another negated errno.
[[nodiscard]] int daemon_watch(const DaemonIdentity& identity);

// Reads the start time from the text of /proc/PID/stat. Returns 0; -EINVAL. Pure.
[[nodiscard]] int daemon_parse_start(const char* text, uint64_t* start);
