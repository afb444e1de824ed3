#include "ctl/call_watch.h"

#include "ctl/call_status.h"
#include "ctl/events.h"
#include "ctl/item_json.h"
#include "ctl/processes.h"
#include "device/kinds.h"
#include "lib/platform.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

static constexpr unsigned uevent_group = 1; // of the kernel itself

namespace {

// What wakes it: the kernel's table of mounts, the directories of the files, the devices, the
// service's end.
struct Sources {
    FdGuard mounts;
    FdGuard files;
    FdGuard devices;
    FdGuard service; // of its process; empty while none runs, or where the kernel has no such thing
    const char* names[3] = {}; // of the files that count
};

} // namespace

// ---- telling ----

static void tell_time(FILE* out)
{
    time_t now = 0;
    struct tm local = {};
    (void)sys_time(&now);
    (void)localtime_r(&now, &local);
    fprintf(out, "%02d:%02d:%02d  ", local.tm_hour, local.tm_min, local.tm_sec);
}

static void tell_line(const CallArgs& args, EventKind kind, const Item& item)
{
    const char* word = kind == EVENT_PRESENT ? item_state_word(item.state) : event_word(kind);
    tell_time(args.out.out);
    text_print(args.out.out, "%.200s  %s%s%.500s%s%.80s\n", item_name(item),
               kind == EVENT_NOT_MOUNTED ? "not mounted" : word, item.reason != nullptr ? ": " : "",
               item.reason, item.share != nullptr ? "  " : "", item.share);
}

// Without an item it is null.
static void tell_json(const CallArgs& args, const char* event, const Item* item)
{
    Json json = {.out = args.out.out, .more = false};
    time_t now = 0;
    (void)sys_time(&now);
    json_begin(&json, "watch");
    json_number(&json, "time_s", now);
    json_text(&json, "event", event);
    if (item != nullptr)
        item_json(&json, "item", *item, true);
    else
        json_null(&json, "item");
    json_end(&json);
}

static void tell(void* context, EventKind kind, const Item& item)
{
    const auto* args = static_cast<const CallArgs*>(context);
    if (args->json)
        tell_json(*args, event_word(kind), &item);
    else
        tell_line(*args, kind, item);
}

static void tell_service(const CallArgs& args, bool runs)
{
    if (args.json)
        return tell_json(args, runs ? "service_started" : "service_ended", nullptr);
    tell_time(args.out.out);
    text_print(args.out.out, "the service has %s\n", runs ? "started" : "ended");
}

// ---- waking ----

// Watches the directory of a file, which is replaced as a whole. Lends the file's bare name.
static const char* watch_file(int files, const char* path)
{
    char directory[PATH_MAX];
    const char* slash = strrchr(path, '/');
    str_ncpy(directory, path, static_cast<int32_t>(slash - path) + 2);
    (void)inotify_add_watch(files, directory,
                            IN_MOVED_TO | IN_MOVED_FROM | IN_CLOSE_WRITE | IN_DELETE);
    return slash + 1; // a directory that is not there brings no news
}

static int open_devices()
{
    FdGuard fd(
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = uevent_group;
    if (fd.get() < 0 || bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return -errno;
    return fd.take();
}

// Opens everything. Returns 0; a negated errno.
static int open_sources(const Setup& setup, Sources* sources)
{
    sources->mounts.reset(open(mountinfo_path, O_RDONLY | O_CLOEXEC));
    sources->files.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (sources->mounts.get() < 0 || sources->files.get() < 0)
        return -errno;
    sources->names[0] = watch_file(sources->files.get(), setup.config->smbconfigpath);
    sources->names[1] = watch_file(sources->files.get(), setup.config->deviceconfigpath);
    sources->names[2] = watch_file(sources->files.get(), setup.not_mounted);
    sources->devices.reset(open_devices());
    return sources->devices.get() < 0 ? sources->devices.take() : 0;
}

// `file` is what stands behind the event.
static bool is_ours(const Sources& sources, const inotify_event& event, const char* file)
{
    if ((event.mask & IN_Q_OVERFLOW) != 0)
        return true;
    for (const char* name : sources.names) {
        if (event.len > 0 && name != nullptr && strcmp(file, name) == 0)
            return true;
    }
    return false;
}

// Takes what the files' descriptor has. Returns whether any of it is of a file that counts.
static bool take_files(const Sources& sources)
{
    char buffer[4096];
    bool ours = false;
    ssize_t length = 0;
    while ((length = read(sources.files.get(), buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < length;) {
            inotify_event event;
            memcpy(&event, buffer + at, sizeof event);
            ours |= is_ours(sources, event, buffer + at + sizeof event);
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
    return ours;
}

namespace {

struct EventLines {
    char of[sizeof device_kinds / sizeof *device_kinds][16];
};

} // namespace

// How the line of an event begins that names a device, for each kind; made by the compiler.
static constexpr EventLines make_event_lines()
{
    EventLines made = {};
    auto* line = made.of;
    for (const DeviceKind& kind : device_kinds) {
        char* end = *line++;
        const char* const parts[] = {"DEVNAME=", kind.prefix};
        for (const char* from : parts) {
            while (*from != '\0')
                *end++ = *from++;
        }
    }
    return made;
}

// Whether an event is of a disk or a card: other block devices come and go all the time.
static bool is_of_disk(const char* event, size_t length)
{
    static constexpr EventLines lines = make_event_lines();
    for (const auto& name : lines.of) {
        if (memmem(event, length, name, strlen(name)) != nullptr)
            return true;
    }
    return false;
}

// Takes what the kernel has sent; what it says is looked up anyway.
static bool take_devices(const Sources& sources)
{
    char buffer[8192];
    bool any = false;
    ssize_t length = 0;
    while ((length = recv(sources.devices.get(), buffer, sizeof buffer, 0)) >= 0 ||
           errno == ENOBUFS)
        any |= length < 0 || is_of_disk(buffer, static_cast<size_t>(length));
    return any;
}

// Has the end of the service's process wake it; its start does by the share file, which is then
// written.
static void watch_service(Sources* sources)
{
#ifdef SYS_pidfd_open
    ProcessTableGuard processes;
    if (sources->service.get() >= 0 || processes_read(processes.out()) != 0)
        return; // the next event has it tried again
    const pid_t pid = processes_find(processes.get(), "vyhotplugd");
    if (pid > 0)
        sources->service.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
#else
    (void)sources;
#endif
}

// Waits until something has happened. Returns 0; a negated errno.
static int wait_for_news(Sources* held)
{
    const Sources& sources = *held;
    pollfd waited[] = {
        {.fd = sources.mounts.get(), .events = POLLPRI, .revents = 0},
        {.fd = sources.files.get(), .events = POLLIN, .revents = 0},
        {.fd = sources.devices.get(), .events = POLLIN, .revents = 0},
        {.fd = sources.service.get(), .events = POLLIN, .revents = 0}, // -1 is passed over
    };
    for (;;) {
        if (poll(waited, 4, -1) < 0 && errno != EINTR)
            return -errno;
        const bool mounts = (waited[0].revents & (POLLPRI | POLLERR)) != 0;
        const bool files = take_files(sources);
        const bool devices = take_devices(sources);
        const bool service = waited[3].revents != 0;
        if (service)
            held->service.reset(-1);
        if (mounts || files || devices || service)
            return 0;
    }
}

// ---- the call ----

// Tells the differences to the view before, and puts the new one in its place.
static int look_again(const CallArgs& args, View* view, bool first)
{
    View next;
    const int result = view_begin(*args.setup, &next);
    if (result == 0) {
        if (!first && view->service_runs != next.service_runs)
            tell_service(args, next.service_runs);
        events_find(first ? nullptr : view, next, tell, const_cast<CallArgs*>(&args));
        view_end(view);
        *view = next;
        return stream_flush(args.out.out) == 0 ? EXIT_DONE : EXIT_FAILED;
    }
    view_end(&next);
    return complain_errno(nullptr, result);
}

int call_watch(const CallArgs& args)
{
    Sources sources;
    View view = {};
    const int result = open_sources(*args.setup, &sources);
    if (result != 0)
        return complain_errno(nullptr, result);
    watch_service(&sources); // before each look, so that no end is missed
    int status = look_again(args, &view, true);
    while (status == EXIT_DONE) {
        const int news = wait_for_news(&sources);
        watch_service(&sources);
        status = news == 0 ? look_again(args, &view, false) : complain_errno(nullptr, news);
    }
    view_end(&view);
    return status;
}
