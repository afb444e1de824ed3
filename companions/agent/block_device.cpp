#include "agent/block_device.h"

#include "lib/str.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

static constexpr size_t number_size = 32;
static constexpr uint64_t hash_prime = 1099511628211ULL;
static constexpr char digits[] = "0123456789";

// ---- names ----

// Passes over letters or digits, four at the most, as the kernel writes them: with no zero before
// others. Returns whether there were any.
static bool pass(const char** text, const char* characters)
{
    const size_t length = strspn(*text, characters);
    const bool padded = length > 1 && (*text)[0] == '0';
    *text += length;
    return length > 0 && length <= 4 && !padded;
}

bool block_name_parse(const char* text, BlockName* name)
{
    // A kind of disks: a prefix and letters or digits; partitions have a divider and a number
    // behind.
    static constexpr struct {
        const char* prefix;
        const char* characters;
        const char* divider;
    } kinds[] = {{"sd", "abcdefghijklmnopqrstuvwxyz", ""}, {"mmcblk", digits, "p"}};
    *name = {};
    for (const auto& kind : kinds) {
        const char* rest = text + strlen(kind.prefix);
        if (strncmp(text, kind.prefix, strlen(kind.prefix)) != 0 || !pass(&rest, kind.characters))
            continue;
        name->disk_length = static_cast<uint8_t>(rest - text);
        const char* number = rest + strlen(kind.divider);
        const char* end = number;
        const bool is_disk = *rest == '\0';
        if (!is_disk && (strncmp(rest, kind.divider, strlen(kind.divider)) != 0 || *number == '0' ||
                         !pass(&end, digits) || str_to_long(number, &name->partition, 10) != 0))
            return false;
        str_cpy(name->text, text); // 15 bytes at the most
        return true;
    }
    return false;
}

bool block_name_same_disk(const BlockName& a, const BlockName& b)
{
    return a.disk_length == b.disk_length && memcmp(a.text, b.text, a.disk_length) == 0;
}

int block_name_compare(const BlockName& a, const BlockName& b)
{
    if (a.text[0] != b.text[0]) // "sd" before "mmcblk"
        return b.text[0] - a.text[0];
    if (a.disk_length != b.disk_length) // "sdz" before "sdaa"
        return a.disk_length - b.disk_length;
    const int disks = memcmp(a.text, b.text, a.disk_length);
    return disks != 0 ? disks : a.partition - b.partition;
}

// ---- one device ----

static void dir_release(DIR* stream)
{
    (void)closedir(stream);
}

using DirGuard = Guard<DIR, dir_release>;

// Notes that something could not be looked at. What is not there is just none.
static void note_failure(BlockDevice* device, int error)
{
    const bool absent = error == ENOENT || error == ENOTDIR || error == ENODEV || error == ENXIO;
    if (device->failure == 0 && !absent)
        device->failure = -error;
}

// Reads a file of a directory, up to its first zero byte, without the line feed at its end; "" for
// none. Some drivers fail the reading of what they do not have, so that is none either.
static void read_text(const char* directory, const char* file, char* text, size_t size,
                      BlockDevice* device)
{
    char path[PATH_MAX + 32];
    (void)snprintf(path, sizeof path, "%s/%s", directory, file);
    text[0] = '\0';
    const FdGuard fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0)
        return note_failure(device, errno);
    const ssize_t length = read(fd.get(), text, size - 1);
    text[length > 0 ? length : 0] = '\0';
    if (text[0] != '\0' && text[strlen(text) - 1] == '\n')
        text[strlen(text) - 1] = '\0';
}

// What the disk's "device" link leads to.
static void read_hardware(const char* sysfs, const char* disk, BlockDevice* device)
{
    char link[agent_path_size];
    char directory[PATH_MAX];
    char root[PATH_MAX];
    (void)snprintf(link, sizeof link, "%s/device", disk);
    if (realpath(link, directory) == nullptr || realpath(sysfs, root) == nullptr)
        return note_failure(device, errno);
    if (device->name.text[0] == 'm') { // a card
        read_text(directory, "serial", device->serial, sizeof device->serial, device);
        read_text(directory, "name", device->pname, sizeof device->pname, device);
        return;
    }
    // Its USB device is the first directory from there upwards, but in sysfs, with an idVendor.
    char usb[PATH_MAX];
    str_cpy(usb, directory);
    const size_t length = strlen(root);
    while (device->vid[0] == '\0' && strncmp(usb, root, length) == 0 && strlen(usb) > length) {
        read_text(usb, "idVendor", device->vid, sizeof device->vid, device);
        if (device->vid[0] == '\0')
            *strrchr(usb, '/') = '\0';
    }
    if (device->vid[0] != '\0') {
        read_text(usb, "idProduct", device->pid, sizeof device->pid, device);
        read_text(usb, "serial", device->serial, sizeof device->serial, device);
        read_text(usb, "manufacturer", device->vname, sizeof device->vname, device);
        read_text(usb, "product", device->pname, sizeof device->pname, device);
        read_text(usb, "speed", device->speed, sizeof device->speed, device);
    }
    if (device->vname[0] == '\0') // the disk's own names
        read_text(directory, "vendor", device->vname, sizeof device->vname, device);
    if (device->pname[0] == '\0')
        read_text(directory, "model", device->pname, sizeof device->pname, device);
}

// FNV-1a
static void mix(uint64_t* hash, const void* bytes, size_t size)
{
    const auto* byte = static_cast<const unsigned char*>(bytes);
    for (size_t i = 0; i < size; i++)
        *hash = (*hash ^ byte[i]) * hash_prime;
}

// Changes with its numbers, ids and names, and whenever the kernel makes the device anew: with the
// number of its directory in sysfs, and, for another medium in the same drive, the disk's sequence
// number where the kernel counts (5.15).
static uint64_t make_identity(const BlockDevice& device, uint64_t incarnation, const char* sequence)
{
    for (const char* digit = sequence; *digit != '\0'; digit++)
        incarnation = incarnation * hash_prime + static_cast<unsigned char>(*digit);
    uint64_t hash = 14695981039346656037ULL;
    mix(&hash, &device.major, sizeof device.major);
    mix(&hash, &device.minor, sizeof device.minor);
    mix(&hash, &incarnation, sizeof incarnation);
    const char* const texts[] = {device.vid, device.pid, device.serial, device.vname, device.pname};
    for (const char* text : texts)
        mix(&hash, text, strlen(text) + 1);
    return hash;
}

static void read_holder(const char* directory, BlockDevice* device)
{
    char path[agent_path_size];
    (void)snprintf(path, sizeof path, "%s/holders", directory);
    const DirGuard holders(opendir(path));
    if (!holders)
        return note_failure(device, errno != ENOTDIR ? errno : EIO); // an old kernel has none
    while (const dirent* entry = readdir(holders.get())) {
        if (entry->d_name[0] != '.')
            str_ncpy(device->holder, entry->d_name, sizeof device->holder);
    }
}

// Reads "8:1". Returns whether the device is there.
static bool read_numbers(const char* directory, BlockDevice* device)
{
    char text[number_size];
    read_text(directory, "dev", text, sizeof text, device);
    char* colon = strchr(text, ':');
    if (colon == nullptr)
        return device->failure != 0; // then that is what is told of it
    *colon = '\0';
    return strspn(text, digits) > 0 && strspn(colon + 1, digits) > 0 &&
           str_to_long(text, &device->major, 10) == 0 &&
           str_to_long(colon + 1, &device->minor, 10) == 0;
}

// The number of a directory of sysfs, which is another one whenever the kernel makes the device
// anew; 0 where it is not there.
static uint64_t read_incarnation(const char* directory)
{
    struct stat status;
    return stat(directory, &status) == 0 ? status.st_ino : 0;
}

// Reads what is the device's own, and puts it into the list if it is there. Returns 0; -ENOMEM.
static int read_own(const char* directory, const char* sequence, BlockDevice* device,
                    BlockList* list)
{
    const uint64_t incarnation = read_incarnation(directory);
    read_text(directory, "ro", device->readonly, sizeof device->readonly, device);
    read_holder(directory, device);
    // Last, as the kernel takes "dev" away before it sends the remove event: with its numbers still
    // there, all of the above was its own.
    if (!read_numbers(directory, device))
        return 0;
    // What was made anew meanwhile has an event to come, and is read then.
    if (read_incarnation(directory) != incarnation)
        return 0;
    device->identity = make_identity(*device, incarnation, sequence);
    BlockDevice* held = list->devices.take();
    auto* grown = static_cast<BlockDevice*>(realloc(held, (list->count + 1) * sizeof *held));
    if (grown == nullptr) {
        list->devices.reset(held);
        return -ENOMEM;
    }
    list->devices.reset(grown);
    grown[list->count++] = *device;
    return 0;
}

// ---- lists ----

static bool next_name(DIR* directory, BlockName* name)
{
    while (const dirent* entry = readdir(directory)) {
        if (block_name_parse(entry->d_name, name))
            return true;
    }
    return false;
}

// Reads the disk, and what partitions its directory holds.
static int read_disk(const char* sysfs, const BlockName& name, BlockList* list)
{
    char path[agent_path_size];
    char text[number_size];
    BlockDevice shared = {}; // what they have in common
    shared.name = name;
    (void)snprintf(path, sizeof path, "%s/kernel", sysfs);
    read_text(path, "uevent_seqnum", text, sizeof text, &shared);
    shared.seen = strtoull(text, nullptr, 10); // 0 for what is no number
    (void)snprintf(path, sizeof path, "%s/block/%s", sysfs, name.text);
    const DirGuard directory(opendir(path));
    if (!directory)
        return errno == ENOENT ? 0 : -errno; // it has just gone
    read_text(path, "range", shared.range, sizeof shared.range, &shared);
    read_text(path, "removable", shared.removable, sizeof shared.removable, &shared);
    read_hardware(sysfs, path, &shared);
    BlockDevice device = shared;
    read_text(path, "size", text, sizeof text, &device);
    device.empty = strcmp(text, "0") == 0;
    read_text(path, "diskseq", text, sizeof text, &device);
    int result = read_own(path, text, &device, list);
    const size_t length = strlen(path);
    for (BlockName part; result == 0 && next_name(directory.get(), &part);) {
        if (part.partition == 0 || !block_name_same_disk(part, name))
            continue;
        device = shared;
        device.name = part;
        (void)snprintf(path + length, sizeof path - length, "/%s", part.text);
        result = read_own(path, text, &device, list);
    }
    return result;
}

static int compare(const void* a, const void* b)
{
    return block_name_compare(static_cast<const BlockDevice*>(a)->name,
                              static_cast<const BlockDevice*>(b)->name);
}

int block_list_read(const char* sysfs, BlockList* list)
{
    char path[agent_path_size];
    (void)snprintf(path, sizeof path, "%s/block", sysfs);
    const DirGuard directory(opendir(path));
    if (!directory)
        return -errno;
    int result = 0;
    for (BlockName name; result == 0 && next_name(directory.get(), &name);) {
        if (name.partition == 0)
            result = read_disk(sysfs, name, list);
    }
    if (list->count > 1)
        qsort(list->devices.get(), list->count, sizeof(BlockDevice), compare);
    return result;
}

static uint64_t read_sectors(const char* directory, const char* file)
{
    char text[number_size];
    BlockDevice ignored = {};
    read_text(directory, file, text, sizeof text, &ignored);
    return strtoull(text, nullptr, 10); // 0 for what is no number
}

BlockExtent block_extent_read(const char* sysfs, const BlockName& name)
{
    char path[agent_path_size];
    (void)snprintf(path, sizeof path, "%s/block/%.*s/%s", sysfs, name.disk_length, name.text,
                   name.text);
    return {read_sectors(path, "start"), read_sectors(path, "size")};
}

const BlockDevice* block_list_find(const BlockList& list, const BlockName& name)
{
    for (const BlockDevice& device : list) {
        if (block_name_compare(device.name, name) == 0)
            return &device;
    }
    return nullptr;
}
