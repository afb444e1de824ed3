#include "core/refresh.h"

#include "config/filesystems.h"
#include "core/share_service.h"
#include "device/crtsec.h"
#include "lib/log.h"
#include "lib/sys.h"
#include "records/conf_dev_file.h"
#include "records/config_file_dir.h"

#include <errno.h>

static constexpr char log_tag[] = "daemon";

static void add_mounted_devices(ConfDevTable* table)
{
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    while (crtsec_blk_next(&walk, &entry) == 0) {
        const HotplugDev* dev = entry->dev;
        conf_dev_add(table, dev->vid, dev->pid, dev->serial, hotplug_dev_partition(dev));
    }
}

// Wakes filesystems whose size the share service is about to ask for; every second entry: kept.
static void touch_filesystems()
{
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    for (bool second = false; crtsec_blk_next(&walk, &entry) == 0; second = !second) {
        if (!second && (entry->fstype == CONF_DEV_FS_UNKNOWN || entry->fstype == CONF_DEV_FS_FAT))
            (void)sys_statfs(entry->mountpoint);
    }
}

static void drop_removed_entries()
{
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    while (crtsec_blk_next(&walk, &entry) == 0) {
        if (entry->gone == 0)
            continue;
        crtsec_blk_drop(&walk);
        mount_entry_free(entry);
    }
}

// Whether a partition in the busy-device set has this record.
static bool is_plugged(const ConfDev* record)
{
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    while (crtsec_blk_next(&walk, &entry) == 0) {
        const HotplugDev* dev = entry->dev;
        if (conf_dev_cmp(record, dev->vid, dev->pid, dev->serial, hotplug_dev_partition(dev)) == 0)
            return true;
    }
    return false;
}

namespace {

enum class Settings {
    read,
    none,   // the file is not there, or nothing of root's: devices have default settings
    unread, // they are there, and must neither be replaced nor left out of account
};

} // namespace

// Reads the device file of a strict daemon. Whatever is wrong with it is told once.
static Settings load_trusted(DaemonCtx* ctx, ConfDevTable* table)
{
    const char* path = ctx->config->deviceconfigpath;
    const int result = path != nullptr ? conf_dev_load_whole(path, table) : -ENOMEM;
    if (result == 0 || result == -ENOENT) {
        ctx->told &= static_cast<uint8_t>(~TOLD_DEVICE_FILE);
        return Settings::read;
    }
    if ((ctx->told & TOLD_DEVICE_FILE) == 0)
        VY_LOG(LOG_ERR, "Error - %s is not read (err=%d)", path != nullptr ? path : "(null)",
               -result);
    ctx->told |= TOLD_DEVICE_FILE;
    return result == -EACCES ? Settings::none : Settings::unread;
}

static Settings load_settings(DaemonCtx* ctx, ConfDevTable* table)
{
    if (is_strict(ctx))
        return load_trusted(ctx, table);
    conf_dev_load(ctx->config->deviceconfigpath, table); // what could be read is worked with
    return Settings::read;
}

int refresh_tables(DaemonCtx* ctx, int dirty)
{
    const ConfHotplug* config = ctx->config;
    const ConfDevTableGuard table(conf_dev_create());
    if (!table)
        return 0;
    const Settings settings = load_settings(ctx, table.get());
    if (settings == Settings::unread)
        return -1;
    if (dirty & DIRTY_ADDED)
        add_mounted_devices(table.get());
    touch_filesystems();
    conf_dir_save(config->smbconfigpath, table.get(), config->naswork, is_strict(ctx));
    if (dirty & DIRTY_REMOVED) {
        drop_removed_entries();
        conf_dev_prune(table.get(), is_plugged);
    }
    if (settings == Settings::read)
        conf_dev_save(config->deviceconfigpath, table.get(), is_strict(ctx));
    sys_sync();
    share_service_reload();
    return 0;
}
