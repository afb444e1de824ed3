#include "config/mount_flags.h"

#include <sys/mount.h>

// The kernel has it from 5.10 on, headers of C libraries later or never (linux/mount.h).
#if !defined(MS_NOSYMFOLLOW)
#define MS_NOSYMFOLLOW 256
#endif

constexpr MountFlag mount_flags[mount_flag_count] = {
    {"nosuid", MS_NOSUID, true},          {"nodev", MS_NODEV, true},
    {"noexec", MS_NOEXEC, true},          {"noatime", MS_NOATIME, true},
    {"nodiratime", MS_NODIRATIME, false}, {"sync", MS_SYNCHRONOUS, true},
    {"dirsync", MS_DIRSYNC, true},        {"nosymfollow", MS_NOSYMFOLLOW, false},
};
static_assert(mount_flags[mount_flag_count - 1].word != nullptr, "a row is missing");
