// Whether what a share leads to is there: a directory of the hotplug service's is there as long as
// something is mounted in it. Touches no world.
#pragma once

#include "common/mountinfo.h"

#include <stddef.h>

// Where the hotplug service mounts: as its configuration, and so the share file, has it, and as the
// kernel knows it, with no symbolic link. Both borrowed.
struct MountPlace {
    const char* configured;
    const char* resolved;
};

// Whether the path lies below the place, in the share file's words.
[[nodiscard]] bool presence_is_mounted_path(const MountPlace* place, const char* path);

// Whether such a path lies on a mount that is itself below the place.
[[nodiscard]] bool presence_is_mounted(const MountPlace* place, const char* path,
                                       const Mountinfo* mounts);
