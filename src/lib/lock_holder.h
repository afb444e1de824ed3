// Who holds a lock of flock(2), from the kernel's table of locks (proc(5), /proc/locks).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// One lock of the table.
struct LockLine {
    pid_t pid; // the process that took it, which may have ended since
    uint32_t major;
    uint32_t minor;
    uint64_t inode;
};

// Reads one line of the table. False for what is no lock of flock(2), or one that is only waited
// for; `lock` then holds nothing of use.
[[nodiscard]] bool lock_line_parse(const char* line, LockLine* lock);

// Whether one of the locks on the open file belongs to a process that root started, or the own
// user. Without a table to look at, the answer is that it does. A process that anybody may start
// with root's rights (the set-user-id bit) counts as that somebody's.
[[nodiscard]] bool lock_holder_is_trusted(int fd);
