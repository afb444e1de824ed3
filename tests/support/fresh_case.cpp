#include "support/fresh_case.h"

#include "support/child.h"
#include "support/files.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

// The fakes, where an executable has them.
[[gnu::weak]] void fake_world_reset();
[[gnu::weak]] void fake_log_clear();
[[gnu::weak]] void fake_start_reset();
[[gnu::weak]] void fake_files_reset();
[[gnu::weak]] void memory_reset();
[[gnu::weak]] void calls_reset();

namespace {

struct Kept {
    struct stat status;
    std::string content; // a file's text, a link's target
};

struct Limit {
    int resource;
    rlimit value;
};

struct State {
    std::map<std::string, Kept> files; // by path
    std::string mounts;
    std::string directory;
    std::vector<std::string> environment;
    mode_t mask = 0;
    std::vector<Limit> limits = {{RLIMIT_NOFILE, {}}, {RLIMIT_FSIZE, {}}, {RLIMIT_CORE, {}}};
    struct sigaction signals[32];
    sigset_t blocked;
    int descriptors = 0;
    bool may_leave_streams = false;
    size_t threads = 0;
};

State state;

} // namespace

extern char** environ;

// ---- files ----

static std::string content_of(const std::string& path, const struct stat& status)
{
    char target[PATH_MAX];
    if (S_ISREG(status.st_mode))
        return read_file(path);
    const ssize_t length =
        S_ISLNK(status.st_mode) ? readlink(path.c_str(), target, sizeof target) : 0;
    return std::string(target, static_cast<size_t>(std::max<ssize_t>(length, 0)));
}

// Everything below a folder that is on the same filesystem.
static void walk(const std::string& folder, dev_t device, std::map<std::string, Kept>* found)
{
    for (const std::string& name : names_in(folder)) {
        const std::string path = folder + "/" + name;
        Kept kept = {};
        if (lstat(path.c_str(), &kept.status) != 0 || kept.status.st_dev != device)
            continue;
        if (S_ISDIR(kept.status.st_mode))
            walk(path, device, found);
        (*found)[path] = kept;
    }
}

// The root directory, under a name that an emulator with a root of its own for libraries does not
// lead elsewhere.
constexpr char root[] = "/proc/self/root";

// The world's own files: its root directory's, and the empty /sys/block.
static std::map<std::string, Kept> own_files()
{
    std::map<std::string, Kept> found;
    for (const char* folder : {root, "/sys/block"}) {
        struct stat status;
        if (stat(folder, &status) == 0)
            walk(folder, status.st_dev, &found);
    }
    return found;
}

static bool is_same(const Kept& kept, const Kept& now)
{
    if (kept.status.st_mode != now.status.st_mode || kept.status.st_uid != now.status.st_uid ||
        kept.status.st_gid != now.status.st_gid)
        return false;
    if (S_ISDIR(now.status.st_mode))
        return true;
    return kept.status.st_ino == now.status.st_ino && kept.status.st_size == now.status.st_size &&
           memcmp(&kept.status.st_mtim, &now.status.st_mtim, sizeof now.status.st_mtim) == 0;
}

static void remove_path(const std::string& path, const Kept& now)
{
    if (S_ISDIR(now.status.st_mode))
        rmdir(path.c_str());
    else
        unlink(path.c_str());
}

static void make_again(const std::string& path, Kept* kept)
{
    const mode_t mode = kept->status.st_mode;
    if (S_ISDIR(mode))
        mkdir(path.c_str(), 0755); // may be there, with another mode
    else if (S_ISLNK(mode))
        (void)!symlink(kept->content.c_str(), path.c_str());
    else if (S_ISREG(mode))
        write_file(path, kept->content);
    else
        mknod(path.c_str(), mode, kept->status.st_rdev);
    (void)!lchown(path.c_str(), kept->status.st_uid, kept->status.st_gid);
    if (!S_ISLNK(mode))
        chmod(path.c_str(), mode & 07777);
    lstat(path.c_str(), &kept->status);
}

static void put_files_back()
{
    std::map<std::string, Kept> now = own_files();
    for (auto entry = now.rbegin(); entry != now.rend(); ++entry) { // what is inside a folder first
        const auto kept = state.files.find(entry->first);
        if (kept != state.files.end() && is_same(kept->second, entry->second))
            continue;
        const bool stays = kept != state.files.end() && S_ISDIR(kept->second.status.st_mode) &&
                           S_ISDIR(entry->second.status.st_mode);
        if (!stays)
            remove_path(entry->first, entry->second);
        entry->second.status.st_mode = 0; // not as it was
    }
    for (auto& [path, kept] : state.files) {
        const auto found = now.find(path);
        if (found == now.end() || found->second.status.st_mode == 0)
            make_again(path, &kept);
    }
}

// ---- mounts and processes ----

static void put_mounts_back()
{
    const std::string now = read_file("/proc/self/mounts");
    if (now == state.mounts)
        return;
    std::vector<std::string> points;
    for (size_t at = 0; at < now.size();) {
        const size_t end = now.find('\n', at);
        const std::string line = now.substr(at, end - at);
        at = end + 1;
        if (state.mounts.find(line + "\n") == std::string::npos) {
            const size_t point = line.find(' ') + 1;
            points.push_back(line.substr(point, line.find(' ', point) - point));
        }
    }
    for (auto point = points.rbegin(); point != points.rend(); ++point)
        umount2(point->c_str(), MNT_DETACH);
}

// All in the world but its first process, this one and the one that watches over it.
static std::vector<pid_t> other_processes()
{
    std::vector<pid_t> found;
    for (const std::string& name : names_in("/proc")) {
        const pid_t pid = static_cast<pid_t>(strtol(name.c_str(), nullptr, 10));
        if (pid > 1 && pid != getpid() && pid != getppid())
            found.push_back(pid);
    }
    return found;
}

static void end_processes()
{
    for (int looks = 0; looks < 5000; looks++) {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        const std::vector<pid_t> others = other_processes();
        if (others.empty())
            return;
        for (const pid_t pid : others)
            kill(pid, SIGKILL);
        usleep(1000);
    }
}

// ---- this process ----

static std::vector<std::string> environment_now()
{
    std::vector<std::string> found;
    for (char** entry = environ; *entry != nullptr; entry++)
        found.emplace_back(*entry);
    return found;
}

static void put_environment_back()
{
    if (environment_now() == state.environment)
        return;
    clearenv();
    for (const std::string& entry : state.environment) {
        const size_t equals = entry.find('=');
        setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
    }
}

static void put_limits_and_signals_back()
{
    for (const Limit& limit : state.limits)
        setrlimit(static_cast<__rlimit_resource_t>(limit.resource), &limit.value);
    for (int number = 1; number < 32; number++)
        sigaction(number, &state.signals[number], nullptr);
    sigprocmask(SIG_SETMASK, &state.blocked, nullptr);
}

static void reset_fakes()
{
    for (void (*reset)() : {fake_world_reset, fake_log_clear, fake_start_reset, fake_files_reset,
                            memory_reset, calls_reset}) {
        if (reset != nullptr)
            reset();
    }
}

static size_t count_threads()
{
    return names_in("/proc/self/task").size();
}

// A thread that was joined is seen for a moment longer. The thread sanitizer has threads of its
// own: one more behind a fork, and one more with the first that the program begins.
static bool has_more_threads()
{
#ifdef __SANITIZE_THREAD__
    static constexpr size_t others = 2;
#else
    static constexpr size_t others = 0;
#endif
    return !wait_for([] { return count_threads() <= state.threads + others; }, 1000);
}

void fresh_case_may_leave_streams()
{
    state.may_leave_streams = true;
}

void fresh_case_keep()
{
    char directory[PATH_MAX];
    state.directory = getcwd(directory, sizeof directory) != nullptr ? directory : "/";
    state.files = own_files();
    for (auto& [path, kept] : state.files)
        kept.content = content_of(path, kept.status);
    state.mounts = read_file("/proc/self/mounts");
    state.environment = environment_now();
    state.mask = umask(022);
    umask(state.mask);
    for (Limit& limit : state.limits)
        getrlimit(static_cast<__rlimit_resource_t>(limit.resource), &limit.value);
    for (int number = 1; number < 32; number++)
        sigaction(number, nullptr, &state.signals[number]);
    sigprocmask(SIG_SETMASK, nullptr, &state.blocked);
    state.descriptors = open_descriptors();
    state.threads = count_threads();
}

std::string fresh_case_put_back()
{
    std::string left;
    reset_fakes();
    put_limits_and_signals_back();
    umask(state.mask);
    (void)!chdir(state.directory.c_str());
    put_environment_back();
    end_processes();
    put_mounts_back();
    put_files_back();
    const int descriptors = open_descriptors();
    if (descriptors > state.descriptors && !state.may_leave_streams)
        left += "open descriptors ";
    state.descriptors = descriptors;
    state.may_leave_streams = false;
    if (has_more_threads())
        left += "a thread ";
    return left;
}
