#include "core/request.h"

#include "core/evhook.h"
#include "core/refresh.h"
#include "core/share_service.h"
#include "device/crtsec.h"
#include "device/kinds.h"
#include "lib/log.h"
#include "lib/str.h"
#include "lib/vytime.h"
#include "mount/mount.h"
#include "records/config_file_dir.h"

#include <ctype.h>
#include <string.h>

static constexpr char log_tag[] = "daemon";
static constexpr uint32_t share_withdrawal_ms = 400; // for the share service to let go
static constexpr int any = -1;

namespace {

// The devices that a target names.
struct Selection {
    int major;      // `any` for both kinds
    int64_t lowest; // minors; 64 bits, so that a huge partition number stays huge
    int64_t highest;
    bool unbounded; // no highest minor
};

} // namespace

// The first busy entry of a major; null without one.
static const MountEntry* first_of_major(int major)
{
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    while (crtsec_blk_next(&walk, &entry) == 0) {
        if (entry->dev->major == major)
            return entry;
    }
    return nullptr;
}

// Selects by what stands behind the kind: a letter, and perhaps a number. Returns -1 when it is no
// letter, or nothing of the kind is there to tell how many minors a device has.
static int select_disk(const char* rest, Selection* selection)
{
    if (!isalpha(static_cast<unsigned char>(rest[0])))
        return -1;
    const MountEntry* first = first_of_major(selection->major);
    if (first == nullptr || first->dev->range == 0)
        return -1;
    const int64_t base =
        int64_t{toupper(static_cast<unsigned char>(rest[0])) - 'A'} * first->dev->range;
    const char* digits = rest + 1;
    int32_t partition = 0;
    selection->unbounded = false;
    if (*digits == '\0') {
        selection->lowest = base;
        selection->highest = base + first->dev->range - 1;
    } else if (str_to_long(digits, &partition, 10) == 0) {
        selection->lowest = base + partition;
        selection->highest = selection->lowest;
    } else { // kept: what is no number selects minor 0, whatever the letter
        selection->lowest = 0;
        selection->highest = 0;
    }
    return 0;
}

static int parse_target(const char* target, Selection* selection)
{
    *selection = {.major = any, .lowest = 0, .highest = any, .unbounded = true};
    if (strcmp(target, "all") == 0)
        return 0;
    for (const DeviceKind& kind : device_kinds) {
        const size_t length = strlen(kind.prefix);
        if (strncmp(target, kind.prefix, length) != 0)
            continue;
        selection->major = kind.major;
        return target[length] == '\0' ? 0 : select_disk(target + length, selection);
    }
    return -1;
}

static bool selects(const Selection& selection, const HotplugDev* dev)
{
    if (selection.major != any && dev->major != selection.major)
        return false;
    return selection.unbounded ||
           (dev->minor >= selection.lowest && dev->minor <= selection.highest);
}

// Returns -1 when the entry is not mounted afterwards; one that was mounted before is fine.
static int mount_entry(DaemonCtx* ctx, MountEntry* entry, const ConfHotplug* options)
{
    if (vymount(entry, options) != 0)
        return entry->mounted != 0 ? 0 : -1;
    VY_LOG(LOG_ERR, "mount %s %s", entry->devnode, entry->mountpoint);
    daemon_call_evhook(HOTPLUG_EVENT_MOUNT, entry->mountpoint, ctx);
    return 0;
}

// What was taken over has no name before the refresh that follows, and the share service may export
// it still under its old one: without a name it could not be told to let go.
static void name_what_was_adopted(DaemonCtx* ctx, const MountEntry* entry)
{
    if (ctx->config->adopt != 0 && entry->mounted != 0 && entry->sharename == nullptr)
        (void)refresh_tables(ctx, DIRTY_ADDED); // the one that follows is due as ever
}

// Returns -1 when the entry is still mounted afterwards.
static int unmount_entry(DaemonCtx* ctx, MountEntry* entry, int32_t force)
{
    daemon_call_evhook(HOTPLUG_EVENT_UNMOUNT, entry->mountpoint, ctx);
    name_what_was_adopted(ctx, entry);
    conf_dir_set_unmount_flg(ctx->config->smbconfigpath, entry->sharename, is_strict(ctx));
    share_service_reload();
    (void)vytime_msleep(share_withdrawal_ms);
    if (vyunmount(entry, static_cast<unsigned>(force), is_strict(ctx)) != 0)
        return entry->mounted == 0 ? 0 : -1;
    VY_LOG(LOG_ERR, "unmount %s %s", entry->devnode, entry->mountpoint);
    return 0;
}

int hotplug_mount_request(DaemonCtx* ctx, const char* target, HotplugAction action, int32_t force,
                          const ConfHotplug* options)
{
    Selection selection;
    if (parse_target(target, &selection) != 0)
        return -1;
    const bool mounting = action == HOTPLUG_ACTION_MOUNT;
    VY_LOG(LOG_DEBUG, "%s %s (%d %d-%d)", mounting ? "mount" : "unmount", target, selection.major,
           static_cast<int>(selection.lowest), static_cast<int>(selection.highest));
    int result = 0;
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    while (crtsec_blk_next(&walk, &entry) == 0) {
        if (!selects(selection, entry->dev))
            continue;
        if ((mounting ? mount_entry(ctx, entry, options) : unmount_entry(ctx, entry, force)) != 0)
            result = -1;
    }
    return result;
}
