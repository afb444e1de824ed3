// Unmounts what an earlier service left mounted: a new one knows nothing of it and cannot mount
// there again. The agent then announces every device again.
#pragma once

#include "common/mountinfo.h"
#include "config/conf_hotplug.h"

// Whether a mount is the service's, or lies on one of the service's: its directory is below the
// mount directory and has the name of a partition, such as sda1. Mounts of the administrator there
// have other names. Paths are those of the kernel's table.
[[nodiscard]] bool leftovers_is_ours(const char* directory, const char* mountpath);

// Unmounts all of them, the last mounted first, and removes their directories and device nodes.
// Before that it empties the share file and signals the file-sharing service, which has 400 ms to
// let go. What is still in use is detached, which is told. Does nothing where nothing is mounted.
// Returns 0; -1, told, when something stays mounted.
[[nodiscard]] int leftovers_take_off(const ConfHotplug* config, const Mountinfo* table);
