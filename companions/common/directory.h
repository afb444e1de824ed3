// Directories that are read.
#pragma once

#include "lib/guard.h"

#include <dirent.h>
#include <errno.h>

inline void directory_release(DIR* directory)
{
    (void)closedir(directory);
}

using DirGuard = Guard<DIR, directory_release>;

// Lends the next entry; null at the end, with the errno 0, and where the reading fails.
inline const dirent* directory_next(DIR* directory)
{
    errno = 0;
    return readdir(directory);
}
