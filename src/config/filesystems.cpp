#include "config/filesystems.h"

constexpr Filesystem filesystems[filesystem_count] = {
    {.code = CONF_DEV_FS_FAT,
     .options = FilesystemOptions::owner,
     .label = FilesystemLabel::fat,
     .type = "vfat",
     .enabled = &ConfHotplug::mountvfat,
     .extra_options = &ConfHotplug::vfatoptions,
     .words = {"fat", "vfat"},
     .file_word = "FAT"},
    {.code = CONF_DEV_FS_EXT4, // no file word: kept, readers of the two files know no EXT4
     .options = FilesystemOptions::attributes,
     .nodev = true,
     .type = "ext4",
     .enabled = &ConfHotplug::mountext,
     .extra_options = &ConfHotplug::extfsoptions,
     .words = {"ext4", nullptr},
     .group = "ext"},
    {.code = CONF_DEV_FS_EXT3,
     .options = FilesystemOptions::attributes,
     .nodev = true,
     .type = "ext3",
     .enabled = &ConfHotplug::mountext,
     .extra_options = &ConfHotplug::extfsoptions,
     .words = {"ext3", nullptr},
     .file_word = "EXT3"},
    {.code = CONF_DEV_FS_EXT2,
     .options = FilesystemOptions::attributes,
     .nodev = true,
     .type = "ext2",
     .enabled = &ConfHotplug::mountext,
     .extra_options = &ConfHotplug::extfsoptions,
     .words = {"ext2", nullptr},
     .file_word = "EXT2"},
    {.code = CONF_DEV_FS_NTFS,
     .options = FilesystemOptions::owner,
     .label = FilesystemLabel::ntfs,
     .type = "ntfs",
     .driver = "ntfs-3g",
     .enabled = &ConfHotplug::mountntfs,
     .extra_options = &ConfHotplug::ntfsoptions,
     .words = {"ntfs", nullptr},
     .file_word = "NTFS"},
};
static_assert(filesystems[filesystem_count - 1].type != nullptr, "a row is missing");

const Filesystem* filesystem_of(uint8_t code)
{
    for (const Filesystem& filesystem : filesystems) {
        if (filesystem.code == code)
            return &filesystem;
    }
    return nullptr;
}
