#include "agent/block_device.h"

#include "lib/guard.h"
#include "lib/str.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

static constexpr int32_t most_range = 1048576; // what a kernel can hand out
static constexpr size_t number_size = 32;

static void dir_release(DIR* stream)
{
    (void)closedir(stream);
}

using DirGuard = Guard<DIR, dir_release>;

// ---- paths and attributes ----

// Writes the device's directory, with "/FILE" behind it where one is given. Returns whether it
// fits.
static bool device_path(const char* sysfs, const BlockName& name, const char* file,
                        char (&path)[agent_path_size])
{
    char disk[block_name_size];
    char whole[block_name_size];
    block_name_format(block_name_disk(name), disk);
    block_name_format(name, whole);
    const bool is_disk = name.partition == 0;
    const int length =
        snprintf(path, sizeof path, "%s/block/%s%s%s%s%s", sysfs, disk, is_disk ? "" : "/",
                 is_disk ? "" : whole, file[0] != '\0' ? "/" : "", file);
    return length > 0 && static_cast<size_t>(length) < sizeof path;
}

// Whether a failed call says that there is no such thing, not that there is no looking at it.
static bool is_absence(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ENODEV || error == ENXIO;
}

// Reads an attribute up to its first zero byte, without the line feed at its end; "" when it is not
// there. Some drivers fail the reading of what they do not have, so that is none either. Returns 0;
// a negated errno when there is no looking at it.
static int read_file(const char* path, char* text, size_t size)
{
    text[0] = '\0';
    const FdGuard fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0)
        return is_absence(errno) ? 0 : -errno;
    const ssize_t count = read(fd.get(), text, size - 1);
    text[count > 0 ? count : 0] = '\0';
    const size_t length = strlen(text);
    if (length > 0 && text[length - 1] == '\n')
        text[length - 1] = '\0';
    return 0;
}

// As read_file, for a file of a directory. Keeps the first failure.
static void read_attribute(const char* directory, const char* file, char* text, size_t size,
                           int* failure)
{
    char path[PATH_MAX + 32];
    const int length = snprintf(path, sizeof path, "%s/%s", directory, file);
    text[0] = '\0';
    if (length < 0 || static_cast<size_t>(length) >= sizeof path)
        return; // no kernel's path is as long
    const int result = read_file(path, text, size);
    if (*failure == 0)
        *failure = result;
}

// A number from 0 to `most`; -1 for anything else.
static int32_t read_number(const char* directory, const char* file, int32_t most, int* failure)
{
    char text[number_size];
    int32_t number = 0;
    read_attribute(directory, file, text, sizeof text, failure);
    if (text[0] < '0' || text[0] > '9')
        return -1;
    return str_to_long(text, &number, 10) == 0 && number <= most ? number : -1;
}

// "8:1"
static bool parse_numbers(char* text, int32_t* major, int32_t* minor)
{
    char* colon = strchr(text, ':');
    if (colon == nullptr)
        return false;
    *colon = '\0';
    return text[0] >= '0' && text[0] <= '9' && colon[1] >= '0' && colon[1] <= '9' &&
           str_to_long(text, major, 10) == 0 && str_to_long(colon + 1, minor, 10) == 0;
}

int block_numbers(const char* sysfs, const BlockName& name, int32_t* major, int32_t* minor)
{
    char path[agent_path_size];
    char text[number_size];
    if (!device_path(sysfs, name, "dev", path))
        return -ENOENT;
    // The kernel takes "dev" away before it sends the remove event: with it, the device is there.
    const int result = read_file(path, text, sizeof text);
    if (result != 0)
        return result;
    return parse_numbers(text, major, minor) ? 0 : -ENOENT;
}

// ---- lists ----

static int list_put(BlockList* list, const BlockName& name)
{
    if (list->count == agent_walk_limit)
        return -E2BIG;
    list->names[list->count++] = name;
    return 0;
}

static int compare_names(const void* a, const void* b)
{
    return block_name_compare(*static_cast<const BlockName*>(a), *static_cast<const BlockName*>(b));
}

static void list_sort(BlockList* list)
{
    if (list->count > 1)
        qsort(list->names, list->count, sizeof list->names[0], compare_names);
}

// Puts in the disk and what partitions its directory holds.
static int list_disk(const char* sysfs, const BlockName& disk, BlockList* list)
{
    char path[agent_path_size];
    if (!device_path(sysfs, disk, "", path))
        return -ENAMETOOLONG;
    const DirGuard directory(opendir(path));
    if (!directory)
        return errno == ENOENT ? 0 : -errno; // it has just gone
    int result = list_put(list, disk);
    while (result == 0) {
        const dirent* entry = readdir(directory.get());
        if (entry == nullptr)
            break;
        BlockName name;
        if (block_name_parse(entry->d_name, &name) && name.partition > 0 &&
            block_name_same_disk(name, disk))
            result = list_put(list, name);
    }
    return result;
}

int block_list_disk(const char* sysfs, const BlockName& disk, BlockList* list)
{
    list->count = 0;
    const int result = list_disk(sysfs, block_name_disk(disk), list);
    list_sort(list);
    return result;
}

int block_list_all(const char* sysfs, BlockList* list)
{
    list->count = 0;
    char path[agent_path_size];
    const int length = snprintf(path, sizeof path, "%s/block", sysfs);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path)
        return -ENAMETOOLONG;
    const DirGuard directory(opendir(path));
    if (!directory)
        return -errno;
    int result = 0;
    while (result == 0) {
        const dirent* entry = readdir(directory.get());
        if (entry == nullptr)
            break;
        BlockName name;
        if (block_name_parse(entry->d_name, &name) && name.partition == 0)
            result = list_disk(sysfs, name, list);
    }
    list_sort(list);
    return result;
}

// ---- one device ----

static bool read_empty(const char* disk, int* failure)
{
    char size[number_size];
    read_attribute(disk, "size", size, sizeof size, failure);
    return strcmp(size, "0") == 0;
}

// Changes whenever the kernel makes the device anew: the number of its directory in sysfs, and, for
// another medium in the same drive, the disk's sequence number where the kernel counts (5.15).
static uint64_t read_incarnation(const char* device, const char* disk, int* failure)
{
    struct stat status;
    char sequence[number_size];
    uint64_t incarnation = stat(device, &status) == 0 ? static_cast<uint64_t>(status.st_ino) : 0;
    read_attribute(disk, "diskseq", sequence, sizeof sequence, failure);
    for (const char* digit = sequence; *digit != '\0'; digit++)
        incarnation = incarnation * 1099511628211ULL + static_cast<unsigned char>(*digit);
    return incarnation;
}

// Finds the USB device: the first directory from `directory` upwards, but below `root`, that holds
// idVendor. Cuts `directory` to it.
static bool find_usb_device(char* directory, const char* root, int* failure)
{
    const size_t root_length = strlen(root);
    while (strlen(directory) > root_length && strncmp(directory, root, root_length) == 0) {
        char vendor[8];
        read_attribute(directory, "idVendor", vendor, sizeof vendor, failure);
        if (vendor[0] != '\0')
            return true;
        char* slash = strrchr(directory, '/');
        if (slash == nullptr)
            return false;
        *slash = '\0';
    }
    return false;
}

static void read_usb(const char* usb, BlockDevice* device, int* failure)
{
    read_attribute(usb, "idVendor", device->vid, sizeof device->vid, failure);
    read_attribute(usb, "idProduct", device->pid, sizeof device->pid, failure);
    read_attribute(usb, "serial", device->serial, sizeof device->serial, failure);
    read_attribute(usb, "manufacturer", device->vname, sizeof device->vname, failure);
    read_attribute(usb, "product", device->pname, sizeof device->pname, failure);
    read_attribute(usb, "speed", device->speed, sizeof device->speed, failure);
}

// The names that the disk gives itself, where its USB device gives none.
static void read_scsi(const char* hardware, BlockDevice* device, int* failure)
{
    if (device->vname[0] == '\0')
        read_attribute(hardware, "vendor", device->vname, sizeof device->vname, failure);
    if (device->pname[0] == '\0')
        read_attribute(hardware, "model", device->pname, sizeof device->pname, failure);
}

static void read_card(const char* hardware, BlockDevice* device, int* failure)
{
    read_attribute(hardware, "serial", device->serial, sizeof device->serial, failure);
    read_attribute(hardware, "name", device->pname, sizeof device->pname, failure);
}

// What the disk's "device" link leads to.
static void read_hardware(const char* sysfs, const char* disk, BlockDevice* device, int* failure)
{
    char link[agent_path_size + 16];
    char hardware[PATH_MAX];
    char root[PATH_MAX];
    (void)snprintf(link, sizeof link, "%s/device", disk);
    if (realpath(link, hardware) == nullptr || realpath(sysfs, root) == nullptr) {
        if (*failure == 0 && !is_absence(errno))
            *failure = -errno;
        return;
    }
    if (device->name.kind == BLOCK_MMC)
        return read_card(hardware, device, failure);
    char usb[PATH_MAX];
    str_cpy(usb, hardware);
    if (find_usb_device(usb, root, failure))
        read_usb(usb, device, failure);
    read_scsi(hardware, device, failure);
}

int block_device_read(const char* sysfs, const BlockName& name, BlockDevice* device)
{
    *device = {};
    device->name = name;
    char directory[agent_path_size];
    char disk[agent_path_size];
    if (!device_path(sysfs, name, "", directory) ||
        !device_path(sysfs, block_name_disk(name), "", disk))
        return -ENOENT;
    int failure = 0;
    device->range = read_number(disk, "range", most_range, &failure);
    device->removable = read_number(disk, "removable", 1, &failure);
    device->readonly = read_number(directory, "ro", 1, &failure);
    device->empty = name.partition == 0 && read_empty(disk, &failure);
    device->incarnation = read_incarnation(directory, disk, &failure);
    read_hardware(sysfs, disk, device, &failure);
    // Last: with its numbers still there, all of the above was its own.
    const int result = block_numbers(sysfs, name, &device->major, &device->minor);
    return result != 0 ? result : failure;
}

uint64_t block_event_count(const char* sysfs)
{
    char path[agent_path_size];
    char text[number_size];
    (void)snprintf(path, sizeof path, "%s/kernel/uevent_seqnum", sysfs);
    if (read_file(path, text, sizeof text) != 0)
        return 0;
    return strtoull(text, nullptr, 10); // 0 for what is no number
}

int block_holder(const char* sysfs, const BlockName& name, char (&holder)[block_name_size])
{
    char path[agent_path_size];
    if (!device_path(sysfs, name, "holders", path))
        return -ENAMETOOLONG;
    const DirGuard directory(opendir(path));
    if (!directory)
        return -errno;
    while (const dirent* entry = readdir(directory.get())) {
        if (entry->d_name[0] == '.')
            continue;
        str_ncpy(holder, entry->d_name, sizeof holder);
        return 0;
    }
    return -ENOENT;
}
