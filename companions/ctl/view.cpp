#include "ctl/view.h"

#include "ctl/array.h"
#include "ctl/machine.h"
#include "ctl/sections.h"
#include "ctl/service.h"
#include "ctl/settings.h"
#include "lib/file.h"
#include "lib/str.h"
#include "records/conf_dev_file.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static constexpr size_t not_mounted_most = 1 << 20; // bytes of the agent's file that are read

static constexpr const char* share_keys[SHARE_TEXTS] = {
    "comment", "manufactuare", "product", "serial",   "volumelabel",
    "speed",   "filesystem",   "status",  "readonly",
};

static constexpr const char* state_words[ITEM_STATES] = {
    "shared",  "mounted", "busy",      "unmounted",   "not mounted",
    "waiting", "shared",  "not there", "not plugged",
};

// ---- items ----

// Appends an empty item; null without memory.
static Item* add_item(View* view)
{
    void* grown = array_grow(view->items, view->count, sizeof(Item));
    if (grown == nullptr)
        return nullptr;
    view->items = static_cast<Item*>(grown);
    return &view->items[view->count++];
}

static void clear_item(Item* item)
{
    free(item->identity);
    free(item->share);
    free(item->directory);
    free(item->reason);
    for (char* text : item->texts)
        free(text);
}

// The part of a path below the service's mount directory, as it is configured or as the kernel
// knows it; null for another path.
static const char* below_mounts(const Setup& setup, const char* path)
{
    const char* rest = mountinfo_rest(path, setup.config->mountpath);
    if (rest == nullptr)
        rest = mountinfo_rest(path, setup.mountroot);
    return rest != nullptr && rest[0] != '\0' ? rest : nullptr;
}

// ---- shares ----

// Takes an entry's value; null where it is empty or not there. Returns -ENOMEM.
static int take_value(const IniSection* entries, const char* key, char** value)
{
    IniValueGuard read;
    const int result = ini_section_get_string(entries, key, read.out(), INI_LAST);
    if (result == -ENOMEM)
        return result;
    if (read && read.get()[0] != '\0')
        *value = read.take();
    return 0;
}

// An empty section behind one with the same name withdraws it.
static void withdraw(View* view, const char* name)
{
    for (size_t i = 0; i < view->count; i++) {
        if (view->items[i].share != nullptr && strcasecmp(view->items[i].share, name) == 0)
            view->items[i].state = ITEM_BUSY;
    }
}

// Reads one section into an item. Returns 0; -ENOMEM.
static int read_share(const char* text, const Section& section, View* view)
{
    IniDocGuard doc;
    IniSectionGuard entries;
    if (ini_doc_parse(text + section.body, section.end - section.body, doc.out()) != 0 ||
        ini_section_open(doc.get(), "", entries.out()) == -ENOMEM)
        return -ENOMEM;
    MemGuard<char> name(strndup(text + section.name, section.name_size));
    char* identity = nullptr;
    if (!name || take_value(entries.get(), "identifier", &identity) != 0)
        return -ENOMEM;
    if (identity == nullptr) {
        withdraw(view, name.get());
        return 0;
    }
    Item* item = add_item(view);
    if (item == nullptr) {
        free(identity);
        return -ENOMEM;
    }
    item->identity = identity;
    item->share = name.take();
    int result = take_value(entries.get(), "path", &item->directory);
    for (size_t i = 0; i < SHARE_TEXTS && result == 0; i++)
        result = take_value(entries.get(), share_keys[i], &item->texts[i]);
    return result;
}

// Reads the share file; one that cannot be read holds nothing.
static int read_shares(const Setup& setup, View* view)
{
    FileBytes content;
    SectionTableGuard table;
    const int result = file_read_all(setup.config->smbconfigpath, 0, FILE_ANY_SIZE, &content);
    if (result != 0)
        return machine_is_short(result) ? result : 0;
    if (sections_cut(content.bytes.get(), content.size, table.out()) != 0)
        return -ENOMEM;
    for (size_t i = 0; i < table->count; i++) {
        const Section& section = table->sections[i];
        if (section.name_size > 0 && read_share(content.bytes.get(), section, view) != 0)
            return -ENOMEM;
    }
    return 0;
}

// ---- what is mounted ----

static const MountinfoEntry* mount_at(const View& view, const char* directory)
{
    for (size_t i = view.mounts->count; i > 0; i--) {
        const MountinfoEntry& entry = view.mounts->entries[i - 1];
        if (strcmp(entry.directory, directory) == 0)
            return &entry;
    }
    return nullptr;
}

static bool is_mounted_anywhere(const View& view, const DiskPart& part)
{
    for (size_t i = 0; i < view.mounts->count; i++) {
        if (view.mounts->entries[i].major == part.major &&
            view.mounts->entries[i].minor == part.minor)
            return true;
    }
    return false;
}

static const DiskPart* part_of(const View& view, const char* service_name)
{
    for (size_t i = 0; i < view.disks->count; i++) {
        if (strcmp(view.disks->parts[i].service, service_name) == 0)
            return &view.disks->parts[i];
    }
    return nullptr;
}

static void measure(Item* item)
{
    struct statvfs status;
    if (item->part != nullptr)
        item->size_bytes = item->part->size_bytes;
    if (item->mount == nullptr || statvfs(item->mount->directory, &status) != 0)
        return;
    const auto block = static_cast<uint64_t>(status.f_frsize);
    item->size_bytes = block * status.f_blocks;
    item->used_bytes = block * (status.f_blocks - status.f_bfree);
    item->free_bytes = block * status.f_bavail;
}

static ItemState state_of(const Item& item)
{
    if (item.mount == nullptr)
        return ITEM_UNMOUNTED;
    return item.share == nullptr ? ITEM_MOUNTED : item.state;
}

static const ConfDev* record_of(const View& view, const char* identity)
{
    const vylist* list = view.table->list;
    for (const vylist_node* node = list->next; node != vylist_end(list); node = node->next) {
        const auto* record = static_cast<const ConfDev*>(node->data);
        if (strcmp(record->identifier, identity) == 0)
            return record;
    }
    return nullptr;
}

// Joins what the share file tells with what is mounted there.
static void look_up(const Setup& setup, View* view, Item* item)
{
    const char* path = item->directory != nullptr ? item->directory : "";
    const char* rest = below_mounts(setup, path);
    struct stat status;
    if (item->identity != nullptr)
        item->settings = record_of(*view, item->identity);
    if (rest == nullptr || strchr(rest, '/') != nullptr) { // a directory on a disk is one, too
        const bool there = stat(path, &status) == 0 && S_ISDIR(status.st_mode);
        item->state = there ? ITEM_DIRECTORY : ITEM_GONE;
        return;
    }
    char resolved[PATH_MAX];
    (void)snprintf(resolved, sizeof resolved, "%s/%s", setup.mountroot, rest);
    str_ncpy(item->name, rest, sizeof item->name);
    item->mount = mount_at(*view, resolved);
    item->part = part_of(*view, item->name);
    item->state = state_of(*item);
    measure(item);
}

static Item* item_of(View* view, const char* name)
{
    for (size_t i = 0; i < view->count; i++) {
        if (view->items[i].name[0] != '\0' && strcmp(view->items[i].name, name) == 0)
            return &view->items[i];
    }
    return nullptr;
}

// Adds what is mounted in the service's directory and not in the share file.
static int add_mounted(const Setup& setup, View* view)
{
    for (size_t i = 0; i < view->mounts->count; i++) {
        const char* directory = view->mounts->entries[i].directory;
        const char* rest = mountinfo_rest(directory, setup.mountroot);
        if (rest == nullptr || rest[0] == '\0' || strchr(rest, '/') != nullptr ||
            strlen(rest) >= disk_name_size || item_of(view, rest) != nullptr)
            continue;
        Item* item = add_item(view);
        if (item == nullptr)
            return -ENOMEM;
        item->directory = strdup(directory);
        const DiskPart* part = part_of(*view, rest);
        if (part != nullptr)
            item->identity = strdup(part->identity);
        if (item->directory == nullptr || (part != nullptr && item->identity == nullptr))
            return -ENOMEM;
        look_up(setup, view, item);
    }
    return 0;
}

// ---- what is not mounted ----

// Lends the nth field of a line, from 1 on, and its length; null without one.
static const char* field_of(const char* line, int nth, size_t* length)
{
    for (; nth > 1; nth--) {
        line += strcspn(line, "\t\n");
        if (*line++ != '\t')
            return nullptr;
    }
    *length = strcspn(line, "\t\n");
    return line;
}

// What a line (docs/not-mounted.md) tells of the device, without its name, and what to type. Owned;
// null when it tells nothing.
static char* sentence_of(const char* line, size_t name_length)
{
    size_t length = 0;
    size_t command_length = 0;
    const char* sentence = field_of(line, 5, &length);
    const char* command = field_of(line, 6, &command_length);
    if (sentence == nullptr || command == nullptr)
        return nullptr;
    if (length > name_length && strncmp(sentence, line, name_length) == 0 &&
        sentence[name_length] == ' ') {
        sentence += name_length + 1;
        length -= name_length + 1;
    }
    const char* between = command_length > 0 && command[0] != '-' ? "; type: " : "";
    if (between[0] == '\0')
        command_length = 0;
    const size_t size = length + strlen(between) + command_length + 1;
    auto* reason = static_cast<char*>(malloc(size));
    if (reason != nullptr)
        (void)snprintf(reason, size, "%.*s%s%.*s", static_cast<int>(length), sentence, between,
                       static_cast<int>(command_length), command);
    return reason;
}

// Finds the device's line in the agent's file. Returns an owned reason; null without one.
static char* reason_of(const FileBytes& told, const DiskPart& part)
{
    const size_t name_length = strlen(part.name);
    const char* line = told.bytes.get();
    while (line != nullptr && *line != '\0') {
        if (strncmp(line, part.name, name_length) == 0 && line[name_length] == '\t')
            return sentence_of(line, name_length);
        line += strcspn(line, "\n");
        line += *line == '\n' ? 1 : 0;
    }
    return nullptr;
}

// A disk that nobody uses, and that the service is to mount.
static bool is_due(View* view, const DiskPart& part)
{
    return part.pluggable && part.service[0] != '\0' && !part.parted && !part.held &&
           part.size_bytes > 0 && item_of(view, part.service) == nullptr &&
           !is_mounted_anywhere(*view, part);
}

static int add_unmounted(const Setup& setup, View* view)
{
    FileBytes told;
    const int result = file_read_all(setup.not_mounted, 0, not_mounted_most, &told);
    if (machine_is_short(result))
        return result;
    if (result != 0)
        told.bytes.reset(nullptr);
    for (size_t i = 0; i < view->disks->count; i++) {
        const DiskPart& part = view->disks->parts[i];
        char* reason = reason_of(told, part);
        Item* known = item_of(view, part.service);
        Item* item = reason == nullptr || known == nullptr ? nullptr : known;
        if (item == nullptr && is_due(view, part))
            item = add_item(view);
        if (item == nullptr) {
            free(reason);
            continue;
        }
        free(item->reason);
        item->reason = reason;
        if (item == known && item->mount != nullptr)
            continue;
        item->part = &part;
        item->state = reason != nullptr ? ITEM_NOT_MOUNTED : ITEM_WAITING;
        item->size_bytes = part.size_bytes;
        str_ncpy(item->name, part.service, sizeof item->name);
        if (item->identity == nullptr)
            item->identity = strdup(part.identity);
        if (item->identity == nullptr)
            return -ENOMEM;
        item->settings = record_of(*view, item->identity);
    }
    return 0;
}

// ---- what is not plugged ----

static int add_absent(View* view)
{
    const size_t present = view->count;
    const vylist* list = view->table->list;
    for (const vylist_node* node = list->next; node != vylist_end(list); node = node->next) {
        const auto* record = static_cast<const ConfDev*>(node->data);
        bool known = false;
        for (size_t i = 0; i < present && !known; i++) {
            known = view->items[i].settings == record ||
                    (view->items[i].identity != nullptr &&
                     strcmp(view->items[i].identity, record->identifier) == 0);
        }
        if (known)
            continue;
        Item* item = add_item(view);
        if (item == nullptr)
            return -ENOMEM;
        item->state = ITEM_ABSENT;
        item->settings = record;
        item->identity = strdup(record->identifier);
        if (item->identity == nullptr)
            return -ENOMEM;
    }
    return 0;
}

// ---- the view ----

static bool is_directory(const Item& item)
{
    return item.state == ITEM_DIRECTORY || item.state == ITEM_GONE;
}

// Puts what is plugged before the machine's own directories, each in its order.
static int put_in_order(View* view)
{
    const MemGuard<Item> sorted(static_cast<Item*>(malloc((view->count + 1) * sizeof(Item))));
    if (!sorted)
        return -ENOMEM;
    static constexpr bool order[] = {false, true};
    size_t at = 0;
    for (const bool directories : order) {
        for (size_t i = 0; i < view->count; i++) {
            if (is_directory(view->items[i]) == directories)
                sorted.get()[at++] = view->items[i];
        }
    }
    if (at > 0)
        memcpy(view->items, sorted.get(), at * sizeof(Item));
    return 0;
}

static int load_settings(const Setup& setup, View* view)
{
    view->table = conf_dev_create();
    if (view->table == nullptr)
        return -ENOMEM;
    view->device_file = access(setup.config->deviceconfigpath, R_OK) == 0 ? 0 : -errno;
    if (view->device_file != 0)
        return 0;
    return conf_dev_load(setup.config->deviceconfigpath, view->table) == 0 ? 0 : -ENOMEM;
}

int view_begin(const Setup& setup, View* view)
{
    *view = {};
    int result = service_look(&view->service_runs);
    if (result == 0)
        result = mountinfo_load(mountinfo_path, &view->mounts);
    if (result == 0)
        result = disks_read(setup.paths.sysfs, &view->disks);
    if (result == 0)
        result = load_settings(setup, view);
    if (result == 0)
        result = read_shares(setup, view);
    for (size_t i = 0; i < view->count && result == 0; i++)
        look_up(setup, view, &view->items[i]);
    if (result == 0)
        result = add_mounted(setup, view);
    if (result == 0)
        result = add_unmounted(setup, view);
    if (result == 0)
        result = put_in_order(view);
    return result == 0 ? add_absent(view) : result;
}

void view_end(View* view)
{
    for (size_t i = 0; i < view->count; i++)
        clear_item(&view->items[i]);
    free(view->items);
    conf_dev_free(view->table);
    if (view->mounts != nullptr)
        mountinfo_free(view->mounts);
    disks_free(view->disks);
    *view = {};
}

// ---- what is told of an item ----

const char* item_state_word(ItemState state)
{
    return state_words[state];
}

const char* item_name(const Item& item)
{
    if (item.name[0] != '\0')
        return item.name;
    return item.identity != nullptr ? item.identity : "-";
}

bool item_is_present(const Item& item)
{
    return item.state != ITEM_ABSENT;
}

bool item_is_readonly(const Item& item)
{
    return (item.settings != nullptr && item.settings->readonly != 0) ||
           (item.mount != nullptr && item.mount->readonly);
}

const char* item_filesystem(const Item& item)
{
    if (item.mount == nullptr)
        return item.texts[SHARE_FILESYSTEM];
    // The driver's, which the service has for NTFS alone.
    return strcmp(item.mount->type, "fuseblk") == 0 ? "ntfs" : item.mount->type;
}

const char* item_label(const Item& item)
{
    return item.texts[SHARE_LABEL];
}

namespace {

// Users of one kind, as they are told of.
struct AccessRow {
    vylist* ConfDev::*users;
    const char* before;
    const char* behind;
};

constexpr AccessRow access_rows[] = {
    {&ConfDev::fullaccessusers, "", ""},
    {&ConfDev::readonlyusers, "", " (reads)"},
    {&ConfDev::blockusers, "not ", ""},
    {&ConfDev::hideusers, "not ", ""},
};

// A list of words, as far as there is room.
struct Words {
    char* text;
    size_t size;
    size_t marked; // its length that leaves room for the mark
    bool cut;      // and has it
};

} // namespace

static void append(Words* words, const char* before, const char* word, const char* behind)
{
    static constexpr char mark[] = ", ...";
    if (words->cut)
        return;
    const size_t held = strlen(words->text);
    const auto added =
        static_cast<size_t>(snprintf(words->text + held, words->size - held, "%s%s%s%s",
                                     held > 0 ? ", " : "", before, word, behind));
    words->cut = held + added >= words->size;
    if (words->cut) {
        const char* behind_name = words->marked > 0 ? mark : mark + 2;
        str_ncpy(words->text + words->marked, behind_name,
                 static_cast<int32_t>(words->size - words->marked));
    } else if (held + added + sizeof mark <= words->size) {
        words->marked = held + added;
    }
}

void item_access(const Item& item, char* text, size_t size)
{
    const ConfDev* settings = item.settings;
    text[0] = '\0';
    if (settings == nullptr) {
        str_ncpy(text, "everybody", static_cast<int32_t>(size));
        return;
    }
    Words words = {.text = text, .size = size, .marked = 0, .cut = false};
    const bool chosen = settings->fullaccessusers->count > 0 || settings->readonlyusers->count > 0;
    append(&words, "", chosen ? "" : "everybody", "");
    for (const AccessRow& row : access_rows) {
        const vylist* users = settings->*row.users;
        for (const vylist_node* node = users->next; node != vylist_end(users); node = node->next) {
            char name[64];
            user_format(static_cast<unsigned>(*static_cast<const int32_t*>(node->data)), name,
                        sizeof name);
            append(&words, row.before, name, row.behind);
        }
    }
    if (settings->guestaccess != 0 && settings->guesthide == 0)
        append(&words, "", "guests", "");
}
