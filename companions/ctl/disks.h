// The disks and cards that sysfs shows, by the kernel's names and by the service's. Reads only; the
// texts are the devices' own bytes.
#pragma once

#include "lib/guard.h"

#include <limits.h>
#include <stddef.h>
#include <stdint.h>

constexpr size_t disk_name_size = 32;  // bytes with the NUL
constexpr size_t disk_text_size = 400; // a USB string: 126 characters, 378 bytes in UTF-8

struct DiskPart {
    bool readonly;
    bool pluggable; // on USB, or a card
    bool held;      // by another device (LVM, RAID, encryption)
    bool parted;    // a whole device with partitions
    uint32_t major;
    uint32_t minor;
    int32_t partition; // 0: the whole device
    uint64_t size_bytes;
    char name[disk_name_size];    // the kernel's: "mmcblk0p1"
    char disk[disk_name_size];    // of the whole device: "mmcblk0"
    char service[disk_name_size]; // the service's: "mmcblka1"; empty for what it does not mount
    char vendor[disk_text_size];  // empty where there is none
    char product[disk_text_size];
    char serial[disk_text_size];
    char identity[disk_text_size + 32]; // as the agent tells the service
    char speed[16];                     // of the port in Mbit/s, "" where it is not known
};

struct DiskTable {
    DiskPart* parts; // the whole device before its partitions; owned
    size_t count;
};

// Reads all that there are. Returns 0 and an owned table, empty when there is no looking into
// sysfs; -ENOMEM.
[[nodiscard]] int disks_read(const char* sysfs, DiskTable** table);

void disks_free(DiskTable* table);
using DiskTableGuard = Guard<DiskTable, disks_free>;

// Writes the directory of a disk's USB device in sysfs, resolved. Returns false for a disk on
// something else.
[[nodiscard]] bool disk_usb_directory(const char* sysfs, const char* disk, char (&path)[PATH_MAX]);
