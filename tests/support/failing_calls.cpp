#include "support/failing_calls.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>

namespace {

struct State {
    std::string function; // of the plan; "": there is none
    int left = 0;         // calls until it strikes
    int error = 0;
    bool struck = false;
    std::function<void()> act; // instead of the failure
    size_t read_most = 0;
    std::map<std::string, int> calls;
    std::set<FILE*> streams;
    std::vector<std::string> inheritable;
};

std::recursive_mutex mutex;
std::atomic<bool> watched{false};
thread_local bool overlooked = false;
State state;

using Lock = std::lock_guard<std::recursive_mutex>;

// Counts a call; whether it is the one to fail, with errno set. Acts where that is planned instead.
bool call_fails(const char* function)
{
    if (!watched || overlooked)
        return false;
    const Lock lock(mutex);
    state.calls[function]++;
    if (state.function != function || state.left == 0 || --state.left != 0)
        return false;
    state.struck = true;
    if (!state.act) {
        errno = state.error;
        return true;
    }
    overlooked = true;
    state.act();
    overlooked = false;
    return false;
}

size_t cut(size_t size)
{
    const Lock lock(mutex);
    return state.read_most != 0 && state.read_most < size ? state.read_most : size;
}

FILE* keep_stream(FILE* stream)
{
    if (watched && !overlooked && stream != nullptr) {
        const Lock lock(mutex);
        state.streams.insert(stream);
    }
    return stream;
}

// Notes a descriptor that is not close-on-exec. Returns it.
int note_opened(int fd, bool closes, const std::string& what)
{
    if (watched && !overlooked && fd >= 0 && !closes) {
        const Lock lock(mutex);
        state.inheritable.push_back(what);
    }
    return fd;
}

void forget_stream(FILE* stream)
{
    const Lock lock(mutex);
    state.streams.erase(stream);
}

} // namespace

void call_fail(const std::string& function, int nth, int error)
{
    const Lock lock(mutex);
    state.function = function;
    state.left = nth;
    state.error = error;
    state.act = nullptr;
    state.struck = false;
    watched = true;
}

void call_before(const std::string& function, int nth, std::function<void()> act)
{
    const Lock lock(mutex);
    call_fail(function, nth, 0);
    state.act = std::move(act);
}

bool call_failed()
{
    const Lock lock(mutex);
    watched = false;
    state.function = "";
    return state.struck;
}

void reads_cut(size_t most)
{
    const Lock lock(mutex);
    state.read_most = most;
}

void calls_watch(bool on)
{
    watched = on;
}

void calls_overlook(bool on)
{
    overlooked = on;
}

std::map<std::string, int> calls_counted()
{
    const Lock lock(mutex);
    return state.calls;
}

size_t streams_kept()
{
    const Lock lock(mutex);
    return state.streams.size();
}

std::vector<std::string> inheritable_after(const std::function<void()>& work)
{
    calls_reset();
    calls_watch(true);
    work();
    calls_watch(false);
    const Lock lock(mutex);
    return state.inheritable;
}

void calls_reset()
{
    const Lock lock(mutex);
    watched = false;
    state = State();
}

// The linker turns a call of NAME into one of __wrap_NAME, and __real_NAME into NAME. Where file
// offsets have 64 bits, some functions are linked by a longer name.
extern "C" {

// ---- calls that answer -1 and errno ----

#define WRAP_AS(name, result, failure, function, parameters, arguments)                            \
    result __real_##function parameters;                                                           \
    result __wrap_##function parameters;                                                           \
    result __wrap_##function parameters                                                            \
    {                                                                                              \
        return call_fails(name) ? (failure) : __real_##function arguments;                         \
    }
#define WRAP(result, failure, function, parameters, arguments)                                     \
    WRAP_AS(#function, result, failure, function, parameters, arguments)

WRAP(int, -1, accept4, (int fd, sockaddr* address, socklen_t* size, int flags),
     (fd, address, size, flags))
WRAP(int, -1, access, (const char* path, int mode), (path, mode))
WRAP(int, -1, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
WRAP(int, -1, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
WRAP(int, -1, flock, (int fd, int operation), (fd, operation))
WRAP_AS("ftruncate", int, -1, ftruncate64, (int fd, off64_t size), (fd, size))
WRAP(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))
WRAP(int, -1, listen, (int fd, int backlog), (fd, backlog))
WRAP_AS("lstat", int, -1, lstat64, (const char* path, struct stat64* status), (path, status))
WRAP(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, cut(size)))
WRAP_AS("readdir", struct dirent*, nullptr, readdir, (DIR * stream), (stream)) // musl's
WRAP_AS("readdir", struct dirent64*, nullptr, readdir64, (DIR * stream), (stream))
WRAP(ssize_t, -1, recv, (int fd, void* buffer, size_t size, int flags), (fd, buffer, size, flags))
WRAP(ssize_t, -1, send, (int fd, const void* buffer, size_t size, int flags),
     (fd, buffer, size, flags))
WRAP(int, -1, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
     (fd, level, name, value, size))
WRAP(int, -1, sigaction, (int number, const struct sigaction* action, struct sigaction* old),
     (number, action, old))
WRAP_AS("stat", int, -1, stat64, (const char* path, struct stat64* status), (path, status))
WRAP_AS("statvfs", int, -1, statvfs64, (const char* path, struct statvfs64* status), (path, status))
WRAP(ssize_t, -1, write, (int fd, const void* buffer, size_t size), (fd, buffer, size))

// ---- calls that answer an errno ----

WRAP(int, errno, pthread_attr_init, (pthread_attr_t * attributes), (attributes))
WRAP(int, errno, pthread_attr_setstacksize, (pthread_attr_t * attributes, size_t size),
     (attributes, size))
WRAP(int, errno, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument),
     (thread, attributes, start, argument))
WRAP(int, errno, pthread_mutex_init, (pthread_mutex_t * lock, const pthread_mutexattr_t* kind),
     (lock, kind))

// ---- broken-down times ----

WRAP(struct tm*, nullptr, gmtime_r, (const time_t* time, struct tm* fields), (time, fields))
WRAP(struct tm*, nullptr, localtime_r, (const time_t* time, struct tm* fields), (time, fields))

// ---- streams ----

WRAP(int, EOF, fflush, (FILE * stream), (stream))
WRAP(int, EOF, fputc, (int c, FILE* stream), (c, stream))
WRAP(int, EOF, fputs, (const char* text, FILE* stream), (text, stream))
WRAP_AS("fseeko", int, -1, fseeko64, (FILE * stream, off64_t offset, int whence),
        (stream, offset, whence))
WRAP_AS("ftello", off64_t, -1, ftello64, (FILE * stream), (stream))
WRAP(int, 1, addmntent, (FILE * stream, const mntent* line), (stream, line))

FILE* __real_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode)
{
    return call_fails("fopen") ? nullptr : keep_stream(__real_fopen64(path, mode));
}

FILE* __real_setmntent(const char* path, const char* mode);
FILE* __wrap_setmntent(const char* path, const char* mode);
FILE* __wrap_setmntent(const char* path, const char* mode)
{
    return call_fails("setmntent") ? nullptr : keep_stream(__real_setmntent(path, mode));
}

int __real_endmntent(FILE* stream);
int __wrap_endmntent(FILE* stream);
int __wrap_endmntent(FILE* stream)
{
    forget_stream(stream);
    return __real_endmntent(stream);
}

int __real_fclose(FILE* stream);
int __wrap_fclose(FILE* stream);
int __wrap_fclose(FILE* stream)
{
    const bool fails = call_fails("fclose");
    const int error = errno;
    forget_stream(stream);
    const int result = __real_fclose(stream);
    errno = fails ? error : errno;
    return fails ? EOF : result;
}

int __wrap_fprintf(FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));
int __wrap_fprintf(FILE* stream, const char* format, ...)
{
    if (call_fails("fprintf"))
        return -1;
    va_list arguments;
    va_start(arguments, format);
    const int result = vfprintf(stream, format, arguments);
    va_end(arguments);
    return result;
}

size_t __real_fread(void* buffer, size_t size, size_t count, FILE* stream);
size_t __wrap_fread(void* buffer, size_t size, size_t count, FILE* stream);
size_t __wrap_fread(void* buffer, size_t size, size_t count, FILE* stream)
{
    return call_fails("fread") ? 0 : __real_fread(buffer, size, count, stream);
}

size_t __real_fwrite(const void* buffer, size_t size, size_t count, FILE* stream);
size_t __wrap_fwrite(const void* buffer, size_t size, size_t count, FILE* stream);
size_t __wrap_fwrite(const void* buffer, size_t size, size_t count, FILE* stream)
{
    return call_fails("fwrite") ? 0 : __real_fwrite(buffer, size, count, stream);
}

// ---- descriptors ----

int __real_open64(const char* path, int flags, mode_t mode);
int __wrap_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0);
    va_end(arguments);
    if (call_fails("open"))
        return -1;
    return note_opened(__real_open64(path, flags, mode), (flags & O_CLOEXEC) != 0,
                       std::string("open ") + path);
}

int __real_openat64(int directory, const char* path, int flags, mode_t mode);
int __wrap_openat64(int directory, const char* path, int flags, ...);
int __wrap_openat64(int directory, const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0);
    va_end(arguments);
    if (call_fails("openat"))
        return -1;
    return note_opened(__real_openat64(directory, path, flags, mode), (flags & O_CLOEXEC) != 0,
                       std::string("openat ") + path);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    if (call_fails("socket"))
        return -1;
    return note_opened(__real_socket(domain, type, protocol), (type & SOCK_CLOEXEC) != 0, "socket");
}

int __real_fcntl(int fd, int command, long argument);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument =
        va_arg(arguments, long); // every command that is used here takes one, or none
    va_end(arguments);
    return call_fails("fcntl") ? -1 : __real_fcntl(fd, command, argument);
}

int __real_fcntl64(int fd, int command, long argument);
int __wrap_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return call_fails("fcntl") ? -1 : __real_fcntl64(fd, command, argument);
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd)
{
    const bool fails = call_fails("close");
    const int error = errno;
    const int result = __real_close(fd);
    errno = fails ? error : errno;
    return fails ? -1 : result;
}
}
