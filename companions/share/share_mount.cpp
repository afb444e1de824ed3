#include "share/share_mount.h"

#include <limits.h>
#include <stdio.h>

// The part of the path below the root; null when it lies elsewhere.
static const char* part_below(const MountRoot* root, const char* path)
{
    const char* rest = mountinfo_rest(path, root->configured);
    return rest != nullptr ? rest : mountinfo_rest(path, root->resolved);
}

bool share_mount_is_wanted(const MountRoot* root, const char* path)
{
    const char* rest = part_below(root, path);
    return rest != nullptr && rest[0] != '\0';
}

const MountinfoEntry* share_mount_find(const MountRoot* root, const char* path,
                                       const Mountinfo* mounts)
{
    const char* rest = part_below(root, path);
    char resolved[PATH_MAX];
    const int length =
        rest == nullptr ? -1 : snprintf(resolved, sizeof resolved, "%s/%s", root->resolved, rest);
    if (length < 0 || static_cast<size_t>(length) >= sizeof resolved)
        return nullptr;
    const MountinfoEntry* mount = mountinfo_find(mounts, resolved);
    if (mount == nullptr || !mountinfo_is_below(mount->directory, root->resolved))
        return nullptr;
    return mount;
}
