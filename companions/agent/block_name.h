// Names of the block devices that the service mounts: "sda", "sda1", "mmcblk0", "mmcblk0p1". Pure.
#pragma once

#include <stddef.h>
#include <stdint.h>

enum BlockKind : uint8_t { BLOCK_SD, BLOCK_MMC };

struct BlockName {
    BlockKind kind;
    int32_t disk;      // sda is 1, sdz 26, sdaa 27; mmcblk0 is 0
    int32_t partition; // 0: the whole disk
};

constexpr size_t block_name_size = 24; // bytes with the NUL

// Returns whether `text` is such a name, and stores what it says. Not such a name is one of another
// kind of device, of a card's hardware partition (mmcblk0boot0), and one that the kernel does not
// write so (sda01).
bool block_name_parse(const char* text, BlockName* name);

void block_name_format(const BlockName& name, char (&text)[block_name_size]);

// The disk that the device is, or lies on.
BlockName block_name_disk(const BlockName& name);
bool block_name_same_disk(const BlockName& a, const BlockName& b);

// Below, equal to or above 0 as `a` comes before, is or comes behind `b`: sda, sda1, sda2, sdb,
// ..., sdz, sdaa, ..., mmcblk0, mmcblk0p1.
int block_name_compare(const BlockName& a, const BlockName& b);
