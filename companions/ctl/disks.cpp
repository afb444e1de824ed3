#include "ctl/disks.h"

#include "common/text.h"
#include "ctl/array.h"
#include "device/kinds.h"
#include "lib/str.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static constexpr uint64_t sector_bytes = 512; // sysfs tells sizes in these, whatever the disk's are
static constexpr uint32_t letters = 26;       // devices of a kind that the service knows names for

namespace {

// What is needed here of a kind of device. The compiler takes it out of the tables, so that their
// other texts are not in the program.
struct Kind {
    uint32_t major;
    const char* prefix;
    const char* disks; // characters behind it in the name of a whole device
    uint32_t range;    // minors of a device, where sysfs does not tell
    bool card;
};

struct Kinds {
    Kind of[sizeof device_kinds / sizeof *device_kinds];
};

constexpr Kinds make_kinds()
{
    Kinds made = {};
    Kind* next = made.of;
    for (const DeviceKind& kind : device_kinds)
        *next++ = {static_cast<uint32_t>(kind.major), kind.prefix, kernel_kind(kind).disks,
                   static_cast<uint32_t>(kernel_kind(kind).minors), kernel_kind(kind).card};
    return made;
}

constexpr Kinds kinds = make_kinds();

// What is read of one device.
struct Reader {
    const char* sysfs;
    DiskTable* table;
};

} // namespace

static void release_directory(DIR* directory)
{
    closedir(directory);
}
using DirGuard = Guard<DIR, release_directory>;

// ---- files of sysfs ----

// Reads a line; empty where there is none.
static void read_line(const char* directory, const char* file, char* text, size_t size)
{
    char path[PATH_MAX + 32];
    (void)snprintf(path, sizeof path, "%s/%s", directory, file);
    text[0] = '\0';
    const FdGuard fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0)
        return;
    const ssize_t length = read(fd.get(), text, size - 1);
    text[length > 0 ? length : 0] = '\0';
    text[strcspn(text, "\n")] = '\0';
    text_trim(text);
}

static uint64_t read_number(const char* directory, const char* file, int base)
{
    char text[32];
    read_line(directory, file, text, sizeof text);
    return strtoull(text, nullptr, base);
}

static bool has_entries(const char* directory, const char* folder)
{
    char path[PATH_MAX + 32];
    (void)snprintf(path, sizeof path, "%s/%s", directory, folder);
    const DirGuard entries(opendir(path));
    while (const dirent* entry = entries ? readdir(entries.get()) : nullptr) {
        if (entry->d_name[0] != '.')
            return true;
    }
    return false;
}

bool disk_usb_directory(const char* sysfs, const char* disk, char (&path)[PATH_MAX])
{
    char link[PATH_MAX];
    char root[PATH_MAX];
    (void)snprintf(link, sizeof link, "%s/block/%s/device", sysfs, disk);
    if (realpath(link, path) == nullptr || realpath(sysfs, root) == nullptr)
        return false;
    const size_t length = strlen(root);
    while (strncmp(path, root, length) == 0 && strlen(path) > length) {
        char vendor[8];
        read_line(path, "idVendor", vendor, sizeof vendor);
        if (vendor[0] != '\0')
            return true;
        *strrchr(path, '/') = '\0';
    }
    return false;
}

// ---- one device ----

// As the agent cleans what it tells the service.
static void clean(char* text)
{
    (void)text_clean(text, ",[]");
    if (text[0] == '=')
        text[0] = '_';
}

// A card has no numbers and no maker there.
static void read_hardware(const char* sysfs, bool card, DiskPart* part)
{
    char directory[PATH_MAX];
    unsigned vendor = 0;
    unsigned product = 0;
    if (card)
        (void)snprintf(directory, sizeof directory, "%s/block/%s/device", sysfs, part->disk);
    part->pluggable = card || disk_usb_directory(sysfs, part->disk, directory);
    if (part->pluggable) {
        vendor = static_cast<uint16_t>(read_number(directory, "idVendor", 16));
        product = static_cast<uint16_t>(read_number(directory, "idProduct", 16));
        read_line(directory, "serial", part->serial, sizeof part->serial);
        read_line(directory, "manufacturer", part->vendor, sizeof part->vendor);
        read_line(directory, card ? "name" : "product", part->product, sizeof part->product);
        read_line(directory, "speed", part->speed, sizeof part->speed);
    }
    clean(part->serial);
    (void)snprintf(part->identity, sizeof part->identity, "%04x:%04x:%s:%d", vendor, product,
                   part->serial, part->partition);
}

static void name_for_service(const Kind& kind, uint32_t range, DiskPart* part)
{
    if (part->major != kind.major || range == 0 || part->minor / range >= letters)
        return;
    (void)snprintf(part->service, sizeof part->service, "%s%c%u", kind.prefix,
                   'a' + static_cast<int>(part->minor / range), part->minor % range);
}

// An empty one at the end; null without memory.
static DiskPart* add_part(Reader* reader)
{
    DiskTable* table = reader->table;
    void* grown = array_grow(table->parts, table->count, sizeof(DiskPart));
    if (grown == nullptr)
        return nullptr;
    table->parts = static_cast<DiskPart*>(grown);
    return &table->parts[table->count++];
}

// Adds one device. Returns -ENOMEM.
static int read_part(Reader* reader, const Kind& kind, const char* disk, const char* name)
{
    char directory[PATH_MAX];
    char numbers[32];
    const bool whole = strcmp(disk, name) == 0;
    (void)snprintf(directory, sizeof directory, "%s/block/%s", reader->sysfs, disk);
    const uint64_t told = read_number(directory, "range", 10);
    const uint32_t range = told > 0 && told < 256 ? static_cast<uint32_t>(told) : kind.range;
    if (!whole)
        (void)snprintf(directory, sizeof directory, "%s/block/%s/%s", reader->sysfs, disk, name);
    read_line(directory, "dev", numbers, sizeof numbers);
    char* colon = nullptr;
    const auto major = static_cast<uint32_t>(strtoull(numbers, &colon, 10));
    if (*colon != ':')
        return 0; // it is going
    DiskPart* part = add_part(reader);
    if (part == nullptr)
        return -ENOMEM;
    part->major = major;
    part->minor = static_cast<uint32_t>(strtoull(colon + 1, nullptr, 10));
    str_ncpy(part->name, name, sizeof part->name);
    str_ncpy(part->disk, disk, sizeof part->disk);
    part->partition = whole ? 0 : static_cast<int32_t>(part->minor % range);
    part->size_bytes = read_number(directory, "size", 10) * sector_bytes;
    part->readonly = read_number(directory, "ro", 10) != 0;
    part->held = has_entries(directory, "holders");
    read_hardware(reader->sysfs, kind.card, part);
    name_for_service(kind, range, part);
    return 0;
}

static int read_disk(Reader* reader, const Kind& kind, const char* disk)
{
    char path[PATH_MAX];
    (void)snprintf(path, sizeof path, "%s/block/%s", reader->sysfs, disk);
    const size_t whole = reader->table->count;
    int result = read_part(reader, kind, disk, disk);
    const DirGuard directory(opendir(path));
    while (const dirent* entry = result == 0 && directory ? readdir(directory.get()) : nullptr) {
        if (strncmp(entry->d_name, disk, strlen(disk)) != 0)
            continue;
        result = read_part(reader, kind, disk, entry->d_name);
    }
    if (reader->table->count > whole)
        reader->table->parts[whole].parted = reader->table->count > whole + 1;
    return result;
}

// "sda" and "mmcblk0", not "mmcblk0boot0".
static const Kind* kind_of(const char* name)
{
    for (const Kind& kind : kinds.of) {
        const size_t length = strlen(kind.prefix);
        if (strncmp(name, kind.prefix, length) == 0 && name[length] != '\0' &&
            name[length + strspn(name + length, kind.disks)] == '\0' &&
            strlen(name) < disk_name_size)
            return &kind;
    }
    return nullptr;
}

static int compare(const void* a, const void* b)
{
    const auto* left = static_cast<const DiskPart*>(a);
    const auto* right = static_cast<const DiskPart*>(b);
    if (left->major != right->major)
        return left->major < right->major ? -1 : 1;
    return left->minor < right->minor ? -1 : left->minor > right->minor ? 1 : 0;
}

int disks_read(const char* sysfs, DiskTable** table)
{
    DiskTableGuard made(static_cast<DiskTable*>(calloc(1, sizeof(DiskTable))));
    if (!made)
        return -ENOMEM;
    Reader reader = {.sysfs = sysfs, .table = made.get()};
    char path[PATH_MAX];
    (void)snprintf(path, sizeof path, "%s/block", sysfs);
    const DirGuard directory(opendir(path));
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        const Kind* kind = kind_of(entry->d_name);
        if (kind != nullptr && read_disk(&reader, *kind, entry->d_name) != 0)
            return -ENOMEM;
    }
    if (made->count > 1)
        qsort(made->parts, made->count, sizeof(DiskPart), compare);
    *table = made.take();
    return 0;
}

void disks_free(DiskTable* table)
{
    if (table == nullptr)
        return;
    free(table->parts);
    free(table);
}
