#include "core/refresh.h"

#include "config/filesystems.h"
#include "core/share_service.h"
#include "device/crtsec.h"
#include "lib/sys.h"
#include "records/conf_dev_file.h"
#include "records/config_file_dir.h"

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

void refresh_tables(const DaemonCtx* ctx, int dirty)
{
    const ConfHotplug* config = ctx->config;
    const ConfDevTableGuard table(conf_dev_create());
    if (!table)
        return;
    conf_dev_load(config->deviceconfigpath, table.get()); // what could be read is worked with
    if (dirty & DIRTY_ADDED)
        add_mounted_devices(table.get());
    touch_filesystems();
    conf_dir_save(config->smbconfigpath, table.get(), config->naswork);
    if (dirty & DIRTY_REMOVED) {
        drop_removed_entries();
        conf_dev_prune(table.get(), is_plugged);
    }
    conf_dev_save(config->deviceconfigpath, table.get());
    sys_sync();
    share_service_reload();
}
