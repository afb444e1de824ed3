#include "ctl/processes.h"

#include "common/directory.h"
#include "ctl/array.h"
#include "lib/file.h"
#include "lib/str.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static constexpr size_t command_line_most = 4096;

// ---- the table ----

// Takes one process; one that has gone meanwhile is none. Returns 0; a negated errno.
static int take(ProcessTable* table, const char* number)
{
    Process process = {};
    char directory[32];
    if (str_to_long(number, &process.pid, 10) != 0)
        return 0;
    (void)snprintf(directory, sizeof directory, "/proc/%d", static_cast<int>(process.pid));
    const int result = machine_read_name(directory, process.name);
    if (result != 0)
        return machine_is_short(result) ? result : 0;
    void* grown = array_grow(table->processes, table->count, sizeof(Process));
    if (grown == nullptr)
        return -ENOMEM;
    table->processes = static_cast<Process*>(grown);
    table->processes[table->count++] = process;
    return 0;
}

static int read_all(ProcessTable* table)
{
    const DirGuard directory(opendir("/proc"));
    while (const dirent* entry = directory ? directory_next(directory.get()) : nullptr) {
        const int result = take(table, entry->d_name);
        if (result != 0)
            return result;
    }
    return machine_is_short(-errno) ? -errno : 0;
}

int processes_read(ProcessTable** table)
{
    ProcessTableGuard made(static_cast<ProcessTable*>(calloc(1, sizeof(ProcessTable))));
    const int result = made ? read_all(made.get()) : -ENOMEM;
    if (result == 0)
        *table = made.take();
    return result;
}

void processes_free(ProcessTable* table)
{
    if (table == nullptr)
        return;
    free(table->processes);
    free(table);
}

// ---- questions ----

// The words of its command line, a NUL behind each.
static bool read_command_line(const char* process, FileBytes* words)
{
    char path[64];
    (void)snprintf(path, sizeof path, "%s/cmdline", process);
    return file_read_all(path, 0, command_line_most, words) == 0;
}

// What a look at a process is for.
using ProcessFits = bool (*)(const char* process, const char* word);

static bool has_word_on_line(const char* process, const char* word)
{
    FileBytes words;
    return read_command_line(process, &words) &&
           memmem(words.bytes.get(), words.size, word, strlen(word)) != nullptr;
}

// The interpreter is the first word, the script the second.
static bool runs_script(const char* process, const char* script)
{
    FileBytes words;
    if (!read_command_line(process, &words))
        return false;
    const size_t interpreter = strlen(words.bytes.get()) + 1;
    const char* second = interpreter < words.size ? words.bytes.get() + interpreter : "";
    const char* slash = strrchr(second, '/');
    return strcmp(slash != nullptr ? slash + 1 : second, script) == 0;
}

static bool is_replaced(const char* process, const char* word)
{
    (void)word;
    static constexpr char mark[] = " (deleted)";
    char path[64];
    char file[PATH_MAX];
    (void)snprintf(path, sizeof path, "%s/exe", process);
    const ssize_t length = readlink(path, file, sizeof file - 1);
    if (length < static_cast<ssize_t>(sizeof mark))
        return false;
    file[length] = '\0';
    return strcmp(file + length - (sizeof mark - 1), mark) == 0;
}

static bool is_called(const Process& process, const char* name)
{
    return strncmp(process.name, name, sizeof process.name - 1) == 0;
}

static bool any_fits(const ProcessTable* table, const char* name, ProcessFits fits,
                     const char* word)
{
    for (size_t i = 0; i < table->count; i++) {
        char directory[32];
        (void)snprintf(directory, sizeof directory, "/proc/%d",
                       static_cast<int>(table->processes[i].pid));
        if (is_called(table->processes[i], name) && fits(directory, word))
            return true;
    }
    return false;
}

pid_t processes_find(const ProcessTable* table, const char* name)
{
    for (size_t i = 0; i < table->count; i++) {
        if (is_called(table->processes[i], name))
            return table->processes[i].pid;
    }
    return 0;
}

bool processes_any_replaced(const ProcessTable* table, const char* name)
{
    return any_fits(table, name, is_replaced, nullptr);
}

bool processes_any_started_with(const ProcessTable* table, const char* name, const char* word)
{
    return any_fits(table, name, has_word_on_line, word);
}

bool processes_any_script(const ProcessTable* table, const char* name)
{
    return any_fits(table, "python3", runs_script, name);
}

// ---- the service's command line ----

// Returns which of the service's options with an argument the word holds: 'f' or 'l'; NUL for
// none. Lends the argument; null when it is the next word.
static char option_of(const char* word, const char** argument)
{
    *argument = nullptr;
    if (word[0] != '-')
        return '\0';
    if (word[1] != '-') { // others may stand before it in the same word
        const char* letter = word + 1 + strcspn(word + 1, "fl");
        if (letter[0] != '\0' && letter[1] != '\0')
            *argument = letter + 1;
        return letter[0];
    }
    const char* name = word + 2; // its beginning is enough
    const size_t length = strcspn(name, "=");
    if (name[length] == '=')
        *argument = name + length + 1;
    const bool known = strncmp(name, "file", length) == 0 || strncmp(name, "level", length) == 0;
    return known && length > 0 ? name[0] : '\0';
}

bool process_file_option(pid_t pid, char (&path)[PATH_MAX])
{
    char process[32];
    FileBytes words;
    (void)snprintf(process, sizeof process, "/proc/%d", static_cast<int>(pid));
    if (!read_command_line(process, &words))
        return false;
    const char* file = nullptr; // the last one counts
    const char* end = words.bytes.get() + words.size;
    for (const char* word = words.bytes.get(); word < end; word += strlen(word) + 1) {
        const char* argument = nullptr;
        const char option = option_of(word, &argument);
        if (option != '\0' && argument == nullptr) {
            word += strlen(word) + 1; // behind the last word stands a NUL, too
            argument = word;
        }
        if (option == 'f')
            file = argument;
    }
    if (file == nullptr || file[0] != '/')
        return false;
    str_cpy(path, file);
    return true;
}
