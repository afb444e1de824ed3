#include "lib/file.h"

#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

// Bytes, for files that do not tell their size and for smaller ones: pieces of each small file's
// size would stay in the heap.
static constexpr size_t usual_room = 4096;

// ---- reading ----

// How many bytes to make room for at first: the file's own where it tells them, no more than may be
// read, with the NUL and one byte that shows the end.
static size_t first_room(int fd, size_t most)
{
    struct stat status;
    if (fstat(fd, &status) != 0 || status.st_size <= 0)
        return usual_room;
    const auto told = static_cast<uint64_t>(status.st_size);
    const size_t wanted = (told < most ? static_cast<size_t>(told) : most) + 2;
    return wanted > usual_room ? wanted : usual_room;
}

// Gives the content room for `room` bytes. Returns 0 or -ENOMEM.
static int make_room(FileBytes* content, size_t room)
{
    char* held = content->bytes.take();
    void* moved = realloc(held, room);
    if (moved == nullptr) {
        content->bytes.reset(held);
        return -ENOMEM;
    }
    content->bytes.reset(static_cast<char*>(moved));
    return 0;
}

// Reads once. Returns the bytes read, 0 at the end; a negated errno.
static ssize_t read_some(int fd, char* buffer, size_t room)
{
    for (;;) {
        const ssize_t count = read(fd, buffer, room);
        if (count >= 0)
            return count;
        if (errno != EINTR)
            return -errno;
    }
}

int file_read_fd(int fd, size_t most, FileBytes* content)
{
    content->bytes.reset(nullptr);
    content->size = 0;
    size_t room = first_room(fd, most);
    if (make_room(content, room) != 0)
        return -ENOMEM;
    for (;;) {
        const ssize_t count =
            read_some(fd, content->bytes.get() + content->size, room - content->size - 1);
        if (count > 0)
            content->size += static_cast<size_t>(count);
        content->bytes.get()[content->size] = '\0';
        if (count <= 0)
            return static_cast<int>(count);
        if (content->size > most)
            return -EFBIG;
        if (content->size + 1 < room)
            continue;
        room = room <= SIZE_MAX / 2 ? room * 2 : 0;
        if (room == 0 || make_room(content, room) != 0)
            return -ENOMEM;
    }
}

int file_read_all(const char* path, int flags, size_t most, FileBytes* content)
{
    const FdGuard fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | flags));
    if (fd.get() < 0)
        return -errno;
    struct stat status;
    if (fstat(fd.get(), &status) != 0)
        return -errno;
    if (!S_ISREG(status.st_mode))
        return -EINVAL;
    return file_read_fd(fd.get(), most, content);
}

// ---- replacing ----

static int write_all(int fd, const char* bytes, size_t size)
{
    while (size > 0) {
        const ssize_t count = write(fd, bytes, size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return -errno;
        bytes += count;
        size -= static_cast<size_t>(count);
    }
    return 0;
}

// Fills the new file and closes it. Closing tells of writes that failed late, on a network's disk.
static int fill(FdGuard* fd, const void* bytes, size_t size, mode_t mode, unsigned flags)
{
    if (fchmod(fd->get(), mode) != 0)
        return -errno;
    int result = write_all(fd->get(), static_cast<const char*>(bytes), size);
    if (result == 0 && (flags & FILE_DURABLE))
        result = sys_fsync(fd->get());
    if (close(fd->take()) != 0 && result == 0)
        result = -errno;
    return result;
}

// Writes the directory of a file down to the disk: else the file may have its old content after a
// power cut.
static int write_directory_down(const char* path)
{
    const char* slash = strrchr(path, '/');
    const MemGuard<char> directory(
        slash == nullptr ? strdup(".")
                         : strndup(path, slash == path ? 1 : static_cast<size_t>(slash - path)));
    if (!directory)
        return -ENOMEM;
    const FdGuard fd(open(directory.get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.get() < 0 ? -errno : sys_fsync(fd.get());
}

int file_replace(const char* path, const void* bytes, size_t size, mode_t mode, unsigned flags)
{
    static constexpr char ending[] = ".new-XXXXXX";
    const MemGuard<char> name(static_cast<char*>(malloc(strlen(path) + sizeof ending)));
    if (!name)
        return -ENOMEM;
    char* beside = name.get();
    str_cpy(str_cpy(beside, path), ending);
    FdGuard fd(mkostemp(beside, O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    int result = fill(&fd, bytes, size, mode, flags);
    if (result != 0) {
        (void)sys_unlink(beside);
        return result;
    }
    result = file_move(beside, path);
    if (result == 0 && (flags & FILE_DURABLE))
        result = write_directory_down(path);
    return result;
}

int file_move(const char* temporary, const char* path)
{
    const int result = sys_rename(temporary, path);
    if (result != 0)
        (void)sys_unlink(temporary); // the old file stays
    return result;
}
