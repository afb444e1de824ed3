#include "fake/fake_world.h"

#include "lib/sys.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>

namespace {

struct Failure {
    std::string call;
    bool every;
    int left; // calls of that name until it strikes
    int error;
};

struct Child {
    FakeRun run;
    bool reaped = false;
};

struct State {
    FakeWorld world;
    std::vector<Failure> failures;
    std::map<pid_t, Child> children;
    pid_t next_pid = 5001;
};

std::recursive_mutex mutex;
State state;

using Lock = std::lock_guard<std::recursive_mutex>;

// Notes the call and decides whether it fails. Returns 0 or a negated errno.
int note(const std::string& call, const std::string& arguments)
{
    state.world.journal.push_back(arguments.empty() ? call : call + " " + arguments);
    int error = 0;
    for (Failure& failure : state.failures) {
        if (failure.call != call)
            continue;
        if (failure.every || --failure.left == 0)
            error = failure.error;
    }
    state.world.failed += error != 0 ? 1 : 0;
    return -error;
}

int answer(int result)
{
    return result < 0 ? -errno : 0;
}

std::string text_of(const char* text)
{
    return text != nullptr ? text : "(null)";
}

std::string hex(unsigned long value)
{
    char text[32];
    snprintf(text, sizeof text, "0x%lx", value);
    return text;
}

int detach(const std::string& call, const char* target, const std::string& arguments)
{
    const int failed = note(call, text_of(target) + arguments);
    if (failed != 0)
        return failed;
    auto found = state.world.mounts.find(target);
    if (found == state.world.mounts.end())
        return access(target, F_OK) == 0 ? -EINVAL : -ENOENT;
    if (call == "umount" && state.world.busy.count(target) != 0)
        return -state.world.busy[target];
    state.world.mounts.erase(found);
    return 0;
}

} // namespace

// ---- what the test sees ----

FakeWorld& fake_world()
{
    return state.world;
}

void fake_world_reset()
{
    const Lock lock(mutex);
    state = State();
}

void fake_world_lose_patience()
{
    const Lock lock(mutex);
    state.world.impatient = true;
}

void FakeWorld::fail(const std::string& call, int nth, int error)
{
    const Lock lock(mutex);
    state.failures.push_back({call, nth == 0, nth, error});
}

void FakeWorld::pass(uint64_t monotonic, uint64_t realtime)
{
    const Lock lock(mutex);
    monotonic_usec += monotonic;
    realtime_usec += realtime;
}

std::vector<std::string> FakeWorld::calls(const std::string& prefix) const
{
    const Lock lock(mutex);
    std::vector<std::string> found;
    for (const std::string& entry : journal) {
        if (entry.compare(0, prefix.size(), prefix) == 0)
            found.push_back(entry);
    }
    return found;
}

int FakeWorld::count(const std::string& call) const
{
    const Lock lock(mutex);
    int found = 0;
    for (const std::string& entry : journal)
        found += entry == call || entry.compare(0, call.size() + 1, call + " ") == 0 ? 1 : 0;
    return found;
}

// ---- filesystems and names ----

// Runs what the test wants to do meanwhile, the world unlocked.
static void step_in(std::function<void()> FakeWorld::*at)
{
    std::function<void()> wanted;
    {
        const Lock lock(mutex);
        wanted = state.world.*at;
    }
    if (wanted)
        wanted();
}

int sys_mount(const char* source, const char* target, const char* type, unsigned long flags,
              const char* options)
{
    const Lock lock(mutex);
    const int failed = note("mount", text_of(source) + " " + text_of(target) + " " + text_of(type) +
                                         " " + hex(flags) + " " + text_of(options));
    if (failed != 0)
        return failed;
    const auto mounted = state.world.mounts.find(target);
    if ((flags & MS_REMOUNT) != 0) {
        if (mounted == state.world.mounts.end())
            return -EINVAL;
        mounted->second.flags = flags & ~static_cast<unsigned long>(MS_REMOUNT | MS_BIND);
        return 0;
    }
    if (mounted != state.world.mounts.end())
        return -EBUSY;
    const auto medium = state.world.media.find(source);
    if (medium == state.world.media.end() || medium->second.type != type)
        return -EINVAL;
    if (medium->second.readonly != 0 && (flags & MS_RDONLY) == 0)
        return -medium->second.readonly;
    state.world.mounts[target] = {source, type, flags, text_of(options)};
    return 0;
}

int sys_umount(const char* target)
{
    const Lock lock(mutex);
    return detach("umount", target, "");
}

int sys_umount2(const char* target, int flags)
{
    const Lock lock(mutex);
    return detach("umount2", target, " " + hex(static_cast<unsigned long>(flags)));
}

int sys_mknod(const char* path, mode_t mode, dev_t device)
{
    const Lock lock(mutex);
    char arguments[512];
    snprintf(arguments, sizeof arguments, "%s %o %u:%u", path, static_cast<unsigned>(mode),
             major(device), minor(device));
    const int failed = note("mknod", arguments);
    // A regular file takes the node's place: not every test may make nodes.
    return failed != 0 ? failed : answer(mknod(path, S_IFREG | 0600, 0));
}

int sys_mkdir(const char* path, mode_t mode)
{
    const Lock lock(mutex);
    char arguments[512];
    snprintf(arguments, sizeof arguments, "%s %o", path, static_cast<unsigned>(mode));
    const int failed = note("mkdir", arguments);
    return failed != 0 ? failed : answer(mkdir(path, mode));
}

int sys_rmdir(const char* path)
{
    const Lock lock(mutex);
    const int failed = note("rmdir", text_of(path));
    if (failed != 0)
        return failed;
    return state.world.mounts.count(path) != 0 ? -EBUSY : answer(rmdir(path));
}

int sys_unlink(const char* path)
{
    const Lock lock(mutex);
    const int failed = note("unlink", text_of(path));
    return failed != 0 ? failed : answer(unlink(path));
}

int sys_rename(const char* from, const char* to)
{
    const Lock lock(mutex);
    const int failed = note("rename", text_of(from) + " " + text_of(to));
    return failed != 0 ? failed : answer(rename(from, to));
}

int sys_link(const char* from, const char* to)
{
    step_in(&FakeWorld::on_link);
    const Lock lock(mutex);
    const int failed = note("link", text_of(from) + " " + text_of(to));
    return failed != 0 ? failed : answer(link(from, to));
}

int sys_exchange(const char* a, const char* b)
{
    step_in(&FakeWorld::on_exchange);
    const Lock lock(mutex);
    const int failed = note("exchange", text_of(a) + " " + text_of(b));
    if (failed != 0)
        return failed;
    const std::string between = std::string(a) + ".exchanged";
    struct stat there;
    const bool done = lstat(b, &there) == 0 && rename(a, between.c_str()) == 0 &&
                      rename(b, a) == 0 && rename(between.c_str(), b) == 0;
    return done ? 0 : -errno;
}

int sys_fsync(int)
{
    const Lock lock(mutex);
    return note("fsync", "");
}

int sys_statfs(const char* path)
{
    const Lock lock(mutex);
    return note("statfs", text_of(path));
}

int sys_is_readonly(const char* path)
{
    const Lock lock(mutex);
    const int failed = note("is_readonly", text_of(path));
    if (failed != 0)
        return failed;
    const auto mount = state.world.mounts.find(path);
    const bool readonly = mount != state.world.mounts.end() &&
                          ((mount->second.flags & MS_RDONLY) != 0 ||
                           state.world.quietly_readonly.count(mount->second.source) != 0);
    return readonly ? 1 : 0;
}

void sys_sync()
{
    step_in(&FakeWorld::on_sync);
    const Lock lock(mutex);
    (void)note("sync", "");
    state.world.syncs++;
}

// ---- processes ----

int sys_kill(pid_t pid, int signal)
{
    const Lock lock(mutex);
    const int failed = note("kill", std::to_string(pid) + " " + std::to_string(signal));
    if (failed != 0)
        return failed;
    state.world.signals.emplace_back(pid, signal);
    const auto error = state.world.kill_errors.find(pid);
    return error == state.world.kill_errors.end() ? 0 : -error->second;
}

static pid_t reap(pid_t pid, Child* child, int* status, int options)
{
    if (child->run.polls == -1)
        return (options & WNOHANG) != 0 ? 0 : -EINTR; // a test must not hang
    if (child->run.polls > 0 && (options & WNOHANG) != 0) {
        child->run.polls--;
        return 0;
    }
    child->reaped = true;
    if (status != nullptr)
        *status = child->run.wait_status;
    return pid;
}

pid_t sys_waitpid(pid_t pid, int* status, int options)
{
    const Lock lock(mutex);
    const int failed = note("waitpid", std::to_string(pid) + " " + std::to_string(options));
    if (failed != 0)
        return failed;
    bool any = false;
    for (auto& [number, child] : state.children) {
        if (child.reaped || (pid != -1 && pid != number))
            continue;
        any = true;
        const pid_t reaped = reap(number, &child, status, options);
        if (reaped != 0)
            return reaped;
    }
    return any ? 0 : -ECHILD;
}

int sys_pipe(int ends[2])
{
    const Lock lock(mutex);
    const int failed = note("pipe", "");
    return failed != 0 ? failed : answer(pipe(ends));
}

pid_t sys_spawn(const char* file, char* const argv[], const int stdio[3])
{
    std::vector<std::string> arguments;
    std::string line = text_of(file);
    for (char* const* argument = argv; *argument != nullptr; argument++) {
        arguments.push_back(*argument);
        line += std::string(" ") + *argument;
    }
    std::function<void(const std::vector<std::string>&)> wanted;
    {
        const Lock lock(mutex);
        wanted = state.world.on_spawn;
    }
    if (wanted)
        wanted(arguments);
    const Lock lock(mutex);
    const int failed = note("spawn", line);
    if (failed != 0)
        return failed;
    state.world.spawned.push_back(arguments);
    state.world.streams.push_back({stdio[0], stdio[1], stdio[2]});
    FakeRun run;
    auto& script = state.world.programs[file];
    if (script.empty()) {
        run.wait_status = 1 << 8; // as a program that cannot be executed
    } else {
        run = script.front();
        script.pop_front();
    }
    if (stdio[1] >= 0 && !run.output.empty() &&
        write(stdio[1], run.output.data(), run.output.size()) < 0)
        return -errno;
    state.children[state.next_pid] = {run};
    return state.next_pid++;
}

// The preparing is the child's, and there is none here.
pid_t sys_spawn_prepared(const char* file, char* const argv[], const int stdio[3], bool (*)())
{
    return sys_spawn(file, argv, stdio);
}

// The work is scripted like a program.
pid_t sys_spawn_work(void (*)(char* const argv[]), char* const argv[], const int stdio[3])
{
    return sys_spawn(argv[0], argv, stdio);
}

// ---- clocks and waiting ----

int sys_clock_gettime(clockid_t clock, timespec* now)
{
    const Lock lock(mutex);
    const int failed = note("clock_gettime", std::to_string(clock));
    if (failed != 0)
        return failed;
    const uint64_t usec =
        clock == CLOCK_REALTIME ? state.world.realtime_usec : state.world.monotonic_usec;
    now->tv_sec = static_cast<time_t>(usec / 1000000);
    now->tv_nsec = static_cast<long>(usec % 1000000 * 1000);
    return 0;
}

int sys_gettimeofday(timeval* now)
{
    const Lock lock(mutex);
    const int failed = note("gettimeofday", "");
    if (failed != 0)
        return failed;
    now->tv_sec = static_cast<time_t>(state.world.realtime_usec / 1000000);
    now->tv_usec = static_cast<suseconds_t>(state.world.realtime_usec % 1000000);
    return 0;
}

int sys_time(time_t* now)
{
    const Lock lock(mutex);
    const int failed = note("time", "");
    if (failed == 0)
        *now = static_cast<time_t>(state.world.realtime_usec / 1000000);
    return failed;
}

static void advance(uint64_t usec)
{
    state.world.monotonic_usec += usec;
    state.world.realtime_usec += usec;
    state.world.slept_usec += usec;
}

// An interrupted sleep (fail with EINTR) has slept half of its time.
static int sleep_pretended(uint64_t asked, timespec* rest)
{
    const Lock lock(mutex);
    const int failed = note("nanosleep", std::to_string(asked));
    if (failed != 0 && failed != -EINTR)
        return failed;
    const uint64_t slept = failed == 0 ? asked : asked / 2;
    advance(slept);
    if (failed == 0)
        return 0;
    rest->tv_sec = static_cast<time_t>((asked - slept) / 1000000);
    rest->tv_nsec = static_cast<long>((asked - slept) % 1000000 * 1000);
    return failed;
}

int sys_nanosleep(const timespec* interval, timespec* rest)
{
    const uint64_t asked = static_cast<uint64_t>(interval->tv_sec) * 1000000 +
                           static_cast<uint64_t>(interval->tv_nsec) / 1000;
    const int result = sleep_pretended(asked, rest);
    std::function<void(uint64_t)> wanted;
    {
        const Lock lock(mutex);
        wanted = state.world.on_sleep;
    }
    if (wanted)
        wanted(asked);
    return result;
}

// Waits until the descriptor is ready, the time has passed, or the test has no patience any more.
static int wait_for_real(int fd, SysDirection direction, timeval* limit)
{
    static constexpr timeval step = {.tv_sec = 0, .tv_usec = 10000};
    const bool readable = direction == SYS_READABLE;
    for (;;) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval wait = limit != nullptr && timercmp(limit, &step, <) ? *limit : step;
        const timeval asked = wait;
        const int ready =
            select(fd + 1, readable ? &set : nullptr, readable ? nullptr : &set, nullptr, &wait);
        if (ready != 0)
            return ready < 0 ? -errno : ready;
        if (limit != nullptr)
            timersub(limit, &asked, limit);
        const Lock lock(mutex);
        if ((limit != nullptr && !timerisset(limit)) || state.world.impatient)
            return 0;
    }
}

// Waits for real: the descriptors are real ones. What was waited for is noted as "fd direction
// usec".
int sys_select_one(int fd, SysDirection direction, timeval* limit)
{
    step_in(&FakeWorld::on_select);
    {
        const Lock lock(mutex);
        const std::string usec =
            limit == nullptr ? "-1" : std::to_string(limit->tv_sec * 1000000L + limit->tv_usec);
        const int failed =
            note("select", std::to_string(fd) + " " + std::to_string(direction) + " " + usec);
        if (failed != 0)
            return failed;
        if (state.world.select_expires > 0 && --state.world.select_expires == 0) {
            if (limit != nullptr)
                advance(static_cast<uint64_t>(limit->tv_sec) * 1000000 +
                        static_cast<uint64_t>(limit->tv_usec));
            return 0;
        }
    }
    if (fd < 0 || fd >= FD_SETSIZE)
        return -EBADF;
    return wait_for_real(fd, direction, limit);
}
