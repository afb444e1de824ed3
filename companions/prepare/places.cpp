#include "prepare/places.h"

#include "lib/guard.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "prepare/tell.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr mode_t directory_mode = 0755;
static constexpr mode_t writable_by_others = 0022;
static constexpr int attempts = 16; // before it gives in to somebody who is quicker each time

// ---- paths ----

// Concatenates. Returns 0 or -ENAMETOOLONG.
static int join(char (&joined)[place_path_size], const char* first, const char* second)
{
    const size_t length = strlen(first);
    if (length + strlen(second) >= sizeof joined)
        return -ENAMETOOLONG;
    str_cpy(str_cpy(joined, first), second);
    return 0;
}

int place_parent(const char* path, char (&parent)[place_path_size])
{
    if (join(parent, path, "") != 0)
        return -ENAMETOOLONG;
    size_t length = strlen(parent);
    while (length > 1 && parent[length - 1] == '/')
        length--;
    while (length > 1 && parent[length - 1] != '/')
        length--;
    while (length > 1 && parent[length - 1] == '/')
        length--;
    parent[length] = '\0';
    return 0;
}

// ---- owners ----

static bool is_roots_directory(const struct stat& status)
{
    return S_ISDIR(status.st_mode) && status.st_uid == 0 &&
           (status.st_mode & writable_by_others) == 0;
}

// Returns 0 if nobody but root can remove or rename what root puts at this path.
static int check_parent(const char* path)
{
    char parent[place_path_size];
    struct stat status;
    const int result = place_parent(path, parent);
    if (result != 0)
        return result;
    if (lstat(parent, &status) != 0)
        return -errno;
    if (is_roots_directory(status))
        return 0;
    const bool sticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    return sticky && status.st_uid == 0 ? 0 : -EPERM;
}

static const char* kind_of(const struct stat& status)
{
    switch (status.st_mode & S_IFMT) {
    case S_IFDIR:
        return "directory";
    case S_IFLNK:
        return "link";
    case S_IFREG:
        return "file";
    default:
        return "special file";
    }
}

static void tell_in_the_way(const char* path, const struct stat& status, const char* aside)
{
    tell(LOG_WARNING, "%s: a %s of user %u was in the way, %s%s", path, kind_of(status),
         static_cast<unsigned>(status.st_uid), aside != nullptr ? "now below " : "removed",
         aside != nullptr ? aside : "");
}

// ---- what is in the way ----

// Makes a new directory beside the path that only root can enter.
static int make_private(const char* path, char (&made)[place_path_size])
{
    const int result = join(made, path, ".aside-XXXXXX");
    if (result != 0)
        return result;
    return mkdtemp(made) != nullptr ? 0 : -errno;
}

// Moves a directory into one that only root can enter. Nothing in it is looked at or removed: it
// may be anything, and may change at any moment.
static int set_aside(const char* path, const struct stat& status)
{
    char folder[place_path_size];
    char moved[place_path_size];
    int result = make_private(path, folder);
    if (result != 0)
        return result;
    result = join(moved, folder, "/it");
    if (result == 0)
        result = sys_rename(path, moved);
    if (result != 0) {
        (void)sys_rmdir(folder); // empty; else it is in nobody's way
        return result;
    }
    tell_in_the_way(path, status, folder);
    return 0;
}

static int remove_directory(const char* path, const struct stat& status)
{
    const int result = sys_rmdir(path);
    if (result == 0)
        tell_in_the_way(path, status, nullptr);
    return result == -ENOTEMPTY || result == -EEXIST ? set_aside(path, status) : result;
}

// Removes what is at the path. Returns 0 also when nothing is there, or something else by now: the
// caller looks again.
static int make_room(const char* path)
{
    struct stat status;
    if (lstat(path, &status) != 0)
        return errno == ENOENT ? 0 : -errno;
    int result = 0;
    if (S_ISDIR(status.st_mode)) {
        result = remove_directory(path, status);
    } else {
        result = sys_unlink(path);
        if (result == 0)
            tell_in_the_way(path, status, nullptr);
    }
    return result == -ENOENT || result == -EISDIR || result == -ENOTDIR ? 0 : result;
}

// ---- directories ----

// Accepts a directory of root's and sets its mode. Returns 0; 1 when something else is there; a
// negated errno.
static int adopt_directory(const char* path)
{
    const FdGuard fd(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() < 0)
        return errno == ENOTDIR || errno == ELOOP || errno == ENOENT ? 1 : -errno;
    struct stat status;
    if (fstat(fd.get(), &status) != 0)
        return -errno;
    if (!is_roots_directory(status))
        return 1;
    if ((status.st_mode & 07777) == directory_mode)
        return 0;
    return fchmod(fd.get(), directory_mode) == 0 ? 0 : -errno;
}

int place_own_directory(const char* path)
{
    int result = check_parent(path);
    if (result != 0)
        return result;
    for (int attempt = 0; attempt < attempts; attempt++) {
        result = sys_mkdir(path, directory_mode);
        if (result != 0 && result != -EEXIST)
            return result;
        result = adopt_directory(path);
        if (result <= 0)
            return result;
        result = make_room(path);
        if (result != 0)
            return result;
    }
    return -EEXIST;
}

static bool is_directory(const char* path)
{
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// Makes a directory whose parent exists.
static int make_directory(const char* path)
{
    if (is_directory(path))
        return 0;
    const int result = sys_mkdir(path, directory_mode);
    if (result != 0 && result != -EEXIST)
        return result;
    return is_directory(path) ? 0 : -ENOTDIR;
}

int place_directory(const char* path)
{
    char made[place_path_size];
    int result = join(made, path, "");
    if (result != 0)
        return result;
    for (char* slash = strchr(made + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        result = make_directory(made);
        if (result != 0)
            return result;
        *slash = '/';
    }
    return make_directory(made);
}

// ---- links ----

static bool is_link_to(const char* path, const char* target)
{
    struct stat status;
    char found[place_path_size];
    if (lstat(path, &status) != 0 || !S_ISLNK(status.st_mode) || status.st_uid != 0)
        return false;
    const ssize_t length = readlink(path, found, sizeof found);
    return length >= 0 && static_cast<size_t>(length) == strlen(target) &&
           memcmp(found, target, static_cast<size_t>(length)) == 0;
}

// Makes a link in a directory that only root can enter and renames it to the path, where it
// replaces anything but a directory.
static int move_link(const char* path, const char* target)
{
    char folder[place_path_size];
    char link[place_path_size];
    int result = make_private(path, folder);
    if (result != 0)
        return result;
    result = join(link, folder, "/it");
    if (result == 0 && symlink(target, link) != 0)
        result = -errno;
    if (result == 0)
        result = sys_rename(link, path);
    if (result != 0)
        (void)sys_unlink(link); // it may not exist
    (void)sys_rmdir(folder);
    return result;
}

int place_link(const char* path, const char* target)
{
    if (is_link_to(path, target))
        return 0;
    int result = check_parent(path);
    for (int attempt = 0; result == 0 && attempt < attempts; attempt++) {
        struct stat status;
        const bool taken = lstat(path, &status) == 0;
        result = move_link(path, target);
        if (result == 0) {
            if (taken && !S_ISDIR(status.st_mode))
                tell_in_the_way(path, status, nullptr);
            return 0;
        }
        if (result == -EISDIR || result == -ENOTDIR)
            result = make_room(path);
    }
    return result != 0 ? result : -EEXIST;
}

// ---- files ----

int place_clear(const char* path)
{
    struct stat status;
    int result = check_parent(path);
    for (int attempt = 0; result == 0 && attempt < attempts; attempt++) {
        if (lstat(path, &status) != 0)
            return errno == ENOENT ? 0 : -errno;
        if (S_ISREG(status.st_mode) && status.st_uid == 0 && status.st_nlink == 1)
            return 0;
        result = make_room(path);
    }
    return result != 0 ? result : -EEXIST;
}
