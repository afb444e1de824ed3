// Has the kernel look at a drive's medium: the only place where the agent opens a device.
//
// While something of a disk is in use the kernel does not read its partitions anew, and sysfs shows
// those of the medium before. Whoever takes these for the new medium's has them mounted under wrong
// numbers, so such a disk is kept here until it could be read.
#pragma once

#include "agent/block_name.h"
#include "agent/limits.h"

#include <stdint.h>

// Opens a disk's node, so that the kernel looks whether its medium is another one. Whether it can
// be opened is of no interest.
void medium_touch(const BlockName& disk);

// Disks whose medium was changed while they were in use. All zero is none.
struct ChangedDisks {
    uint32_t count;
    BlockName disks[agent_changed_limit];
    uint32_t pause; // the last one before asking again, milliseconds
    uint64_t due; // when to ask again, milliseconds, monotonic; without meaning when there is none
};

// Has the kernel read a disk's partitions anew. Returns whether sysfs shows what there is: false
// when something of the disk is in use, and it is kept. Where the kernel cannot be asked, or no
// more disks can be kept, sysfs is believed.
[[nodiscard]] bool changed_read(ChangedDisks* changed, const BlockName& disk, uint64_t now);

// Asks again, if it is time, agent_retry_first after a disk was kept, doubled up to
// agent_retry_most. Stores the disks that are kept no more, and returns how many these are.
uint32_t changed_read_again(ChangedDisks* changed, uint64_t now,
                            BlockName (&read)[agent_changed_limit]);

// Whether the disk, or that of the partition, is kept.
bool changed_keeps(const ChangedDisks* changed, const BlockName& name);

// The disk has gone.
void changed_drop(ChangedDisks* changed, const BlockName& disk);
