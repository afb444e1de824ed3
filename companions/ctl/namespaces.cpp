#include "ctl/namespaces.h"

#include "common/array.h"
#include "common/directory.h"
#include "ctl/machine.h"
#include "lib/str.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What a process sees of the mounts: its namespace, and its root directory there.
struct Sight {
    dev_t space_device;
    ino_t space;
    dev_t root_device;
    ino_t root;
};

struct Seen {
    MemGuard<Sight> sights;
    size_t count = 0;
};

} // namespace

// Reads that of a process, which is a directory of /proc. Returns 0; a negated errno.
static int read_sight(int process, Sight* sight)
{
    struct stat space;
    struct stat root;
    if (fstatat(process, "ns/mnt", &space, 0) != 0 || fstatat(process, "root", &root, 0) != 0)
        return -errno;
    *sight = {space.st_dev, space.st_ino, root.st_dev, root.st_ino};
    return 0;
}

static bool is_same_space(const Sight& a, const Sight& b)
{
    return a.space_device == b.space_device && a.space == b.space;
}

static bool is_seen(const Seen& seen, const Sight& sight)
{
    for (size_t i = 0; i < seen.count; i++) {
        const Sight& known = seen.sights.get()[i];
        if (is_same_space(known, sight) && known.root_device == sight.root_device &&
            known.root == sight.root)
            return true;
    }
    return false;
}

static int note(Seen* seen, const Sight& sight)
{
    Sight* held = seen->sights.take();
    auto* grown = static_cast<Sight*>(array_room(held, seen->count, sizeof *held));
    seen->sights.reset(grown != nullptr ? grown : held);
    if (grown == nullptr)
        return -ENOMEM;
    grown[seen->count++] = sight;
    return 0;
}

// Looks at a process of number `pid`. Returns 0; a negated errno.
static int look_at(int process, pid_t pid, const Sight& own, Seen* seen, NamespaceTake* take,
                   void* context)
{
    Sight sight = {};
    char folder[32];
    char path[64];
    MountinfoGuard mounts;
    int result = read_sight(process, &sight);
    if (result != 0 || is_same_space(sight, own) || is_seen(*seen, sight))
        return result;
    (void)snprintf(folder, sizeof folder, "/proc/self/fd/%d", process);
    (void)snprintf(path, sizeof path, "%s/mountinfo", folder);
    result = mountinfo_load(path, mounts.out());
    if (result != 0)
        return result;
    take(context, {.pid = pid, .process = folder, .mounts = mounts.get()});
    return note(seen, sight);
}

int namespaces_look(NamespaceTake* take, void* context)
{
    Sight own = {};
    Seen seen;
    const FdGuard self(open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (self.get() < 0)
        return -errno;
    const DirGuard processes(opendir("/proc"));
    if (!processes)
        return -errno;
    int result = read_sight(self.get(), &own);
    if (result != 0)
        return result == -ENOENT ? 0 : result;
    while (const dirent* entry = directory_next(processes.get())) {
        int32_t pid = 0;
        if (str_to_long(entry->d_name, &pid, 10) != 0)
            continue;
        const FdGuard process(
            openat(dirfd(processes.get()), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        result =
            process.get() < 0 ? -errno : look_at(process.get(), pid, own, &seen, take, context);
        if (machine_is_short(result))
            return result; // another one may be in the namespace of what has only ended
    }
    return -errno;
}
