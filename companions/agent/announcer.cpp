#include "agent/announcer.h"

#include "agent/add_message.h"
#include "agent/survey.h"
#include "common/mountinfo.h"
#include "lib/log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

static constexpr char log_tag[] = "announcer";

static void take_step(Device* device, DeviceEvent event)
{
    const DeviceState next = device_next(device->state, event);
    if (next == DEVICE_LEAVING && device->state != DEVICE_LEAVING)
        VY_LOG(LOG_INFO, "%s (%d:%d) has gone", device->name.text, device->major, device->minor);
    device->state = next;
}

static bool is_announced(const Device& device)
{
    return device.state == DEVICE_SENT || device.state == DEVICE_TOLD;
}

// ---- the devices ----

// Lends the device with these numbers; where there is none, an unseen one, in the place of one that
// went if need be. Null when there is no place.
static Device* find_or_make(Announcer* announcer, const BlockName& name, int32_t major,
                            int32_t minor)
{
    Device* place = device_find(announcer->devices, major, minor);
    if (place != nullptr)
        return place;
    for (Device& device : announcer->devices) {
        const bool went = device.state == DEVICE_GONE || device.state == DEVICE_PASSED;
        if (device.state == DEVICE_UNSEEN || (place == nullptr && went))
            place = &device;
        if (device.state == DEVICE_UNSEEN)
            break;
    }
    if (place != nullptr)
        *place = {.major = major, .minor = minor, .name = name};
    return place;
}

void announcer_forget(Announcer* announcer)
{
    for (Device& device : announcer->devices) {
        if (device.state != DEVICE_UNSEEN) // or all its pages were written
            device = {};
    }
    announcer->shown.count = 0;
    announcer_ask_for_walk(announcer);
}

// ---- media ----

// Returns a descriptor for the disk, or -1.
static int open_disk(const BlockName& disk, int flags)
{
    char path[block_name_size + 8];
    (void)snprintf(path, sizeof path, "/dev/%s", disk.text);
    return open(path, O_RDONLY | O_CLOEXEC | flags);
}

void announcer_touch_medium(const BlockName& disk)
{
    const FdGuard fd(open_disk(disk, 0));
}

// Has the kernel read the disk's partitions anew. Returns whether something of it is in use, which
// keeps it from that. Where it cannot be asked, sysfs is believed.
static bool is_busy(const BlockName& disk)
{
    const FdGuard fd(open_disk(disk, O_NONBLOCK)); // without a medium too
    return fd.get() >= 0 && ioctl(fd.get(), BLKRRPART) != 0 && errno == EBUSY;
}

// Lends the place of the name's disk among the changed ones, a free one for no name; null for none.
static BlockName* find_changed(Announcer* announcer, const BlockName& name)
{
    for (BlockName& disk : announcer->changed) {
        if (block_name_same_disk(disk, name))
            return &disk;
    }
    return nullptr;
}

static void change_medium(Announcer* announcer, const BlockName& disk, uint64_t now)
{
    for (Device& device : announcer->devices) {
        if (is_announced(device) && block_name_same_disk(device.name, disk))
            take_step(&device, DEVICE_WENT);
    }
    BlockName* place = find_changed(announcer, disk);
    if (place == nullptr)
        place = find_changed(announcer, {});
    const bool busy = is_busy(disk); // an empty drive too: sysfs may show the size from before
    if (place == nullptr)
        return;
    *place = busy ? disk : BlockName{};
    if (!busy)
        return;
    VY_LOG(LOG_INFO, "%s not announced yet: the medium before is in use", disk.text);
    announcer->changed_retry = {};
    retry_later(&announcer->changed_retry, now);
}

// Asks again for the disks that were in use.
static void read_changed(Announcer* announcer, uint64_t now)
{
    bool any_left = false;
    for (BlockName& disk : announcer->changed) {
        if (disk.disk_length > 0 && !is_busy(disk)) {
            disk = {};
            announcer_ask_for_walk(announcer);
        }
        any_left = any_left || disk.disk_length > 0;
    }
    retry_later(&announcer->changed_retry, now);
    if (!any_left)
        announcer->changed_retry = {};
}

// ---- events ----

void announcer_event(Announcer* announcer, const Uevent& event, uint64_t now)
{
    const bool is_disk = event.name.partition == 0;
    if (event.action == UEVENT_CHANGE && (!is_disk || !event.media_change))
        return;
    announcer_ask_for_walk(announcer);
    if (event.action == UEVENT_CHANGE)
        return change_medium(announcer, event.name, now);
    if (event.action != UEVENT_REMOVE)
        return;
    BlockName* kept = is_disk ? find_changed(announcer, event.name) : nullptr;
    if (kept != nullptr)
        *kept = {};
    // One of an unknown device is passed on too, once. One from before the device was read is about
    // what stood in its place: so it is with the partitions that the kernel reads anew when a
    // medium is changed.
    Device* device = find_or_make(announcer, event.name, event.major, event.minor);
    if (device != nullptr && (event.sequence == 0 || event.sequence > device->seen))
        take_step(device, DEVICE_WENT);
}

// ---- walks ----

void announcer_ask_for_walk(Announcer* announcer)
{
    announcer->walk_due = true;
    announcer->walk.due = 0;
}

// Whether sysfs shows the device that is announced.
static bool is_shown(const BlockList& shown, const Device& device)
{
    const BlockDevice* found = block_list_find(shown, device.name);
    if (found == nullptr || found->failure != 0)
        return found != nullptr; // nobody knows
    return !found->empty && found->identity == device.identity;
}

// Tells of a device that is not to be announced, unless the last walk has found the same.
static void refuse(Announcer* announcer, const BlockDevice& device)
{
    const BlockDevice* before = block_list_find(announcer->shown, device.name);
    // The kernel tells of a new medium only once until somebody has opened the disk, and of an
    // empty drive it may have told before anybody listened.
    if (device.empty)
        announcer_touch_medium(device.name);
    if (before == nullptr || strcmp(before->reason, device.reason) != 0)
        VY_LOG(device.verdict < 0 ? LOG_ERR : LOG_INFO, "%s not announced: %s", device.name.text,
               device.reason);
    if (device.verdict < 0)
        announcer->walk_due = true;
}

static void walk(Announcer* announcer, uint64_t now)
{
    BlockList list;
    const AgentSettings& settings = *announcer->settings;
    const int result = survey_take(settings, &announcer->devices, false, &list);
    if (result != 0) { // a list that may be short says nothing of what has gone
        if (announcer->walk.pause == 0)
            VY_LOG(LOG_ERR, "%s/block: %s", settings.sysfs, strerror(-result));
        announcer->shown.count = 0;
        return retry_later(&announcer->walk, now);
    }
    for (Device& device : announcer->devices) {
        if (is_announced(device) && !is_shown(list, device))
            take_step(&device, DEVICE_WENT);
    }
    announcer->walk_due = false;
    for (BlockDevice& device : list) {
        const Device* known = device_find(announcer->devices, device.major, device.minor);
        if (find_changed(announcer, device.name) != nullptr)
            device.verdict = 1; // it is not this medium's
        else if (known != nullptr && is_announced(*known) && device.verdict > 0)
            device.verdict = 0; // it has been
        else if (device.verdict != 0)
            refuse(announcer, device);
    }
    block_list_move(&list, &announcer->shown);
    if (announcer->walk_due)
        return retry_later(&announcer->walk, now);
    announcer->walk = {};
}

void announcer_repeat(Announcer* announcer, int32_t major, int32_t minor)
{
    Device* device = device_find(announcer->devices, major, minor);
    if (device == nullptr || !is_announced(*device))
        return;
    take_step(device, DEVICE_WENT);
    announcer_ask_for_walk(announcer);
}

// ---- messages ----

static Device* next_remove(Announcer* announcer)
{
    Device* next = nullptr;
    for (Device& device : announcer->devices) {
        const bool waits = device.state == DEVICE_LEAVING || device.state == DEVICE_PASSING;
        if (waits && (next == nullptr || (next->name.partition == 0 && device.name.partition > 0)))
            next = &device;
    }
    return next;
}

static BlockDevice* next_add(Announcer* announcer)
{
    for (BlockDevice& found : announcer->shown) {
        const Device* device = device_find(announcer->devices, found.major, found.minor);
        if (found.verdict == 0 && (device == nullptr || device->state != DEVICE_TOLD))
            return &found;
    }
    return nullptr;
}

bool announcer_has_message(Announcer* announcer)
{
    return next_remove(announcer) != nullptr || next_add(announcer) != nullptr;
}

bool announcer_take_message(Announcer* announcer, char (&text)[agent_message_size])
{
    announcer->end = DEVICE_TAKEN;
    announcer->out = next_remove(announcer);
    if (announcer->out != nullptr)
        return remove_message_format(announcer->out->major, announcer->out->minor, text) > 0;
    BlockDevice* found = next_add(announcer);
    if (found == nullptr)
        return false;
    Device* device = find_or_make(announcer, found->name, found->major, found->minor);
    if (device == nullptr) {
        VY_LOG(LOG_ERR, "%s not announced: more than %u devices", found->name.text,
               agent_table_limit);
        found->verdict = 1;
        return announcer_take_message(announcer, text);
    }
    if (device->state != DEVICE_SENT)
        VY_LOG(LOG_INFO, "%s (%d:%d) is announced", found->name.text, found->major, found->minor);
    take_step(device, DEVICE_OUT);
    device->name = found->name;
    device->identity = found->identity;
    device->seen = found->seen;
    device->looks = 0;
    announcer->end = DEVICE_ADDED;
    announcer->out = device;
    return add_message_format(*found, text) > 0;
}

// ---- time ----

static void plan_look(Device* device, uint64_t now)
{
    const bool wanted = device->state == DEVICE_GONE && device->looks < agent_looks;
    device->look_due = wanted ? now + (uint64_t{agent_look_first} << device->looks++) : 0;
}

void announcer_delivered(Announcer* announcer, uint64_t now)
{
    take_step(announcer->out, announcer->end);
    if (announcer->end == DEVICE_TAKEN)
        plan_look(announcer->out, now);
}

// When it is to be looked for what went and is still mounted.
static uint64_t next_look(const Announcer* announcer)
{
    uint64_t next = agent_never;
    for (const Device& device : announcer->devices) {
        if (device.state == DEVICE_GONE && device.look_due != 0 && device.look_due < next)
            next = device.look_due;
    }
    return next;
}

static void look_for_mounts(Announcer* announcer, uint64_t now)
{
    char path[agent_path_size];
    MountinfoGuard mounts;
    (void)snprintf(path, sizeof path, "%s/self/mountinfo", announcer->settings->proc);
    const int failure = mountinfo_load(path, mounts.out());
    for (Device& device : announcer->devices) {
        if (device.state != DEVICE_GONE || device.look_due == 0 || device.look_due > now)
            continue;
        device.look_due = 0;
        if (failure != 0) {
            plan_look(&device, now);
        } else if (mountinfo_find_device(mounts.get(), device.major, device.minor,
                                         announcer->settings->mounts) != nullptr) {
            VY_LOG(LOG_NOTICE, "%s (%d:%d) is still mounted", device.name.text, device.major,
                   device.minor);
            take_step(&device, DEVICE_MOUNTED);
        }
    }
}

void announcer_advance(Announcer* announcer, bool daemon_known, uint64_t now)
{
    if (now >= next_look(announcer))
        look_for_mounts(announcer, now);
    if (announcer->changed_retry.due != 0 && now >= announcer->changed_retry.due)
        read_changed(announcer, now);
    if (daemon_known && announcer->walk_due && now >= announcer->walk.due)
        walk(announcer, now);
}

uint64_t announcer_due(const Announcer* announcer, bool daemon_known)
{
    uint64_t due = next_look(announcer);
    if (announcer->changed_retry.due != 0 && announcer->changed_retry.due < due)
        due = announcer->changed_retry.due;
    if (daemon_known && announcer->walk_due && announcer->walk.due < due)
        due = announcer->walk.due;
    return due;
}
