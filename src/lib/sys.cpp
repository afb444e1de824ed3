#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static int answer(int result)
{
    return result < 0 ? -errno : result;
}

int sys_mount(const char* source, const char* target, const char* type, unsigned long flags,
              const char* options)
{
    return answer(mount(source, target, type, flags, options));
}

int sys_umount(const char* target)
{
    return answer(umount(target));
}

int sys_umount2(const char* target, int flags)
{
    return answer(umount2(target, flags));
}

int sys_mknod(const char* path, mode_t mode, dev_t device)
{
    return answer(mknod(path, mode, device));
}

int sys_mkdir(const char* path, mode_t mode)
{
    return answer(mkdir(path, mode));
}

int sys_rmdir(const char* path)
{
    return answer(rmdir(path));
}

int sys_unlink(const char* path)
{
    return answer(unlink(path));
}

int sys_rename(const char* from, const char* to)
{
    return answer(rename(from, to));
}

int sys_link(const char* from, const char* to)
{
    return answer(link(from, to));
}

// By its number: not every C library knows renameat2(2).
int sys_exchange(const char* a, const char* b)
{
#ifdef SYS_renameat2
    static constexpr unsigned exchange = 2; // RENAME_EXCHANGE
    return answer(static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, a, AT_FDCWD, b, exchange)));
#else
    (void)a;
    (void)b;
    return -ENOSYS;
#endif
}

int sys_fsync(int fd)
{
    return answer(fsync(fd));
}

int sys_statfs(const char* path)
{
    struct statfs ignored;
    return answer(statfs(path, &ignored));
}

int sys_is_readonly(const char* path)
{
    struct statvfs status;
    if (statvfs(path, &status) != 0)
        return -errno;
    return (status.f_flag & ST_RDONLY) != 0 ? 1 : 0;
}

void sys_sync()
{
    sync();
}

int sys_kill(pid_t pid, int signal)
{
    return answer(kill(pid, signal));
}

pid_t sys_waitpid(pid_t pid, int* status, int options)
{
    return answer(waitpid(pid, status, options));
}

int sys_pipe(int ends[2])
{
    return answer(pipe2(ends, O_CLOEXEC));
}

// In the child: stream `number` becomes a duplicate of `source`, or /dev/null when that is -1.
static void child_stream(int number, int source, int null_flags)
{
    close(number);
    const int got = source >= 0 ? dup(source) : open("/dev/null", null_flags);
    if (got != number)
        _exit(1);
}

// In the child, as all of these: only calls that are safe after fork(2) in a process with threads.
static void child_begin(const int stdio[3])
{
    child_stream(0, stdio[0], O_RDONLY);
    child_stream(1, stdio[1], O_WRONLY);
    child_stream(2, stdio[2], O_WRONLY);
    for (int fd = 3; fd <= 254; fd++)
        close(fd);
}

[[noreturn]] static void child_run(const char* file, char* const argv[], const int stdio[3],
                                   bool (*prepare)())
{
    child_begin(stdio);
    if (prepare == nullptr || prepare())
        execvp(file, argv);
    _exit(1);
}

pid_t sys_spawn_prepared(const char* file, char* const argv[], const int stdio[3],
                         bool (*prepare)())
{
    const pid_t pid = fork();
    if (pid == 0)
        child_run(file, argv, stdio, prepare);
    return answer(pid);
}

pid_t sys_spawn(const char* file, char* const argv[], const int stdio[3])
{
    return sys_spawn_prepared(file, argv, stdio, nullptr);
}

pid_t sys_spawn_work(void (*work)(char* const argv[]), char* const argv[], const int stdio[3])
{
    const pid_t pid = fork();
    if (pid != 0)
        return answer(pid);
    child_begin(stdio);
    work(argv);
    _exit(0);
}

int sys_clock_gettime(clockid_t clock, timespec* now)
{
    return answer(clock_gettime(clock, now));
}

int sys_gettimeofday(timeval* now)
{
    return answer(gettimeofday(now, nullptr));
}

int sys_time(time_t* now)
{
    return time(now) == static_cast<time_t>(-1) ? -errno : 0;
}

int sys_nanosleep(const timespec* interval, timespec* rest)
{
    return answer(nanosleep(interval, rest));
}

int sys_select_one(int fd, SysDirection direction, timeval* limit)
{
    if (fd < 0 || fd >= FD_SETSIZE)
        return -EBADF;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    const bool readable = direction == SYS_READABLE;
    return answer(
        select(fd + 1, readable ? &set : nullptr, readable ? nullptr : &set, nullptr, limit));
}
