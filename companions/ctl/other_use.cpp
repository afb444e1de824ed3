#include "ctl/other_use.h"

#include "ctl/machine.h"
#include "ctl/namespaces.h"
#include "ctl/terminal.h"

#include <string.h>
#include <sys/stat.h>

static constexpr char swap_table[] = "/proc/swaps";

static bool tell(const char* name, const char* use)
{
    text_print(stderr, "%s %s\n", name, use);
    return true;
}

// What cannot be looked at may be in use.
static bool tell_unseen(int error)
{
    complain("what else uses it cannot be seen: %s", strerror(-error));
    return true;
}

// ---- mounts ----

// `by` is null for one that everybody sees.
static void tell_mount(const char* name, const MountinfoEntry& mount, const NamespaceView* by)
{
    text_print(stderr, "%s is mounted elsewhere, by somebody else: %.4096s", name, mount.directory);
    if (by != nullptr) {
        char command[machine_name_size] = "";
        (void)machine_read_name(by->process, command); // it may have ended
        text_print(stderr, " of process %d (%.32s)", static_cast<int>(by->pid), command);
    }
    text_print(stderr, "\n");
}

// Lends the name of the service's own part that is mounted there, too; null.
static const char* own_name(const Targets& parts, const MountinfoEntry& mount)
{
    for (size_t i = 0; i < parts.count; i++) {
        const MountinfoEntry* own = parts.items[i]->mount;
        if (own != nullptr && own->major == mount.major && own->minor == mount.minor)
            return parts.items[i]->name;
    }
    return nullptr;
}

static bool tell_left(const Targets& parts, const Mountinfo& mounts, const NamespaceView* by)
{
    bool any = false;
    for (size_t i = 0; i < mounts.count; i++) {
        const char* name = own_name(parts, mounts.entries[i]);
        if (name != nullptr)
            tell_mount(name, mounts.entries[i], by);
        any |= name != nullptr;
    }
    return any;
}

// ---- what is not the service's ----

// Whether a line of that table is of the part.
static bool is_swap(char* line, void* context)
{
    struct stat status;
    const auto* part = static_cast<const DiskPart*>(context);
    const char* path = mountinfo_swap_path(line);
    return path != nullptr && stat(path, &status) == 0 &&
           machine_is_node(status, part->major, part->minor);
}

static bool is_on(const DiskPart& part, const char* disk)
{
    return strcmp(part.disk, disk) == 0;
}

// The mounts of the disk's parts that are not the service's own.
static bool tell_mounts(const View& view, const Targets& parts, const char* disk,
                        const Mountinfo& mounts, const NamespaceView* by)
{
    bool any = false;
    for (size_t i = 0; i < view.disks->count; i++) {
        const DiskPart& part = view.disks->parts[i];
        for (size_t j = 0; is_on(part, disk) && j < mounts.count; j++) {
            const MountinfoEntry& mount = mounts.entries[j];
            if (part.major != mount.major || part.minor != mount.minor ||
                own_name(parts, mount) != nullptr)
                continue;
            tell_mount(part.name, mount, by);
            any = true;
        }
    }
    return any;
}

static bool tell_part(const DiskPart& part)
{
    bool any = false;
    if (part.held)
        any |= tell(part.name, "is part of another device: LVM, RAID or encryption");
    const int swap = machine_any_line(swap_table, is_swap, const_cast<DiskPart*>(&part));
    if (swap > 0)
        any |= tell(part.name, "is a swap area in use");
    else if (swap < 0)
        any |= tell_unseen(swap);
    return any;
}

// ---- all of it ----

namespace {

// What is asked of each namespace.
struct Question {
    const View* view; // null: what is left
    const Targets* parts;
    const char* disk;
    bool any;
};

} // namespace

static void ask(void* context, const NamespaceView& seen)
{
    auto* question = static_cast<Question*>(context);
    question->any |= question->view == nullptr ? tell_left(*question->parts, *seen.mounts, &seen)
                                               : tell_mounts(*question->view, *question->parts,
                                                             question->disk, *seen.mounts, &seen);
}

// A sandboxed service may see all that everybody sees, so this is for when that says nothing.
static bool ask_namespaces(Question question)
{
    const int result = namespaces_look(ask, &question);
    return result == 0 ? question.any : tell_unseen(result);
}

bool other_use_tell_left(const Targets& parts)
{
    MountinfoGuard mounts;
    const int result = mountinfo_load(mountinfo_path, mounts.out());
    if (result != 0)
        return tell_unseen(result);
    if (tell_left(parts, *mounts.get(), nullptr))
        return true;
    return ask_namespaces({.view = nullptr, .parts = &parts, .disk = nullptr, .any = false});
}

bool other_use_tell(const View& view, const Targets& parts, const DiskPart* disk)
{
    if (disk == nullptr)
        return false;
    bool any = tell_mounts(view, parts, disk->disk, *view.mounts, nullptr);
    for (size_t i = 0; i < view.disks->count; i++) {
        const DiskPart& part = view.disks->parts[i];
        any |= is_on(part, disk->disk) && tell_part(part);
    }
    return any ||
           ask_namespaces({.view = &view, .parts = &parts, .disk = disk->disk, .any = false});
}
