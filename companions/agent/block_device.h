// The block devices that the service mounts, sda, sda1, mmcblk0, mmcblk0p1 and so on: their names,
// and what sysfs tells of them. Reads only; nothing is cleaned here, the texts are the device's own
// bytes.
#pragma once

#include "agent/limits.h"
#include "device/kinds.h"
#include "lib/guard.h"

#include <stddef.h>
#include <stdint.h>

constexpr size_t block_name_size = 24; // bytes with the NUL
constexpr size_t block_reason_size = 256;

struct BlockName {
    char text[block_name_size];
    uint8_t disk_length; // so much of the text is the name of the disk
    uint8_t kind;        // its row of device_kinds[]
    int32_t partition;   // 0: the whole disk
};

// Returns whether `text` is such a name, and stores what it says. Not such a name is one of another
// kind of device, of a card's hardware partition (mmcblk0boot0), and one that the kernel does not
// write so (sda01). Pure, as the next three.
bool block_name_parse(const char* text, BlockName* name);

const DeviceKind& block_name_kind(const BlockName& name);

bool block_name_same_disk(const BlockName& a, const BlockName& b);

// Below, equal to or above 0 as `a` comes before, is or comes behind `b`: sda, sda1, sda2, sdb,
// ..., sdz, sdaa, ..., mmcblk0, mmcblk0p1.
int block_name_compare(const BlockName& a, const BlockName& b);

// What a disk and its partitions have in common. The texts are as sysfs has them, "" where it has
// none.
struct BlockHardware {
    BlockHardware* next;
    char range[16];    // minors of the disk
    char removable[8]; // whether it is
    char vid[8];       // USB ids and speed
    char pid[8];
    char speed[16];
    char serial[agent_text_size];
    char vname[agent_text_size];
    char pname[agent_text_size];
};

void block_hardware_free(BlockHardware* first);

// Where a partition lies on its disk, in sectors of 512 bytes.
struct BlockExtent {
    uint64_t start;
    uint64_t sectors; // 0 where sysfs does not say
};

struct BlockDevice {
    BlockName name;
    const BlockHardware* hardware; // the list's; borrowed
    int32_t major;
    int32_t minor;
    char readonly[8];             // as sysfs has it; whether the device itself is
    char holder[block_name_size]; // another device that holds it (LVM, RAID, encryption)
    bool empty;                   // a whole disk of size 0: a drive without a medium
    uint64_t identity; // another one when the device, or its medium, has been another meanwhile
    uint64_t
        seen;    // how many events the kernel had sent before it was read; 0 where it does not say
    int failure; // 0; a negated errno when some of it could not be looked at

    // For the survey to say, see there.
    bool swap;
    BlockExtent extent; // of a partition, where it matters
    int verdict;
    char reason[block_reason_size];
};

// Devices in the order of their names. Owns them.
struct BlockList {
    Guard<BlockHardware, block_hardware_free> hardware;
    MemGuard<BlockDevice> devices;
    size_t count = 0;

    BlockDevice* begin() const { return devices.get(); }
    BlockDevice* end() const { return devices.get() + count; }
};

// Reads all devices into an empty list. One without its numbers is going, and left out. `sysfs` is
// shorter than agent_folder_size. Returns 0; a negated errno when there is no looking into sysfs,
// or no memory.
[[nodiscard]] int block_list_read(const char* sysfs, BlockList* list);

// Puts what a list holds in the place of what another does. The first is empty then.
void block_list_move(BlockList* from, BlockList* to);

// Reads a partition's.
BlockExtent block_extent_read(const char* sysfs, const BlockName& name);

// Lends the device of that name; null when it is not in the list.
const BlockDevice* block_list_find(const BlockList& list, const BlockName& name);
