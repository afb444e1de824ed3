#include "lib/sys.h"
#include "mount/mount.h"
#include "mount/mtab.h"

#include <errno.h>
#include <sys/mount.h>
#include <sys/wait.h>

namespace {

enum class Detached {
    done,
    was_none, // no mount there: a stale entry, to be cleaned up all the same
    failed,
};

} // namespace

static Detached detach(const char* mountpoint, unsigned force)
{
    const int result = sys_umount(mountpoint);
    if (result == 0)
        return Detached::done;
    if (result == -EINVAL || result == -ENOENT)
        return Detached::was_none;
    if (force == 0)
        return Detached::failed;
    // Lazily first: kept, MNT_FORCE would cost the files in use.
    if (sys_umount2(mountpoint, MNT_DETACH) == 0)
        return Detached::done;
    if (sys_umount2(mountpoint, MNT_FORCE) == 0)
        return Detached::done;
    return Detached::failed;
}

int vyunmount(MountEntry* entry, unsigned force, bool strict)
{
    sys_sync();
    const Detached detached = detach(entry->mountpoint, force);
    if (detached == Detached::failed)
        return -1;
    // An NTFS driver ends when its filesystem goes; most often there is none.
    (void)sys_waitpid(-1, nullptr, WNOHANG);
    entry->mounted = 0;
    mtab_remove(entry->devnode, entry->mountpoint, strict);
    (void)sys_rmdir(entry->mountpoint);
    (void)sys_unlink(entry->devnode);
    return detached == Detached::done ? 0 : -1;
}
