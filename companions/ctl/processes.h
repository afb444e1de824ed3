// The processes that run, by the names that the kernel knows them by, as /proc tells. All questions
// are answered by one look: they are many, and a machine may run thousands.
#pragma once

#include "ctl/machine.h"
#include "lib/guard.h"

#include <limits.h>
#include <sys/types.h>

struct Process {
    pid_t pid;
    char name[machine_name_size];
};

struct ProcessTable {
    Process* processes; // owned
    size_t count;
};

// Looks. Returns 0 and an owned table, an empty one without /proc; a negated errno where the
// machine lacks what a look takes.
[[nodiscard]] int processes_read(ProcessTable** table);

void processes_free(ProcessTable* table);
using ProcessTableGuard = Guard<ProcessTable, processes_free>;

// Returns the number of a process that runs under that name, 0 without one.
[[nodiscard]] pid_t processes_find(const ProcessTable* table, const char* name);

// Whether a process of that name runs a file that is no longer there: a newer one was installed.
// Only root is told of others' processes; for the rest the answer is no.
[[nodiscard]] bool processes_any_replaced(const ProcessTable* table, const char* name);

// Whether a process of that name was started with that word, in whatever option.
[[nodiscard]] bool processes_any_started_with(const ProcessTable* table, const char* name,
                                              const char* word);

// Whether a process runs a script of that name, as "python3 /usr/sbin/wsdd".
[[nodiscard]] bool processes_any_script(const ProcessTable* table, const char* name);

// Writes the absolute path that a service was started with, of the last -f or --file, as
// getopt_long(3) takes them. Returns false without one.
[[nodiscard]] bool process_file_option(pid_t pid, char (&path)[PATH_MAX]);
