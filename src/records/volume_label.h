// Volume labels, read by running the filesystem's label tool on the device node. Only FAT and NTFS
// have one, unless the labels of all filesystems are asked for. A tool that hangs holds the caller
// for 20 seconds. Nothing here logs.
#pragma once

#include "device/mount_entry.h"

// Turns the reading of FAT labels on (non-zero) or off; on from the start. NTFS labels are read
// whatever it says. To be called before any label is read. Always returns 0.
int conf_dir_set_fat_vlabel(int enable);

// Turns the reading of all filesystems' labels on (non-zero), by one tool, "vylabel NODE"; off from
// the start. FAT's are left out when their reading is off. To be called before any label is read.
void conf_dir_set_all_vlabels(int enable);

// Reads the label of a mounted partition, without the line feed at its end, into `buffer` of `size`
// bytes (1 or more). Returns 0, with an empty label when the tool fails; -1, buffer untouched, for
// another filesystem or when FAT reading is off; a negative value when the tool cannot be started
// or read.
[[nodiscard]] int conf_dir_get_vlabel(const MountEntry* entry, char* buffer, int size);

// As above for one filesystem, with what the tool printed left as it is. Return the bytes read.
[[nodiscard]] int conf_dir_get_vlabel_vfat(const MountEntry* entry, char* buffer, int size);
[[nodiscard]] int conf_dir_get_vlabel_ntfs(const MountEntry* entry, char* buffer, int size);
