// Filesystems of several devices: btrfs mounts one when the kernel has been told of all of them.
#pragma once

#include "agent/block_device.h"

// Tells the kernel of a member, by its node below /dev, which stays, unlike that of a try to mount.
// Returns 1 when all members are known; 0 when there are others; a negated errno, where the kernel
// has no btrfs or takes the device for none.
[[nodiscard]] int btrfs_register(const BlockName& name);

// Returns 1 when the device is a member of a mounted one; 0 when not; a negated errno when that
// cannot be said.
[[nodiscard]] int btrfs_is_mounted(const char* sysfs, const BlockName& name);
