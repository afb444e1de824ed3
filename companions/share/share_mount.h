// Finds the mount that a share's directory lies on. Below the mount root of the hotplug service a
// directory counts as present only while something is mounted there. Touches no world.
#pragma once

#include "common/mountinfo.h"

// The directory below which the hotplug service mounts: as its configuration and the share file
// write it, and as the kernel knows it, without symbolic links. Both borrowed.
struct MountRoot {
    const char* configured;
    const char* resolved;
};

// Whether a share's path, as the share file writes it, lies below the root, so that it needs a
// mount.
[[nodiscard]] bool share_mount_is_wanted(const MountRoot* root, const char* path);

// Lends the mount that such a path lies on; null when nothing is mounted there, and when the path
// lies on the filesystem of the root itself.
[[nodiscard]] const MountinfoEntry* share_mount_find(const MountRoot* root, const char* path,
                                                     const Mountinfo* mounts);
