// Unmounts what an earlier service left mounted: a new one knows nothing of it and cannot mount
// there again. The agent then announces every device again.
#pragma once

#include "common/mountinfo.h"
#include "config/conf_hotplug.h"

// Whether a mount is the service's, or lies on one of the service's: its directory is below the
// mount directory and has the name of a partition, such as sda1. Mounts of the administrator there
// have other names. Paths are those of the kernel's table.
[[nodiscard]] bool leftovers_is_ours(const char* directory, const char* mountpath);

// Whether it is the directory of a partition itself, directly below the mount directory.
[[nodiscard]] bool leftovers_is_partition(const char* directory, const char* mountpath);

// Tells whether the mount that is to be seen at a partition's directory stays. Null: it does; else
// the reason why not.
using LeftoverJudge = const char* (*)(void* context, const MountinfoEntry& mount);

// Unmounts them, the last mounted first, and removes their directories and device nodes. Before
// that it withdraws their shares and signals the file-sharing service, which has 400 ms to let go.
// What is still in use is detached, which is told. Does nothing where nothing is mounted.
//
// `judge` is asked for each partition, and what it refuses is told; with what stays stays what is
// mounted below it. Null: nothing stays, and the share file is emptied.
//
// Returns 0; -1, told, when something stays mounted that should not.
[[nodiscard]] int leftovers_take_off(const ConfHotplug* config, const Mountinfo* table,
                                     LeftoverJudge judge, void* context);
