// Files that nobody but root, or the user the process runs as, can have made or changed. For names
// in directories that are open to everybody, where others may lay a file, a link, a FIFO, a
// directory or a mount in the way. Set-asides are logged; all else is told by the result.
#pragma once

#include <stdio.h>

// Opens a file for reading that is trusted: each directory on the way to it, each link and the file
// itself belong to root or to the own user, and others may write to none of them. A directory that
// others may write to is accepted when it is sticky (inode(7)); then what lies in it must have no
// second name and be no mount point, either. Every step is taken relative to the one before, so
// nothing can be exchanged on the way. `path` is absolute.
//
// Returns owned: the descriptor of a regular file, closed across exec; -ENOENT when it is not
// there; -EPERM when the file belongs to root or the own user, but they are not alone with it;
// -EACCES when what lies there is no file of theirs at all; another negated errno.
[[nodiscard]] int trust_open(const char* path);

// Makes the file empty and opens it for writing, as fopen(3)'s "w" does, but follows no link, waits
// for nobody and changes nothing of others': what is in the way and no file of the own user with
// one name is renamed (".aside." and a number behind its name), which is logged. Returns
// owned: the stream; null with errno.
[[nodiscard]] FILE* trust_create(const char* path);

// Opens the file for appending, as fopen(3)'s "a" does, on the same terms. Returns owned: the
// stream; null with errno, EPERM when what lies there is no file of the own user with one name.
[[nodiscard]] FILE* trust_append(const char* path);
