#include "agent/announcer.h"

#include "agent/add_message.h"
#include "common/mountinfo.h"
#include "lib/log.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

static constexpr char log_tag[] = "announcer";
static constexpr size_t path_size = agent_folder_size + 32;

void announcer_init(Announcer* announcer, const SurveyView& view, Courier* courier)
{
    *announcer = {};
    announcer->view = view;
    announcer->view.announced = &announcer->table;
    announcer->courier = courier;
}

// ---- the queue ----

// Has a walk made a little later.
static void look_again(Announcer* announcer)
{
    announcer->walk_due = true;
    announcer->courier->visit = true;
    courier_pause(announcer->courier, courier_now());
}

// Drops all that waits, but for what the courier has under way.
static void lose_queue(Announcer* announcer)
{
    Courier* courier = announcer->courier;
    const uint32_t kept = courier->under_way ? 1 : 0;
    const uint32_t id = kept != 0 ? message_queue_head(&courier->queue)->id : 0;
    message_queue_cut(&courier->queue, kept);
    announced_lose_queue(&announcer->table, id);
    look_again(announcer);
}

// Returns whether the message waits now. When it does not, the table has changed.
static bool put_message(Announcer* announcer, MessageKind kind, uint32_t id, const char* text)
{
    const int result = message_queue_put(&announcer->courier->queue, kind, id, text);
    if (result == 0)
        return true;
    VY_LOG(LOG_ERR, "waiting messages dropped, all will be looked through (%s)", strerror(-result));
    lose_queue(announcer);
    return false;
}

static bool put_add(Announcer* announcer, const Announced* entry, const BlockDevice& device)
{
    char text[agent_message_size];
    (void)add_message_format(device, text);
    return put_message(announcer, MESSAGE_ADD, entry->id, text);
}

static bool put_remove(Announcer* announcer, uint32_t id, int32_t major, int32_t minor)
{
    char text[agent_message_size];
    (void)remove_message_format(major, minor, text);
    return put_message(announcer, MESSAGE_REMOVE, id, text);
}

// ---- one device ----

static bool take_back(Announcer* announcer, Announced* entry)
{
    char name[block_name_size];
    block_name_format(entry->name, name);
    VY_LOG(LOG_INFO, "%s (%d:%d) has gone", name, entry->major, entry->minor);
    entry->state = ANNOUNCED_LEAVING;
    return put_remove(announcer, entry->id, entry->major, entry->minor);
}

// Makes sure that nothing with these numbers stands in a new device's way. Returns whether it can
// be announced: false for one that is announced already.
static bool make_way(Announcer* announcer, const BlockDevice& device, uint64_t identity)
{
    AnnouncedTable* table = &announcer->table;
    Announced* lost = announced_find_state(table, device.major, device.minor, ANNOUNCED_LOST);
    if (lost != nullptr && !take_back(announcer, lost))
        return false;
    Announced* entry = announced_find(table, device.major, device.minor);
    if (entry == nullptr)
        return true;
    if (entry->identity == identity)
        return false;
    return take_back(announcer, entry); // another device in its place
}

// What comes and goes while the daemon stands still fills the table too.
static void find_no_place(Announcer* announcer, const char* name)
{
    const int leaving = announced_leaving(&announcer->table);
    if (leaving == 0) {
        VY_LOG(LOG_ERR, "%s not announced: more than %u devices", name, agent_table_limit);
        return;
    }
    VY_LOG(LOG_WARNING, "%s not announced yet: %u devices come and go", name, agent_table_limit);
    if (leaving > 1)
        lose_queue(announcer);
    else
        look_again(announcer);
}

static void announce(Announcer* announcer, const BlockDevice& device, uint64_t seen)
{
    const uint64_t identity = block_device_identity(device);
    if (!make_way(announcer, device, identity))
        return;
    char name[block_name_size];
    block_name_format(device.name, name);
    Announced* entry = announced_put(&announcer->table, ANNOUNCED_COMING, true, device.name,
                                     device.major, device.minor);
    if (entry == nullptr)
        return find_no_place(announcer, name);
    entry->identity = identity;
    entry->seen = seen;
    VY_LOG(LOG_INFO, "%s (%d:%d) is announced", name, device.major, device.minor);
    (void)put_add(announcer, entry, device);
}

// Whether the daemon is told of exactly this device.
static bool is_announced(Announcer* announcer, const BlockDevice& device)
{
    const Announced* entry = announced_find(&announcer->table, device.major, device.minor);
    return entry != nullptr && entry->identity == block_device_identity(device);
}

// Announces what stands in sysfs under that name, if it is to be.
static void consider(Announcer* announcer, const BlockName& name)
{
    if (changed_keeps(&announcer->changed, name))
        return; // it is not this medium's
    BlockDevice device;
    char reason[survey_reason_size];
    char text[block_name_size];
    const uint64_t seen = block_event_count(announcer->view.sysfs);
    const int result = survey_device(announcer->view, name, &device, reason);
    if (result == -ENOENT)
        return; // its remove event follows
    if (result == 0)
        return announce(announcer, device, seen);
    if (result > 0 && is_announced(announcer, device))
        return;
    // The kernel tells of a new medium only once until somebody has opened the disk, and of an
    // empty drive it may have told before anybody listened.
    if (result > 0 && device.empty)
        medium_touch(name);
    block_name_format(name, text);
    VY_LOG(result > 0 || announcer->in_trouble ? LOG_INFO : LOG_ERR, "%s not announced: %s", text,
           reason);
    if (result > 0)
        return;
    announcer->in_trouble = true;
    look_again(announcer);
}

// Announces what stands in sysfs of a disk.
static void consider_disk(Announcer* announcer, const BlockName& disk)
{
    static BlockList parts; // large for a stack
    if (block_list_disk(announcer->view.sysfs, disk, &parts) != 0)
        return;
    for (uint32_t i = 0; i < parts.count; i++)
        consider(announcer, parts.names[i]);
}

// ---- events ----

static void event_add(Announcer* announcer, const Uevent& event)
{
    int32_t major = 0;
    int32_t minor = 0;
    const int result = block_numbers(announcer->view.sysfs, event.name, &major, &minor);
    const bool is_other = result == 0 && (major != event.major || minor != event.minor);
    if (!is_other) // else another device has its name by now, and that one's event follows
        consider(announcer, event.name);
}

// A remove event is passed on for unknown devices too, but once only.
static void pass_on(Announcer* announcer, const Uevent& event)
{
    AnnouncedTable* table = &announcer->table;
    static constexpr AnnouncedState passed[] = {ANNOUNCED_LEAVING, ANNOUNCED_LOST, ANNOUNCED_GONE};
    for (const AnnouncedState state : passed) {
        if (announced_find_state(table, event.major, event.minor, state) != nullptr)
            return;
    }
    const Announced* entry =
        announced_put(table, ANNOUNCED_LEAVING, false, event.name, event.major, event.minor);
    (void)put_remove(announcer, entry != nullptr ? entry->id : 0, event.major, event.minor);
}

static void event_remove(Announcer* announcer, const Uevent& event)
{
    if (event.name.partition == 0)
        changed_drop(&announcer->changed, event.name);
    Announced* entry = announced_find(&announcer->table, event.major, event.minor);
    if (entry == nullptr)
        return pass_on(announcer, event);
    // An event from before the device was read is about what stood in its place: so it is with the
    // partitions that the kernel reads anew when a medium is changed.
    if (event.sequence == 0 || event.sequence > entry->seen)
        (void)take_back(announcer, entry);
}

// Takes back what is announced of the disk: its partitions, or itself. Returns false when messages
// were lost.
static bool take_back_disk(Announcer* announcer, const BlockName& disk, bool partitions)
{
    for (Announced& entry : announcer->table.entries) {
        if (!announced_is_here(&entry) || !block_name_same_disk(entry.name, disk))
            continue;
        if ((entry.name.partition > 0) == partitions && !take_back(announcer, &entry))
            return false;
    }
    return true;
}

static void event_media_change(Announcer* announcer, const BlockName& disk)
{
    const bool waits =
        take_back_disk(announcer, disk, true) && take_back_disk(announcer, disk, false);
    // An empty drive too: the size that sysfs shows may be the one from before.
    if (!changed_read(&announcer->changed, disk, courier_now())) {
        char name[block_name_size];
        block_name_format(disk, name);
        VY_LOG(LOG_INFO, "%s not announced yet: the medium before is in use", name);
    }
    if (waits) // else a walk is due
        consider_disk(announcer, disk);
}

void announcer_event(Announcer* announcer, const Uevent& event)
{
    switch (event.action) {
    case UEVENT_ADD:
        return event_add(announcer, event);
    case UEVENT_REMOVE:
        return event_remove(announcer, event);
    case UEVENT_CHANGE:
        if (event.media_change && event.name.partition == 0)
            event_media_change(announcer, event.name);
        return;
    }
}

// ---- walks ----

// Whether what the entry stands for has gone from sysfs.
static bool has_left(const Announcer* announcer, const Announced* entry)
{
    if (entry->state == ANNOUNCED_LOST)
        return true;
    if (!announced_is_here(entry))
        return false;
    BlockDevice device;
    const int result = block_device_read(announcer->view.sysfs, entry->name, &device);
    if (result != 0)
        return result == -ENOENT;
    return device.empty || block_device_identity(device) != entry->identity;
}

// Returns false when messages were lost.
static bool take_back_left(Announcer* announcer, bool partitions)
{
    for (Announced& entry : announcer->table.entries) {
        if ((entry.name.partition > 0) == partitions && has_left(announcer, &entry) &&
            !take_back(announcer, &entry))
            return false;
    }
    return true;
}

void announcer_walk(Announcer* announcer)
{
    static BlockList list; // large for a stack
    const bool was_in_trouble = announcer->in_trouble;
    announcer->walk_due = false;
    const int result = block_list_all(announcer->view.sysfs, &list);
    if (result != 0)
        VY_LOG(was_in_trouble ? LOG_INFO : LOG_ERR, "%s/block: %s", announcer->view.sysfs,
               strerror(-result));
    if (result != 0 && result != -E2BIG) {
        announcer->in_trouble = true;
        return look_again(announcer); // a list that may be short says nothing of what has gone
    }
    if (!take_back_left(announcer, true) || !take_back_left(announcer, false))
        return;
    for (uint32_t i = 0; i < list.count; i++)
        consider(announcer, list.names[i]);
    if (!announcer->walk_due)
        announcer->in_trouble = false;
}

// ---- what went, and is still mounted ----

static uint64_t next_check(const Announcer* announcer)
{
    uint64_t next = 0;
    for (const Announced& entry : announcer->table.entries) {
        if (entry.state == ANNOUNCED_GONE && entry.due != 0 && (next == 0 || entry.due < next))
            next = entry.due;
    }
    return next;
}

static void plan_check(Announcer* announcer, Announced* entry)
{
    const bool wanted = entry->ours && entry->checks < agent_checks;
    entry->due = wanted ? courier_now() + (uint64_t{agent_check_first} << entry->checks++) : 0;
    announcer->check_due = next_check(announcer);
}

// Whether the daemon has been told of these numbers, or will be, since the entry went.
static bool is_overtaken(Announcer* announcer, const Announced* entry)
{
    AnnouncedTable* table = &announcer->table;
    const int32_t major = entry->major;
    const int32_t minor = entry->minor;
    return announced_find(table, major, minor) != nullptr ||
           announced_find_state(table, major, minor, ANNOUNCED_LEAVING) != nullptr ||
           announced_find_state(table, major, minor, ANNOUNCED_LOST) != nullptr;
}

static bool is_mounted(const Announcer* announcer, const Announced* entry, const Mountinfo* mounts)
{
    for (size_t i = 0; i < mounts->count; i++) {
        const MountinfoEntry& mount = mounts->entries[i];
        if (mount.major == static_cast<uint32_t>(entry->major) &&
            mount.minor == static_cast<uint32_t>(entry->minor) &&
            mountinfo_is_below(mount.directory, announcer->view.mount_directory))
            return true;
    }
    return false;
}

// `mounts` is null when they could not be read.
static void check(Announcer* announcer, Announced* entry, const Mountinfo* mounts)
{
    entry->due = 0;
    if (is_overtaken(announcer, entry))
        return;
    if (mounts == nullptr)
        return plan_check(announcer, entry);
    if (!is_mounted(announcer, entry, mounts))
        return;
    char name[block_name_size];
    block_name_format(entry->name, name);
    VY_LOG(LOG_NOTICE, "%s (%d:%d) is still mounted", name, entry->major, entry->minor);
    (void)take_back(announcer, entry); // where it is lost, a walk takes it back
}

static void check_gone(Announcer* announcer, uint64_t now)
{
    if (announcer->check_due == 0 || now < announcer->check_due)
        return;
    char path[path_size];
    (void)snprintf(path, sizeof path, "%s/self/mountinfo", announcer->view.proc);
    MountinfoGuard mounts;
    (void)mountinfo_load(path, mounts.out()); // stays null
    for (Announced& entry : announcer->table.entries) {
        if (entry.state == ANNOUNCED_GONE && entry.due != 0 && entry.due <= now)
            check(announcer, &entry, mounts.get());
    }
    announcer->check_due = next_check(announcer);
}

// ---- time ----

static void read_changed(Announcer* announcer, uint64_t now)
{
    BlockName read[agent_changed_limit];
    const uint32_t count = changed_read_again(&announcer->changed, now, read);
    for (uint32_t i = 0; i < count && !announcer->walk_due; i++)
        consider_disk(announcer, read[i]);
}

void announcer_advance(Announcer* announcer, uint64_t now)
{
    check_gone(announcer, now);
    read_changed(announcer, now);
}

int announcer_timeout(const Announcer* announcer, uint64_t now)
{
    uint64_t due = announcer->check_due;
    if (announcer->changed.count > 0 && (due == 0 || announcer->changed.due < due))
        due = announcer->changed.due;
    if (due == 0)
        return -1;
    return due > now ? static_cast<int>(due - now) : 0;
}

// ---- the daemon ----

void announcer_forget(Announcer* announcer)
{
    announcer->check_due = 0;
    courier_hang_up(announcer->courier);
    message_queue_cut(&announcer->courier->queue, 0);
    announced_clear(&announcer->table);
}

void announcer_delivered(Announcer* announcer, const QueuedMessage* message)
{
    Announced* entry = announced_find_id(&announcer->table, message->id);
    if (entry == nullptr)
        return;
    if (message->kind == MESSAGE_ADD && entry->state == ANNOUNCED_COMING)
        entry->state = ANNOUNCED_TOLD;
    if (message->kind != MESSAGE_REMOVE)
        return;
    entry->state = ANNOUNCED_GONE;
    plan_check(announcer, entry);
}
