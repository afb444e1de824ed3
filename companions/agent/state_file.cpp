#include "agent/state_file.h"

#include "lib/guard.h"
#include "lib/platform.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static constexpr char heading[] = "vyhotplug-agent 1\n";
static constexpr size_t path_size = 4096;
static constexpr size_t line_size = 256;

// ---- writing ----

// What the daemon may have: an add that is still in the queue is none of it.
static bool is_told(const Announced& entry)
{
    return entry.state == ANNOUNCED_TOLD || entry.state == ANNOUNCED_LEAVING ||
           entry.state == ANNOUNCED_LOST;
}

static void write_entries(FILE* file, const AnnouncedTable* table)
{
    for (const Announced& entry : table->entries) {
        if (!is_told(entry))
            continue;
        char name[block_name_size];
        block_name_format(entry.name, name);
        (void)fprintf(file, "%d %d %s %016" PRIx64 "\n", entry.major, entry.minor, name,
                      entry.identity);
    }
}

int state_save(const char* path, const DaemonIdentity& daemon, const AnnouncedTable* table)
{
    char beside[path_size];
    const int length = snprintf(beside, sizeof beside, "%s.tmp", path);
    if (length < 0 || static_cast<size_t>(length) >= sizeof beside)
        return -ENAMETOOLONG;
    (void)sys_unlink(beside); // what an agent left that was killed
    FdGuard fd(open(beside, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0)
        return -errno;
    FileGuard file(fdopen(fd.get(), "w"));
    if (!file)
        return -errno;
    (void)fd.take();
    (void)fprintf(file.get(), "%sdaemon %ld %" PRIu64 " %s\n", heading,
                  static_cast<long>(daemon.pid), daemon.start,
                  daemon.boot[0] != '\0' ? daemon.boot : "-");
    write_entries(file.get(), table);
    if (stream_flush(file.get()) != 0) {
        const int failure = errno;
        (void)sys_unlink(beside);
        return failure != 0 ? -failure : -EIO;
    }
    return sys_rename(beside, path);
}

// ---- reading ----

// Takes the next word, ended by a blank or the line's end, from `rest`; "" at the end.
static char* next_word(char** rest)
{
    char* word = *rest;
    char* end = word + strcspn(word, " \n");
    *rest = *end != '\0' ? end + 1 : end;
    *end = '\0';
    return word;
}

static bool next_number(char** rest, int base, uint64_t* number)
{
    const char* word = next_word(rest);
    char* end = nullptr;
    errno = 0;
    *number = strtoull(word, &end, base);
    return errno == 0 && end != word && *end == '\0';
}

static bool next_number(char** rest, int32_t* number)
{
    return str_to_long(next_word(rest), number, 10) == 0;
}

static int parse_daemon(char* line, DaemonIdentity* daemon)
{
    DaemonIdentity read = {};
    int32_t pid = 0;
    if (strcmp(next_word(&line), "daemon") != 0 || !next_number(&line, &pid) ||
        !next_number(&line, 10, &read.start))
        return -EINVAL;
    const char* boot = next_word(&line);
    if (strlen(boot) >= sizeof read.boot)
        return -EINVAL;
    read.pid = pid;
    if (strcmp(boot, "-") != 0)
        str_cpy(read.boot, boot);
    *daemon = read;
    return 0;
}

static int parse_entry(char* line, AnnouncedTable* table)
{
    int32_t major = 0;
    int32_t minor = 0;
    uint64_t identity = 0;
    BlockName name;
    if (!next_number(&line, &major) || !next_number(&line, &minor) ||
        !block_name_parse(next_word(&line), &name) || !next_number(&line, 16, &identity))
        return -EINVAL;
    Announced* entry = announced_put(table, ANNOUNCED_TOLD, true, name, major, minor);
    if (entry == nullptr)
        return -EINVAL;
    entry->identity = identity;
    return 0;
}

static int parse_file(FILE* file, DaemonIdentity* daemon, AnnouncedTable* table)
{
    char line[line_size];
    if (fgets(line, sizeof line, file) == nullptr || strcmp(line, heading) != 0)
        return -EINVAL;
    if (fgets(line, sizeof line, file) == nullptr || parse_daemon(line, daemon) != 0)
        return -EINVAL;
    while (fgets(line, sizeof line, file) != nullptr) {
        const int result = parse_entry(line, table);
        if (result != 0)
            return result;
    }
    return ferror(file) != 0 ? -EIO : 0;
}

int state_load(const char* path, DaemonIdentity* daemon, AnnouncedTable* table)
{
    announced_clear(table);
    *daemon = {};
    const FileGuard file(fopen(path, "re"));
    if (!file)
        return -errno;
    const int result = parse_file(file.get(), daemon, table);
    if (result != 0) {
        announced_clear(table);
        *daemon = {};
    }
    return result;
}
