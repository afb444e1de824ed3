#include "ctl/holders.h"

#include "ctl/settings.h"
#include "ctl/terminal.h"
#include "lib/str.h"

#include <dirent.h>
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
    dev_t device; // of the filesystem
    HolderTable* table;
    int process; // its directory in /proc
    pid_t pid;
    bool failed;
};

struct ProcessLink {
    const char* name;
    HolderUse use;
};

constexpr ProcessLink links[] = {
    {"cwd", HOLDS_DIRECTORY}, {"root", HOLDS_ROOT}, {"exe", HOLDS_PROGRAM}};

} // namespace

static void release_directory(DIR* directory)
{
    closedir(directory);
}
using DirGuard = Guard<DIR, release_directory>;

// ---- one process ----

static void read_command(int process, char (&command)[32])
{
    const FdGuard fd(openat(process, "comm", O_RDONLY | O_CLOEXEC));
    const ssize_t length = fd.get() >= 0 ? read(fd.get(), command, sizeof command - 1) : 0;
    command[length > 0 ? length : 0] = '\0';
    command[strcspn(command, "\n")] = '\0';
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
    if (is_known(*search, file) || fstat(search->process, &status) != 0)
        return;
    if (table->count == table->room) {
        const size_t room = table->room * 2 + 8;
        auto* grown = static_cast<Holder*>(realloc(table->holders, room * sizeof(Holder)));
        search->failed |= grown == nullptr;
        if (grown == nullptr)
            return;
        table->holders = grown;
        table->room = room;
    }
    Holder* holder = &table->holders[table->count++];
    *holder = {};
    holder->pid = search->pid;
    holder->uid = status.st_uid;
    holder->use = use;
    read_command(search->process, holder->command);
    holder->file = strdup(file);
    search->failed |= holder->file == nullptr;
}

// A link of /proc to an open file. Following it asks the file itself, not its path.
static void look_at_link(Search* search, int directory, const char* name, HolderUse use)
{
    struct stat status;
    char file[PATH_MAX];
    if (fstatat(directory, name, &status, 0) != 0 || status.st_dev != search->device)
        return;
    const ssize_t length = readlinkat(directory, name, file, sizeof file - 1);
    file[length > 0 ? length : 0] = '\0';
    add(search, use, file);
}

static void look_at_files(Search* search)
{
    const int fd = openat(search->process, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const DirGuard files(fd >= 0 ? fdopendir(fd) : nullptr);
    if (!files && fd >= 0)
        (void)close(fd);
    while (const dirent* entry = files ? readdir(files.get()) : nullptr) {
        if (entry->d_name[0] != '.')
            look_at_link(search, dirfd(files.get()), entry->d_name, HOLDS_FILE);
    }
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
static void look_at_map(Search* search, char* line)
{
    line[strcspn(line, "\n")] = '\0';
    char* colon = nullptr;
    const unsigned long major = strtoul(word_behind(line, 3), &colon, 16);
    const unsigned long minor = *colon == ':' ? strtoul(colon + 1, nullptr, 16) : 0;
    const char* path = word_behind(line, 5);
    if (path[0] != '\0' &&
        makedev(static_cast<unsigned>(major), static_cast<unsigned>(minor)) == search->device)
        add(search, HOLDS_MAP, path);
}

static void look_at_maps(Search* search)
{
    const int fd = openat(search->process, "maps", O_RDONLY | O_CLOEXEC);
    const FileGuard maps(fd >= 0 ? fdopen(fd, "r") : nullptr);
    if (!maps && fd >= 0)
        (void)close(fd);
    char line[PATH_MAX + 128];
    while (maps && fgets(line, sizeof line, maps.get()) != nullptr)
        look_at_map(search, line);
}

static void look_at_process(Search* search)
{
    for (const ProcessLink& link : links)
        look_at_link(search, search->process, link.name, link.use);
    look_at_files(search);
    look_at_maps(search);
}

// ---- all processes ----

int holders_find(const MountinfoEntry& mount, HolderTable* table)
{
    *table = {};
    struct stat status;
    if (stat(mount.directory, &status) != 0)
        return 0; // it has gone
    Search search = {
        .device = status.st_dev, .table = table, .process = -1, .pid = 0, .failed = false};
    const DirGuard processes(opendir("/proc"));
    while (const dirent* entry = processes ? readdir(processes.get()) : nullptr) {
        int32_t pid = 0;
        if (str_to_long(entry->d_name, &pid, 10) != 0)
            continue;
        const FdGuard process(
            openat(dirfd(processes.get()), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        search.process = process.get();
        search.pid = pid;
        if (process.get() >= 0)
            look_at_process(&search);
    }
    return search.failed ? -ENOMEM : 0;
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
    if (holder.client_machine[0] == '\0')
        return;
    (void)fputs(", for ", out);
    (void)text_show(out, holder.client_user, sizeof holder.client_user);
    (void)fputs(" at ", out);
    (void)text_show(out, holder.client_machine, sizeof holder.client_machine);
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
        fprintf(out, "  ");
        (void)text_show(out, holder.command, sizeof holder.command);
        fprintf(out, " (process %ld of %s, %s) ", static_cast<long>(holder.pid), user,
                use_words[holder.use]);
        (void)text_show(out, holder.file != nullptr ? holder.file : "", PATH_MAX);
        print_client(out, holder);
        (void)fputc('\n', out);
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
