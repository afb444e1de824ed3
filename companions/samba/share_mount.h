// Which mount a share's directory lies on: a directory below the hotplug service's mount root is
// there as long as something is mounted in it. Touches no world.
#pragma once

#include "common/mountinfo.h"

// The directory that the hotplug service mounts below: as its configuration, and so the share file,
// has it, and as the kernel knows it, with no symbolic link. Both borrowed.
struct MountRoot {
    const char* configured;
    const char* resolved;
};

// Whether a share's path, as the share file has it, lies below the root, where something has to be
// mounted.
[[nodiscard]] bool share_mount_is_wanted(const MountRoot* root, const char* path);

// Lends the mount that such a path lies on; null when nothing is mounted there, also when the path
// lies on the filesystem of the root itself.
[[nodiscard]] const MountinfoEntry* share_mount_find(const MountRoot* root, const char* path,
                                                     const Mountinfo* mounts);
