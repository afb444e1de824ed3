#include "records/config_file_dir.h"

#include "device/crtsec.h"
#include "device/kinds.h"
#include "lib/file.h"
#include "lib/log.h"
#include "lib/platform.h"
#include "lib/str.h"
#include "lib/trust.h"
#include "records/conf_dev_file.h"
#include "records/lines.h"
#include "records/volume_label.h"

#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static constexpr char log_tag[] = "config_file_dir";
static constexpr char temporary_file[] = "/tmp/vyhotplug.dir.conf.tmp";
static constexpr uint32_t sharename_size = 40; // bytes with the NUL, as are the next three
static constexpr uint32_t comment_size = 64;
static constexpr uint32_t label_size = 80;
static constexpr uint32_t label_used_size = 34;

// ---- lines ----

static const char* administrator_line(uint8_t administrator)
{
    switch (administrator) {
    case CONF_DEV_ADMIN_HIDE:
        return "Administrator=HideT\n"; // kept: the share service looks for this spelling
    case CONF_DEV_ADMIN_BLOCK:
        return "Administrator=Block\n";
    case CONF_DEV_ADMIN_READONLY:
        return "Administrator=ReadOnly\n";
    default:
        return nullptr;
    }
}

namespace {

struct SwitchLine {
    uint8_t ConfDev::*field;
    const char* line; // written when the field is 1
};

constexpr SwitchLine switch_lines[] = {
    {&ConfDev::sync, "Sync=Enable\n"},
    {&ConfDev::readonly, "Read Only=Enable\n"},
    {&ConfDev::guestaccess, "Guest Access=Enable\n"},
    {&ConfDev::guesthide, "Guest Hide=Enable\n"},
};

struct UsersLine {
    vylist* ConfDev::*field;
    const char* key; // written when the list holds anybody
};

constexpr UsersLine users_lines[] = {
    {&ConfDev::fullaccessusers, "Full Access Users="},
    {&ConfDev::readonlyusers, "Read Only Users="},
    {&ConfDev::blockusers, "Block Users="},
    {&ConfDev::hideusers, "Hide Users="},
};

} // namespace

// Nothing for a filesystem that has no word in the file.
static int write_filesystem(FILE* stream, uint8_t code)
{
    const Filesystem* filesystem = filesystem_of(code);
    return line_write_text(stream,
                           "File System=", filesystem != nullptr ? filesystem->file_word : nullptr);
}

int conf_dir_info(FILE* stream, const char* sharename, const ConfDev* dev)
{
    if (fprintf(stream, "[%s]\n", sharename) < 0)
        return -1;
    if (line_write_text(stream, "Comment=", dev->comment) != 0)
        return -1;
    if (write_filesystem(stream, dev->filesystem) != 0)
        return -1;
    for (const SwitchLine& row : switch_lines) {
        if (line_write(stream, dev->*row.field == 1 ? row.line : nullptr) != 0)
            return -1;
    }
    if (line_write(stream, administrator_line(dev->administrator)) != 0)
        return -1;
    for (const UsersLine& row : users_lines) {
        const vylist* users = dev->*row.field;
        const char* misread = dev->misread[&row - users_lines];
        if (users->count == 0 && misread == nullptr)
            continue;
        if (conf_dev_write_users(stream, row.key, users, misread) != 0)
            return -1;
    }
    return 0;
}

static int write_usb_port(FILE* stream, const HotplugDev* dev)
{
    if (dev->usbport[0] == 0)
        return 0;
    const char* separator = "USB Port=";
    for (const uint8_t port : dev->usbport) {
        if (port == 0)
            break;
        if (fprintf(stream, "%s%hhd", separator, static_cast<signed char>(port)) < 0)
            return -1;
        separator = "-";
    }
    return line_write(stream, "\n");
}

int conf_dir_exinfo(FILE* stream, const MountEntry* entry)
{
    const HotplugDev* dev = entry->dev;
    if (line_write(stream, entry->mounted == 0 ? "Status=Unmount\n" : nullptr) != 0)
        return -1;
    if (write_filesystem(stream, entry->fstype) != 0)
        return -1;
    if (dev->vid != 0 && fprintf(stream, "VID=%hu\n", dev->vid) < 0)
        return -1;
    if (dev->pid != 0 && fprintf(stream, "PID=%hu\n", dev->pid) < 0)
        return -1;
    if (line_write_text(stream, "Serial=", dev->serial) != 0)
        return -1;
    // The spelling is kept: readers know no other.
    if (line_write_text(stream, "Manufactuare=", dev->vname) != 0)
        return -1;
    if (line_write_text(stream, "Product=", dev->pname) != 0)
        return -1;
    if (dev->speed != 0 && fprintf(stream, "Speed=%d\n", dev->speed) < 0)
        return -1;
    if (write_usb_port(stream, dev) != 0)
        return -1;
    const bool readonly = (dev->flags & HOTPLUG_FLAG_READONLY) != 0;
    return line_write(stream, readonly ? "Read Only=Enable\n" : nullptr);
}

// ---- sections ----

// Ends a section that began at `start`: down to the file when all its writes went well, out of the
// file otherwise, so that the next one begins where it began.
static void end_section(FILE* stream, off_t start, bool written)
{
    if (written && stream_flush(stream) == 0)
        return;
    __fpurge(stream);
    clearerr(stream);
    // The part that did reach the file; where even that fails, the next section writes over it.
    [[maybe_unused]] const int cut = ftruncate(fileno(stream), start);
    (void)fseeko(stream, start, SEEK_SET);
}

// Fills `name` for a fixed directory; unnamed ones are numbered in table order.
static void name_directory(const ConfDev* dev, int* unnamed, char (&name)[sharename_size])
{
    if (dev->sharename != nullptr)
        str_ncpy(name, dev->sharename, sizeof name);
    else
        (void)snprintf(name, sizeof name, "Disk(%d)", (*unnamed)++);
}

static bool write_directory(FILE* stream, const char* name, const ConfDev* dev)
{
    if (conf_dir_info(stream, name, dev) != 0)
        return false;
    if (line_write_text(stream, "Path=", dev->path) != 0)
        return false;
    if (dev->comment == nullptr && line_write(stream, "Comment=Internal Disk\n") != 0)
        return false;
    return line_write_text(stream, "Identifier=", dev->identifier) == 0;
}

static void write_directories(FILE* stream, const ConfDevTable* table)
{
    int unnamed = 0;
    for (const vylist_node* node = table->list->next; node != vylist_end(table->list);
         node = node->next) {
        const auto* dev = static_cast<const ConfDev*>(node->data);
        if (dev->path == nullptr)
            continue;
        const off_t start = ftello(stream);
        char name[sharename_size];
        name_directory(dev, &unnamed, name);
        end_section(stream, start, write_directory(stream, name, dev));
    }
}

// Fills `name` after the volume's label, or "Drive", and the partition's letter and number. Empty
// for a kind of device that has no names.
static void name_by_label(const HotplugDev* dev, const char* label, char (&name)[sharename_size])
{
    name[0] = '\0';
    const DeviceKind* kind = device_kind(dev->major);
    if (kind == nullptr)
        return;
    const char* base = label[0] != '\0' ? label : "Drive";
    (void)snprintf(name, sizeof name, "%s(%s%c%d)", base, kind->share_mark,
                   'A' + hotplug_dev_index(dev), hotplug_dev_partition(dev));
}

// Fills `label` with as much of the volume's label as is used; empty without one.
static void read_label(const MountEntry* entry, char (&label)[label_used_size])
{
    char printed[label_size] = "";
    (void)conf_dir_get_vlabel(entry, printed, sizeof printed); // without a label it is a "Drive"
    str_ncpy_u8(label, printed, sizeof label);
}

// Fills `name`, and `label` where the name comes from it.
static void name_partition(const MountEntry* entry, const ConfDev* dev,
                           char (&label)[label_used_size], char (&name)[sharename_size])
{
    label[0] = '\0';
    if (dev->sharename != nullptr) {
        str_ncpy(name, dev->sharename, sizeof name);
        return;
    }
    read_label(entry, label);
    name_by_label(entry->dev, label, name);
}

static void describe_device(const HotplugDev* dev, char (&comment)[comment_size])
{
    const DeviceKind* known = device_kind(dev->major);
    const char* kind = known != nullptr ? known->description : "";
    if (dev->vname == nullptr && dev->pname == nullptr) {
        (void)snprintf(comment, sizeof comment, "%s (0x%04hX/0x%04hX)", kind, dev->vid, dev->pid);
        return;
    }
    const bool both = dev->vname != nullptr && dev->pname != nullptr;
    (void)snprintf(comment, sizeof comment, "%s (%s%s%s)", kind,
                   dev->vname != nullptr ? dev->vname : "", both ? "/" : "",
                   dev->pname != nullptr ? dev->pname : "");
}

static bool write_partition(FILE* stream, const MountEntry* entry, const ConfDev* dev,
                            const char* name, const char* label)
{
    if (conf_dir_info(stream, name, dev) != 0)
        return false;
    if (line_write_text(stream, "Identifier=", dev->identifier) != 0)
        return false;
    if (line_write_text(stream, "Path=", entry->mountpoint) != 0)
        return false;
    if (line_write_text(stream, "Volume Label=", label[0] != '\0' ? label : nullptr) != 0)
        return false;
    if (dev->comment != nullptr)
        return true;
    char comment[comment_size];
    describe_device(entry->dev, comment);
    return line_write_text(stream, "Comment=", comment) == 0;
}

static void keep_sharename(MountEntry* entry, const char* name)
{
    free(entry->sharename);
    entry->sharename = strdup(name);
}

// The record of a mounted partition; null when it has none, which is logged.
static const ConfDev* record_of(const ConfDevTable* table, const HotplugDev* dev)
{
    const ConfDev* found =
        conf_dev_find(table, dev->vid, dev->pid, dev->serial, hotplug_dev_partition(dev));
    if (found == nullptr)
        VY_LOG(LOG_ERR, "Error - External Directory Config.");
    return found;
}

static void add_partition(FILE* stream, const ConfDevTable* table, MountEntry* entry, bool exinfo)
{
    if (entry->gone != 0)
        return;
    const ConfDev* dev = record_of(table, entry->dev);
    if (dev == nullptr || dev->path != nullptr) // one with a path is a fixed directory already
        return;
    const off_t start = ftello(stream);
    char label[label_used_size];
    char name[sharename_size];
    name_partition(entry, dev, label, name);
    bool written = write_partition(stream, entry, dev, name, label);
    keep_sharename(entry, name);
    if (written && exinfo)
        written = conf_dir_exinfo(stream, entry) == 0;
    end_section(stream, start, written);
}

static void write_partitions(FILE* stream, const ConfDevTable* table, bool exinfo)
{
    BusyWalk walk = {};
    MountEntry* entry = nullptr;
    while (crtsec_blk_next(&walk, &entry) == 0)
        add_partition(stream, table, entry, exinfo);
}

// ---- the file ----

int conf_dir_save(const char* path, const ConfDevTable* table, int naswork, bool strict)
{
    FileGuard file(strict ? trust_create(temporary_file) : fopen(temporary_file, "w"));
    if (!file)
        return -1;
    write_directories(file.get(), table);
    write_partitions(file.get(), table, naswork != 0);
    file.reset(nullptr);
    (void)file_move(temporary_file, path); // the old file stays when it cannot be moved: kept
    return 0;
}

int conf_dir_set_unmount_flg(const char* path, const char* sharename, bool strict)
{
    if (path == nullptr || sharename == nullptr)
        return -1;
    FILE* file = strict ? trust_append(path) : fopen(path, "a");
    if (file == nullptr)
        return -1;
    if (fprintf(file, "[%s]\n", sharename) < 0 || stream_flush(file) != 0) {
        __fpurge(file); // nothing of it may reach the file later; the stream stays open: kept
        return -1;
    }
    return fclose(file) == 0 ? 0 : -1;
}
