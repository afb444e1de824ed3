// The calls that change or wait for the world, one line each, so that tests can put a scripted
// world in their place.
//
// Every function returns 0 or a value on success and a negated errno on failure. Texts and
// buffers are borrowed for the call.
#pragma once

#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

enum SysDirection { SYS_READABLE, SYS_WRITABLE };

// Filesystems and names (mount(2), umount2(2), mknod(2), ...).
[[nodiscard]] int sys_mount(const char* source, const char* target, const char* type,
                            unsigned long flags, const char* options);
[[nodiscard]] int sys_umount(const char* target);
[[nodiscard]] int sys_umount2(const char* target, int flags);
[[nodiscard]] int sys_mknod(const char* path, mode_t mode, dev_t device);
[[nodiscard]] int sys_mkdir(const char* path, mode_t mode);
[[nodiscard]] int sys_rmdir(const char* path);
[[nodiscard]] int sys_unlink(const char* path);
[[nodiscard]] int sys_rename(const char* from, const char* to);
[[nodiscard]] int sys_link(const char* from, const char* to);
[[nodiscard]] int sys_exchange(const char* a, const char* b); // -ENOSYS, -EINVAL: not to be had
[[nodiscard]] int sys_fsync(int fd);
[[nodiscard]] int sys_statfs(const char* path);      // the answer itself is of no interest
[[nodiscard]] int sys_is_readonly(const char* path); // 1 when its filesystem is mounted so, else 0
void sys_sync();

// Processes.
[[nodiscard]] int sys_kill(pid_t pid, int signal);
[[nodiscard]] pid_t sys_waitpid(pid_t pid, int* status, int options);
[[nodiscard]] int sys_pipe(int ends[2]); // both closed across exec(3)

// Starts `file` (searched on PATH) with `argv` and the environment as it is. Its standard streams
// become duplicates of stdio[0..2], or /dev/null where that is -1; descriptors 3 to 254 are closed.
// Returns the child's pid. A child that cannot be set up or executed ends with status 1.
[[nodiscard]] pid_t sys_spawn(const char* file, char* const argv[], const int stdio[3]);

// As sys_spawn. `prepare` is called in the child, its streams and descriptors set, just before the
// program takes its place: it makes only calls that are safe there, and returns whether the program
// may be run.
[[nodiscard]] pid_t sys_spawn_prepared(const char* file, char* const argv[], const int stdio[3],
                                       bool (*prepare)());

// As sys_spawn, but the child runs no program: it calls `work`, which makes only calls that are
// safe there, and ends with 0.
[[nodiscard]] pid_t sys_spawn_work(void (*work)(char* const argv[]), char* const argv[],
                                   const int stdio[3]);

// Clocks and waiting. sys_select_one waits for one descriptor, without limit when `limit` is null,
// and returns 1 when it is ready, 0 when the time ran out.
[[nodiscard]] int sys_clock_gettime(clockid_t clock, timespec* now);
[[nodiscard]] int sys_gettimeofday(timeval* now);
[[nodiscard]] int sys_time(time_t* now);
[[nodiscard]] int sys_nanosleep(const timespec* interval, timespec* rest);
[[nodiscard]] int sys_select_one(int fd, SysDirection direction, timeval* limit);
