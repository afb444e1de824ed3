// Questions about the machine: what runs, what is installed, what the kernel can.
#pragma once

#include "lib/file.h"

#include <sys/stat.h>

// Whether a look that returned `error`, a negated errno, has failed for what the machine lacks, as
// memory or descriptors. Else that says something of what was looked at: it has gone, or is not
// shown.
[[nodiscard]] bool machine_is_short(int error);

constexpr size_t machine_name_size = 16; // of a process, in bytes with the NUL

// Writes the name of a process, whose directory in /proc is `process`. Returns 0; a negated errno,
// with nothing written.
[[nodiscard]] int machine_read_name(const char* process, char (&name)[machine_name_size]);

// Whether the file holds the number of a process that there is. Writes its name, "" where that is
// not told.
[[nodiscard]] bool machine_pid_file_is_alive(const char* path, char (&name)[machine_name_size]);

// Whether a program is installed where the service looks for it.
[[nodiscard]] bool machine_has_program(const char* name);

// Whether the service's package has a program of that name, and the service finds that one first.
[[nodiscard]] bool machine_has_own_program(const char* name);

// Whether an installed program's file holds the text, a NUL behind it; true for one that is not
// there or cannot be read.
[[nodiscard]] bool machine_program_has(const char* name, const char* text);

// Whether the kernel has the module, loaded or not, or was built with it.
[[nodiscard]] bool machine_has_module(const char* name);

// Whether the kernel has the filesystem, or a module for it.
[[nodiscard]] bool machine_has_filesystem(const char* name);

// Whether the file holds the text.
[[nodiscard]] bool machine_file_has(const char* path, const char* text);

// Calls `fits` for each line of the file, without its line feed, until one does. Returns 1 when one
// did; 0, also where there is no such file; a negated errno.
[[nodiscard]] int machine_any_line(const char* path, bool (*fits)(char* line, void* context),
                                   void* context);

// Whether a file in the folder holds the text; looks at 1 MiB of each.
[[nodiscard]] bool machine_any_file_has(const char* folder, const char* text);

// Whether what was looked at is the node of the block device with these numbers.
[[nodiscard]] bool machine_is_node(const struct stat& status, uint32_t major, uint32_t minor);

constexpr size_t machine_uuid_size = 64; // bytes with the NUL

// Writes the UUID, or a FAT volume's number, of the filesystem on the device with these numbers, as
// udev has read it. Returns false where udev knows none, or there is no udev.
[[nodiscard]] bool machine_uuid(uint32_t major, uint32_t minor, char (&uuid)[machine_uuid_size]);

// Runs "program word" for up to 10 seconds. Returns whether it ended well, what it printed, up to 1
// MiB of it, in `answer`.
[[nodiscard]] bool machine_ask(const char* program, const char* word, FileBytes* answer);
