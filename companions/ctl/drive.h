// The last steps before a disk is pulled.
#pragma once

#include "ctl/disks.h"

// Writes down what the kernel still keeps for the disk. Returns 0; a negated errno.
[[nodiscard]] int drive_flush(const DiskPart& disk);

// Stops the drive, has the kernel forget it, and switches its USB port off where no other disk
// hangs on it. `table` holds all disks. Returns 0 when the kernel has forgotten it; a negated errno
// of what kept it from that, -ENOENT when it has been pulled. `port_off`: its port was switched
// off, too.
[[nodiscard]] int drive_switch_off(const char* sysfs, const DiskTable& table, const DiskPart& disk,
                                   bool* port_off);
