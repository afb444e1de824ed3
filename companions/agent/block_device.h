// What sysfs tells of block devices. Reads only; nothing is cleaned here, the texts are the
// device's own bytes.
#pragma once

#include "agent/block_name.h"
#include "agent/limits.h"

#include <stddef.h>
#include <stdint.h>

struct BlockDevice {
    BlockName name;
    int32_t major;
    int32_t minor;
    int32_t range;     // minors of its disk, and the next two; -1 where sysfs does not say
    int32_t removable; // the disk's
    int32_t readonly;  // its own
    bool empty;        // a whole disk of size 0: a drive without a medium
    char vid[8];       // USB ids and speed as sysfs has them; "" where there is none, as all texts
    char pid[8];
    char speed[16];
    char serial[agent_text_size];
    char vname[agent_text_size];
    char pname[agent_text_size];
    uint64_t incarnation; // another one when the device, or its medium, has been another meanwhile
};

// Devices of one walk, in order: sda, sda1, sda2, sdb, ..., sdaa, ..., mmcblk0, mmcblk0p1.
struct BlockList {
    uint32_t count;
    BlockName names[agent_walk_limit];
};

// Lists all devices of the kinds that the service mounts. Returns 0; a negated errno when there is
// no looking into sysfs; -E2BIG when there are more than fit, the list holding so many.
[[nodiscard]] int block_list_all(const char* sysfs, BlockList* list);

// Lists one disk, given by itself or a partition of it, and its partitions. Returns as
// block_list_all; an empty list when it is not there.
[[nodiscard]] int block_list_disk(const char* sysfs, const BlockName& disk, BlockList* list);

// Reads a device's numbers. Returns 0; -ENOENT when it is not there, or going; another negated
// errno when there is no looking at it.
[[nodiscard]] int block_numbers(const char* sysfs, const BlockName& name, int32_t* major,
                                int32_t* minor);

// Reads all of a device. Returns as block_numbers.
[[nodiscard]] int block_device_read(const char* sysfs, const BlockName& name, BlockDevice* device);

// How many events the kernel has sent; 0 where it does not say.
uint64_t block_event_count(const char* sysfs);

// Writes the name of one device that holds this one (LVM, RAID, encryption). Returns 0; -ENOENT
// when there is none; another negated errno when that cannot be said.
[[nodiscard]] int block_holder(const char* sysfs, const BlockName& name,
                               char (&holder)[block_name_size]);
