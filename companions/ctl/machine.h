// Questions about the machine: what runs, what is installed, what the kernel can.
#pragma once

#include "lib/file.h"

// Whether a process runs under that name.
[[nodiscard]] bool machine_runs(const char* name);

// Whether a process of that name runs a file that is no longer there: a newer one was installed.
// Only root is told of others' processes; for the rest the answer is no.
[[nodiscard]] bool machine_was_replaced(const char* name);

// Whether the file holds the number of a process that there is.
[[nodiscard]] bool machine_pid_file_is_alive(const char* path);

// Whether a program is installed where the service looks for it.
[[nodiscard]] bool machine_has_program(const char* name);

// Whether the kernel has the filesystem, or a module for it.
[[nodiscard]] bool machine_has_filesystem(const char* name);

// Runs "program word" for up to 10 seconds. Returns whether it ended well, what it printed, up to 1
// MiB of it, in `answer`.
[[nodiscard]] bool machine_ask(const char* program, const char* word, FileBytes* answer);
