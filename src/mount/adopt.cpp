#include "mount/adopt.h"

#include "config/filesystems.h"
#include "lib/guard.h"
#include "lib/str.h"
#include "lib/sys.h"

#include <mntent.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

static constexpr char kernel_table[] = "/proc/self/mounts";
static constexpr int texts_size = 4096;       // bytes of a line's texts
static constexpr char driver_type[] = "fuse"; // and "fuseblk", fuse(4)

// Returns false when the text does not fit.
template <size_t N>
static bool copy_text(char (&copy)[N], const char* text)
{
    if (strlen(text) >= N)
        return false;
    str_cpy(copy, text);
    return true;
}

// Whether the options, separated by commas, hold that word. hasmntopt(3) of uClibc finds it within
// others as well: "ro" in "errors=remount-ro".
static bool has_option(const char* options, const char* option)
{
    const size_t length = strlen(option);
    for (const char* word = options; word[0] != '\0';) {
        const size_t size = strcspn(word, ",");
        if (size == length && strncmp(word, option, length) == 0)
            return true;
        word += size + (word[size] != '\0' ? 1 : 0);
    }
    return false;
}

static int take_line(const mntent& found, MountLine* line)
{
    line->readonly = has_option(found.mnt_opts, "ro");
    return copy_text(line->source, found.mnt_fsname) && copy_text(line->type, found.mnt_type) ? 0
                                                                                              : -1;
}

int mount_line_find(FILE* table, const char* directory, MountLine* line)
{
    int result = -1;
    mntent found = {};
    char texts[texts_size];
    while (getmntent_r(table, &found, texts, sizeof texts) != nullptr) {
        if (strcmp(found.mnt_dir, directory) == 0)
            result = take_line(found, line);
    }
    return result;
}

// The filesystem that the line tells of; null when it is none of the service's.
static const Filesystem* filesystem_of_line(const MountLine& line)
{
    const bool by_driver = strncmp(line.type, driver_type, strlen(driver_type)) == 0;
    for (const Filesystem& filesystem : filesystems) {
        if (by_driver ? filesystem.driver != nullptr : strcmp(filesystem.type, line.type) == 0)
            return &filesystem;
    }
    return nullptr;
}

// The numbers of the entry's node, or those that it would have.
static dev_t node_numbers(const MountEntry* entry)
{
    struct stat node;
    if (stat(entry->devnode, &node) == 0 && S_ISBLK(node.st_mode))
        return node.st_rdev;
    return makedev(static_cast<unsigned>(entry->dev->major),
                   static_cast<unsigned>(entry->dev->minor));
}

static bool is_from_node(const MountEntry* entry, const Filesystem& filesystem,
                         const MountLine& line)
{
    if (filesystem.driver != nullptr)
        return strcmp(line.source, entry->devnode) == 0;
    struct stat root;
    return stat(entry->mountpoint, &root) == 0 && root.st_dev == node_numbers(entry);
}

// An earlier daemon may have had another configuration.
static int set_flags(const MountEntry* entry, const Filesystem& filesystem, bool readonly,
                     const ConfHotplug* config)
{
    if (config->mountflags == 0)
        return 0;
    const unsigned long flags =
        config->mountflags | (filesystem.nodev ? MS_NODEV : 0) | (readonly ? MS_RDONLY : 0);
    return sys_mount(entry->devnode, entry->mountpoint, filesystem.type,
                     MS_REMOUNT | MS_BIND | flags, nullptr);
}

int vyadopt(MountEntry* entry, const ConfHotplug* config)
{
    const FileGuard table(fopen(kernel_table, "re"));
    MountLine line = {};
    if (!table || mount_line_find(table.get(), entry->mountpoint, &line) != 0)
        return -1;
    const Filesystem* filesystem = filesystem_of_line(line);
    if (filesystem == nullptr || !filesystem_is_wanted(*filesystem, config) ||
        !is_from_node(entry, *filesystem, line))
        return -1;
    if (set_flags(entry, *filesystem, line.readonly, config) != 0)
        return -1;
    entry->fstype = filesystem->code;
    entry->mounted = 1;
    if (line.readonly)
        entry->dev->flags |= HOTPLUG_FLAG_READONLY;
    return 0;
}
