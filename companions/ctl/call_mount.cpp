#include "ctl/call_mount.h"

#include "ctl/call_status.h"
#include "ctl/drive.h"
#include "ctl/interrupt.h"
#include "ctl/other_use.h"
#include "ctl/requests.h"
#include "ctl/target.h"
#include "lib/str.h"

#include <ctype.h>
#include <errno.h>
#include <string.h>

// ---- mount, unmount ----

static int mount_one(const CallArgs& args, const Item& item)
{
    char directory[PATH_MAX];
    const bool before = request_is_mounted(*args.setup, item, directory);
    const ExitStatus status = before ? EXIT_DONE : request_mount(*args.setup, item);
    if (status == EXIT_DONE)
        text_print(args.out.out, "%s is mounted%s: %s\n", item.name, before ? " already" : "",
                   directory);
    return status;
}

// Tries until it is free, for as long as --wait says.
static int unmount_one(const CallArgs& args, const Item& item)
{
    char directory[PATH_MAX];
    if (!request_is_mounted(*args.setup, item, directory)) {
        text_print(args.out.out, "%s is not mounted\n", item.name);
        return EXIT_DONE;
    }
    if (args.force)
        (void)request_wait_free(item, 0, true); // tells who loses it
    else if (args.wait_s > 0 && !request_wait_free(item, args.wait_s, true))
        return EXIT_BUSY;
    const ExitStatus status = request_unmount(*args.setup, item, args.force);
    if (status == EXIT_DONE)
        text_print(args.out.out, "%s is unmounted\n", item.name);
    else if (status == EXIT_BUSY && request_wait_free(item, 0, true))
        text_print(stderr, "%s could not be unmounted; nobody was seen to hold it\n", item.name);
    else if (status == EXIT_FAILED)
        complain("the service does not answer");
    return status;
}

// Calls `act` for each partition that the target names. Returns the first status that is not
// EXIT_DONE.
static int for_each(const CallArgs& args, const Targets& targets,
                    int (*act)(const CallArgs&, const Item&))
{
    int status = EXIT_DONE;
    size_t done = 0;
    for (size_t i = 0; i < targets.count; i++) {
        const Item& item = *targets.items[i];
        if (item.name[0] == '\0')
            continue;
        const int result = act(args, item);
        status = status == EXIT_DONE ? result : status;
        done++;
    }
    if (done > 0)
        return status;
    complain("%s is not plugged", args.words[0]);
    return EXIT_NO_DISK;
}

// Lets the word stand for several only where it names a disk.
static int find(const CallArgs& args, const View& view, Targets* targets)
{
    if (targets_find(view, args.words[0], targets) != 0)
        return complain_errno(nullptr, ENOMEM);
    if (targets->count == 0)
        return target_missing(args.words[0]);
    int status = EXIT_DONE;
    if (targets->count > 1 && !targets->disk)
        (void)target_find_one(view, args.words[0], &status); // tells which
    return status;
}

// Looks around, and finds what the target names while the service runs.
static int find_with_service(const CallArgs& args, View* view, Targets* targets)
{
    const int status = look(*args.setup, view);
    if (status != EXIT_DONE)
        return status;
    if (!view->service_runs) {
        complain("the service is not running");
        return EXIT_NO_SERVICE;
    }
    return find(args, *view, targets);
}

static int act_on_targets(const CallArgs& args, int (*act)(const CallArgs&, const Item&))
{
    View view;
    Targets targets = {};
    int status = find_with_service(args, &view, &targets);
    if (status == EXIT_DONE)
        status = for_each(args, targets, act);
    targets_end(&targets);
    view_end(&view);
    return status;
}

int call_mount(const CallArgs& args)
{
    return act_on_targets(args, mount_one);
}

int call_unmount(const CallArgs& args)
{
    return act_on_targets(args, unmount_one);
}

// ---- eject ----

namespace {

// A disk and what is mounted of it.
struct Drive {
    char name[disk_name_size]; // the service's, or the kernel's
    const DiskPart* disk;      // null where sysfs does not show it
    Targets parts;
};

} // namespace

static const DiskPart* whole_disk(const View& view, const Item& item)
{
    for (size_t i = 0; item.part != nullptr && i < view.disks->count; i++) {
        const DiskPart& part = view.disks->parts[i];
        if (part.partition == 0 && strcmp(part.disk, item.part->disk) == 0)
            return &part;
    }
    return nullptr;
}

// Finds the disk that the item is on, and all items there.
static int find_drive(const View& view, const Item& item, Drive* drive)
{
    drive->disk = whole_disk(view, item);
    str_ncpy(drive->name, item.name, sizeof drive->name);
    size_t length = strlen(drive->name);
    while (length > 0 && isdigit(static_cast<unsigned char>(drive->name[length - 1])))
        drive->name[--length] = '\0';
    drive->parts.items = static_cast<const Item**>(calloc(view.count + 1, sizeof(void*)));
    if (drive->parts.items == nullptr)
        return -ENOMEM;
    for (size_t i = 0; i < view.count; i++) {
        if (view.items[i].name[0] != '\0' && item_is_on_disk(view.items[i], drive->name))
            drive->parts.items[drive->parts.count++] = &view.items[i];
    }
    return 0;
}

// Whether nobody holds anything of the disk; tells who does.
static bool is_free(const CallArgs& args, const Drive& drive)
{
    bool none = true;
    for (size_t i = 0; i < drive.parts.count; i++) {
        const Item* item = drive.parts.items[i];
        if (item != nullptr && item->mount != nullptr &&
            !request_wait_free(*item, args.wait_s > 0 ? args.wait_s : 0, true))
            none = false;
    }
    return none;
}

// Mounts again what was unmounted, so that the disk stays whole.
static void mount_again(const CallArgs& args, const Drive& drive, size_t count)
{
    bool whole = true;
    for (size_t i = 0; i < count; i++) {
        const Item* item = drive.parts.items[i];
        if (item != nullptr && item->mount != nullptr)
            whole &= request_mount(*args.setup, *item) == EXIT_DONE; // else it is told
    }
    if (whole)
        text_print(stderr, "%s stays mounted\n", drive.name);
}

// Unmounts all partitions or none.
static int unmount_all(const CallArgs& args, const Drive& drive)
{
    for (size_t i = 0; i < drive.parts.count; i++) {
        const Item* item = drive.parts.items[i];
        ExitStatus status = EXIT_DONE;
        if (item != nullptr && item->mount != nullptr)
            status = request_unmount(*args.setup, *item, false);
        if (status == EXIT_DONE && !interrupt_waits())
            continue;
        if (status == EXIT_BUSY)
            (void)request_wait_free(*item, 0, true);
        mount_again(args, drive, i + 1);
        return status == EXIT_DONE ? EXIT_FAILED : status;
    }
    return EXIT_DONE;
}

static int switch_off(const CallArgs& args, const View& view, const Drive& drive)
{
    if (drive.disk == nullptr) {
        text_print(args.out.out, "%s is unmounted: safe to pull\n", drive.name);
        return EXIT_DONE;
    }
    bool port_off = false;
    int result = drive_flush(*drive.disk);
    if (result == 0)
        result = drive_switch_off(args.setup->paths.sysfs, *view.disks, *drive.disk, &port_off);
    const bool card = drive.disk->disk[0] == 'm'; // a card's slot has nothing to be switched off
    if (result == 0 || (card && result == -EACCES) || result == -ENOENT || result == -ENODEV ||
        result == -ENXIO) {
        text_print(args.out.out, "%s is unmounted%s: safe to pull\n", drive.name,
                   port_off      ? " and switched off"
                   : result == 0 ? " and gone from the machine"
                                 : "");
        return EXIT_DONE;
    }
    complain("%s is unmounted, but not switched off: %s", drive.name, strerror(-result));
    return EXIT_FAILED;
}

static int eject(const CallArgs& args, const View& view, const Item& item)
{
    Drive drive = {};
    if (find_drive(view, item, &drive) != 0)
        return complain_errno(nullptr, ENOMEM);
    int status = EXIT_DONE;
    if (other_use_tell(view, drive.parts, drive.disk) || !is_free(args, drive))
        status = EXIT_BUSY;
    // From here on an interruption is answered where the disk is whole: mounted, or off.
    interrupt_hold();
    if (status == EXIT_DONE)
        status = unmount_all(args, drive);
    if (status == EXIT_DONE && other_use_tell_left(drive.parts)) {
        mount_again(args, drive, drive.parts.count);
        status = EXIT_BUSY;
    }
    if (status == EXIT_DONE)
        status = switch_off(args, view, drive);
    targets_end(&drive.parts);
    return status;
}

int call_eject(const CallArgs& args)
{
    View view;
    Targets targets = {};
    int status = find_with_service(args, &view, &targets);
    if (status == EXIT_DONE && targets.items[0]->name[0] == '\0')
        status = target_missing(args.words[0]);
    else if (status == EXIT_DONE)
        status = eject(args, view, *targets.items[0]);
    targets_end(&targets);
    view_end(&view);
    return status;
}
