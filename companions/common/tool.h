// Runs a tool that reads a device and prints a little: confined (confine.h), for a limited time,
// and without anybody waiting for one that hangs.
#pragma once

#include "lib/guard.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

enum class ToolState : uint8_t {
    none, // not started
    running,
    ended,       // with `status`, and has printed `text`
    not_started, // it is not there, or cannot be confined, or there are no processes to be had
    crashed,     // by a signal of its own, or it could not be read
    too_long,    // it printed more than there is room for, and was killed
    timed_out,   // it was killed, and may live on while the kernel holds it
};

// Its fields are to be read only. A tool that is let go while it runs is killed by tool_stop.
struct Tool {
    ToolState state = ToolState::none;
    int status = 0;       // its exit status
    char* text = nullptr; // borrowed from the caller; a text with its NUL once it has ended
    size_t size = 0;      // of `text` in bytes, with the NUL
    size_t used = 0;
    pid_t pid = 0;
    FdGuard out;
    uint64_t deadline = 0;
};

// Milliseconds of the monotonic clock; UINT64_MAX where there is none, so that nothing hangs.
uint64_t tool_now();

// Starts argv[0] (searched on PATH), which has `limit_ms` from `now` on. `text` is borrowed until
// it is no longer running.
void tool_start(Tool* tool, char* const argv[], char* text, size_t size, uint64_t now,
                uint32_t limit_ms);

// As tool_start for a function of this program's, `work` of sys_spawn_work, which is neither
// confined nor limited: only tool_stop ends it before its time.
void tool_start_work(Tool* tool, void (*work)(char* const argv[]), char* const argv[], char* text,
                     size_t size);

// Takes what it has printed and looks whether it has ended. Never blocks.
void tool_advance(Tool* tool, uint64_t now);

// Waits until it is no longer running.
void tool_wait(Tool* tool);

// Kills it if it runs; it is not waited for, see tool_reap.
void tool_stop(Tool* tool);

// Lends the descriptor that becomes readable when there is something to advance; -1: the time.
inline int tool_descriptor(const Tool* tool)
{
    return tool->state == ToolState::running ? tool->out.get() : -1;
}

// When it is to be advanced if its descriptor does not become readable before; UINT64_MAX: never.
uint64_t tool_due(const Tool* tool, uint64_t now);

// Forgets children that were killed before and have ended by now. For processes that live on. Of a
// tool that is running then the exit status is lost: it has crashed, with all that it has printed.
void tool_reap();
