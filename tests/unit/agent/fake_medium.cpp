#include "fake_medium.h"

#include "support/files.h"

#include <errno.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <set>

static int answer_error;
static int request_count;
static std::set<std::string> nodes;

extern "C" int __real_ioctl(int fd, unsigned long request, void* argument);
extern "C" int __wrap_ioctl(int fd, unsigned long request, ...);

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list rest;
    va_start(rest, request);
    void* argument = va_arg(rest, void*);
    va_end(rest);
    if (static_cast<unsigned>(request) != static_cast<unsigned>(BLKRRPART))
        return __real_ioctl(fd, request, argument);
    request_count++;
    errno = answer_error;
    return answer_error != 0 ? -1 : 0;
}

FakeMedium::FakeMedium()
{
    answer_error = 0;
    request_count = 0;
}

FakeMedium::~FakeMedium()
{
    for (const std::string& node : nodes)
        unlink(node.c_str());
    nodes.clear();
}

void FakeMedium::add_node(const std::string& disk)
{
    nodes.insert("/dev/" + disk);
    write_file("/dev/" + disk, "");
}

void FakeMedium::answer(int error)
{
    answer_error = error;
}

int FakeMedium::requests() const
{
    return request_count;
}
