#include "fake_files.h"

#include <errno.h>
#include <sys/statvfs.h>

static FakeFiles state;

FakeFiles& fake_files()
{
    return state;
}

void fake_files_reset()
{
    state = FakeFiles();
}

template <typename Answer>
static void fill(Answer* answer)
{
    *answer = {};
    answer->f_bsize = static_cast<unsigned long>(state.preferred_size != 0 ? state.preferred_size
                                                                           : state.block_size);
    answer->f_frsize = static_cast<unsigned long>(state.block_size);
    answer->f_blocks = state.blocks;
    answer->f_bfree = state.free_blocks;
    answer->f_bavail = state.available_blocks;
}

// The linker turns a call of NAME into one of __wrap_NAME, and __real_NAME into NAME. Which of the
// two statvfs a program calls depends on the size of its file offsets.
extern "C" {
int __real_access(const char* path, int mode);
int __real_statvfs64(const char* path, struct statvfs64* answer);

int __wrap_access(const char* path, int mode);
int __wrap_statvfs(const char* path, struct statvfs64* answer);
int __wrap_statvfs64(const char* path, struct statvfs64* answer);

int __wrap_access(const char* path, int mode)
{
    state.accesses.emplace_back(path);
    if (state.unreadable != path || state.readable_times-- > 0)
        return __real_access(path, mode);
    errno = EACCES;
    return -1;
}

int __wrap_statvfs64(const char* path, struct statvfs64* answer)
{
    state.statvfs_path = path;
    if (!state.scripted)
        return __real_statvfs64(path, answer);
    fill(answer);
    return 0;
}

// Offsets have 64 bits everywhere here: a library that knows no other calls it by the short name.
int __wrap_statvfs(const char* path, struct statvfs64* answer)
{
    return __wrap_statvfs64(path, answer);
}
}
