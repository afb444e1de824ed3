#include "fake_medium.h"

#include "support/files.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <set>

namespace {

// Seen by the children that ask, too.
struct Shared {
    std::atomic<int> requests;
    std::atomic<bool> holds;
};

} // namespace

static int answer_error;
static Shared* shared;
static std::set<std::string> nodes;
static int ready_result;
static std::vector<std::string> asked_members;

extern "C" int __real_ioctl(int fd, unsigned long request, void* argument);
extern "C" int __wrap_ioctl(int fd, unsigned long request, ...);

static int answer_member(int fd, const btrfs_ioctl_vol_args* member)
{
    const bool writable = (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR;
    asked_members.emplace_back(writable ? member->name : "read-only control");
    errno = ready_result < 0 ? -ready_result : 0;
    return ready_result < 0 ? -1 : ready_result;
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list rest;
    va_start(rest, request);
    void* argument = va_arg(rest, void*);
    va_end(rest);
    if (static_cast<unsigned>(request) == static_cast<unsigned>(BTRFS_IOC_DEVICES_READY))
        return answer_member(fd, static_cast<const btrfs_ioctl_vol_args*>(argument));
    if (static_cast<unsigned>(request) != static_cast<unsigned>(BLKRRPART))
        return __real_ioctl(fd, request, argument);
    shared->requests++;
    while (shared->holds)
        usleep(1000);
    errno = answer_error;
    return answer_error != 0 ? -1 : 0;
}

FakeMedium::FakeMedium()
{
    answer_error = 0;
    if (shared == nullptr)
        shared = static_cast<Shared*>(mmap(nullptr, sizeof *shared, PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    shared->requests = 0;
    shared->holds = false;
    ready_result = 0;
    asked_members.clear();
}

FakeMedium::~FakeMedium()
{
    shared->holds = false;
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
    return shared->requests;
}

void FakeMedium::hold(bool on)
{
    shared->holds = on;
}

void FakeMedium::answer_ready(int result)
{
    ready_result = result;
}

std::vector<std::string> FakeMedium::members() const
{
    return asked_members;
}
