// The share file, with hostile labels, names, serials and settings, against the text that is to be
// expected.
//
// Input: a line of five words (below), what the label tool prints, the device file, and a message
// for each partition of the set, separated by lines "%%". The words: 1 for device-information
// lines, 1 for FAT labels, the label tool's exit status, a letter for each partition ("m" mounted,
// "u" unmounted, "g" gone) each followed by its filesystem's digit, and a USB port path such as
// 1-3-2.
#include "records/config_file_dir.h"

#include "config/filesystems.h"
#include "core/message.h"
#include "device/crtsec.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "records/conf_dev_file.h"
#include "records/volume_label.h"
#include "support/busy_world.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

static constexpr size_t most_partitions = 5;
static constexpr size_t most_printed = 4096; // fits a pipe

namespace {

struct Setting {
    int naswork = 0;
    int fat_labels = 0;
    int tool_status = 0;
    char states[2 * most_partitions + 1] = "";
    char usbport[32] = "";
    std::string printed; // by the label tool
};

} // namespace

// ---- the expected file ----

static std::string kept(const std::string& text, size_t bytes)
{
    return std::string(text.c_str()).substr(0, bytes);
}

static std::string line_of(const char* key, const char* text)
{
    return text == nullptr ? "" : std::string(key) + text + "\n";
}

static std::string users_line(const char* key, vylist* users)
{
    if (users->count == 0)
        return "";
    std::string line = key;
    for (vylist_node* node = users->next; node != vylist_end(users); node = node->next)
        line += std::to_string(*static_cast<int32_t*>(node->data)) + ",";
    return line + "\n";
}

static std::string filesystem_line(uint8_t filesystem)
{
    static const char* const lines[] = {"", "File System=EXT2\n", "File System=EXT3\n",
                                        "", "File System=FAT\n",  "File System=NTFS\n"};
    return filesystem < std::size(lines) ? lines[filesystem] : "";
}

static std::string settings_text(const std::string& name, const ConfDev* dev)
{
    static const char* const access[] = {"Administrator=HideT\n", "Administrator=Block\n",
                                         "Administrator=ReadOnly\n", ""};
    std::string text = "[" + name + "]\n" + line_of("Comment=", dev->comment);
    text += filesystem_line(dev->filesystem);
    text += dev->sync != 0 ? "Sync=Enable\n" : "";
    text += dev->readonly != 0 ? "Read Only=Enable\n" : "";
    text += dev->guestaccess != 0 ? "Guest Access=Enable\n" : "";
    text += dev->guesthide != 0 ? "Guest Hide=Enable\n" : "";
    text += access[dev->administrator];
    text += users_line("Full Access Users=", dev->fullaccessusers);
    text += users_line("Read Only Users=", dev->readonlyusers);
    text += users_line("Block Users=", dev->blockusers);
    return text + users_line("Hide Users=", dev->hideusers);
}

static std::string directories_text(const std::vector<ConfDev*>& records)
{
    std::string text;
    int unnamed = 0;
    for (const ConfDev* dev : records) {
        if (dev->path == nullptr)
            continue;
        const std::string name = dev->sharename != nullptr
                                     ? kept(dev->sharename, 39)
                                     : "Disk(" + std::to_string(unnamed++) + ")";
        text += settings_text(name, dev) + line_of("Path=", dev->path);
        text += dev->comment == nullptr ? "Comment=Internal Disk\n" : "";
        text += line_of("Identifier=", dev->identifier);
    }
    return text;
}

static const ConfDev* record_of(const std::vector<ConfDev*>& records, const HotplugDev* dev)
{
    char ids[16];
    snprintf(ids, sizeof ids, "%04x:%04x:", dev->vid, dev->pid);
    const std::string identity = ids + std::string(dev->serial != nullptr ? dev->serial : "") +
                                 ":" + std::to_string(dev->minor % dev->range);
    if (identity.size() > 512)
        return nullptr;
    for (const ConfDev* record : records) {
        if (record->identifier == identity.substr(0, 511))
            return record;
    }
    return nullptr;
}

// What the label tool printed, as it is used.
static std::string label_of(const MountEntry* entry, const Setting& setting)
{
    const bool fat = entry->fstype == CONF_DEV_FS_FAT && setting.fat_labels != 0;
    if (setting.tool_status != 0 || (!fat && entry->fstype != CONF_DEV_FS_NTFS))
        return "";
    std::string printed = setting.printed.substr(0, 79);
    if (!printed.empty() && printed.back() == '\n')
        printed.pop_back();
    return oracle_copy_u8(printed.c_str(), 34);
}

static std::string name_of(const HotplugDev* dev, const std::string& label)
{
    const std::string base = label.empty() ? "Drive" : label;
    const std::string place = std::string(1, static_cast<char>('A' + dev->minor / dev->range)) +
                              std::to_string(dev->minor % dev->range);
    if (dev->major == 8)
        return kept(base + "(" + place + ")", 39);
    return dev->major == 179 ? kept(base + "(MMC" + place + ")", 39) : "";
}

static std::string comment_of(const HotplugDev* dev)
{
    const std::string kind = dev->major == 8     ? "USB Storage Device"
                             : dev->major == 179 ? "MMC Block Device"
                                                 : "";
    const std::string vendor = dev->vname != nullptr ? dev->vname : "";
    const std::string product = dev->pname != nullptr ? dev->pname : "";
    if (!vendor.empty() || !product.empty()) {
        const char* between = vendor.empty() || product.empty() ? "" : "/";
        return kept(kind + " (" + vendor + between + product + ")", 63);
    }
    char ids[32];
    snprintf(ids, sizeof ids, " (0x%04X/0x%04X)", dev->vid, dev->pid);
    return kind + ids;
}

static std::string port_line(const HotplugDev* dev)
{
    std::string line;
    for (size_t i = 0; i < sizeof dev->usbport && dev->usbport[i] != 0; i++)
        line += (i == 0 ? "USB Port=" : "-") + std::to_string(static_cast<int8_t>(dev->usbport[i]));
    return line.empty() ? "" : line + "\n";
}

static std::string device_text(const MountEntry* entry)
{
    const HotplugDev* dev = entry->dev;
    std::string text = entry->mounted == 0 ? "Status=Unmount\n" : "";
    text += filesystem_line(entry->fstype);
    text += dev->vid != 0 ? "VID=" + std::to_string(dev->vid) + "\n" : "";
    text += dev->pid != 0 ? "PID=" + std::to_string(dev->pid) + "\n" : "";
    text += line_of("Serial=", dev->serial);
    text += line_of("Manufactuare=", dev->vname);
    text += line_of("Product=", dev->pname);
    text += dev->speed != 0 ? "Speed=" + std::to_string(dev->speed) + "\n" : "";
    text += port_line(dev);
    return text + ((dev->flags & HOTPLUG_FLAG_READONLY) != 0 ? "Read Only=Enable\n" : "");
}

// One partition's section; `name` is what its share is called.
static std::string partition_text(const MountEntry* entry, const ConfDev* record,
                                  const Setting& setting, std::string* name)
{
    std::string label;
    if (record->sharename != nullptr) {
        *name = kept(record->sharename, 39);
    } else {
        label = label_of(entry, setting);
        *name = name_of(entry->dev, label);
    }
    std::string text = settings_text(*name, record) + line_of("Identifier=", record->identifier);
    text += line_of("Path=", entry->mountpoint);
    text += label.empty() ? "" : "Volume Label=" + label + "\n";
    text += record->comment != nullptr ? "" : "Comment=" + comment_of(entry->dev) + "\n";
    return setting.naswork != 0 ? text + device_text(entry) : text;
}

// ---- the lines ----

static bool is_known(const std::string& line)
{
    static const char* const keys[] = {"Comment=",
                                       "File System=",
                                       "Sync=",
                                       "Read Only=",
                                       "Guest Access=",
                                       "Guest Hide=",
                                       "Administrator=",
                                       "Full Access Users=",
                                       "Read Only Users=",
                                       "Block Users=",
                                       "Hide Users=",
                                       "Path=",
                                       "Identifier=",
                                       "Volume Label=",
                                       "Status=",
                                       "VID=",
                                       "PID=",
                                       "Serial=",
                                       "Manufactuare=",
                                       "Product=",
                                       "Speed=",
                                       "USB Port="};
    if (line.size() >= 2 && line.front() == '[' && line.back() == ']')
        return true;
    return std::any_of(std::begin(keys), std::end(keys),
                       [&line](const char* key) { return line.rfind(key, 0) == 0; });
}

static bool has_line_feed(const char* text)
{
    return text != nullptr && strchr(text, '\n') != nullptr;
}

// A line feed inside a value is passed on as it is and makes lines of its own.
static bool may_have_other_lines(const BusyWorld& world, const Setting& setting)
{
    for (const MountEntry* entry : world.entries()) {
        const HotplugDev* dev = entry->dev;
        if (has_line_feed(dev->serial) || has_line_feed(dev->vname) || has_line_feed(dev->pname))
            return true;
    }
    return has_line_feed(setting.printed.c_str());
}

static void check_lines(const std::string& file)
{
    check(file.empty() || file.back() == '\n', "the last line ends");
    size_t begin = 0;
    while (begin < file.size()) {
        const size_t end = file.find('\n', begin);
        const std::string line = file.substr(begin, end - begin);
        if (!is_known(line))
            check_same(line, "", "a line that the file does not have");
        begin = end + 1;
    }
}

// ---- one input ----

static Setting read_setting(const std::string& line)
{
    Setting setting;
    (void)sscanf(line.c_str(), "%d %d %d %10s %31s", &setting.naswork, &setting.fat_labels,
                 &setting.tool_status, setting.states, setting.usbport);
    return setting;
}

static void set_port(HotplugDev* dev, const char* path)
{
    for (uint8_t& port : dev->usbport) {
        char* end = nullptr;
        port = static_cast<uint8_t>(strtoul(path, &end, 10));
        if (*end != '-')
            return;
        path = end + 1;
    }
}

static void set_state(MountEntry* entry, const Setting& setting, size_t number)
{
    if (strlen(setting.states) < 2 * number + 2)
        return;
    const char state = setting.states[2 * number];
    entry->mounted = state == 'u' ? 0 : 1;
    entry->gone = state == 'g' ? 1 : 0;
    entry->fstype = static_cast<uint8_t>(setting.states[2 * number + 1] - '0');
}

static void add_partition(BusyWorld* world, const std::string& text, const Setting& setting)
{
    ControlMessage message;
    check_equal(message_parse(text.c_str(), &message), 0, "a message is read");
    HotplugDev* dev = &message.dev;
    // Others never come into the set.
    if (dev->minor < 0 || hotplug_dev_index(dev) >= 26)
        return message_clear(&message);
    set_port(dev, setting.usbport);
    const size_t number = world->entries().size();
    set_state(world->add(*dev, "e" + std::to_string(number), true), setting, number);
    for (const char* tool : {"mlabel", "ntfsvlabel"})
        fake_world().programs[tool].push_back(
            {.wait_status = setting.tool_status << 8, .output = setting.printed});
}

static std::vector<ConfDev*> records_of(const ConfDevTable* table)
{
    std::vector<ConfDev*> records;
    for (int32_t at = 0; conf_dev_find_index(table, at) != nullptr; at++)
        records.push_back(conf_dev_find_index(table, at));
    return records;
}

static void check_file(const BusyWorld& world, const ConfDevTable* table, const Setting& setting)
{
    const std::vector<ConfDev*> records = records_of(table);
    std::string wanted = directories_text(records);
    std::vector<std::string> names;
    int64_t without_record = 0;
    for (const MountEntry* entry : world.entries()) {
        std::string name = "(null)";
        const ConfDev* record = entry->gone != 0 ? nullptr : record_of(records, entry->dev);
        without_record += entry->gone == 0 && record == nullptr ? 1 : 0;
        if (record != nullptr && record->path == nullptr)
            wanted += partition_text(entry, record, setting, &name);
        names.push_back(name);
    }
    fake_log_clear();
    check_equal(conf_dir_save(world.share_file.c_str(), table, setting.naswork), 0, "it is saved");
    check_same(get_file(world.share_file.c_str()), wanted, "the share file");
    check_equal(static_cast<int64_t>(fake_log_lines().size()), without_record,
                "who has no record is logged");
    std::vector<std::string> shares;
    for (const MountEntry* entry : world.entries())
        shares.push_back(text_of(entry->sharename));
    check_list(shares, names, "the names that the entries were given");
}

static void check_withdrawal(const BusyWorld& world)
{
    std::string wanted = get_file(world.share_file.c_str());
    for (const MountEntry* entry : world.entries()) {
        if (entry->sharename != nullptr)
            wanted += std::string("[") + entry->sharename + "]\n";
        check_equal(conf_dir_set_unmount_flg(world.share_file.c_str(), entry->sharename),
                    entry->sharename != nullptr ? 0 : -1, "a share is withdrawn");
    }
    check_same(get_file(world.share_file.c_str()), wanted, "the file with the withdrawn shares");
}

void fuzz(Input& input)
{
    BusyWorld world;
    Setting setting = read_setting(input.line());
    setting.tool_status &= 0xFF;
    setting.printed = input.field().substr(0, most_printed);
    conf_dir_set_fat_vlabel(setting.fat_labels);
    put_file(world.device_file.c_str(), input.field());
    for (const std::string& text : input.fields(most_partitions))
        add_partition(&world, text, setting);

    const ConfDevTableGuard table(conf_dev_create());
    check_equal(conf_dev_load(world.device_file.c_str(), table.get()), 0, "the records are loaded");
    for (const MountEntry* entry : world.entries()) {
        const HotplugDev* dev = entry->dev;
        (void)conf_dev_add(table.get(), dev->vid, dev->pid, dev->serial,
                           hotplug_dev_partition(dev)); // null for one that is there
    }
    check_file(world, table.get(), setting);
    if (!may_have_other_lines(world, setting))
        check_lines(get_file(world.share_file.c_str()));
    check_withdrawal(world);
}
