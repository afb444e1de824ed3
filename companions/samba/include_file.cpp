#include "samba/include_file.h"

#include "lib/guard.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

static constexpr mode_t file_mode = 0644; // smbd's children read it as anybody
static constexpr mode_t directory_mode = 0755;

// ---- reading ----

static int read_stream(FILE* stream, size_t size, char* text)
{
    const size_t count = fread(text, 1, size, stream);
    text[count] = '\0';
    return ferror(stream) ? -EIO : 0;
}

int include_file_read(const char* path, char** text)
{
    const FileGuard stream(fopen(path, "re"));
    if (!stream)
        return -errno;
    struct stat status;
    if (fstat(fileno(stream.get()), &status) != 0)
        return -errno;
    if (!S_ISREG(status.st_mode))
        return -EINVAL;
    if (status.st_size < 0 || static_cast<uint64_t>(status.st_size) >= SIZE_MAX)
        return -ENOMEM;
    const auto size = static_cast<size_t>(status.st_size);
    MemGuard<char> made(static_cast<char*>(malloc(size + 1)));
    if (!made)
        return -ENOMEM;
    const int result = read_stream(stream.get(), size, made.get());
    if (result != 0)
        return result;
    *text = made.take();
    return 0;
}

// ---- writing ----

static int make_directory_of(const char* path)
{
    char directory[PATH_MAX];
    const char* slash = strrchr(path, '/');
    const size_t length = slash != nullptr ? static_cast<size_t>(slash - path) : 0;
    if (length == 0 || length >= sizeof directory)
        return 0; // the root directory is there
    memcpy(directory, path, length);
    directory[length] = '\0';
    const int result = sys_mkdir(directory, directory_mode);
    return result == -EEXIST ? 0 : result;
}

// Returns a stream for a file that nobody else has; null with errno. One of that name can only be
// left from a process that was killed.
static FILE* open_new(const char* path)
{
    (void)sys_unlink(path); // hardly ever there
    FdGuard fd(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, file_mode));
    if (fd.get() < 0 || fchmod(fd.get(), file_mode) != 0) // whatever the umask
        return nullptr;
    FILE* stream = fdopen(fd.get(), "w");
    if (stream != nullptr)
        (void)fd.take();
    return stream;
}

static int write_text(const char* path, const char* text)
{
    FileGuard stream(open_new(path));
    if (!stream)
        return -errno;
    if (fputs(text, stream.get()) < 0 || fflush(stream.get()) != 0)
        return errno != 0 ? -errno : -EIO;
    return fclose(stream.take()) == 0 ? 0 : -errno;
}

int include_file_write(const char* path, const char* text)
{
    char beside[PATH_MAX];
    const int length = snprintf(beside, sizeof beside, "%s.%d", path, static_cast<int>(getpid()));
    if (length < 0 || static_cast<size_t>(length) >= sizeof beside)
        return -ENAMETOOLONG;
    int result = make_directory_of(path);
    if (result == 0)
        result = write_text(beside, text);
    if (result == 0)
        result = sys_rename(beside, path);
    if (result != 0)
        (void)sys_unlink(beside);
    return result;
}
