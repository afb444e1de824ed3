// The kinds of block devices that are mounted: one row each in two tables, of which the second is
// for the programs around the service.
#pragma once

#include <stdint.h>
#include <string.h>

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

// How the kernel names and tells of them. Apart, for the service needs none of it and has its size
// counted.
struct KernelKind {
    const char* disks;   // characters behind the prefix in the name of a whole device
    const char* divider; // between that and a partition's number
    int32_t minors;      // of a device, where sysfs does not tell
    bool card;           // tells of itself; what is none does so by its USB device
    const char* noun;    // a whole device, in words
};

inline constexpr char device_letters[] = "abcdefghijklmnopqrstuvwxyz";
inline constexpr char device_digits[] = "0123456789";

inline constexpr KernelKind kernel_kinds[] = {
    {device_letters, "", 16, false, "disk"},
    {device_digits, "p", 8, true, "card"},
};
static_assert(sizeof kernel_kinds / sizeof *kernel_kinds ==
              sizeof device_kinds / sizeof *device_kinds);

// The kind of a major; null for one that is not mounted.
[[nodiscard]] inline const DeviceKind* device_kind(int32_t major)
{
    for (const DeviceKind& kind : device_kinds) {
        if (kind.major == major)
            return &kind;
    }
    return nullptr;
}

// The same row of the other table. `kind` is one of device_kinds[].
[[nodiscard]] constexpr const KernelKind& kernel_kind(const DeviceKind& kind)
{
    return kernel_kinds[&kind - device_kinds];
}

// Whether a name begins as those of the kind do: "sdx", "sd1" and "sd" with "sd".
[[nodiscard]] inline bool device_has_prefix(const DeviceKind& kind, const char* name)
{
    return strncmp(name, kind.prefix, strlen(kind.prefix)) == 0;
}
