#include "sweep/failing_libc.h"

#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>

namespace {

struct Plan {
    int allocation = 0; // 0: none
    bool onwards = false;
    std::string function;
    int call = 0;
    int error = 0;
};

std::recursive_mutex mutex;
std::atomic<bool> armed{false};
Plan plan;
bool struck;
int allocations;
std::map<std::string, int> calls;
std::set<void*> live;
std::set<FILE*> streams;

using Lock = std::lock_guard<std::recursive_mutex>;

bool allocation_fails()
{
    if (!armed)
        return false;
    const Lock lock(mutex);
    allocations++;
    const bool fails = plan.allocation != 0 && (allocations == plan.allocation ||
                                                (plan.onwards && allocations > plan.allocation));
    if (fails) {
        struck = true;
        errno = ENOMEM;
    }
    return fails;
}

void* keep(void* memory)
{
    if (armed && memory != nullptr) {
        const Lock lock(mutex);
        live.insert(memory);
    }
    return memory;
}

void forget(void* memory)
{
    const Lock lock(mutex);
    live.erase(memory);
}

// Counts a call; whether it is the one to fail, with errno set.
bool call_fails(const char* function)
{
    if (!armed)
        return false;
    const Lock lock(mutex);
    const int count = ++calls[function];
    if (plan.function != function || plan.call != count)
        return false;
    struck = true;
    errno = plan.error;
    return true;
}

FILE* keep_stream(FILE* stream)
{
    if (armed && stream != nullptr) {
        const Lock lock(mutex);
        streams.insert(stream);
    }
    return stream;
}

void forget_stream(FILE* stream)
{
    const Lock lock(mutex);
    streams.erase(stream);
}

} // namespace

void libc_reset()
{
    const Lock lock(mutex);
    armed = false;
    plan = Plan();
    struck = false;
    allocations = 0;
    calls.clear();
    live.clear();
    streams.clear();
}

void libc_arm()
{
    armed = true;
}

void libc_disarm()
{
    armed = false;
}

int libc_allocations()
{
    return allocations;
}

const std::map<std::string, int>& libc_calls()
{
    return calls;
}

void libc_fail_allocation(int nth, bool onwards)
{
    plan.allocation = nth;
    plan.onwards = onwards;
}

void libc_fail_call(const std::string& function, int nth, int error)
{
    plan.function = function;
    plan.call = nth;
    plan.error = error;
}

bool libc_struck()
{
    return struck;
}

std::string libc_leaks(size_t allowed)
{
    const Lock lock(mutex);
    std::string words;
    if (live.size() > allowed)
        words += std::to_string(live.size()) + " allocations not freed ";
    if (!streams.empty())
        words += std::to_string(streams.size()) + " streams not closed";
    return words;
}

extern "C" void __real_free(void* memory);

void libc_free_kept()
{
    const Lock lock(mutex);
    for (void* memory : live)
        __real_free(memory);
    live.clear();
}

extern "C" {

// ---- memory ----

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
char* __real_strdup(const char* text);
char* __real_strndup(const char* text, size_t length);

void* __wrap_malloc(size_t size);
void* __wrap_malloc(size_t size)
{
    return allocation_fails() ? nullptr : keep(__real_malloc(size));
}

void* __wrap_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size)
{
    return allocation_fails() ? nullptr : keep(__real_calloc(count, size));
}

void* __wrap_realloc(void* memory, size_t size);
void* __wrap_realloc(void* memory, size_t size)
{
    if (allocation_fails())
        return nullptr;
    forget(memory);
    return keep(__real_realloc(memory, size));
}

void __wrap_free(void* memory);
void __wrap_free(void* memory)
{
    forget(memory);
    __real_free(memory);
}

char* __wrap_strdup(const char* text);
char* __wrap_strdup(const char* text)
{
    return allocation_fails() ? nullptr : static_cast<char*>(keep(__real_strdup(text)));
}

char* __wrap_strndup(const char* text, size_t length);
char* __wrap_strndup(const char* text, size_t length)
{
    return allocation_fails() ? nullptr : static_cast<char*>(keep(__real_strndup(text, length)));
}

// ---- calls that answer -1 and errno ----

#define WRAP(result, failure, function, parameters, arguments)                                     \
    result __real_##function parameters;                                                           \
    result __wrap_##function parameters;                                                           \
    result __wrap_##function parameters                                                            \
    {                                                                                              \
        return call_fails(#function) ? (failure) : __real_##function arguments;                    \
    }

WRAP(int, -1, accept, (int fd, sockaddr* address, socklen_t* size), (fd, address, size))
WRAP(int, -1, access, (const char* path, int mode), (path, mode))
WRAP(int, -1, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
WRAP(int, -1, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
WRAP(int, -1, flock, (int fd, int operation), (fd, operation))
WRAP(int, -1, ftruncate64, (int fd, off64_t size), (fd, size))
WRAP(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))
WRAP(int, -1, listen, (int fd, int backlog), (fd, backlog))
WRAP(int, -1, lstat64, (const char* path, struct stat64* status), (path, status))
WRAP(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))
WRAP(ssize_t, -1, recv, (int fd, void* buffer, size_t size, int flags), (fd, buffer, size, flags))
WRAP(ssize_t, -1, send, (int fd, const void* buffer, size_t size, int flags),
     (fd, buffer, size, flags))
WRAP(int, -1, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
     (fd, level, name, value, size))
WRAP(int, -1, sigaction, (int number, const struct sigaction* action, struct sigaction* old),
     (number, action, old))
WRAP(int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(int, -1, stat64, (const char* path, struct stat64* status), (path, status))
WRAP(int, -1, statvfs64, (const char* path, struct statvfs64* status), (path, status))
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

// ---- streams ----

WRAP(int, EOF, fflush, (FILE * stream), (stream))
WRAP(int, EOF, fputc, (int c, FILE* stream), (c, stream))
WRAP(int, EOF, fputs, (const char* text, FILE* stream), (text, stream))
WRAP(int, -1, fseeko64, (FILE * stream, off64_t offset, int whence), (stream, offset, whence))
WRAP(off64_t, -1, ftello64, (FILE * stream), (stream))
WRAP(int, 1, addmntent, (FILE * stream, const mntent* line), (stream, line))

FILE* __real_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode)
{
    return call_fails("fopen64") ? nullptr : keep_stream(__real_fopen64(path, mode));
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

int __wrap_fprintf(FILE* stream, const char* format, ...);
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

// ---- descriptors ----

int __real_open64(const char* path, int flags, mode_t mode);
int __wrap_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0);
    va_end(arguments);
    return call_fails("open64") ? -1 : __real_open64(path, flags, mode);
}

int __real_fcntl64(int fd, int command, long argument);
int __wrap_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return call_fails("fcntl64") ? -1 : __real_fcntl64(fd, command, argument);
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd)
{
    const bool fails = call_fails("close");
    const int result = __real_close(fd);
    if (fails)
        errno = EIO;
    return fails ? -1 : result;
}
}
