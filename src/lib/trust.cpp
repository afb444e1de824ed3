#include "lib/trust.h"

#include "lib/guard.h"
#include "lib/log.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

static constexpr char log_tag[] = "trust";
static constexpr int most_links = 40; // as the kernel's own limit, path_resolution(7)
static constexpr int most_attempts = 8;
static constexpr mode_t written_by_others = S_IWGRP | S_IWOTH;
static constexpr mode_t new_file_mode = 0666; // less the umask, as fopen(3)

// ---- reading: the way to a file, step by step ----

namespace {

struct Walk {
    FdGuard directory;       // reached so far
    dev_t filesystem;        // of the directory
    bool others_may_write;   // to the directory
    char rest[PATH_MAX];     // of the path, without slashes at its beginning
    char name[NAME_MAX + 1]; // the entry that is looked at
    int links = 0;           // followed so far
};

} // namespace

static bool is_own(const struct stat& status)
{
    return status.st_uid == 0 || status.st_uid == geteuid();
}

// Goes on in a directory, which is taken. Returns 0; -EPERM, -EACCES, another negated errno.
static int enter(Walk* walk, int fd)
{
    if (fd < 0)
        return -errno;
    walk->directory.reset(fd);
    struct stat status;
    if (fstat(fd, &status) != 0)
        return -errno;
    if (!is_own(status))
        return -EACCES;
    walk->others_may_write = (status.st_mode & written_by_others) != 0;
    walk->filesystem = status.st_dev;
    return walk->others_may_write && (status.st_mode & S_ISVTX) == 0 ? -EPERM : 0;
}

static int enter_root(Walk* walk)
{
    return enter(walk, open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Moves the next name of the path to `name`. Returns 0 or -ENAMETOOLONG.
static int take_name(Walk* walk)
{
    const size_t length = strcspn(walk->rest, "/");
    if (length >= sizeof walk->name)
        return -ENAMETOOLONG;
    str_ncpy(walk->name, walk->rest, static_cast<int32_t>(length) + 1);
    const char* behind = walk->rest + length;
    behind += strspn(behind, "/");
    memmove(walk->rest, behind, strlen(behind) + 1);
    return 0;
}

// Returns 0 when nobody else can have laid the entry where it is; -EACCES.
static int check_entry(const Walk& walk, const struct stat& entry)
{
    if (!is_own(entry))
        return -EACCES;
    if (!walk.others_may_write || strcmp(walk.name, "..") == 0)
        return 0;
    const bool second_name = !S_ISDIR(entry.st_mode) && entry.st_nlink != 1;
    const bool mount_point = entry.st_dev != walk.filesystem;
    return second_name || mount_point ? -EACCES : 0;
}

// Puts what the link holds before the rest of the path.
static int follow_link(Walk* walk)
{
    char target[PATH_MAX];
    const ssize_t count = readlinkat(walk->directory.get(), walk->name, target, sizeof target - 1);
    if (count < 0)
        return -errno;
    target[count] = '\0';
    if (++walk->links > most_links)
        return -ELOOP;
    const size_t left = strlen(walk->rest);
    const size_t skipped = strspn(target, "/");
    const size_t length = static_cast<size_t>(count) - skipped;
    if (length + 1 + left >= sizeof walk->rest)
        return -ENAMETOOLONG;
    memmove(walk->rest + length + 1, walk->rest, left + 1);
    memcpy(walk->rest, target + skipped, length);
    walk->rest[length] = '/';
    return skipped > 0 ? enter_root(walk) : 0;
}

static int open_entry(const Walk& walk)
{
    FdGuard fd(
        openat(walk.directory.get(), walk.name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    struct stat status;
    if (fstat(fd.get(), &status) != 0)
        return -errno;
    if (!S_ISREG(status.st_mode) || check_entry(walk, status) != 0)
        return -EACCES;
    return (status.st_mode & written_by_others) != 0 ? -EPERM : fd.take();
}

// Takes one step. Returns the file's descriptor at the end of the path; -EAGAIN before; the negated
// errno of a way that ends or is not trusted.
static int take_step(Walk* walk)
{
    int result = take_name(walk);
    if (result != 0)
        return result;
    struct stat entry;
    if (fstatat(walk->directory.get(), walk->name, &entry, AT_SYMLINK_NOFOLLOW) != 0)
        return -errno;
    if (check_entry(*walk, entry) != 0)
        return -EACCES;
    if (S_ISREG(entry.st_mode))
        return walk->rest[0] == '\0' ? open_entry(*walk) : -EACCES;
    if (S_ISLNK(entry.st_mode)) {
        result = follow_link(walk);
    } else if (S_ISDIR(entry.st_mode)) {
        result = enter(walk, openat(walk->directory.get(), walk->name,
                                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    } else {
        result = -EACCES;
    }
    return result == 0 ? -EAGAIN : result;
}

int trust_open(const char* path)
{
    const size_t skipped = strspn(path, "/");
    if (skipped == 0)
        return -EINVAL;
    Walk walk;
    if (strlen(path) >= sizeof walk.rest)
        return -ENAMETOOLONG;
    str_cpy(walk.rest, path + skipped);
    int result = enter_root(&walk);
    if (result != 0)
        return result;
    do {
        result = walk.rest[0] != '\0' ? take_step(&walk) : -EACCES; // it was a directory
    } while (result == -EAGAIN);
    return result;
}

// ---- writing: one name in a directory that may be open to everybody ----

// Whether it is a file of the own user's with one name.
static bool is_own_file(const struct stat& status)
{
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

// Opens what is there. Returns the descriptor; -ENOENT; -EPERM when it is no own file; another
// negated errno.
static int open_own(const char* path, int flags)
{
    struct stat status;
    if (lstat(path, &status) != 0)
        return errno == ENOENT ? -ENOENT : -EPERM; // another's mount may refuse even that
    if (!is_own_file(status))
        return -EPERM;
    FdGuard fd(open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    if (fstat(fd.get(), &status) != 0)
        return -errno;
    return is_own_file(status) ? fd.take() : -EPERM;
}

static int open_new(const char* path, int flags)
{
    const int fd = open(path, flags | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, new_file_mode);
    return fd < 0 ? -errno : fd;
}

// A number that nobody can tell beforehand.
static long unforeseen()
{
    timespec now = {};
    (void)sys_clock_gettime(CLOCK_MONOTONIC, &now); // the beginning of time does as well
    return now.tv_nsec;
}

// Renames what is in the way, taking off what is mounted on it. A file that lies at the new name is
// written over; for a directory the next is tried.
static int set_aside(const char* path)
{
    int result = 0;
    for (int attempt = 0; attempt < most_attempts; attempt++) {
        char aside[PATH_MAX];
        const int length =
            snprintf(aside, sizeof aside, "%s.aside.%ld", path, unforeseen() + attempt);
        if (length < 0 || static_cast<size_t>(length) >= sizeof aside)
            return -ENAMETOOLONG;
        result = sys_rename(path, aside);
        if (result == 0) {
            VY_LOG(LOG_ERR, "%s was somebody else's, it is %s now", path, aside);
            return 0;
        }
        if (result == -EBUSY)
            (void)sys_umount2(path, MNT_DETACH | UMOUNT_NOFOLLOW); // the next attempt tells
    }
    VY_LOG(LOG_ERR, "%s is somebody else's and cannot be moved (err=%d)", path, -result);
    return result;
}

// Opens the file, makes it where there is none, and moves out of the way what is none. Returns the
// descriptor or a negated errno.
static int open_or_make(const char* path)
{
    int result = -EAGAIN;
    for (int attempt = 0; attempt < most_attempts; attempt++) {
        result = open_own(path, O_WRONLY);
        if (result == -ENOENT)
            result = open_new(path, O_WRONLY);
        if (result == -EPERM && set_aside(path) == 0)
            continue;
        if (result != -EEXIST) // somebody was quicker
            return result;
    }
    return result;
}

static FILE* make_stream(FdGuard* fd, const char* mode)
{
    FILE* stream = fdopen(fd->get(), mode);
    if (stream != nullptr)
        (void)fd->take();
    return stream;
}

FILE* trust_create(const char* path)
{
    FdGuard fd(open_or_make(path));
    if (fd.get() < 0) {
        errno = -fd.take();
        return nullptr;
    }
    return ftruncate(fd.get(), 0) == 0 ? make_stream(&fd, "w") : nullptr;
}

FILE* trust_append(const char* path)
{
    int opened = open_own(path, O_WRONLY | O_APPEND);
    if (opened == -ENOENT)
        opened = open_new(path, O_WRONLY | O_APPEND);
    FdGuard fd(opened);
    if (fd.get() >= 0)
        return make_stream(&fd, "a");
    errno = -fd.take();
    return nullptr;
}
