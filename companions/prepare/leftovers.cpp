#include "prepare/leftovers.h"

#include "lib/guard.h"
#include "lib/process.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "lib/vytime.h"
#include "prepare/places.h"
#include "prepare/tell.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char share_service_pid_file[] = "/var/run/vynas-fssd.pid";
static constexpr uint32_t let_go_ms = 400;

// ---- the file-sharing service ----

// Empties the share file if it is a regular file of root's with one name.
static int empty_share_file(const char* path)
{
    const FdGuard fd(open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0)
        return errno == ENOENT ? 0 : -errno;
    struct stat status;
    if (fstat(fd.get(), &status) != 0)
        return -errno;
    if (!S_ISREG(status.st_mode) || status.st_uid != 0 || status.st_nlink != 1)
        return -EPERM;
    return ftruncate(fd.get(), 0) == 0 ? 0 : -errno;
}

static void withdraw_shares(const char* share_file)
{
    const int result = empty_share_file(share_file);
    if (result != 0)
        tell(LOG_WARNING, "%s is not emptied: %s", share_file, strerror(-result));
    (void)vy_sigsend_pid_file(share_service_pid_file, SIGHUP); // that nobody is there is no failure
    (void)vytime_msleep(let_go_ms);
}

// ---- one mount ----

static bool is_gone(int result)
{
    return result == 0 || result == -EINVAL || result == -ENOENT;
}

// Unmounts or detaches. Returns 0 when nothing is mounted there any more; a negated errno, told.
static int take_off(const char* directory)
{
    const int result = sys_umount(directory);
    if (is_gone(result)) {
        tell(LOG_NOTICE, "%s is unmounted", directory);
        return 0;
    }
    const int detached = sys_umount2(directory, MNT_DETACH);
    if (is_gone(detached)) {
        tell(LOG_WARNING, "%s cannot be unmounted (%s), it is detached", directory,
             strerror(-result));
        return 0;
    }
    tell(LOG_ERR, "%s cannot be detached: %s", directory, strerror(-detached));
    return detached;
}

// The path below the mount directory.
static const char* name_of(const char* directory, const char* mountpath)
{
    const char* name = directory + strlen(mountpath);
    while (*name == '/')
        name++;
    return name;
}

bool leftovers_is_ours(const char* directory, const char* mountpath)
{
    static constexpr const char* kinds[] = {"sd", "mmcblk"};
    if (!mountinfo_is_below(directory, mountpath))
        return false;
    const char* name = name_of(directory, mountpath);
    for (const char* kind : kinds) {
        const size_t length = strlen(kind);
        if (strncmp(name, kind, length) != 0 || name[length] < 'a' || name[length] > 'z')
            continue;
        const char* number = name + length + 1;
        const size_t digits = strspn(number, "0123456789");
        if (digits > 0 && (number[digits] == '\0' || number[digits] == '/'))
            return true;
    }
    return false;
}

// Removes the directory and the node that the service made for a partition. A mount deeper down
// lies in a directory that is not the service's.
static void remove_places(const char* directory, const char* mountpath, const char* devicepath)
{
    const char* name = name_of(directory, mountpath);
    if (strchr(name, '/') != nullptr)
        return;
    char node[place_path_size];
    (void)sys_rmdir(directory); // both may be gone already, and the directory may hold files
    if (strlen(devicepath) + 1 + strlen(name) >= sizeof node)
        return;
    str_cpy(str_cpy(str_cpy(node, devicepath), "/"), name);
    (void)sys_unlink(node);
}

// ---- all of them ----

static bool is_any_ours(const Mountinfo* table, const char* mountpath)
{
    for (size_t i = 0; i < table->count; i++) {
        if (leftovers_is_ours(table->entries[i].directory, mountpath))
            return true;
    }
    return false;
}

int leftovers_take_off(const ConfHotplug* config, const Mountinfo* table)
{
    // The paths in the kernel's table hold no symbolic links.
    const MemGuard<char> mountpath(realpath(config->mountpath, nullptr));
    if (!mountpath || !is_any_ours(table, mountpath.get()))
        return 0;
    withdraw_shares(config->smbconfigpath);
    sys_sync();
    int result = 0;
    for (size_t i = table->count; i > 0; i--) {
        const char* directory = table->entries[i - 1].directory;
        if (!leftovers_is_ours(directory, mountpath.get()))
            continue;
        if (take_off(directory) == 0)
            remove_places(directory, mountpath.get(), config->devicepath);
        else
            result = -1;
    }
    return result;
}
