#include "samba/presence.h"

#include <limits.h>
#include <stdio.h>

// What of the path lies below the place; null when it lies elsewhere.
static const char* part_below(const MountPlace* place, const char* path)
{
    const char* rest = mountinfo_rest(path, place->configured);
    return rest != nullptr ? rest : mountinfo_rest(path, place->resolved);
}

bool presence_is_mounted_path(const MountPlace* place, const char* path)
{
    const char* rest = part_below(place, path);
    return rest != nullptr && rest[0] != '\0';
}

bool presence_is_mounted(const MountPlace* place, const char* path, const Mountinfo* mounts)
{
    const char* rest = part_below(place, path);
    char resolved[PATH_MAX];
    const int length =
        rest == nullptr ? -1 : snprintf(resolved, sizeof resolved, "%s/%s", place->resolved, rest);
    if (length < 0 || static_cast<size_t>(length) >= sizeof resolved)
        return false;
    const MountinfoEntry* mount = mountinfo_find(mounts, resolved);
    return mount != nullptr && mountinfo_is_below(mount->directory, place->resolved);
}
