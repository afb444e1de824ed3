// Files read whole and replaced whole. Nothing here logs.
#pragma once

#include "lib/guard.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

constexpr size_t FILE_ANY_SIZE = SIZE_MAX - 2; // for `most`: as much as memory holds

// What was read: `size` bytes and a NUL behind them; null before anything was.
struct FileBytes {
    MemGuard<char> bytes;
    size_t size = 0;
};

// Reads `fd` to its end, in the place of what `content` held. Returns 0; -EFBIG when there are more
// than `most` bytes; -ENOMEM; the negated errno of a failed read, `content` then holding what came
// before it.
[[nodiscard]] int file_read_fd(int fd, size_t most, FileBytes* content);

// As file_read_fd for the regular file at `path`, which is opened without waiting for a writer and
// with open(2)'s `flags` besides (O_NOFOLLOW, or 0). Returns also -EINVAL when it is no regular
// file, and the negated errno of a failed open.
[[nodiscard]] int file_read_all(const char* path, int flags, size_t most, FileBytes* content);

enum FileReplaceFlags : unsigned {
    FILE_DURABLE = 1, // survives a power cut: file and directory are written down to the disk
};

// Makes `path` a new file of these bytes and of this mode, whatever the umask: a file of another
// name in the same directory, moved there when it is whole, so that readers see the old one or the
// new one. A link of that name is replaced, not followed. Returns 0; a negated errno, the old file
// untouched and nothing left beside it. (With FILE_DURABLE a failure may also come after the move,
// when only the directory could not be written down.)
[[nodiscard]] int file_replace(const char* path, const void* bytes, size_t size, mode_t mode,
                               unsigned flags);

// The last step of a writer with a temporary file of its own: moves it to `path`, or removes it
// where that fails. Returns 0; the negated errno of the move.
int file_move(const char* temporary, const char* path);
