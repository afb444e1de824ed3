// The kinds of block devices that are mounted: one row each.
#pragma once

#include <stdint.h>

// Block majors (the kernel's admin-guide/devices.txt).
constexpr int32_t MAJOR_SD = 8;
constexpr int32_t MAJOR_MMC = 179;

struct DeviceKind {
    int32_t major;
    const char* prefix;      // of its devices' names and of targets: sda1, mmcblka1
    const char* share_mark;  // before the disk's letter in a share's name: Drive(A1), Drive(MMCA1)
    const char* description; // in a share's comment
};

inline constexpr DeviceKind device_kinds[] = {
    {MAJOR_SD, "sd", "", "USB Storage Device"},
    {MAJOR_MMC, "mmcblk", "MMC", "MMC Block Device"},
};

// The kind of a major; null for one that is not mounted.
[[nodiscard]] inline const DeviceKind* device_kind(int32_t major)
{
    for (const DeviceKind& kind : device_kinds) {
        if (kind.major == major)
            return &kind;
    }
    return nullptr;
}
