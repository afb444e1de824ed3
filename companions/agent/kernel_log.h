// The kernel's own words on block devices, from /dev/kmsg: the last of them are kept, each once. A
// device that is tried with many filesystems is good for a dozen, and there may be many at once.
#pragma once

#include "agent/block_device.h"
#include "lib/guard.h"

#include <stddef.h>
#include <stdint.h>

constexpr size_t kernel_line_size = 160;  // bytes with the NUL; what is longer is cut
constexpr size_t kernel_line_limit = 384; // lines that are kept: of some 30 devices

struct KernelLine {
    BlockName name; // of the device that it names first
    uint64_t time;  // when it was read last
    char text[kernel_line_size];
};

// Takes one record of /dev/kmsg apart: "6,339,5140900,-;XFS (sda1): ...". Returns whether the
// kernel itself has written it (and not a program), as a warning or worse, and it names a device;
// then stores the device and the text, cleaned. Pure.
bool kernel_line_parse(const char* record, KernelLine* line);

// The errno that stands at the end of a line or in brackets ("error -117", "err=-5", ": -22"); 0
// for none. Pure.
int kernel_line_errno(const char* text);

struct KernelLog {
    FdGuard fd; // -1: the kernel's words cannot be had
    size_t count = 0;
    MemGuard<KernelLine> lines; // the oldest first; null before the first
};

// Opens the log behind what it holds.
void kernel_log_open(KernelLog* log, const char* path);

// Reads what has come since. Never blocks.
void kernel_log_take(KernelLog* log, uint64_t now);

// Drops what was said about a device; its name is another's now.
void kernel_log_forget(KernelLog* log, const BlockName& name);

// Lends a line about the device that begins with `prefix` and holds `part`, read later than
// `since`: the first that tells an errno, else the first; null when there is none.
const KernelLine* kernel_log_find(const KernelLog* log, const BlockName& name, const char* prefix,
                                  const char* part, uint64_t since);
