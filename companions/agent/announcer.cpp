#include "agent/announcer.h"

#include "agent/add_message.h"
#include "agent/survey.h"
#include "common/mountinfo.h"
#include "lib/log.h"

#include <stdio.h>
#include <string.h>

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

static bool is_free(const Drive& drive)
{
    return drive.disk.disk_length == 0;
}

// Lends the place of the name's disk among the drives; null for none.
static Drive* find_drive(Announcer* announcer, const BlockName& name)
{
    for (Drive& drive : announcer->drives) {
        if (!is_free(drive) && block_name_same_disk(drive.disk, name))
            return &drive;
    }
    return nullptr;
}

// The same, or a free place.
static Drive* find_or_take_drive(Announcer* announcer, const BlockName& name)
{
    Drive* place = find_drive(announcer, name);
    for (Drive& drive : announcer->drives) {
        if (place == nullptr && is_free(drive))
            place = &drive;
    }
    return place;
}

static void forget_drive(Drive* drive)
{
    medium_drop(&drive->look);
    drive->disk = {};
    drive->unread = drive->in_use = drive->silent = false;
}

static bool is_unread(Announcer* announcer, const BlockName& name)
{
    const Drive* drive = find_drive(announcer, name);
    return drive != nullptr && drive->unread;
}

// For a disk whose medium was changed, where all places are taken that of another that was not: its
// next walk asks again.
static Drive* take_drive_for_change(Announcer* announcer, const BlockName& name)
{
    Drive* place = find_or_take_drive(announcer, name);
    for (Drive& drive : announcer->drives) {
        if (place == nullptr && !drive.unread)
            place = &drive;
    }
    return place;
}

static void change_medium(Announcer* announcer, const BlockName& disk, uint64_t now)
{
    for (Device& device : announcer->devices) {
        if (is_announced(device) && block_name_same_disk(device.name, disk))
            take_step(&device, DEVICE_WENT);
    }
    MediumLook unattended;
    Drive* drive = take_drive_for_change(announcer, disk);
    if (drive == nullptr) // sysfs is believed
        return medium_ask(&unattended, disk, MEDIUM_IN_USE);
    forget_drive(drive); // an answer would be about another medium
    drive->disk = disk;
    drive->unread = true;
    drive->since = now;
    // An empty drive too: sysfs may show the size from before.
    medium_ask(&drive->look, disk, MEDIUM_IN_USE);
    announcer->drives_retry = {};
    retry_later(&announcer->drives_retry, now);
}

// Has the kernel look whether an empty drive has a medium by now, unless it is asked already. The
// answer is an event; its place only keeps one drive from being asked twice.
static void touch_medium(Announcer* announcer, const BlockName& disk)
{
    MediumLook unattended;
    Drive* drive = find_or_take_drive(announcer, disk);
    if (drive == nullptr)
        return medium_ask(&unattended, disk, MEDIUM_ANOTHER);
    if (!is_free(*drive))
        return;
    drive->disk = disk;
    medium_ask(&drive->look, disk, MEDIUM_ANOTHER);
}

static void tell_why_unread(Drive* drive, MediumAnswer answer, uint64_t now)
{
    const char* name = drive->disk.text;
    if (answer == MEDIUM_BUSY && !drive->in_use)
        VY_LOG(LOG_INFO, "%s not announced yet: the medium before is in use", name);
    drive->in_use = drive->in_use || answer == MEDIUM_BUSY;
    if (answer != MEDIUM_SILENT || drive->silent || now < drive->since + agent_reading)
        return;
    VY_LOG(LOG_NOTICE, "%s not announced yet: it does not answer", name);
    drive->silent = true;
}

static void ask_again(Drive* drive, uint64_t now)
{
    drive->since = now;
    medium_ask(&drive->look, drive->disk, MEDIUM_IN_USE);
}

// Takes answers, and asks again for the disks that were in use, or could not be asked about.
static void look_at_drives(Announcer* announcer, uint64_t now)
{
    const bool again = announcer->drives_retry.due != 0 && now >= announcer->drives_retry.due;
    bool any_unread = false;
    for (Drive& drive : announcer->drives) {
        if (is_free(drive))
            continue;
        const MediumAnswer answer = medium_answer(&drive.look);
        if (drive.unread)
            tell_why_unread(&drive, answer, now);
        if (answer == MEDIUM_READ && drive.unread)
            announcer_ask_for_walk(announcer);
        if (answer == MEDIUM_READ || (answer == MEDIUM_UNASKED && !drive.unread))
            forget_drive(&drive);
        else if (answer != MEDIUM_SILENT && again)
            ask_again(&drive, now);
        any_unread = any_unread || drive.unread;
    }
    if (again)
        retry_later(&announcer->drives_retry, now);
    if (!any_unread)
        announcer->drives_retry = {};
}

void announcer_end(Announcer* announcer)
{
    for (Drive& drive : announcer->drives)
        forget_drive(&drive);
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
    Drive* drive = is_disk ? find_drive(announcer, event.name) : nullptr;
    if (drive != nullptr)
        forget_drive(drive);
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
        touch_medium(announcer, device.name);
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
        if (is_unread(announcer, device.name))
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
    look_at_drives(announcer, now);
    if (daemon_known && announcer->walk_due && now >= announcer->walk.due)
        walk(announcer, now);
}

uint64_t announcer_due(const Announcer* announcer, bool daemon_known)
{
    uint64_t due = next_look(announcer);
    if (announcer->drives_retry.due != 0 && announcer->drives_retry.due < due)
        due = announcer->drives_retry.due;
    if (daemon_known && announcer->walk_due && announcer->walk.due < due)
        due = announcer->walk.due;
    return due;
}
