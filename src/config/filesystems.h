// The filesystems that are mounted: one row each. A new one is a row behind the others, with the
// next code; its words and keys follow from its type.
#pragma once

#include "config/conf_hotplug.h"

// Codes of filesystems, in device records and mount entries.
enum ConfDevFs : uint8_t {
    CONF_DEV_FS_UNKNOWN = 0, // in a device's settings: whatever the partition holds
    CONF_DEV_FS_EXT2 = 1,
    CONF_DEV_FS_EXT3 = 2,
    CONF_DEV_FS_EXT4 = 3,
    CONF_DEV_FS_FAT = 4,
    CONF_DEV_FS_NTFS = 5, // the last that a device's settings can ask for
    CONF_DEV_FS_EXFAT = 6,
    CONF_DEV_FS_NTFS3 = 7,
    CONF_DEV_FS_F2FS = 8,
    CONF_DEV_FS_BTRFS = 9,
    CONF_DEV_FS_XFS = 10,
    CONF_DEV_FS_HFSPLUS = 11,
    CONF_DEV_FS_UDF = 12,
    CONF_DEV_FS_ISO9660 = 13,
    CONF_DEV_FS_END, // behind the last
};

// The mount options that the service sets itself, from the configured owner and permissions where
// the medium stores none.
enum class FilesystemOptions : uint8_t {
    plain,      // none
    attributes, // user_xattr
    masks,      // uid, gid, fmask, dmask
    one_mask,   // uid, gid, umask: that of directories, so that they can be entered
    modes,      // uid, gid, mode, dmode
};

// How a volume's label is read.
enum class FilesystemLabel : uint8_t {
    none,
    fat, // mlabel, unless fatvolumelabel says otherwise
    ntfs // ntfsvlabel
};

// A field that a row leaves out has the value that stands here.
struct Filesystem {
    uint8_t code; // ConfDevFs
    FilesystemOptions options = FilesystemOptions::plain;
    FilesystemLabel label = FilesystemLabel::none;
    bool nodev = false;
    bool readonly = false;        // cannot be written to on any medium
    const char* type;             // mount(2)'s name for it, and the mount table's
    const char* driver = nullptr; // the program that mounts it; null: the kernel does

    // Of the five that have always been mounted; the others are named in otherfs by their type, and
    // their further options are in "<type>options".
    uint32_t ConfHotplug::*enabled = nullptr;    // the switch of the configuration
    char* ConfHotplug::*extra_options = nullptr; // further mount options of the configuration
    const char* words[2] = {nullptr, nullptr};   // in mountfs and the device file, case-blind
    const char* group = nullptr;     // in mountfs only: it and all that share its switch
    const char* file_word = nullptr; // written in the two files; null: readers know none
};

constexpr int filesystem_count = CONF_DEV_FS_END - 1;
extern const Filesystem filesystems[filesystem_count];

// The row of a code; null for CONF_DEV_FS_UNKNOWN and for codes of none.
[[nodiscard]] const Filesystem* filesystem_of(uint8_t code);

// Whether the filesystem is one of those that otherfs names, and not of the five.
inline bool filesystem_is_other(const Filesystem& filesystem)
{
    return filesystem.enabled == nullptr;
}

// Whether the configuration wants it mounted.
[[nodiscard]] bool filesystem_is_wanted(const Filesystem& filesystem, const ConfHotplug* config);

// Lends the further mount options of the configuration; null for none.
[[nodiscard]] const char* filesystem_extra_options(const Filesystem& filesystem,
                                                   const ConfHotplug* config);

struct FilesystemList {
    const Filesystem* of[filesystem_count]; // `count` of them
    int count;
};

// What is wanted, in the order in which an unknown partition is tried: those of the five that the
// kernel mounts, the others in the order in which they are named, and last those with a driver,
// which takes its time.
[[nodiscard]] FilesystemList filesystem_order(const ConfHotplug* config);
