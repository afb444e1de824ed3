// Places with fixed names, some of them in /tmp, where any user may have put something first.
//
// The functions for such places follow no link, and refuse with -EPERM where the folder above is
// not root's alone: one that others may write to must be sticky, as /tmp is. What is in the way
// there is removed, a directory that is not empty set aside under a name of its own; either is
// told.
//
// All return 0 when the place is as wanted, and change nothing then if it was so before; a negated
// errno otherwise, which the caller tells. -EEXIST: somebody puts things there again and again.
#pragma once

#include <stddef.h>

constexpr size_t place_path_size = 4096; // bytes with the zero byte; longer ones are -ENAMETOOLONG

// A directory of root's that nobody else may write to, with mode 0755. One that others may write
// to, or that is somebody else's, is not taken over with what is in it, but set aside.
[[nodiscard]] int place_own_directory(const char* path);

// A symbolic link of root's to `target`.
[[nodiscard]] int place_link(const char* path, const char* target);

// Nothing, or a file of root's that has no other name.
[[nodiscard]] int place_clear(const char* path);

// A directory with all its parents, where root decides anyway: links are followed, and what is
// there stays as it is. -ENOTDIR when something else is there.
[[nodiscard]] int place_directory(const char* path);

// Writes the path of the directory above; "/" for one in the root directory. -ENAMETOOLONG.
[[nodiscard]] int place_parent(const char* path, char (&parent)[place_path_size]);
