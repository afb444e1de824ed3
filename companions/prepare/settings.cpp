#include "prepare/settings.h"

#include "lib/guard.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "prepare/places.h"
#include "prepare/tell.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr off_t most_bytes = 4 << 20; // far more than thousands of devices take
static constexpr mode_t device_file_mode = 0644;
static constexpr mode_t copy_mode = 0600;

namespace {

struct Content {
    MemGuard<char> bytes;
    size_t size = 0;
};

} // namespace

// ---- reading ----

static int read_bytes(int fd, size_t size, Content* content)
{
    content->bytes.reset(static_cast<char*>(malloc(size + 1)));
    if (!content->bytes)
        return -ENOMEM;
    content->size = 0;
    while (content->size < size) {
        const ssize_t count = read(fd, content->bytes.get() + content->size, size - content->size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return -errno;
        if (count == 0)
            break;
        content->size += static_cast<size_t>(count);
    }
    return 0;
}

// Reads a file whole; one that is not there is empty.
static int read_file(const char* path, Content* content)
{
    const FdGuard fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0)
        return errno == ENOENT ? 0 : -errno;
    struct stat status;
    if (fstat(fd.get(), &status) != 0)
        return -errno;
    if (!S_ISREG(status.st_mode))
        return -EINVAL;
    if (status.st_size > most_bytes)
        return -EFBIG;
    return read_bytes(fd.get(), static_cast<size_t>(status.st_size), content);
}

// ---- writing ----

static int write_bytes(int fd, const Content& content)
{
    size_t written = 0;
    while (written < content.size) {
        const ssize_t count = write(fd, content.bytes.get() + written, content.size - written);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return -errno;
        written += static_cast<size_t>(count);
    }
    return fsync(fd) == 0 ? 0 : -errno;
}

// Makes a new file and writes it down to the disk. Returns 0 with its path in `path`, which holds a
// name for mkstemp; a negated errno and no file.
static int make_file(char* path, const Content& content, mode_t mode)
{
    const FdGuard fd(mkstemp(path));
    if (fd.get() < 0)
        return -errno;
    int result = fchmod(fd.get(), mode) == 0 ? 0 : -errno;
    if (result == 0)
        result = write_bytes(fd.get(), content);
    if (result != 0)
        (void)sys_unlink(path);
    return result;
}

// Writes the directory of a file down to the disk: else the file may have its old name after a
// failure of the power.
static int sync_directory_of(const char* path)
{
    char directory[place_path_size];
    const int result = place_parent(path, directory);
    if (result != 0)
        return result;
    const FdGuard fd(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    return fsync(fd.get()) == 0 ? 0 : -errno;
}

static int replace_file(const char* path, const Content& content, mode_t mode)
{
    char beside[place_path_size];
    static constexpr char ending[] = ".new-XXXXXX";
    if (strlen(path) + sizeof ending > sizeof beside)
        return -ENAMETOOLONG;
    str_cpy(str_cpy(beside, path), ending);
    int result = make_file(beside, content, mode);
    if (result != 0)
        return result;
    result = sys_rename(beside, path);
    if (result != 0) {
        (void)sys_unlink(beside);
        return result;
    }
    return sync_directory_of(path);
}

// ---- both ways ----

static bool has_settings(const char* device_file)
{
    struct stat status;
    return stat(device_file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

int settings_restore(const char* device_file)
{
    if (has_settings(device_file))
        return 0;
    Content copy;
    const int result = read_file(settings_copy, &copy);
    if (result != 0)
        return result;
    return copy.size > 0 ? replace_file(device_file, copy, device_file_mode) : 0;
}

static bool is_same(const Content& a, const Content& b)
{
    return a.size == b.size && (a.size == 0 || memcmp(a.bytes.get(), b.bytes.get(), a.size) == 0);
}

static int make_copy(const Content& settings)
{
    char directory[place_path_size];
    int result = place_parent(settings_copy, directory);
    if (result == 0)
        result = place_directory(directory);
    return result == 0 ? replace_file(settings_copy, settings, copy_mode) : result;
}

int settings_save(const char* device_file)
{
    Content settings;
    Content copy;
    const int result = read_file(device_file, &settings);
    if (result != 0)
        return result;
    const bool readable = read_file(settings_copy, &copy) == 0; // one that is not is replaced
    if (settings.size == 0) {
        if (!readable || copy.size > 0)
            tell(LOG_NOTICE, "%s holds nothing, %s stays as it is", device_file, settings_copy);
        return 0;
    }
    return readable && is_same(settings, copy) ? 0 : make_copy(settings);
}
