// One look at the machine: its disks, what is mounted and what is swapped to. And which of the
// disks are to be announced: those that the machine itself uses stay untold, for the service would
// mount and share them.
#pragma once

#include "agent/block_device.h"
#include "agent/device_table.h"
#include "agent/settings.h"

// Looks, and gives a verdict on each device of the list: 0 when it is to be announced; 1 when not,
// with the reason ("mounted at /"); a negated errno when something could not be looked at, what
// that is as the reason: then it must not be announced.
//
// A disk is the machine's when it or one of its partitions
//   - has a filesystem mounted that is not the service's. The service's are those of devices that
//     the daemon was told of (`told`, a table; null: nothing is known), and, on other partitions of
//     the disk than the one in question, those below the service's mount directory; on that one too
//     when they are about to be taken off (`leaving`), and, with a table, when the service takes
//     over what an earlier one has mounted ("adopt" in its configuration);
//   - is used as swap; or
//   - is held by another device (LVM, RAID, encryption).
//
// Where the service mounts CD images, a partition within another one is not announced either: that
// is how an image looks that was written to a disk, and it is to be mounted once.
//
// Returns as block_list_read. The list may be short then, and lack what makes a disk the machine's:
// nothing of it is to be announced.
[[nodiscard]] int survey_take(const AgentSettings& settings, const DeviceTable* told, bool leaving,
                              BlockList* list);
