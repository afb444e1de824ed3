// The kernel's table of mounts, /proc/self/mountinfo, as proc_pid_mountinfo(5) describes it.
// Parsing touches no world: bytes in, table out; mountinfo_load is the thin shell that opens the
// file.
//
// Fields stand in the table as the kernel knows them: its octal escapes (\040 for a blank) are
// decoded. Paths are compared as texts, so callers hand in absolute ones without "." and "..", and
// without symbolic links, which the kernel has resolved; several slashes count as one, and a slash
// at the end does not count.
#pragma once

#include "lib/guard.h"

#include <stddef.h>
#include <stdint.h>

inline constexpr char mountinfo_path[] = "/proc/self/mountinfo";

// One mount. The texts belong to the table.
struct MountinfoEntry {
    int32_t id;
    int32_t parent; // id of the mount it stands on
    uint32_t major; // the filesystem's device, 0 as major for one without
    uint32_t minor;
    const char* root;      // the directory within the filesystem
    const char* directory; // where it is mounted
    const char* type;      // "ext4", "fuseblk", ...
    const char* source;    // "/dev/sda1", "tmpfs", ...
    const char* options;   // the mount's own, "rw,nosuid,relatime", as the kernel writes them
    bool readonly;         // here, or the filesystem wherever it is mounted
};

struct Mountinfo {
    char* text;              // what the entries' texts point into; owned
    MountinfoEntry* entries; // in the kernel's order: what covers another stands behind it; owned
    size_t count;
};

// Reads a table from bytes at hand, which are copied. A line that is not in the kernel's form is
// passed over. Returns 0 and an owned table; -ENOMEM, `table` untouched.
[[nodiscard]] int mountinfo_parse(const char* text, size_t size, Mountinfo** table);

// As mountinfo_parse, from a file. Returns 0 and an owned table; -ENOMEM; another negated errno
// when the file cannot be opened or read to its end. `table` is untouched on failure.
[[nodiscard]] int mountinfo_load(const char* path, Mountinfo** table);

void mountinfo_free(Mountinfo* table);
using MountinfoGuard = Guard<Mountinfo, mountinfo_free>;

// Lends the part of `path` that lies below `directory`, without a slash before it: empty for the
// directory itself. Null for a path that lies elsewhere.
[[nodiscard]] const char* mountinfo_rest(const char* path, const char* directory);

// Whether `path` lies below `directory`, and is not that directory itself.
[[nodiscard]] bool mountinfo_is_below(const char* path, const char* directory);

// Lends a mount of the device with these numbers whose directory lies below `directory`; null when
// there is none.
[[nodiscard]] const MountinfoEntry* mountinfo_find_device(const Mountinfo* table, int32_t major,
                                                          int32_t minor, const char* directory);

// Lends the mount that `path` lies on: of those whose directory is the path or one above it the
// one with the longest, and of several there the last, which covers the others. Null when the table
// holds none. That one mounted later further up may hide it is not looked at.
[[nodiscard]] const MountinfoEntry* mountinfo_find(const Mountinfo* table, const char* path);

// Takes a line of the kernel's table of swap areas, /proc/swaps, apart, in place. Lends the path,
// decoded and without the mark of a node that was removed; null for the heading and for anything
// else that begins with no path. Pure.
[[nodiscard]] const char* mountinfo_swap_path(char* line);
