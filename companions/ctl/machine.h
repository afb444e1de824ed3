// Questions about the machine: what runs, what is installed, what the kernel can.
#pragma once

#include "lib/file.h"

// What the bridge writes for Samba, and Samba includes.
constexpr char machine_samba_include[] = "/run/vynas-samba/shares.conf";

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

constexpr size_t machine_uuid_size = 64; // bytes with the NUL

// Writes the UUID, or a FAT volume's number, of the filesystem on the device with these numbers, as
// udev has read it. Returns false where udev knows none, or there is no udev.
[[nodiscard]] bool machine_uuid(uint32_t major, uint32_t minor, char (&uuid)[machine_uuid_size]);

// Runs "program word" for up to 10 seconds. Returns whether it ended well, what it printed, up to 1
// MiB of it, in `answer`.
[[nodiscard]] bool machine_ask(const char* program, const char* word, FileBytes* answer);
