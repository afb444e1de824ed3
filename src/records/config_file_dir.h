// The share file: tells the file-sharing service which directories to export and how. Rewritten
// whole at every refresh, one INI section for each share. The lines are listed in
// docs/share-file.md.
#pragma once

#include "device/mount_entry.h"
#include "records/conf_dev.h"

#include <stdio.h>

// Writes the fixed directories of the table, then the partitions of the busy-device set, to a
// temporary file and moves it to `path`; each partition's entry is given a copy of its share's
// name. `naswork` non-zero adds the device-information lines. A section that cannot be written is
// left out whole. Returns 0, also when the move failed and the old file stayed; -1, the old file
// untouched, when the temporary file cannot be made.
// `strict` makes the temporary file with trust_create (lib/trust.h).
int conf_dir_save(const char* path, const ConfDevTable* table, int naswork, bool strict = false);

// Appends an empty section of that name: the share is about to be withdrawn. Returns 0; -1 when an
// argument is null or the file cannot be opened or written (the stream then stays open).
// `strict` opens it with trust_append.
int conf_dir_set_unmount_flg(const char* path, const char* sharename, bool strict = false);

// Write one share's header and settings, and what is known of a partition's device. Return 0, -1 on
// a failed write.
[[nodiscard]] int conf_dir_info(FILE* stream, const char* sharename, const ConfDev* dev);
[[nodiscard]] int conf_dir_exinfo(FILE* stream, const MountEntry* entry);
