#include "core/command.h"

#include "core/evhook.h"
#include "core/message.h"
#include "core/request.h"
#include "device/kinds.h"
#include "lib/guard.h"
#include "lib/log.h"
#include "lib/socket_unix.h"
#include "lib/vytime.h"
#include "mount/adopt.h"
#include "mount/mount.h"
#include "records/config_file_dir.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static constexpr char log_tag[] = "daemon";
static constexpr int disk_letters = 26;
static constexpr size_t name_size = 16; // bytes with the NUL, as is the next
static constexpr size_t path_size = 256;
static constexpr int answer_timeout_ms = 1500;

using EntryGuard = Guard<MountEntry, mount_entry_free>;

// ---- add ----

// Whether the disk has partitions, which come as messages of their own. Looks for "sd" names for
// every kind of device, kept: a card goes on whatever partitions it has, unless the disk of the
// same letter has some.
static bool has_partitions(const HotplugDev* dev)
{
    const auto letter = static_cast<char>('a' + hotplug_dev_index(dev));
    for (int n = 1; n < dev->range; n++) {
        char path[64];
        (void)snprintf(path, sizeof path, "/sys/block/sd%c/sd%c%d", letter, letter, n);
        if (access(path, R_OK) == 0)
            return true;
    }
    return false;
}

// Makes "<directory>/<name>". Returns owned; null when it is too long (the limit is one more than
// fits, kept) or memory runs out.
static char* join_path(const char* directory, const char* name)
{
    if (directory == nullptr)
        return nullptr;
    char path[path_size];
    const int length = snprintf(path, sizeof path, "%s/%s", directory, name);
    if (length < 0 || length > static_cast<int>(path_size))
        return nullptr;
    return strdup(path);
}

// Gives the entry its node and directory.
static int name_entry(MountEntry* entry, const ConfHotplug* config)
{
    const HotplugDev* dev = entry->dev;
    const int index = dev->minor < 0 ? -1 : hotplug_dev_index(dev);
    if (index < 0 || index >= disk_letters) {
        VY_LOG(LOG_ERR, "Out of Device Range(%d)", index);
        return -1;
    }
    const DeviceKind* kind = device_kind(dev->major);
    if (kind == nullptr)
        return -1;
    char name[name_size];
    (void)snprintf(name, sizeof name, "%s%c%d", kind->prefix, 'a' + index,
                   hotplug_dev_partition(dev));
    entry->devnode = join_path(config->devicepath, name);
    entry->mountpoint = join_path(config->mountpath, name);
    return entry->devnode != nullptr && entry->mountpoint != nullptr ? 0 : -1;
}

// Returns owned: an entry for a copy of the description, which takes its strings over; null when
// memory runs out.
static MountEntry* create_entry(HotplugDev* dev)
{
    MemGuard<HotplugDev> copy(static_cast<HotplugDev*>(malloc(sizeof(HotplugDev))));
    if (!copy)
        return nullptr;
    auto* entry = static_cast<MountEntry*>(calloc(1, sizeof(MountEntry)));
    if (entry == nullptr)
        return nullptr;
    *copy.get() = *dev;
    dev->vname = nullptr;
    dev->pname = nullptr;
    dev->serial = nullptr;
    entry->dev = copy.take();
    return entry;
}

// The first entry of that device; null without one.
static MountEntry* find_entry(const HotplugDev* dev)
{
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    while (crtsec_blk_next(&walk, &entry) == 0) {
        if (entry->dev->major == dev->major && entry->dev->minor == dev->minor)
            return entry;
    }
    return nullptr;
}

// Takes over what an earlier daemon left mounted, where that is wanted and it is nobody's yet. The
// hook has heard of such a mount.
static int adopt_device(const MountEntry* known, MountEntry* entry, const ConfHotplug* config)
{
    if (config->adopt == 0 || known != nullptr || vyadopt(entry, config) != 0)
        return -1;
    VY_LOG(LOG_ERR, "adopt %s %s", entry->devnode, entry->mountpoint);
    return 0;
}

static int mount_device(DaemonCtx* ctx, MountEntry* entry)
{
    if (vymount(entry, ctx->config) != 0)
        return -1;
    VY_LOG(LOG_ERR, "mount %s %s", entry->devnode, entry->mountpoint);
    daemon_call_evhook(HOTPLUG_EVENT_ADD, entry->mountpoint, ctx);
    return 0;
}

static int add_device(DaemonCtx* ctx, HotplugDev* dev)
{
    const ConfHotplug* config = ctx->config;
    if (hotplug_dev_partition(dev) == 0 && dev->range >= 2 && has_partitions(dev))
        return -1;
    const MountEntry* known = find_entry(dev);
    EntryGuard entry(create_entry(dev));
    if (!entry)
        return -1;
    if (name_entry(entry.get(), config) != 0)
        return -1;
    if (adopt_device(known, entry.get(), config) != 0 && mount_device(ctx, entry.get()) != 0)
        return -1;
    if (crtsec_blk_add(entry.get()) != 0)
        return -1; // it stays mounted
    (void)entry.take();
    return DIRTY_ADDED;
}

// ---- remove ----

// The entry stays in the set until the next refresh has taken it out of the files.
static int remove_device(DaemonCtx* ctx, const HotplugDev* dev)
{
    MountEntry* entry = find_entry(dev);
    if (entry == nullptr)
        return -1;
    if (entry->mounted == 0) {
        entry->gone = 1;
        VY_LOG(LOG_ERR, "remove mount point %s %s", entry->devnode, entry->mountpoint);
        return DIRTY_REMOVED;
    }
    daemon_call_evhook(HOTPLUG_EVENT_REMOVE, entry->mountpoint, ctx);
    conf_dir_set_unmount_flg(ctx->config->smbconfigpath, entry->sharename, is_strict(ctx));
    const int result = vyunmount(entry, 1, is_strict(ctx));
    entry->gone = 1;
    if (result != 0) {
        VY_LOG(LOG_ERR, "faild unmount %s %s", entry->devnode, entry->mountpoint);
        return -1;
    }
    VY_LOG(LOG_ERR, "unmount %s %s", entry->devnode, entry->mountpoint);
    return DIRTY_REMOVED;
}

// ---- mount and unmount requests ----

// A request plugs and pulls nothing, so its result never marks the tables.
static int answer_request(DaemonCtx* ctx, const HotplugCmd* cmd, HotplugAction action,
                          const ControlMessage* message)
{
    const int result =
        hotplug_mount_request(ctx, message->target, action, message->force, ctx->config);
    if (cmd->fd == -1)
        return -1;
    const char* answer = result == 0 ? "success" : "faild"; // kept: the word clients know
    // A client that has gone is not waited for.
    (void)unix_send(cmd->fd, answer, strlen(answer) + 1, MSG_NOSIGNAL, answer_timeout_ms);
    return -1;
}

// ---- one command ----

static void wait_until_due(uint64_t due)
{
    vytime now;
    if (due == 0 || vytime_get(&now, CLOCK_MONOTONIC) != 0 || vytime_count(now) >= due)
        return;
    (void)vytime_usleep(static_cast<uint32_t>(due - vytime_count(now)));
}

static int act(DaemonCtx* ctx, const HotplugCmd* cmd, HotplugAction action, ControlMessage* message)
{
    switch (action) {
    case HOTPLUG_ACTION_ADD:
        return add_device(ctx, &message->dev);
    case HOTPLUG_ACTION_REMOVE:
        return remove_device(ctx, &message->dev);
    case HOTPLUG_ACTION_MOUNT:
    case HOTPLUG_ACTION_UNMOUNT:
        return answer_request(ctx, cmd, action, message);
    case HOTPLUG_ACTION_UNKNOWN:
        break;
    }
    return 0;
}

int command_handle(DaemonCtx* ctx, const HotplugCmd* cmd)
{
    wait_until_due(cmd->due);
    if (cmd->text == nullptr)
        return 0;
    const HotplugAction action = message_action(cmd->text);
    if (action == HOTPLUG_ACTION_UNKNOWN)
        return 0;
    ControlMessage message;
    const int result =
        message_parse(cmd->text, &message) == 0 ? act(ctx, cmd, action, &message) : -1;
    message_clear(&message);
    return result;
}
