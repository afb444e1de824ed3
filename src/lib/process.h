// Pid files and child processes. Stateless.
#pragma once

#include <sys/types.h>

// Creates, locks and writes "/var/run/<name>.pid". Returns the open, locked descriptor, which the
// caller keeps for the life of the process and which is closed across exec; -1 on any failure, the
// file untouched when another process, started by root, holds the lock.
[[nodiscard]] int vy_create_pid_file(const char* name);

// Sends `signal` to the process whose decimal pid stands in the file `name` (an absolute path; a
// relative name is looked for below /var/run with a newline behind it). Returns 0 when it was sent,
// -1 otherwise, with kill(2)'s errno where that is what failed.
int vy_sigsend_pid_file(const char* name, int signal);

// Starts `file` (searched on PATH) with `argv`. Each stream whose pointer is given is joined to a
// pipe and the parent's end stored there, owned by the caller; the others are /dev/null. Returns
// the child's pid; a negated errno, with no descriptor left open. A child that cannot be executed
// ends with status 1.
[[nodiscard]] pid_t vy_fork_exec(const char* file, char* const argv[], int* in_fd, int* out_fd,
                                 int* err_fd);

enum { VY_WAIT_INTERRUPT = 1 }; // send SIGINT when the time runs out; the child is not reaped

// Waits for a child, looking every 200 ms, `timeout_ms` / 200 times (so a time-out below 200 looks
// not even once); -1 waits without limit. Returns 0 when it ended, its exit status (-1 when a
// signal killed it) stored in `status` where that is given; 1 when the time ran out, -1 stored; a
// negated errno when waiting failed, nothing stored.
[[nodiscard]] int vy_wait(pid_t pid, int flags, int* status, int timeout_ms);
