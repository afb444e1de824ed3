#include "prepare/lock.h"

#include "lib/lock_holder.h"
#include "lib/sys.h"
#include "prepare/tell.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>

static constexpr char pid_file[] = "/var/run/vyhotplugd.pid";
static constexpr char share_service_pid_file[] = "/var/run/vynas-fssd.pid";
static constexpr mode_t pid_file_mode = 0600;

// Leaves the file to root. A service that runs as another user is none of this project's.
static void make_private(int fd)
{
    struct stat status;
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == 0 &&
        (status.st_mode & 07777) != pid_file_mode)
        (void)fchmod(fd, pid_file_mode); // a lock of somebody else's is noticed all the same
}

// The file-sharing service makes its own file, and locks it.
static void make_share_service_file_private()
{
    const FdGuard fd(open(share_service_pid_file, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() >= 0)
        make_private(fd.get());
}

static int tell_failure(int error)
{
    if (error == EWOULDBLOCK)
        tell(LOG_ERR, "vyhotplugd is running, %s is locked", pid_file);
    else
        tell(LOG_ERR, "%s cannot be locked: %s", pid_file, strerror(error));
    return -1;
}

int lock_take(FdGuard* lock)
{
    make_share_service_file_private();
    for (bool again = false;; again = true) {
        lock->reset(open(pid_file, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                         pid_file_mode));
        if (lock->get() < 0)
            return errno == ENOENT ? 0 : tell_failure(errno);
        make_private(lock->get());
        if (flock(lock->get(), LOCK_EX | LOCK_NB) == 0)
            return 0;
        const int error = errno;
        if (error != EWOULDBLOCK || again || lock_holder_is_trusted(lock->get()))
            return tell_failure(error);
        const int removed = sys_unlink(pid_file);
        if (removed != 0)
            return tell_failure(-removed);
        tell(LOG_WARNING, "%s was locked by somebody who is not root, it is made anew", pid_file);
    }
}
