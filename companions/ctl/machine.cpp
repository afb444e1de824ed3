#include "ctl/machine.h"

#include "common/directory.h"
#include "lib/process.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <unistd.h>

static constexpr char own_folder[] = "/usr/libexec/vyhotplugd/";
static constexpr char program_path[] =
    "/usr/libexec/vyhotplugd:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
static constexpr char uuid_links[] = "/dev/disk/by-uuid";
static constexpr int ask_limit_ms = 10000;
static constexpr size_t ask_most = 1 << 20;

// ---- processes ----

bool machine_is_short(int error)
{
    return error == -ENOMEM || error == -EMFILE || error == -ENFILE || error == -EINTR ||
           error == -EIO;
}

int machine_read_name(const char* process, char (&name)[machine_name_size])
{
    char path[64];
    FileBytes comm;
    (void)snprintf(path, sizeof path, "%s/comm", process);
    const int result = file_read_all(path, 0, 64, &comm);
    if (result != 0)
        return result;
    comm.bytes.get()[strcspn(comm.bytes.get(), "\n")] = '\0';
    str_ncpy(name, comm.bytes.get(), sizeof name);
    return 0;
}

bool machine_pid_file_is_alive(const char* path, char (&name)[machine_name_size])
{
    char process[32];
    FileBytes text;
    int32_t pid = 0;
    name[0] = '\0';
    if (access(path, R_OK) != 0)
        return access(path, F_OK) == 0; // there is one; who may not read it has to believe it
    if (file_read_all(path, 0, 64, &text) != 0)
        return false;
    text.bytes.get()[strcspn(text.bytes.get(), "\n")] = '\0';
    if (str_to_long(text.bytes.get(), &pid, 10) != 0 || pid <= 0)
        return false;
    (void)snprintf(process, sizeof process, "/proc/%d", pid);
    return machine_read_name(process, name) == 0;
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

bool machine_has_own_program(const char* name)
{
    char path[PATH_MAX];
    return find_program(name, path) && strncmp(path, own_folder, sizeof own_folder - 1) == 0;
}

bool machine_program_has(const char* name, const char* text)
{
    char path[PATH_MAX];
    FileBytes content;
    return !find_program(name, path) || file_read_all(path, 0, FILE_ANY_SIZE, &content) != 0 ||
           memmem(content.bytes.get(), content.size, text, strlen(text) + 1) != nullptr;
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

// ---- files ----

bool machine_file_has(const char* path, const char* text)
{
    FileBytes content;
    return file_read_all(path, 0, FILE_ANY_SIZE, &content) == 0 &&
           strstr(content.bytes.get(), text) != nullptr;
}

int machine_any_line(const char* path, bool (*fits)(char* line, void* context), void* context)
{
    FileBytes content;
    const int result = file_read_all(path, 0, FILE_ANY_SIZE, &content);
    if (result != 0)
        return result == -ENOENT ? 0 : result;
    for (char* line = content.bytes.get(); *line != '\0';) {
        const size_t length = strcspn(line, "\n");
        const size_t behind = length + (line[length] == '\n' ? 1 : 0);
        line[length] = '\0';
        if (fits(line, context))
            return 1;
        line += behind;
    }
    return 0;
}

bool machine_any_file_has(const char* folder, const char* text)
{
    const DirGuard files(opendir(folder));
    while (const dirent* entry = files ? readdir(files.get()) : nullptr) {
        char path[PATH_MAX];
        FileBytes content;
        (void)snprintf(path, sizeof path, "%s/%s", folder, entry->d_name);
        if (file_read_all(path, 0, 1 << 20, &content) == 0 &&
            strstr(content.bytes.get(), text) != nullptr)
            return true;
    }
    return false;
}

// ---- devices ----

bool machine_is_node(const struct stat& status, uint32_t major, uint32_t minor)
{
    return S_ISBLK(status.st_mode) && status.st_rdev == makedev(major, minor);
}

bool machine_uuid(uint32_t major, uint32_t minor, char (&uuid)[machine_uuid_size])
{
    const DirGuard links(opendir(uuid_links));
    while (const dirent* entry = links ? readdir(links.get()) : nullptr) {
        struct stat status;
        char link[PATH_MAX];
        (void)snprintf(link, sizeof link, "%s/%s", uuid_links, entry->d_name);
        if (strlen(entry->d_name) >= sizeof uuid || stat(link, &status) != 0 ||
            !machine_is_node(status, major, minor))
            continue;
        (void)str_cpy(uuid, entry->d_name);
        return true;
    }
    return false;
}

// ---- the kernel ----

bool machine_has_module(const char* name)
{
    utsname system = {};
    if (uname(&system) != 0)
        return false;
    char path[128];
    char file[128];
    (void)snprintf(file, sizeof file, "/%s.ko", name);
    (void)snprintf(path, sizeof path, "/lib/modules/%s/modules.dep", system.release);
    if (machine_file_has(path, file))
        return true;
    (void)snprintf(path, sizeof path, "/lib/modules/%s/modules.builtin", system.release);
    return machine_file_has(path, file);
}

bool machine_has_filesystem(const char* name)
{
    char line[128];
    (void)snprintf(line, sizeof line, "\t%s\n", name);
    return machine_file_has("/proc/filesystems", line) || machine_has_module(name);
}
