#include "lib/lock_holder.h"

#include "lib/guard.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static constexpr char locks_table[] = "/proc/locks";
static constexpr size_t line_size = 256;
static constexpr char blanks[] = " \t\n";

namespace {

// A line that is taken apart from its beginning on.
struct Rest {
    const char* at;
    bool failed;
};

} // namespace

// Passes over blanks and the word behind them. Returns whether it is the word that is expected;
// null expects any.
static bool take_word(Rest* rest, const char* expected)
{
    rest->at += strspn(rest->at, blanks);
    const char* word = rest->at;
    const size_t length = strcspn(word, blanks);
    rest->at += length;
    rest->failed |= length == 0;
    return expected == nullptr ||
           (length == strlen(expected) && strncmp(word, expected, length) == 0);
}

// Takes a number that ends before `end`, or before a blank where that is 0.
static uint64_t take_number(Rest* rest, int base, char end)
{
    rest->at += strspn(rest->at, blanks);
    char* behind = nullptr;
    const unsigned long long number = strtoull(rest->at, &behind, base);
    const bool ended = end != 0 ? *behind == end : *behind != '\0' && strchr(blanks, *behind);
    rest->failed |= behind == rest->at || !ended;
    rest->at = rest->failed ? rest->at : behind + (end != 0 ? 1 : 0);
    return number;
}

bool lock_line_parse(const char* line, LockLine* lock)
{
    // "1: FLOCK  ADVISORY  WRITE 812 08:01:131 0 EOF"; a waiting one has "->" before the kind.
    Rest rest = {.at = line, .failed = false};
    (void)take_word(&rest, nullptr);
    if (!take_word(&rest, "FLOCK"))
        return false;
    (void)take_word(&rest, nullptr);
    (void)take_word(&rest, nullptr);
    lock->pid = static_cast<pid_t>(take_number(&rest, 10, 0));
    lock->major = static_cast<uint32_t>(take_number(&rest, 16, ':'));
    lock->minor = static_cast<uint32_t>(take_number(&rest, 16, ':'));
    lock->inode = take_number(&rest, 10, 0);
    return !rest.failed;
}

// Whether root or the own user started the process: its real user, which the set-user-id bit does
// not change. One that has ended has left its lock to its children, as the service never does.
static bool is_trusted(pid_t pid)
{
    char path[64];
    (void)snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
    const FileGuard status(fopen(path, "re"));
    if (!status)
        return false;
    char line[line_size];
    while (fgets(line, sizeof line, status.get()) != nullptr) {
        Rest rest = {.at = line, .failed = false};
        if (!take_word(&rest, "Uid:"))
            continue;
        const uint64_t user = take_number(&rest, 10, 0);
        return !rest.failed && (user == 0 || user == getuid());
    }
    return false;
}

bool lock_holder_is_trusted(int fd)
{
    struct stat file;
    const FileGuard table(fopen(locks_table, "re"));
    if (!table || fstat(fd, &file) != 0)
        return true;
    char line[line_size];
    LockLine lock;
    bool found = false;
    while (fgets(line, sizeof line, table.get()) != nullptr) {
        if (!lock_line_parse(line, &lock) || lock.inode != file.st_ino ||
            makedev(lock.major, lock.minor) != file.st_dev)
            continue;
        found = true;
        if (is_trusted(lock.pid))
            return true;
    }
    return !found; // one that the table does not show is nobody's that could be told
}
