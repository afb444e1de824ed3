#include "fake/fake_libc.h"

#include <errno.h>
#include <stdarg.h>
#include <sys/socket.h>
#include <time.h>

static FakeCall planned = FAKE_CALLS;
static int left = 0;
static int planned_error = 0;

void fake_libc_fail(FakeCall call, int nth, int error)
{
    planned = call;
    left = nth;
    planned_error = error;
}

bool fake_libc_end()
{
    const bool struck = planned != FAKE_CALLS && left == 0;
    planned = FAKE_CALLS;
    return struck;
}

static bool strikes(FakeCall call)
{
    if (planned != call || left == 0 || --left != 0)
        return false;
    errno = planned_error;
    return true;
}

// The linker turns a call of NAME into one of __wrap_NAME, and __real_NAME into NAME.
extern "C" {
int __real_socket(int domain, int type, int protocol);
int __real_fcntl(int fd, int command, ...);
int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t size);
int __real_listen(int fd, int backlog);
struct tm* __real_gmtime_r(const time_t* time, struct tm* fields);
struct tm* __real_localtime_r(const time_t* time, struct tm* fields);

int __wrap_socket(int domain, int type, int protocol);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...);
int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t size);
int __wrap_listen(int fd, int backlog);
struct tm* __wrap_gmtime_r(const time_t* time, struct tm* fields);
struct tm* __wrap_localtime_r(const time_t* time, struct tm* fields);

int __wrap_socket(int domain, int type, int protocol)
{
    return strikes(FAKE_SOCKET) ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const int argument = va_arg(arguments, int); // every command that is used here takes an int
    va_end(arguments);
    return strikes(FAKE_FCNTL) ? -1 : __real_fcntl(fd, command, argument);
}

// What fcntl is called where file offsets have 64 bits.
int __wrap_fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const int argument = va_arg(arguments, int);
    va_end(arguments);
    return __wrap_fcntl(fd, command, argument);
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t size)
{
    return strikes(FAKE_SETSOCKOPT) ? -1 : __real_setsockopt(fd, level, option, value, size);
}

int __wrap_listen(int fd, int backlog)
{
    return strikes(FAKE_LISTEN) ? -1 : __real_listen(fd, backlog);
}

struct tm* __wrap_gmtime_r(const time_t* time, struct tm* fields)
{
    return strikes(FAKE_GMTIME) ? nullptr : __real_gmtime_r(time, fields);
}

struct tm* __wrap_localtime_r(const time_t* time, struct tm* fields)
{
    return strikes(FAKE_LOCALTIME) ? nullptr : __real_localtime_r(time, fields);
}
}
