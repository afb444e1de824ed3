// What is to be announced, and what is not: disks that the machine itself uses stay untold, for the
// service would mount and share them.
#pragma once

#include "agent/announced.h"
#include "agent/block_device.h"

#include <stddef.h>

// Where to look. All borrowed.
struct SurveyView {
    const char* sysfs;
    const char* proc;
    const char* mount_directory;     // where the service mounts
    const AnnouncedTable* announced; // what the daemon was told of; null: nothing is known
    bool all;                        // announce the machine's disks too
    bool leaving; // the disk's mounts in the service's directory are about to be taken off
};

constexpr size_t survey_reason_size = 256;

// Reads a device and says whether it is to be announced. Returns 0 when it is; 1 when not, the
// reason written ("mounted at /"); -ENOENT when it is not there; another negated errno when
// something cannot be looked at, what that is written as the reason: then it must not be announced.
//
// A disk is the machine's when it or one of its partitions
//   - has a filesystem mounted that is not the service's. The service's are those of devices that
//     the daemon was told of, and, on other partitions of the disk than the one in question, those
//     below the service's mount directory;
//   - is used as swap; or
//   - is held by another device (LVM, RAID, encryption).
[[nodiscard]] int survey_device(const SurveyView& view, const BlockName& name, BlockDevice* device,
                                char (&reason)[survey_reason_size]);

// Takes a line of /proc/swaps apart, in place. Lends the path, decoded and without the mark of a
// node that was removed; null for the heading and for anything else that begins with no path. Pure.
const char* survey_swap_path(char* line);
