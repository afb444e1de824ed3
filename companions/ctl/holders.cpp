#include "ctl/holders.h"

#include "common/directory.h"
#include "ctl/array.h"
#include "ctl/machine.h"
#include "ctl/settings.h"
#include "ctl/terminal.h"
#include "lib/str.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

static constexpr const char* use_words[] = {"file", "directory", "root", "program", "map"};

namespace {

// What is looked for, and where it is put.
struct Search {
    dev_t device;      // of the filesystem
    const char* below; // the directory; null: all of the filesystem
    HolderTable* table;
    int error; // 0; a negated errno, and then some may be missing
    pid_t pid;
    char process[32]; // the path of its directory in /proc, which no other process comes by
};

struct ProcessLink {
    const char* name;
    HolderUse use;
};

constexpr ProcessLink links[] = {
    {"cwd", HOLDS_DIRECTORY}, {"root", HOLDS_ROOT}, {"exe", HOLDS_PROGRAM}};

} // namespace

// ---- one process ----

// What has ended, or is not shown, is no failure.
static void note_failure(Search* search, int error)
{
    if (machine_is_short(error))
        search->error = error;
}

static bool is_known(const Search& search, const char* file)
{
    const HolderTable& table = *search.table;
    for (size_t i = table.count; i > 0 && table.holders[i - 1].pid == search.pid; i--) {
        const char* known = table.holders[i - 1].file;
        if (known != nullptr && strcmp(known, file) == 0)
            return true;
    }
    return false;
}

static void add(Search* search, HolderUse use, const char* file)
{
    HolderTable* table = search->table;
    struct stat status;
    if (is_known(*search, file) || stat(search->process, &status) != 0)
        return;
    void* grown = array_grow(table->holders, table->count, sizeof(Holder));
    if (grown == nullptr)
        return note_failure(search, -ENOMEM);
    table->holders = static_cast<Holder*>(grown);
    Holder* holder = &table->holders[table->count];
    const int named = machine_read_name(search->process, holder->command);
    if (named == -ENOENT || named == -ESRCH)
        return; // it has ended
    note_failure(search, named);
    table->count++;
    holder->pid = search->pid;
    holder->uid = status.st_uid;
    holder->use = use;
    holder->file = strdup(file);
    if (holder->file == nullptr)
        note_failure(search, -ENOMEM);
}

// Whether that path leads to the same file from here, too.
static bool leads_to(const char* file, const struct stat& held)
{
    struct stat status;
    return stat(file, &status) == 0 && status.st_dev == held.st_dev && status.st_ino == held.st_ino;
}

// Another root or table of mounts may have the same path.
static bool is_below(const Search& search, const struct stat& held, const char* file)
{
    return search.below == nullptr || (mountinfo_rest(file, search.below) != nullptr &&
                                       (held.st_dev == search.device || leads_to(file, held)));
}

// A link of /proc to an open file. Following it asks the file itself, not its path.
static void look_at_link(Search* search, const char* folder, const char* name, HolderUse use)
{
    struct stat status;
    char link[64];
    char file[PATH_MAX];
    (void)snprintf(link, sizeof link, "%s%s/%s", search->process, folder, name);
    if (stat(link, &status) != 0)
        return note_failure(search, -errno);
    if (search->below == nullptr && status.st_dev != search->device)
        return;
    const ssize_t length = readlink(link, file, sizeof file - 1);
    file[length > 0 ? length : 0] = '\0';
    if (is_below(*search, status, file))
        add(search, use, file);
}

static void look_at_files(Search* search)
{
    char path[64];
    (void)snprintf(path, sizeof path, "%s/fd", search->process);
    const DirGuard files(opendir(path));
    while (const dirent* entry = files ? directory_next(files.get()) : nullptr) {
        if (entry->d_name[0] != '.')
            look_at_link(search, "/fd", entry->d_name, HOLDS_FILE);
    }
    note_failure(search, -errno); // of opendir(3), or readdir(3)
}

// Lends the word behind so many others of a line, which are separated by blanks.
static const char* word_behind(const char* line, int words)
{
    for (int i = 0; i < words; i++) {
        line += strcspn(line, " ");
        line += strspn(line, " ");
    }
    return line;
}

// "begin-end flags offset major:minor inode path"
static bool look_at_map(char* line, void* context)
{
    auto* search = static_cast<Search*>(context);
    char* colon = nullptr;
    const auto major = static_cast<unsigned>(strtoull(word_behind(line, 3), &colon, 16));
    const auto minor = static_cast<unsigned>(*colon == ':' ? strtoull(colon + 1, nullptr, 16) : 0);
    const char* path = word_behind(line, 5);
    struct stat mapped = {};
    mapped.st_dev = makedev(major, minor);
    if (path[0] != '\0' && mapped.st_dev == search->device && is_below(*search, mapped, path))
        add(search, HOLDS_MAP, path);
    return false;
}

static void look_at_process(Search* search, int processes, const char* name)
{
    char maps[64];
    const FdGuard process(openat(processes, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (process.get() < 0)
        return note_failure(search, -errno);
    (void)snprintf(search->process, sizeof search->process, "/proc/self/fd/%d", process.get());
    for (const ProcessLink& link : links)
        look_at_link(search, "", link.name, link.use);
    look_at_files(search);
    (void)snprintf(maps, sizeof maps, "%s/maps", search->process);
    note_failure(search, machine_any_line(maps, look_at_map, search));
}

// ---- all processes ----

static int find(const char* directory, const char* below, HolderTable* table)
{
    *table = {};
    struct stat status;
    if (stat(directory, &status) != 0)
        return errno == ENOENT ? 0 : -errno; // it has gone, or does not answer
    Search search = {.device = status.st_dev,
                     .below = below,
                     .table = table,
                     .error = 0,
                     .pid = 0,
                     .process = ""};
    const DirGuard processes(opendir("/proc"));
    while (const dirent* entry = processes ? directory_next(processes.get()) : nullptr) {
        if (str_to_long(entry->d_name, &search.pid, 10) == 0)
            look_at_process(&search, dirfd(processes.get()), entry->d_name);
    }
    note_failure(&search, -errno); // of opendir(3), or readdir(3)
    return search.error;
}

int holders_find(const MountinfoEntry& mount, HolderTable* table)
{
    return find(mount.directory, nullptr, table);
}

int holders_find_below(const char* directory, HolderTable* table)
{
    char resolved[PATH_MAX]; // as the kernel tells of it
    *table = {};
    if (realpath(directory, resolved) == nullptr)
        return errno == ENOENT ? 0 : -errno;
    return find(resolved, resolved, table);
}

void holders_end(HolderTable* table)
{
    for (size_t i = 0; i < table->count; i++)
        free(table->holders[i].file);
    free(table->holders);
    *table = {};
}

// ---- telling ----

static void print_client(FILE* out, const Holder& holder)
{
    if (holder.client_machine[0] != '\0')
        text_print(out, ", for %.64s at %.64s", holder.client_user, holder.client_machine);
}

static void write_client(Json* json, const Holder& holder)
{
    if (holder.client_machine[0] == '\0')
        return json_null(json, "client");
    json_open(json, "client", '{');
    json_text(json, "user", holder.client_user);
    json_text(json, "machine", holder.client_machine);
    json_close(json, '}');
}

void holders_print(FILE* out, const HolderTable& table)
{
    for (size_t i = 0; i < table.count; i++) {
        const Holder& holder = table.holders[i];
        char user[64];
        user_format(holder.uid, user, sizeof user);
        text_print(out, "  %.32s (process %d of %s, %s) %.4096s", holder.command,
                   static_cast<int>(holder.pid), user, use_words[holder.use], holder.file);
        print_client(out, holder);
        text_print(out, "\n");
    }
}

void holders_json(Json* json, const char* key, const HolderTable& table)
{
    json_open(json, key, '[');
    for (size_t i = 0; i < table.count; i++) {
        const Holder& holder = table.holders[i];
        char user[64];
        user_format(holder.uid, user, sizeof user);
        json_open(json, nullptr, '{');
        json_number(json, "pid", holder.pid);
        json_number(json, "uid", holder.uid);
        json_text(json, "user", user);
        json_text(json, "command", holder.command);
        json_text(json, "use", use_words[holder.use]);
        json_text(json, "file", holder.file);
        write_client(json, holder);
        json_close(json, '}');
    }
    json_close(json, ']');
}
