// The last steps before a disk is pulled.
#pragma once

#include "ctl/disks.h"

// Writes down what the kernel still keeps for the disk. Returns 0; a negated errno.
[[nodiscard]] int drive_flush(const DiskPart& disk);

// Stops the drive, has the kernel forget it, and switches its USB port off where no other disk
// hangs on it. `table` holds all disks. Returns 0; a negated errno of the step without which it
// is not off. -ENOENT: it has been pulled.
[[nodiscard]] int drive_switch_off(const char* sysfs, const DiskTable& table, const DiskPart& disk);
