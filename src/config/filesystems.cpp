#include "config/filesystems.h"

constexpr Filesystem filesystems[filesystem_count] = {
    {.code = CONF_DEV_FS_FAT,
     .options = FilesystemOptions::masks,
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
     .options = FilesystemOptions::masks,
     .label = FilesystemLabel::ntfs,
     .type = "ntfs",
     .driver = "ntfs-3g",
     .enabled = &ConfHotplug::mountntfs,
     .extra_options = &ConfHotplug::ntfsoptions,
     .words = {"ntfs", nullptr},
     .file_word = "NTFS"},
    {.code = CONF_DEV_FS_EXFAT,
     .options = FilesystemOptions::masks,
     .nodev = true,
     .type = "exfat"},
    {.code = CONF_DEV_FS_NTFS3,
     .options = FilesystemOptions::masks,
     .nodev = true,
     .type = "ntfs3"},
    {.code = CONF_DEV_FS_F2FS, .nodev = true, .type = "f2fs"},
    {.code = CONF_DEV_FS_BTRFS, .nodev = true, .type = "btrfs"},
    {.code = CONF_DEV_FS_XFS, .nodev = true, .type = "xfs"},
    {.code = CONF_DEV_FS_HFSPLUS,
     .options = FilesystemOptions::one_mask,
     .nodev = true,
     .type = "hfsplus"},
    {.code = CONF_DEV_FS_UDF, .options = FilesystemOptions::modes, .nodev = true, .type = "udf"},
    {.code = CONF_DEV_FS_ISO9660,
     .options = FilesystemOptions::modes,
     .nodev = true,
     .readonly = true,
     .type = "iso9660"},
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

bool filesystem_is_wanted(const Filesystem& filesystem, const ConfHotplug* config)
{
    if (!filesystem_is_other(filesystem))
        return config->*filesystem.enabled != 0;
    for (const uint8_t code : config->otherfs) {
        if (code == filesystem.code)
            return true;
    }
    return false;
}

const char* filesystem_extra_options(const Filesystem& filesystem, const ConfHotplug* config)
{
    return filesystem_is_other(filesystem) ? config->otheroptions[filesystem.code]
                                           : config->*filesystem.extra_options;
}

static void append(FilesystemList* list, const Filesystem& filesystem)
{
    list->of[list->count++] = &filesystem;
}

FilesystemList filesystem_order(const ConfHotplug* config)
{
    FilesystemList list = {};
    for (const Filesystem& filesystem : filesystems) {
        if (!filesystem_is_other(filesystem) && filesystem.driver == nullptr &&
            filesystem_is_wanted(filesystem, config))
            append(&list, filesystem);
    }
    for (const uint8_t code : config->otherfs) {
        const Filesystem* filesystem = filesystem_of(code);
        if (filesystem != nullptr)
            append(&list, *filesystem);
    }
    for (const Filesystem& filesystem : filesystems) {
        if (filesystem.driver != nullptr && filesystem_is_wanted(filesystem, config))
            append(&list, filesystem);
    }
    return list;
}
