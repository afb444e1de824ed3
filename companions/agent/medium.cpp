#include "agent/medium.h"

#include "lib/guard.h"
#include "lib/log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

static constexpr char log_tag[] = "medium";

// ---- the kernel ----

// Returns a descriptor for the disk, or -1.
static int open_disk(const BlockName& disk, int flags)
{
    char name[block_name_size];
    char path[block_name_size + 8];
    block_name_format(disk, name);
    (void)snprintf(path, sizeof path, "/dev/%s", name);
    const int fd = open(path, O_RDONLY | O_CLOEXEC | flags);
    if (fd < 0)
        VY_LOG(LOG_DEBUG, "%s: %s", path, strerror(errno));
    return fd;
}

void medium_touch(const BlockName& disk)
{
    const FdGuard fd(open_disk(disk, 0));
}

// Returns whether something of the disk is in use, which kept its partitions from being read.
static bool read_partitions(const BlockName& disk)
{
    const FdGuard fd(open_disk(disk, O_NONBLOCK)); // without a medium too
    return fd.get() >= 0 && ioctl(fd.get(), BLKRRPART) != 0 && errno == EBUSY;
}

// ---- the disks that are kept ----

static void keep(ChangedDisks* changed, const BlockName& disk, uint64_t now)
{
    changed->disks[changed->count++] = disk;
    changed->pause = agent_retry_first;
    changed->due = now + changed->pause;
}

bool changed_read(ChangedDisks* changed, const BlockName& disk, uint64_t now)
{
    if (!read_partitions(disk)) {
        changed_drop(changed, disk);
        return true;
    }
    if (changed_keeps(changed, disk))
        return false;
    if (changed->count == agent_changed_limit)
        return true;
    keep(changed, disk, now);
    return false;
}

uint32_t changed_read_again(ChangedDisks* changed, uint64_t now,
                            BlockName (&read)[agent_changed_limit])
{
    if (changed->count == 0 || now < changed->due)
        return 0;
    uint32_t kept = 0;
    uint32_t count = 0;
    for (uint32_t i = 0; i < changed->count; i++) {
        if (read_partitions(changed->disks[i]))
            changed->disks[kept++] = changed->disks[i];
        else
            read[count++] = changed->disks[i];
    }
    changed->count = kept;
    changed->pause *= 2;
    if (changed->pause > agent_retry_most)
        changed->pause = agent_retry_most;
    changed->due = now + changed->pause;
    return count;
}

bool changed_keeps(const ChangedDisks* changed, const BlockName& name)
{
    for (uint32_t i = 0; i < changed->count; i++) {
        if (block_name_same_disk(changed->disks[i], name))
            return true;
    }
    return false;
}

void changed_drop(ChangedDisks* changed, const BlockName& disk)
{
    for (uint32_t i = 0; i < changed->count; i++) {
        if (!block_name_same_disk(changed->disks[i], disk))
            continue;
        changed->disks[i] = changed->disks[--changed->count];
        return; // it is kept once
    }
}
