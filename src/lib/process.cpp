#include "lib/process.h"

#include "lib/guard.h"
#include "lib/lock_holder.h"
#include "lib/log.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "lib/vytime.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr char log_tag[] = "process";
static constexpr size_t path_size = 256;
static constexpr unsigned poll_ms = 200;

// 644 in decimal, octal 1204: kept, the file has carried this mode from the beginning.
static constexpr mode_t pid_file_mode = 644;

// Writes this process's pid as the file's whole content.
static bool write_own_pid(int fd)
{
    char text[16];
    const int length = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
    if (ftruncate(fd, 0) != 0)
        return false;
    return write(fd, text, static_cast<size_t>(length)) == length;
}

// Opens and locks the file. Returns 0 with the descriptor in `fd`; -1. Everybody may read the file
// and so lock it: a lock that is not root's keeps nobody from starting, for the file is made anew.
static int open_locked(const char* path, FdGuard* fd)
{
    for (bool again = false;; again = true) {
        fd->reset(open(path, O_WRONLY | O_CREAT, pid_file_mode));
        if (fd->get() < 0)
            return -1;
        if (flock(fd->get(), LOCK_EX | LOCK_NB) == 0)
            return 0;
        if (errno != EWOULDBLOCK || again || lock_holder_is_trusted(fd->get()))
            return -1;
        if (sys_unlink(path) != 0)
            return -1;
    }
}

int vy_create_pid_file(const char* name)
{
    char path[path_size];
    (void)snprintf(path, sizeof path, "/var/run/%s.pid", name);
    FdGuard fd;
    if (open_locked(path, &fd) != 0)
        return -1;
    if (!write_own_pid(fd.get()))
        return -1;
    if (fcntl(fd.get(), F_SETFD, FD_CLOEXEC) != 0)
        return -1;
    return fd.take();
}

// Reads the first 15 bytes of the file as text, without a newline at their end.
static int read_pid_text(const char* path, char (&text)[16])
{
    const FileGuard file(fopen(path, "r"));
    if (!file)
        return -1;
    size_t kept = fread(text, 1, sizeof text, file.get());
    if (ferror(file.get()))
        return -1;
    if (kept > sizeof text - 1)
        kept = sizeof text - 1;
    if (kept > 0 && text[kept - 1] == '\n')
        kept--;
    text[kept] = '\0';
    return 0;
}

int vy_sigsend_pid_file(const char* name, int signal)
{
    VY_LOG(LOG_DEBUG, "open pid file (%s)", name);
    char below_run[path_size];
    const char* path = name;
    if (name[0] != '/') {
        // Kept: the doubled slash and the newline at the end; everybody passes an absolute path.
        const int length = snprintf(below_run, sizeof below_run, "%s/%s\n", "/var/run/", name);
        if (length < 0 || static_cast<size_t>(length) >= sizeof below_run)
            return -1;
        path = below_run;
    }
    char text[16];
    if (read_pid_text(path, text) != 0)
        return -1;
    if (text[0] == '\0')
        return -1;
    int32_t pid = 0;
    if (str_to_long(text, &pid, 10) != 0)
        return -1;
    const int result = sys_kill(pid, signal);
    if (result == 0)
        return 0;
    errno = -result;
    return -1;
}

namespace {

// Both ends of a pipe, closed with the object unless taken.
struct Pipe {
    FdGuard read_end;
    FdGuard write_end;

    int open()
    {
        int ends[2];
        const int result = sys_pipe(ends);
        if (result < 0)
            return result;
        read_end.reset(ends[0]);
        write_end.reset(ends[1]);
        return 0;
    }
};

} // namespace

pid_t vy_fork_exec(const char* file, char* const argv[], int* in_fd, int* out_fd, int* err_fd)
{
    Pipe in;
    Pipe out;
    Pipe err;
    int result = 0;
    if (in_fd != nullptr && (result = in.open()) < 0)
        return result;
    if (out_fd != nullptr && (result = out.open()) < 0)
        return result;
    if (err_fd != nullptr && (result = err.open()) < 0)
        return result;

    const int stdio[3] = {in.read_end.get(), out.write_end.get(), err.write_end.get()};
    const pid_t pid = sys_spawn(file, argv, stdio);
    if (pid < 0)
        return pid;
    if (in_fd != nullptr)
        *in_fd = in.write_end.take();
    if (out_fd != nullptr)
        *out_fd = out.read_end.take();
    if (err_fd != nullptr)
        *err_fd = err.read_end.take();
    return pid;
}

// Looks at the child until it ends or the time runs out. Returns waitpid's positive answer, 0 when
// the time ran out, a negated errno.
static pid_t poll_child(pid_t pid, int* wait_status, int timeout_ms)
{
    if (timeout_ms == -1)
        return sys_waitpid(pid, wait_status, 0);
    const int polls = timeout_ms / static_cast<int>(poll_ms);
    for (int i = 0; i < polls; i++) {
        const pid_t ended = sys_waitpid(pid, wait_status, WNOHANG);
        if (ended != 0)
            return ended;
        (void)vytime_msleep(poll_ms);
    }
    return 0;
}

int vy_wait(pid_t pid, int flags, int* status, int timeout_ms)
{
    int wait_status = 0;
    const pid_t ended = poll_child(pid, &wait_status, timeout_ms);
    if (ended < 0)
        return ended;
    const bool exited = ended > 0 && (wait_status & 0x7F) == 0;
    if (status != nullptr)
        *status = exited ? wait_status >> 8 & 0xFF : -1;
    if (ended > 0)
        return 0;
    if (flags & VY_WAIT_INTERRUPT)
        (void)sys_kill(pid, SIGINT); // it may have ended by itself meanwhile
    return 1;
}
