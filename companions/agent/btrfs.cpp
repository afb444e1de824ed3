#include "agent/btrfs.h"

#include "common/directory.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

int btrfs_register(const BlockName& name)
{
    const FdGuard control(open("/dev/btrfs-control", O_RDWR | O_CLOEXEC));
    if (control.get() < 0)
        return -errno;
    btrfs_ioctl_vol_args member = {};
    (void)snprintf(member.name, sizeof member.name, "/dev/%s", name.text);
    const int left = ioctl(control.get(), BTRFS_IOC_DEVICES_READY, &member);
    if (left < 0)
        return -errno;
    return left == 0 ? 1 : 0;
}

int btrfs_is_mounted(const char* sysfs, const BlockName& name)
{
    char path[agent_path_size];
    (void)snprintf(path, sizeof path, "%s/fs/btrfs", sysfs);
    const DirGuard filesystems(opendir(path));
    if (!filesystems)
        return errno == ENOENT ? 0 : -errno; // a kernel without btrfs
    while (const dirent* entry = directory_next(filesystems.get())) {
        (void)snprintf(path, sizeof path, "%s/fs/btrfs/%.40s/devices/%s", sysfs, entry->d_name,
                       name.text);
        if (access(path, F_OK) == 0)
            return 1;
    }
    return -errno;
}
