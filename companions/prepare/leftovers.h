// What an earlier service left mounted. A new one knows nothing of it and cannot mount there again,
// so it is taken off; the agent then announces every device anew.
#pragma once

#include "common/mountinfo.h"
#include "config/conf_hotplug.h"

// Whether a mount is the service's, or stands on one of its: below the mount directory by a name of
// a partition, such as sda1. An administrator's own mounts there are not. Paths as the kernel's
// table has them.
[[nodiscard]] bool leftovers_is_ours(const char* directory, const char* mountpath);

// Takes off all that is the service's, last mounted first, and removes the mount directories and
// the device nodes of the same names. Before that the share file is emptied and the file-sharing
// service told, which has 400 ms to let go; what is in use all the same is detached, which is told.
// Nothing mounted there: nothing is done.
// Returns 0; -1 when something stays mounted, which is told.
[[nodiscard]] int leftovers_take_off(const ConfHotplug* config, const Mountinfo* table);
