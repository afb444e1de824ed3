#include "agent/block_device.h"

#include "common/array.h"
#include "common/directory.h"
#include "lib/str.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

static constexpr size_t number_size = 32;
static constexpr uint64_t hash_prime = 1099511628211ULL;

// ---- names ----

static constexpr size_t most_passed = 4;

// Passes over letters or digits, not too many of them, as the kernel writes them: with no zero
// before others. Returns whether there were any.
static bool pass(const char** text, const char* characters)
{
    const size_t length = strspn(*text, characters);
    const bool padded = length > 1 && (*text)[0] == '0';
    *text += length;
    return length > 0 && length <= most_passed && !padded;
}

static constexpr bool names_fit()
{
    for (const DeviceKind& kind : device_kinds) {
        if (__builtin_strlen(kind.prefix) + __builtin_strlen(kernel_kind(kind).divider) +
                2 * most_passed >=
            block_name_size)
            return false;
    }
    return true;
}
static_assert(names_fit(), "block_name_size is too small for a name");

bool block_name_parse(const char* text, BlockName* name)
{
    *name = {};
    for (const DeviceKind& kind : device_kinds) {
        const char* rest = text + strlen(kind.prefix);
        if (!device_has_prefix(kind, text) || !pass(&rest, kernel_kind(kind).disks))
            continue;
        name->disk_length = static_cast<uint8_t>(rest - text);
        name->kind = static_cast<uint8_t>(&kind - device_kinds);
        const char* divider = kernel_kind(kind).divider;
        const char* number = rest + strlen(divider);
        const char* end = number;
        const bool is_disk = *rest == '\0';
        if (!is_disk &&
            (strncmp(rest, divider, strlen(divider)) != 0 || *number == '0' ||
             !pass(&end, device_digits) || str_to_long(number, &name->partition, 10) != 0))
            return false;
        str_cpy(name->text, text);
        return true;
    }
    return false;
}

const DeviceKind& block_name_kind(const BlockName& name)
{
    return device_kinds[name.kind];
}

bool block_name_same_disk(const BlockName& a, const BlockName& b)
{
    return a.disk_length == b.disk_length && memcmp(a.text, b.text, a.disk_length) == 0;
}

int block_name_compare(const BlockName& a, const BlockName& b)
{
    if (a.kind != b.kind) // "sd" before "mmcblk"
        return a.kind - b.kind;
    if (a.disk_length != b.disk_length) // "sdz" before "sdaa"
        return a.disk_length - b.disk_length;
    const int disks = memcmp(a.text, b.text, a.disk_length);
    return disks != 0 ? disks : a.partition - b.partition;
}

// ---- one device ----

// Returns owned: a descriptor; -1 with an errno.
static int open_directory(int above, const char* name)
{
    return openat(above, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// Returns owned; null with an errno.
static DIR* open_stream(int above, const char* name)
{
    FdGuard fd(open_directory(above, name));
    DIR* stream = fd.get() >= 0 ? fdopendir(fd.get()) : nullptr;
    if (stream != nullptr)
        (void)fd.take();
    return stream;
}

// What is not there, or has gone while it was read, is just none.
static bool is_absent(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ENODEV || error == ENXIO;
}

// Notes that something could not be looked at.
static void note_failure(BlockDevice* device, int error)
{
    if (device->failure == 0 && !is_absent(error))
        device->failure = -error;
}

// Reads a file of a directory, up to its first zero byte, without the line feed at its end; "" for
// none. Returns 0; the errno of the reading.
static int try_text(int directory, const char* file, char* text, size_t size, BlockDevice* device)
{
    text[0] = '\0';
    const FdGuard fd(openat(directory, file, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0)
        note_failure(device, errno);
    const ssize_t length = fd.get() >= 0 ? read(fd.get(), text, size - 1) : 0;
    const int error = length < 0 ? errno : 0;
    text[length > 0 ? length : 0] = '\0';
    if (text[0] != '\0' && text[strlen(text) - 1] == '\n')
        text[strlen(text) - 1] = '\0';
    return error;
}

// The same of what the kernel itself tells, which can be read unless something is wrong.
static void read_kernels(int directory, const char* file, char* text, size_t size,
                         BlockDevice* device)
{
    const int error = try_text(directory, file, text, size, device);
    if (error != 0)
        note_failure(device, error);
}

// The same of what a device tells. Some drivers fail the reading of what they do not have, so that
// is none either, but for want of memory.
static void read_text(int directory, const char* file, char* text, size_t size, BlockDevice* device)
{
    if (try_text(directory, file, text, size, device) == ENOMEM)
        note_failure(device, ENOMEM);
}

// Reads the vendor of the disk's USB device: the first directory from there upwards, but below
// sysfs itself, with an idVendor. Returns owned: that directory; -1 where there is none.
static int find_usb(int sysfs, int from, BlockHardware* hardware, BlockDevice* disk)
{
    struct stat top;
    struct stat here;
    FdGuard at(fcntl(from, F_DUPFD_CLOEXEC, 0));
    while (at.get() >= 0 && fstat(sysfs, &top) == 0 && fstat(at.get(), &here) == 0) {
        if (here.st_dev != top.st_dev || here.st_ino == top.st_ino)
            return -1;
        read_text(at.get(), "idVendor", hardware->vid, sizeof hardware->vid, disk);
        if (hardware->vid[0] != '\0')
            return at.take();
        at.reset(open_directory(at.get(), ".."));
    }
    note_failure(disk, errno);
    return -1;
}

// What the "device" link of the disk's directory leads to.
static void read_hardware(int sysfs, int directory, BlockHardware* hardware, BlockDevice* disk)
{
    const FdGuard link(open_directory(directory, "device"));
    const int own = link.get();
    if (own < 0)
        return note_failure(disk, errno);
    if (kernel_kind(block_name_kind(disk->name)).card) {
        read_text(own, "serial", hardware->serial, sizeof hardware->serial, disk);
        read_text(own, "name", hardware->pname, sizeof hardware->pname, disk);
        return;
    }
    const FdGuard found(find_usb(sysfs, own, hardware, disk));
    const int usb = found.get();
    if (usb >= 0) {
        read_text(usb, "idProduct", hardware->pid, sizeof hardware->pid, disk);
        read_text(usb, "serial", hardware->serial, sizeof hardware->serial, disk);
        read_text(usb, "manufacturer", hardware->vname, sizeof hardware->vname, disk);
        read_text(usb, "product", hardware->pname, sizeof hardware->pname, disk);
        read_text(usb, "speed", hardware->speed, sizeof hardware->speed, disk);
    }
    if (hardware->vname[0] == '\0') // the disk's own names
        read_text(own, "vendor", hardware->vname, sizeof hardware->vname, disk);
    if (hardware->pname[0] == '\0')
        read_text(own, "model", hardware->pname, sizeof hardware->pname, disk);
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
    const BlockHardware& hardware = *device.hardware;
    const char* const texts[] = {hardware.vid, hardware.pid, hardware.serial, hardware.vname,
                                 hardware.pname};
    for (const char* text : texts)
        mix(&hash, text, strlen(text) + 1);
    return hash;
}

static void read_holder(int disk, const char* holders_path, BlockDevice* device)
{
    const DirGuard holders(open_stream(disk, holders_path));
    if (!holders)
        return note_failure(device, errno != ENOTDIR ? errno : EIO); // an old kernel has none
    while (const dirent* entry = directory_next(holders.get())) {
        if (entry->d_name[0] != '.')
            str_ncpy(device->holder, entry->d_name, sizeof device->holder);
    }
    if (errno != 0)
        note_failure(device, errno);
}

// Reads "8:1". Returns whether the device is there.
static bool read_numbers(int disk, const char* dev_path, BlockDevice* device)
{
    char text[number_size];
    read_kernels(disk, dev_path, text, sizeof text, device);
    char* colon = strchr(text, ':');
    if (colon == nullptr)
        return device->failure != 0; // then that is what is told of it
    *colon = '\0';
    return strspn(text, device_digits) > 0 && strspn(colon + 1, device_digits) > 0 &&
           str_to_long(text, &device->major, 10) == 0 &&
           str_to_long(colon + 1, &device->minor, 10) == 0;
}

static int append(const BlockDevice& device, BlockList* list)
{
    BlockDevice* held = list->devices.take();
    auto* grown = static_cast<BlockDevice*>(array_room(held, list->count, sizeof *held));
    if (grown == nullptr) {
        list->devices.reset(held);
        return -ENOMEM;
    }
    list->devices.reset(grown);
    grown[list->count++] = device;
    return 0;
}

// Returns whether a directory of the disk's still has that number.
static bool is_same(int disk, const char* own, ino_t number, BlockDevice* device)
{
    struct stat status;
    if (fstatat(disk, own, &status, 0) == 0)
        return status.st_ino == number;
    note_failure(device, errno);
    return device->failure != 0; // then that is what is told of it
}

// Reads what is the device's own, and puts it into the list if it is there. `own` is its directory,
// seen from the disk's. Returns 0; -ENOMEM.
static int read_own(int disk, const char* own, const char* sequence, BlockDevice* device,
                    BlockList* list)
{
    static constexpr size_t size = block_name_size + sizeof "/holders";
    char ro[size];
    char holders[size];
    char dev[size];
    (void)snprintf(ro, size, "%s/ro", own);
    (void)snprintf(holders, size, "%s/holders", own);
    (void)snprintf(dev, size, "%s/dev", own);
    struct stat status; // its number is another one whenever the kernel makes the device anew
    if (fstatat(disk, own, &status, 0) != 0) {
        note_failure(device, errno);
        return device->failure != 0 ? append(*device, list) : 0; // it has just gone
    }
    if (!S_ISDIR(status.st_mode))
        return 0;
    read_text(disk, ro, device->readonly, sizeof device->readonly, device);
    read_holder(disk, holders, device);
    // Last, as the kernel takes "dev" away before it sends the remove event: with its numbers still
    // there, and in the same directory, all of the above was its own. What was made anew meanwhile
    // has an event to come, and is read then.
    if (!read_numbers(disk, dev, device) || !is_same(disk, own, status.st_ino, device))
        return 0;
    device->identity = make_identity(*device, status.st_ino, sequence);
    return append(*device, list);
}

// ---- lists ----

void block_hardware_free(BlockHardware* first)
{
    while (first != nullptr) {
        BlockHardware* next = first->next;
        free(first);
        first = next;
    }
}

void block_list_move(BlockList* from, BlockList* to)
{
    to->hardware.reset(from->hardware.take());
    to->devices.reset(from->devices.take());
    to->count = from->count;
    from->count = 0;
}

namespace {

struct NameList {
    MemGuard<BlockName> names;
    size_t count = 0;

    BlockName* begin() const { return names.get(); }
    BlockName* end() const { return names.get() + count; }
};

} // namespace

static int append(const BlockName& name, NameList* list)
{
    BlockName* held = list->names.take();
    auto* grown = static_cast<BlockName*>(array_room(held, list->count, sizeof *held));
    if (grown == nullptr) {
        list->names.reset(held);
        return -ENOMEM;
    }
    list->names.reset(grown);
    grown[list->count++] = name;
    return 0;
}

static int compare(const void* a, const void* b)
{
    return block_name_compare(*static_cast<const BlockName*>(a), *static_cast<const BlockName*>(b));
}

// Reads the names of the partitions of `disk` that the directory holds, or of disks where that is
// null, in their order. All before any of them is looked at: a stream takes 32 kB, and several at a
// time would stay the heap's. Returns 0; a negated errno.
static int read_names(int directory, const BlockName* disk, NameList* list)
{
    const DirGuard stream(open_stream(directory, "."));
    if (!stream)
        return -errno;
    while (const dirent* entry = directory_next(stream.get())) {
        BlockName name;
        if (!block_name_parse(entry->d_name, &name) || (name.partition == 0) != (disk == nullptr) ||
            (disk != nullptr && !block_name_same_disk(name, *disk)))
            continue;
        if (append(name, list) != 0)
            return -ENOMEM;
    }
    if (errno != 0 && !is_absent(errno))
        return -errno;
    if (list->count > 1)
        qsort(list->names.get(), list->count, sizeof(BlockName), compare);
    return 0;
}

// Reads a partition of the disk; `device` is what they have in common.
static int read_partition(int disk, const BlockName& name, const char* sequence, BlockDevice device,
                          BlockList* list)
{
    device.name = name;
    return read_own(disk, name.text, sequence, &device, list);
}

// Lends one that is all zero; null when there is no memory.
static BlockHardware* add_hardware(BlockList* list)
{
    auto* hardware = static_cast<BlockHardware*>(calloc(1, sizeof(BlockHardware)));
    if (hardware == nullptr)
        return nullptr;
    hardware->next = list->hardware.take();
    list->hardware.reset(hardware);
    return hardware;
}

// Reads the disk, and what partitions its directory holds. `block` is the directory of disks.
static int read_disk(int sysfs, int block, const BlockName& name, BlockList* list)
{
    char text[number_size];
    BlockDevice shared = {}; // what they have in common
    BlockHardware* hardware = add_hardware(list);
    if (hardware == nullptr)
        return -ENOMEM;
    shared.name = name;
    shared.hardware = hardware;
    read_text(sysfs, "kernel/uevent_seqnum", text, sizeof text, &shared);
    shared.seen = strtoull(text, nullptr, 10); // 0 for what is no number
    const FdGuard directory(open_directory(block, name.text));
    const int disk = directory.get();
    if (disk < 0)
        return errno == ENOENT ? 0 : -errno; // it has just gone
    read_text(disk, "range", hardware->range, sizeof hardware->range, &shared);
    read_text(disk, "removable", hardware->removable, sizeof hardware->removable, &shared);
    read_hardware(sysfs, disk, hardware, &shared);
    char sequence[number_size];
    read_kernels(disk, "diskseq", sequence, sizeof sequence, &shared);
    BlockDevice device = shared;
    read_kernels(disk, "size", text, sizeof text, &device);
    device.empty = strcmp(text, "0") == 0;
    int result = read_own(disk, ".", sequence, &device, list);
    NameList partitions;
    if (result == 0)
        result = read_names(disk, &name, &partitions);
    for (const BlockName& partition : partitions) {
        if (result == 0)
            result = read_partition(disk, partition, sequence, shared, list);
    }
    return result;
}

int block_list_read(const char* sysfs, BlockList* list)
{
    const FdGuard root(open_directory(AT_FDCWD, sysfs));
    if (root.get() < 0)
        return -errno;
    const FdGuard block(open_directory(root.get(), "block"));
    if (block.get() < 0)
        return -errno;
    NameList disks;
    int result = read_names(block.get(), nullptr, &disks);
    for (const BlockName& name : disks) {
        if (result == 0)
            result = read_disk(root.get(), block.get(), name, list);
    }
    return result;
}

static uint64_t read_sectors(int directory, const char* file)
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
    const FdGuard directory(open_directory(AT_FDCWD, path));
    return {read_sectors(directory.get(), "start"), read_sectors(directory.get(), "size")};
}

const BlockDevice* block_list_find(const BlockList& list, const BlockName& name)
{
    for (const BlockDevice& device : list) {
        if (block_name_compare(device.name, name) == 0)
            return &device;
    }
    return nullptr;
}
