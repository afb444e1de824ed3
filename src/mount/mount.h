// Mounting and unmounting of one partition. Runs on the main thread only. Nothing here logs: the
// caller tells the outcome.
#pragma once

#include "config/conf_hotplug.h"
#include "device/mount_entry.h"

// Makes the entry's device node and mount directory, mounts the filesystem that `fstype` asks for
// (0: whatever is found, tried in the order FAT, ext4, ext3, ext2, NTFS), read-only where the
// medium refuses writing, and notes a kernel mount in the mount table. Returns 0 with `mounted` 1,
// `fstype` set and the device's read-only flag brought up to date; -1 otherwise: without node or
// directory, their making failed and what was made stays; a filesystem that cannot be mounted
// leaves neither, not even ones that existed before.
[[nodiscard]] int vymount(MountEntry* entry, const ConfHotplug* config);

// Unmounts the entry's directory, with `force` lazily or by force where it is busy, removes its
// line from the mount table, its directory and its node, and clears `mounted`. Returns 0 when the
// filesystem was detached; -1 otherwise. Where it was no mount (any more), -1 is returned but the
// rest is done all the same; on any other failure nothing is touched. `strict` as for mtab_remove.
[[nodiscard]] int vyunmount(MountEntry* entry, unsigned force, bool strict = false);
