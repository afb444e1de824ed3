#include "agent/survey.h"

#include "agent/service_config.h"
#include "common/mountinfo.h"
#include "common/text.h"
#include "config/filesystems.h"
#include "lib/file.h"
#include "lib/str.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

// Whether a mount or a swap area with these numbers and this path of a node is the device's.
static bool is_of(const BlockDevice& device, unsigned major, unsigned minor, const char* node)
{
    static constexpr char directory[] = "/dev/";
    const size_t length = sizeof directory - 1;
    if (major == static_cast<unsigned>(device.major) &&
        minor == static_cast<unsigned>(device.minor))
        return true;
    return strncmp(node, directory, length) == 0 && strcmp(node + length, device.name.text) == 0;
}

// Marks what the table of swap areas names. Returns 0; a negated errno.
static int mark_swap(const char* path, BlockList* list)
{
    FileBytes table;
    const int result = file_read_all(path, 0, FILE_ANY_SIZE, &table);
    if (result != 0)
        return result != -ENOENT ? result : 0; // a kernel without swap has no table
    char* next = table.bytes.get();
    while (char* line = strsep(&next, "\n")) {
        const char* area = mountinfo_swap_path(line);
        struct stat status; // the node may be called otherwise
        if (area == nullptr || stat(area, &status) != 0 || !S_ISBLK(status.st_mode))
            status.st_rdev = 0; // no device has that
        for (BlockDevice& device : *list) {
            if (area != nullptr &&
                is_of(device, major(status.st_rdev), minor(status.st_rdev), area))
                device.swap = true;
        }
    }
    return 0;
}

namespace {

// What the verdicts are made from. All borrowed.
struct Case {
    const AgentSettings* settings;
    const DeviceTable* told;
    bool leaving;
    const Mountinfo* mounts;
};

} // namespace

// Whether it is mounted as the service would do it: a node of that name at a place of that name.
static bool is_placed(const AgentSettings& settings, const MountinfoEntry& mount)
{
    const char* name = mountinfo_rest(mount.directory, settings.mounts);
    const char* node = strrchr(mount.source, '/');
    return name != nullptr && name[0] != '\0' && node != nullptr && strcmp(node + 1, name) == 0;
}

// Whether the service takes over what stands mounted.
static bool is_taken_over(const AgentSettings& settings)
{
    const ServiceConfig config(service_config_load(settings.config));
    return config && config->adopt != 0;
}

// Lends a mount of a part of the disk that is not the service's; null when there is none.
static const MountinfoEntry* find_mount(const Case& about, const BlockDevice& part, bool itself)
{
    if (about.told != nullptr && device_is_ours(*about.told, part.major, part.minor))
        return nullptr;
    for (size_t i = 0; i < about.mounts->count; i++) {
        const MountinfoEntry& mount = about.mounts->entries[i];
        const bool placed_so = (about.leaving || !itself) &&
                               mountinfo_is_below(mount.directory, about.settings->mounts);
        // The kernel names another device than the partition for filesystems that have several
        // (btrfs), so the source's name counts as well.
        if (!is_of(part, mount.major, mount.minor, mount.source) || placed_so)
            continue;
        if (itself && about.told != nullptr && is_placed(*about.settings, mount) &&
            is_taken_over(*about.settings))
            continue;
        return &mount;
    }
    return nullptr;
}

static void refuse(BlockDevice* device, int failure, const char* what)
{
    device->verdict = failure;
    (void)snprintf(device->reason, sizeof device->reason, "%s: %s", what, strerror(-failure));
}

// One part of the device's disk: another, or the device itself.
static void judge_part(const Case& about, BlockDevice* device, const BlockDevice& part)
{
    const bool itself = &part == device;
    if (part.failure != 0)
        return refuse(device, part.failure, part.name.text);
    char* reason = device->reason;
    char subject[block_name_size + 4] = "";
    if (!itself)
        (void)snprintf(subject, sizeof subject, "%s is ", part.name.text);
    const MountinfoEntry* mount = find_mount(about, part, itself);
    if (mount != nullptr)
        (void)snprintf(reason, block_reason_size, "%smounted at %s", subject, mount->directory);
    else if (part.swap)
        (void)snprintf(reason, block_reason_size, "%sused as swap", subject);
    else if (part.holder[0] != '\0')
        (void)snprintf(reason, block_reason_size, "%sheld by %s", subject, part.holder);
    (void)text_clean(reason, ""); // a mount directory may have any name
    device->verdict = reason[0] != '\0' ? 1 : 0;
}

// Lends a partition of the same disk that the device lies within; null for none.
static const BlockDevice* find_outer(const BlockList& list, const BlockDevice& device)
{
    const BlockExtent& own = device.extent;
    for (const BlockDevice& other : list) {
        const BlockExtent& outer = other.extent;
        if (own.sectors > 0 && outer.sectors > own.sectors && outer.start <= own.start &&
            own.start + own.sectors <= outer.start + outer.sectors &&
            block_name_same_disk(other.name, device.name))
            return &other;
    }
    return nullptr;
}

// Whether a disk of the list has two partitions that are to be announced.
static bool any_divided(const BlockList& list)
{
    const BlockDevice* before = nullptr;
    for (const BlockDevice& device : list) {
        if (device.verdict != 0 || device.name.partition == 0)
            continue;
        if (before != nullptr && block_name_same_disk(before->name, device.name))
            return true;
        before = &device;
    }
    return false;
}

// An image of a CD on a disk has a partition that is the image, and one more for what the machine
// that boots from it looks for, which is a file of the image's.
static void drop_parts_of_images(const AgentSettings& settings, BlockList* list)
{
    if (!any_divided(*list))
        return;
    const ServiceConfig config(service_config_load(settings.config));
    if (!config || !filesystem_is_wanted(*filesystem_of(CONF_DEV_FS_ISO9660), config.get()))
        return;                         // then the image is not mounted, and its file may be
    for (BlockDevice& device : *list) { // once each: a disk may have 255
        if (device.name.partition > 0)
            device.extent = block_extent_read(settings.sysfs, device.name);
    }
    for (BlockDevice& device : *list) {
        const BlockDevice* outer = device.verdict == 0 ? find_outer(*list, device) : nullptr;
        if (outer == nullptr)
            continue;
        device.verdict = 1;
        (void)snprintf(device.reason, sizeof device.reason, "lies within %s", outer->name.text);
    }
}

// Reads the mounts, and marks the swap areas. Returns 0; a negated errno, with what cannot be read.
static int read_uses(const AgentSettings& settings, BlockList* list, MountinfoGuard* mounts,
                     char (&what)[agent_path_size])
{
    (void)snprintf(what, sizeof what, "%s/self/mountinfo", settings.proc);
    const int result = mountinfo_load(what, mounts->out());
    if (result != 0)
        return result;
    (void)snprintf(what, sizeof what, "%s/swaps", settings.proc);
    return mark_swap(what, list);
}

static void judge(const Case& about, const BlockList& list, BlockDevice* device)
{
    const AgentSettings& settings = *about.settings;
    if (device->failure != 0)
        return refuse(device, device->failure, settings.sysfs);
    if (device->empty) {
        device->verdict = 1;
        str_cpy(device->reason, "no medium");
        return;
    }
    for (const BlockDevice& part : list) {
        if (!settings.all && device->verdict == 0 && block_name_same_disk(part.name, device->name))
            judge_part(about, device, part);
    }
}

int survey_take(const AgentSettings& settings, const DeviceTable* told, bool leaving,
                BlockList* list)
{
    char what[agent_path_size];
    MountinfoGuard mounts;
    const int result = block_list_read(settings.sysfs, list);
    int failure = result; // of what all verdicts rest on
    (void)snprintf(what, sizeof what, "%s/block", settings.sysfs);
    if (result == 0 && !settings.all)
        failure = read_uses(settings, list, &mounts, what);
    const Case about = {&settings, told, leaving, mounts.get()};
    for (BlockDevice& device : *list) {
        if (failure != 0 && device.failure == 0 && !device.empty)
            refuse(&device, failure, what);
        else
            judge(about, *list, &device);
    }
    drop_parts_of_images(settings, list);
    return result;
}
