#include "prepare/adoption.h"

#include "config/filesystems.h"
#include "lib/file.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "prepare/leftovers.h"
#include "prepare/places.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

static constexpr char boot_id_path[] = "/proc/sys/kernel/random/boot_id";
static constexpr size_t most_bytes = 1 << 20;
static constexpr size_t line_size = 160; // bytes of a note's line; the longest has 121
static constexpr mode_t notes_mode = 0600;

// ---- one mount's device ----

static const char* name_of(const MountinfoEntry& mount)
{
    return strrchr(mount.directory, '/') + 1;
}

// The row of the filesystem; null for one that the service does not mount.
static const Filesystem* filesystem_of_mount(const MountinfoEntry& mount)
{
    const bool by_driver = strncmp(mount.type, "fuse", 4) == 0;
    for (const Filesystem& filesystem : filesystems) {
        if (by_driver ? filesystem.driver != nullptr : strcmp(filesystem.type, mount.type) == 0)
            return &filesystem;
    }
    return nullptr;
}

// Looks at the device node that the service made for the mount. False without one.
static bool find_node(const MountinfoEntry& mount, const char* devicepath, MountNote* note,
                      dev_t* device)
{
    char node[place_path_size];
    struct stat status;
    const int length = snprintf(node, sizeof node, "%s/%s", devicepath, note->name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof node || stat(node, &status) != 0 ||
        !S_ISBLK(status.st_mode))
        return false;
    note->made = static_cast<uint64_t>(status.st_ctim.tv_sec) * 1000000000 +
                 static_cast<uint64_t>(status.st_ctim.tv_nsec);
    *device = status.st_rdev;
    // A driver's mount has no numbers of its own, but the node as its source.
    return strncmp(mount.type, "fuse", 4) != 0 ? status.st_rdev == makedev(mount.major, mount.minor)
                                               : strcmp(mount.source, node) == 0;
}

// Finds what the mount is made from, as far as it can be told by its node. False when it cannot:
// btrfs has no numbers of a block device's.
static bool find_device(const MountinfoEntry& mount, const char* devicepath, MountNote* note)
{
    dev_t device = 0;
    *note = {};
    if (filesystem_of_mount(mount) == nullptr || strlen(name_of(mount)) >= sizeof note->name)
        return false;
    str_cpy(note->name, name_of(mount));
    if (!find_node(mount, devicepath, note, &device))
        return false;
    note->major = major(device);
    note->minor = minor(device);
    return true;
}

// Reads a number that the kernel tells of the device's disk; 0 where it tells none. A partition's
// directory lies in that of its disk.
static uint64_t read_of_disk(const char* directory, const char* name)
{
    static constexpr const char* places[] = {"", "/.."};
    for (const char* place : places) {
        char path[128];
        FileBytes text;
        (void)snprintf(path, sizeof path, "%s%s/%s", directory, place, name);
        if (file_read_all(path, 0, line_size, &text) == 0)
            return strtoull(text.bytes.get(), nullptr, 10);
    }
    return 0;
}

// Looks at the device in sysfs. False when it is not plugged.
static bool look_at_device(MountNote* note)
{
    char directory[80];
    struct stat status;
    (void)snprintf(directory, sizeof directory, "/sys/dev/block/%" PRIu64 ":%" PRIu64, note->major,
                   note->minor);
    if (stat(directory, &status) != 0)
        return false;
    note->inode = status.st_ino;
    note->sequence = read_of_disk(directory, "diskseq");
    note->uncounted = note->sequence == 0 && read_of_disk(directory, "removable") != 0;
    return true;
}

// ---- the notes ----

static const MountNote* find_note(const AdoptionNotes& notes, const MountNote& mount)
{
    for (size_t at = 0; at < notes.count; at++) {
        const MountNote& note = notes.notes.get()[at];
        if (note.made == mount.made && note.major == mount.major && note.minor == mount.minor &&
            strcmp(note.name, mount.name) == 0)
            return &note;
    }
    return nullptr;
}

// The line that tells which boot the notes are of. Empty where the kernel does not say.
static void read_boot(char (&line)[line_size])
{
    FileBytes id;
    line[0] = '\0';
    if (file_read_all(boot_id_path, 0, line_size, &id) == 0)
        str_ncpy(line, id.bytes.get(), sizeof line);
    line[strspn(line, "0123456789abcdef-")] = '\0';
}

// Takes the next number. False when there is none.
static bool take_number(char** rest, uint64_t* number)
{
    const char* word = strsep(rest, " ");
    if (word == nullptr || *word < '0' || *word > '9')
        return false;
    char* end = nullptr;
    *number = strtoull(word, &end, 10);
    return *end == '\0';
}

static bool parse_note(char* line, MountNote* note)
{
    *note = {};
    const char* name = strsep(&line, " ");
    uint64_t* const numbers[] = {&note->made, &note->major, &note->minor, &note->inode,
                                 &note->sequence};
    for (uint64_t* number : numbers) {
        if (!take_number(&line, number))
            return false;
    }
    str_ncpy(note->name, name, sizeof note->name);
    return line == nullptr;
}

// Takes the text apart, in place.
static int parse_notes(char* text, AdoptionNotes* notes)
{
    size_t lines = 0;
    for (const char* at = text; *at != '\0'; at++)
        lines += *at == '\n' ? 1 : 0;
    notes->notes.reset(static_cast<MountNote*>(calloc(lines + 1, sizeof(MountNote))));
    if (!notes->notes)
        return -ENOMEM;
    for (char* line = strsep(&text, "\n"); text != nullptr; line = strsep(&text, "\n")) {
        if (parse_note(line, &notes->notes.get()[notes->count]))
            notes->count++;
    }
    return 0;
}

int adoption_load(AdoptionNotes* notes)
{
    FileBytes content;
    notes->count = 0;
    const int result = file_read_all(adoption_notes_path, O_NOFOLLOW, most_bytes, &content);
    if (result != 0)
        return result == -ENOENT ? 0 : result;
    char boot[line_size];
    read_boot(boot);
    char* rest = content.bytes.get();
    const char* noted = strsep(&rest, "\n");
    return rest != nullptr && strcmp(noted, boot) == 0 ? parse_notes(rest, notes) : 0;
}

// Appends a mount's line. Returns where the next begins.
static char* append_note(char* at, const MountNote& note)
{
    return at + snprintf(at, line_size,
                         "%s %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 "\n",
                         note.name, note.made, note.major, note.minor, note.inode, note.sequence);
}

// What is to be noted of a mount. False for none.
static bool make_note(const ConfHotplug* config, const AdoptionNotes& before,
                      const MountinfoEntry& mount, MountNote* note)
{
    if (!find_device(mount, config->devicepath, note))
        return false;
    const MountNote* known = find_note(before, *note);
    if (known != nullptr)
        *note = *known;
    return known != nullptr || look_at_device(note);
}

int adoption_note(const ConfHotplug* config, const Mountinfo* table)
{
    const MemGuard<char> mountpath(realpath(config->mountpath, nullptr));
    AdoptionNotes before;
    if (!mountpath || adoption_load(&before) != 0)
        before.count = 0; // as if nothing had been noted
    const MemGuard<char> text(static_cast<char*>(malloc((table->count + 1) * line_size)));
    if (!text)
        return -ENOMEM;
    char boot[line_size];
    read_boot(boot);
    char* at = str_cpy(str_cpy(text.get(), boot), "\n");
    for (size_t i = 0; mountpath && i < table->count; i++) {
        const MountinfoEntry& mount = table->entries[i];
        MountNote note;
        if (leftovers_is_partition(mount.directory, mountpath.get()) &&
            make_note(config, before, mount, &note))
            at = append_note(at, note);
    }
    const int result = place_directory("/run/vyhotplugd");
    if (result != 0)
        return result;
    return file_replace(adoption_notes_path, text.get(), static_cast<size_t>(at - text.get()),
                        notes_mode, 0);
}

// ---- the verdict ----

const char* adoption_refusal(const ConfHotplug* config, const AdoptionNotes& notes,
                             const MountinfoEntry& mount)
{
    const Filesystem* filesystem = filesystem_of_mount(mount);
    MountNote now;
    if (filesystem == nullptr || !filesystem_is_wanted(*filesystem, config))
        return "its filesystem is not enabled";
    if (!find_device(mount, config->devicepath, &now))
        return "its device cannot be told";
    const MountNote* noted = find_note(notes, now);
    if (noted == nullptr)
        return "nothing is noted of its device";
    if (!look_at_device(&now))
        return "its device is not plugged any more";
    if (now.uncounted)
        return "this kernel does not count media, it may hold another";
    if (noted->inode != now.inode || noted->sequence != now.sequence)
        return "another device or medium is in its place";
    if (filesystem->driver != nullptr && sys_statfs(mount.directory) != 0)
        return "its driver does not answer";
    return nullptr;
}
