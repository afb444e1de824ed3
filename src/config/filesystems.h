// The filesystems that are mounted: one row each, in the order in which an unknown partition is
// tried.
#pragma once

#include "config/conf_hotplug.h"

// Codes of filesystems, in device records and mount entries.
enum ConfDevFs : uint8_t {
    CONF_DEV_FS_UNKNOWN = 0, // in a device's settings: whatever the partition holds
    CONF_DEV_FS_EXT2 = 1,
    CONF_DEV_FS_EXT3 = 2,
    CONF_DEV_FS_EXT4 = 3,
    CONF_DEV_FS_FAT = 4,
    CONF_DEV_FS_NTFS = 5,
};

// The mount options that the service sets itself.
enum class FilesystemOptions : uint8_t {
    attributes, // user_xattr: owners and permissions are the medium's
    owner,      // the configured owner and permissions, for all files
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
    FilesystemOptions options;
    FilesystemLabel label = FilesystemLabel::none;
    bool nodev = false;
    const char* type;                  // mount(2)'s name for it, and the mount table's
    const char* driver = nullptr;      // the program that mounts it; null: the kernel does
    uint32_t ConfHotplug::*enabled;    // the switch of the configuration
    char* ConfHotplug::*extra_options; // further mount options of the configuration
    const char* words[2];              // in mountfs and in the device file, case-blind
    const char* group = nullptr;       // in mountfs only: it and all that share its switch
    const char* file_word = nullptr;   // written in the two files; null: readers know none
};

constexpr int filesystem_count = 5;
extern const Filesystem filesystems[filesystem_count];

// The row of a code; null for CONF_DEV_FS_UNKNOWN and for codes of none.
[[nodiscard]] const Filesystem* filesystem_of(uint8_t code);
