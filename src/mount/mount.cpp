#include "mount/mount.h"

#include "config/filesystems.h"
#include "config/mount_flags.h"
#include "lib/process.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "mount/mtab.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

static constexpr size_t options_size = 128;   // longer option texts are cut
static constexpr size_t flag_words_size = 64; // bytes of all words that drivers take
static constexpr int driver_timeout_ms = 60000;
static constexpr mode_t mount_directory_mode = 0700;

// ---- option texts ----

struct Options {
    char text[options_size];
};

// The extra options of the configuration and what separates them from the others, both empty when
// there are none.
struct Extra {
    const char* separator;
    const char* text;
};

static Extra extra_of(const char* configured)
{
    const bool given = configured != nullptr && configured[0] != '\0';
    return {.separator = given ? "," : "", .text = given ? configured : ""};
}

static Options owner_options(const char* prefix, const ConfHotplug* config, const char* configured)
{
    const Extra extra = extra_of(configured);
    Options options;
    (void)snprintf(options.text, sizeof options.text, "%suid=%d,gid=%d,fmask=%04o,dmask=%04o%s%s",
                   prefix, static_cast<int>(config->defaultuid),
                   static_cast<int>(config->defaultgid), config->fileumask, config->dirumask,
                   extra.separator, extra.text);
    return options;
}

// For those that know the owner by the same words and the permissions by others.
static Options mode_options(bool modes, const ConfHotplug* config, const char* configured)
{
    const Extra extra = extra_of(configured);
    char permissions[32];
    if (modes) {
        (void)snprintf(permissions, sizeof permissions, "mode=%04o,dmode=%04o",
                       ~config->fileumask & 0777U, ~config->dirumask & 0777U);
    } else {
        (void)snprintf(permissions, sizeof permissions, "umask=%04o", config->dirumask);
    }
    Options options;
    (void)snprintf(options.text, sizeof options.text, "uid=%d,gid=%d,%s%s%s",
                   static_cast<int>(config->defaultuid), static_cast<int>(config->defaultgid),
                   permissions, extra.separator, extra.text);
    return options;
}

static Options plain_options(const char* own, const char* configured)
{
    const Extra extra = extra_of(configured);
    Options options;
    (void)snprintf(options.text, sizeof options.text, "%s%s%s", own,
                   own[0] != '\0' ? extra.separator : "", extra.text);
    return options;
}

static Options kernel_options(const Filesystem& filesystem, const ConfHotplug* config)
{
    const char* configured = filesystem_extra_options(filesystem, config);
    switch (filesystem.options) {
    case FilesystemOptions::masks:
        return owner_options("", config, configured);
    case FilesystemOptions::one_mask:
        return mode_options(false, config, configured);
    case FilesystemOptions::modes:
        return mode_options(true, config, configured);
    case FilesystemOptions::attributes:
        return plain_options("user_xattr", configured);
    case FilesystemOptions::plain:
        break;
    }
    return plain_options("", configured);
}

// ---- kernel filesystems ----

static bool is_readonly(const HotplugDev* dev)
{
    return (dev->flags & HOTPLUG_FLAG_READONLY) != 0;
}

// Whether a filesystem that was mounted for writing is not: its own driver may have decided so, for
// the sake of a journal that it cannot play. The five always tell by refusing.
static bool came_out_readonly(const Filesystem& filesystem, const MountEntry* entry)
{
    return filesystem_is_other(filesystem) && sys_is_readonly(entry->mountpoint) == 1;
}

// Has the kernel mount the entry, and once more read-only where the medium refuses writing.
static int mount_by_kernel(const Filesystem& filesystem, const MountEntry* entry,
                           const ConfHotplug* config)
{
    const Options options = kernel_options(filesystem, config);
    const bool readonly = filesystem.readonly || is_readonly(entry->dev);
    const unsigned long flags =
        config->mountflags | (filesystem.nodev ? MS_NODEV : 0) | (readonly ? MS_RDONLY : 0);
    const int result =
        sys_mount(entry->devnode, entry->mountpoint, filesystem.type, flags, options.text);
    if (result == 0) {
        if (readonly || came_out_readonly(filesystem, entry))
            entry->dev->flags |= HOTPLUG_FLAG_READONLY;
        return 0;
    }
    if ((result != -EACCES && result != -EROFS) || readonly)
        return -1;
    // Without nodev: kept, a second attempt never carried the first one's own flags.
    if (sys_mount(entry->devnode, entry->mountpoint, filesystem.type,
                  config->mountflags | MS_RDONLY, options.text) != 0)
        return -1;
    entry->dev->flags |= HOTPLUG_FLAG_READONLY;
    return 0;
}

// ---- drivers ----

// Starts the driver and waits for it. Returns its exit status (-1 for a signal's) in `status`; 0
// with `status` 0 and its pid kept when it goes on running, which is as good as mounted. A driver
// that cannot be started gives a negative value.
static int run_driver(char* const argv[], HotplugDev* dev, int* status)
{
    const pid_t pid = vy_fork_exec(argv[0], argv, nullptr, nullptr, nullptr);
    if (pid < 0)
        return pid;
    if (vy_wait(pid, 0, status, driver_timeout_ms) == 0)
        return 0;
    dev->helperpid = pid;
    *status = 0;
    return 0;
}

struct DriverOptions {
    char text[options_size + flag_words_size];
};

// The options with the words of the configured flags behind them, where no other can undo them.
static DriverOptions driver_options(const Filesystem& filesystem, const ConfHotplug* config)
{
    const Options own = owner_options("ro,", config, filesystem_extra_options(filesystem, config));
    DriverOptions options = {};
    char* end = str_cpy(options.text, own.text);
    for (const MountFlag& row : mount_flags) {
        if (row.drivers && (config->mountflags & row.flag) != 0)
            end = str_cpy(str_cpy(end, ","), row.word);
    }
    return options;
}

static int mount_by_driver(const Filesystem& filesystem, const MountEntry* entry,
                           const ConfHotplug* config)
{
    HotplugDev* dev = entry->dev;
    DriverOptions options = driver_options(filesystem, config);
    char* const option_argument = is_readonly(dev) ? options.text : options.text + strlen("ro,");
    char* const argv[] = {const_cast<char*>(filesystem.driver),
                          entry->devnode,
                          entry->mountpoint,
                          const_cast<char*>("-o"),
                          option_argument,
                          nullptr};
    int status = -1;
    int result = run_driver(argv, dev, &status);
    if (result < 0 || status == 0)
        return result;
    if (is_readonly(dev))
        return -1;
    // Kept: the second run has the first one's options, and its success reduces the flags to the
    // read-only bit instead of setting it.
    result = run_driver(argv, dev, &status);
    if (result < 0)
        return result;
    if (status != 0)
        return -1;
    dev->flags &= HOTPLUG_FLAG_READONLY;
    return 0;
}

// ---- one partition ----

static int make_node(const MountEntry* entry)
{
    const dev_t number =
        makedev(static_cast<unsigned>(entry->dev->major), static_cast<unsigned>(entry->dev->minor));
    const int result = sys_mknod(entry->devnode, S_IFBLK, number);
    return result == 0 || result == -EEXIST ? 0 : -1;
}

static int make_directory(const MountEntry* entry)
{
    const int result = sys_mkdir(entry->mountpoint, mount_directory_mode);
    if (result != -EEXIST)
        return result == 0 ? 0 : -1;
    struct stat status;
    return stat(entry->mountpoint, &status) == 0 && S_ISDIR(status.st_mode) ? 0 : -1;
}

// Removes the mount directory and the node as far as they can be removed.
static void remove_places(const MountEntry* entry)
{
    (void)sys_rmdir(entry->mountpoint);
    (void)sys_unlink(entry->devnode);
}

// Returns 0 when the entry is mounted as this filesystem.
static int mount_as(const Filesystem& filesystem, const MountEntry* entry,
                    const ConfHotplug* config)
{
    return filesystem.driver == nullptr ? mount_by_kernel(filesystem, entry, config)
                                        : mount_by_driver(filesystem, entry, config);
}

// The row that the entry asks for; null when whatever is found will do, which a code above those of
// the five means, too.
static const Filesystem* wanted_by(const MountEntry* entry)
{
    return entry->fstype <= CONF_DEV_FS_NTFS ? filesystem_of(entry->fstype) : nullptr;
}

// Mounts as the wanted filesystem, or as the first that takes it when none is wanted. Returns the
// filesystem mounted; null when there was none.
static const Filesystem* mount_entry(const MountEntry* entry, const ConfHotplug* config)
{
    const Filesystem* wanted = wanted_by(entry);
    const FilesystemList order = filesystem_order(config);
    for (int at = 0; at < order.count; at++) {
        const Filesystem* filesystem = order.of[at];
        if ((wanted == nullptr || filesystem == wanted) &&
            mount_as(*filesystem, entry, config) == 0)
            return filesystem;
    }
    return nullptr;
}

int vymount(MountEntry* entry, const ConfHotplug* config)
{
    if (make_node(entry) != 0)
        return -1;
    if (make_directory(entry) != 0)
        return -1;
    const Filesystem* filesystem = mount_entry(entry, config);
    if (filesystem == nullptr) {
        remove_places(entry);
        return -1;
    }
    entry->fstype = filesystem->code;
    if (filesystem->driver == nullptr) // a driver notes its mount itself
        mtab_append(entry->devnode, entry->mountpoint, filesystem->type,
                    is_readonly(entry->dev) ? "ro" : "rw");
    entry->mounted = 1;
    return 0;
}
