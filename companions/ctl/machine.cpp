#include "ctl/machine.h"

#include "lib/process.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <dirent.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <unistd.h>

static constexpr char program_path[] =
    "/usr/libexec/vyhotplugd:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
static constexpr int ask_limit_ms = 10000;
static constexpr size_t ask_most = 1 << 20;
static constexpr size_t comm_size = 16; // of a process's name in /proc, with the NUL

static void release_directory(DIR* directory)
{
    closedir(directory);
}
using DirGuard = Guard<DIR, release_directory>;

// ---- processes ----

static bool is_called(const char* pid, const char* name)
{
    char path[PATH_MAX];
    FileBytes comm;
    (void)snprintf(path, sizeof path, "/proc/%s/comm", pid);
    if (file_read_all(path, 0, 64, &comm) != 0)
        return false;
    comm.bytes.get()[strcspn(comm.bytes.get(), "\n")] = '\0';
    return strncmp(comm.bytes.get(), name, comm_size - 1) == 0;
}

static bool is_replaced(const char* pid)
{
    static constexpr char mark[] = " (deleted)";
    char path[PATH_MAX];
    char file[PATH_MAX];
    (void)snprintf(path, sizeof path, "/proc/%s/exe", pid);
    const ssize_t length = readlink(path, file, sizeof file - 1);
    if (length < static_cast<ssize_t>(sizeof mark))
        return false;
    file[length] = '\0';
    return strcmp(file + length - (sizeof mark - 1), mark) == 0;
}

static bool any_process(const char* name, bool (*fits)(const char* pid))
{
    const DirGuard processes(opendir("/proc"));
    while (const dirent* entry = processes ? readdir(processes.get()) : nullptr) {
        if (entry->d_name[0] >= '1' && entry->d_name[0] <= '9' && is_called(entry->d_name, name) &&
            (fits == nullptr || fits(entry->d_name)))
            return true;
    }
    return false;
}

bool machine_runs(const char* name)
{
    return any_process(name, nullptr);
}

bool machine_was_replaced(const char* name)
{
    return any_process(name, is_replaced);
}

bool machine_pid_file_is_alive(const char* path)
{
    char process[64];
    FileBytes text;
    int32_t pid = 0;
    if (access(path, R_OK) != 0)
        return access(path, F_OK) == 0; // there is one; who may not read it has to believe it
    if (file_read_all(path, 0, 64, &text) != 0)
        return false;
    text.bytes.get()[strcspn(text.bytes.get(), "\n")] = '\0';
    if (str_to_long(text.bytes.get(), &pid, 10) != 0 || pid <= 0)
        return false;
    (void)snprintf(process, sizeof process, "/proc/%d", pid);
    return access(process, F_OK) == 0;
}

// ---- programs ----

// Writes the path of a program. Returns false when it is not installed.
static bool find_program(const char* name, char (&path)[PATH_MAX])
{
    for (const char* folder = program_path; *folder != '\0';) {
        const size_t length = strcspn(folder, ":");
        (void)snprintf(path, sizeof path, "%.*s/%s", static_cast<int>(length), folder, name);
        if (access(path, X_OK) == 0)
            return true;
        folder += length + (folder[length] == ':' ? 1 : 0);
    }
    return false;
}

bool machine_has_program(const char* name)
{
    char path[PATH_MAX];
    return find_program(name, path);
}

bool machine_ask(const char* program, const char* word, FileBytes* answer)
{
    char path[PATH_MAX];
    char argument[64];
    if (!find_program(program, path))
        return false;
    str_ncpy(argument, word, sizeof argument);
    char* const argv[] = {path, argument, nullptr};
    int out = -1;
    const pid_t pid = vy_fork_exec(path, argv, nullptr, &out, nullptr);
    if (pid < 0)
        return false;
    const FdGuard pipe(out);
    // One that prints nothing and does not end is interrupted, which ends the reading, too.
    pollfd waited = {.fd = pipe.get(), .events = POLLIN, .revents = 0};
    const bool silent = poll(&waited, 1, ask_limit_ms) <= 0;
    if (silent)
        (void)sys_kill(pid, SIGKILL);
    const int result = file_read_fd(pipe.get(), ask_most, answer);
    int status = -1;
    return vy_wait(pid, VY_WAIT_INTERRUPT, &status, ask_limit_ms) == 0 && status == 0 &&
           result == 0;
}

// ---- devices ----

bool machine_uuid(uint32_t major, uint32_t minor, char (&uuid)[machine_uuid_size])
{
    const DirGuard links(opendir("/dev/disk/by-uuid"));
    while (const dirent* entry = links ? readdir(links.get()) : nullptr) {
        struct stat status;
        if (strlen(entry->d_name) >= sizeof uuid ||
            fstatat(dirfd(links.get()), entry->d_name, &status, 0) != 0 ||
            !S_ISBLK(status.st_mode) || status.st_rdev != makedev(major, minor))
            continue;
        (void)str_cpy(uuid, entry->d_name);
        return true;
    }
    return false;
}

// ---- the kernel ----

static bool has_word(const char* path, const char* before, const char* name, const char* behind)
{
    const FileGuard file(fopen(path, "re"));
    char wanted[128];
    char line[1024];
    (void)snprintf(wanted, sizeof wanted, "%s%s%s", before, name, behind);
    while (file && fgets(line, sizeof line, file.get()) != nullptr) {
        if (strstr(line, wanted) != nullptr)
            return true;
    }
    return false;
}

bool machine_has_filesystem(const char* name)
{
    utsname system = {};
    if (has_word("/proc/filesystems", "\t", name, "\n"))
        return true;
    if (uname(&system) != 0)
        return false;
    static constexpr const char* tables[] = {"modules.dep", "modules.builtin"};
    for (const char* table : tables) {
        char path[PATH_MAX];
        (void)snprintf(path, sizeof path, "/lib/modules/%s/%s", system.release, table);
        if (has_word(path, "/", name, ".ko"))
            return true;
    }
    return false;
}
