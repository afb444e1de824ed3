// The daemon: which process it is, when it ends, and how messages are carried to it, one after the
// other, each over a connection of its own.
//
// Nothing here blocks: whoever has the courier waits for its descriptor and its time, and then has
// it advance, which returns what has happened. A message is delivered when the daemon has closed
// the connection, or when it has not done so in agent_close_wait: then it is busy, and the message
// lies in its queue. A connection that is reset has delivered nothing, and the message is to be
// sent again, later and later. So it is where a listener is neither root's nor the own user's:
// nothing is sent to it. While there is no daemon, or too many wait for it, it is tried again later
// (limits.h).
#pragma once

#include "agent/limits.h"
#include "lib/guard.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// ---- the process ----

constexpr size_t boot_id_size = 40; // bytes with the NUL

// Tells one daemon from every other. All zero: none.
struct DaemonIdentity {
    pid_t pid;               // -1 for one that cannot be seen from here, in another pid namespace
    uint64_t start;          // when the process began, in ticks since the boot
    char boot[boot_id_size]; // which boot; "" where the kernel does not say
};

bool daemon_is_same(const DaemonIdentity& a, const DaemonIdentity& b);

// Whether that process still runs; false for one that cannot be seen, true where it cannot be said
// now.
bool daemon_runs(const DaemonIdentity& identity);

// Returns owned: a descriptor that becomes readable when the process ends; -ESRCH when it has
// ended; -ENOSYS where the kernel or the C library has no such thing; another negated errno.
[[nodiscard]] int daemon_watch(const DaemonIdentity& identity);

// Reads the start time from the text of /proc/PID/stat. Returns 0; -EINVAL. Pure.
[[nodiscard]] int daemon_parse_start(const char* text, uint64_t* start);

// ---- messages ----

enum CourierEvent : uint8_t {
    COURIER_WAITS,     // there is nothing to be done now
    COURIER_MISSED,    // no daemon listens
    COURIER_MET,       // a connection has been made: courier_send is to be called
    COURIER_DELIVERED, // what was sent has been delivered
};

// Its fields are its own.
struct Courier {
    FdGuard connection;         // over which a message has been sent,
    uint64_t deadline = 0;      // which counts as delivered then
    Retry retry = {};           // of connections
    bool stranger_told = false; // that somebody else listens
};

// Does the next thing that can be done at the time `now`. `wanted`: a connection is to be made.
// `daemon` is stored with COURIER_MET: which one it is.
[[nodiscard]] CourierEvent courier_advance(Courier* courier, bool wanted, uint64_t now,
                                           DaemonIdentity* daemon);

// After COURIER_MET: sends a message, or, where it is null, ends the connection without one.
void courier_send(Courier* courier, const char* message, uint64_t now);

// Drops the message that is under way, if there is one, as undelivered, and its connection.
void courier_hang_up(Courier* courier);

// A message that is under way counts as delivered then, if that is sooner.
void courier_hurry(Courier* courier, uint64_t deadline);

// When it is to advance if its descriptor does not become readable before; agent_never.
uint64_t courier_due(const Courier* courier, bool wanted);

// Lends the descriptor over which a message is under way; -1 when none is.
inline int courier_descriptor(const Courier* courier)
{
    return courier->connection.get();
}
