// Taking over what an earlier daemon left mounted, so that its end and a new one's start disturb
// nobody who uses it.
#pragma once

#include "config/conf_hotplug.h"
#include "device/mount_entry.h"

#include <stdio.h>

// The last line of a mount table (fstab(5)'s form) for a directory.
struct MountLine {
    char source[256]; // of FUSE mounts the path that the driver was given
    char type[32];
    bool readonly;
};

// Looks for the directory in an open table. Returns 0; -1 without a line, or when its texts are too
// long for any mount of this service's.
[[nodiscard]] int mount_line_find(FILE* table, const char* directory, MountLine* line);

// Takes the entry's directory over when a filesystem stands mounted there from the entry's node:
// one of the kernel's by its device numbers, a driver's by its source. The mount gets the
// configured flags, and the entry becomes as vymount leaves it; the mount table is not touched.
// Returns 0; -1, nothing changed, when there is no such mount.
[[nodiscard]] int vyadopt(MountEntry* entry, const ConfHotplug* config);
