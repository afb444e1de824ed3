// Directories, links and files at fixed paths. Some are in /tmp, where any user may have put
// something first.
//
// The functions for paths that others can take follow no link. They refuse with -EPERM where the
// directory above is not root's, or others may write to it and it is not sticky, as /tmp is. What
// is in the way is removed; a directory that is not empty is renamed. Either is told.
//
// All return 0 when the path is as wanted, and change nothing if it was so before; else a negated
// errno, which the caller tells. -EEXIST: somebody puts things there again and again.
#pragma once

#include <stddef.h>

constexpr size_t place_path_size = 4096; // bytes with the NUL; longer paths are -ENAMETOOLONG

// Makes a directory of root's with mode 0755, in a directory that others may write to. What is
// there and belongs to others, or may be written to by them, is renamed with what is in it.
[[nodiscard]] int place_own_directory(const char* path);

// Makes a symbolic link of root's to `target`.
[[nodiscard]] int place_link(const char* path, const char* target);

// Leaves nothing there but a regular file of root's with one name.
[[nodiscard]] int place_clear(const char* path);

// Makes a directory with its parents, at a path that only root can take: links are followed, and
// what is there stays as it is. -ENOTDIR when something else is there.
[[nodiscard]] int place_directory(const char* path);

// Writes the path of the directory above; "/" for a path in the root directory. -ENAMETOOLONG.
[[nodiscard]] int place_parent(const char* path, char (&parent)[place_path_size]);
