#include "share/share.h"

#include "common/text.h"
#include "lib/str.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>

namespace {

struct TextKey {
    const char* key;
    char* Share::*field;
};

constexpr TextKey text_keys[] = {
    {"Path", &Share::path},
    {"Comment", &Share::comment},
    {"Identifier", &Share::identifier},
};

struct SwitchKey {
    const char* key;
    bool Share::*field;
};

constexpr SwitchKey switch_keys[] = {
    {"Read Only", &Share::readonly},
    {"Sync", &Share::sync},
    {"Guest Access", &Share::guestaccess},
    {"Guest Hide", &Share::guesthide},
};

constexpr const char* users_keys[SHARE_ACCESS_KINDS] = {
    "Full Access Users",
    "Read Only Users",
    "Block Users",
    "Hide Users",
};

struct AdministratorWord {
    const char* word;
    ShareAccess access;
};

// "HideT" is the spelling of the share file, the others are those of the device file.
constexpr AdministratorWord administrator_words[] = {
    {"", SHARE_FULL},       {"readonly", SHARE_READ_ONLY}, {"ro", SHARE_READ_ONLY},
    {"block", SHARE_BLOCK}, {"hidet", SHARE_HIDE},         {"hide", SHARE_HIDE},
};

} // namespace

// Looks a key up. Returns 0, the value null when there is none; -ENOMEM.
static int read_text(const IniSection* section, const char* key, char** value)
{
    const int result = ini_section_get_string(section, key, value, INI_LAST);
    return result == -ENOMEM ? -ENOMEM : 0;
}

static int read_switch(const IniSection* section, Share* share, const SwitchKey& row)
{
    IniValueGuard value;
    const int result = read_text(section, row.key, value.out());
    share->*row.field = string_enable_disable(value.get()) == 1;
    return result;
}

static int read_administrator(const IniSection* section, Share* share, Notes* notes)
{
    IniValueGuard value;
    const int result = read_text(section, "Administrator", value.out());
    if (!value)
        return result;
    for (const AdministratorWord& row : administrator_words) {
        if (strcasecmp(value.get(), row.word) != 0)
            continue;
        share->administrator = row.access;
        return 0;
    }
    // The readers of the device file do the same.
    notes_add(notes, LOG_WARNING, "share %s: Administrator=%s is unknown, and means full access",
              share->name, value.get());
    return 0;
}

// Lends the key of a value of which something is missing that matters; null without one.
static const char* find_cut(const IniSection* section)
{
    for (const char* key : users_keys) {
        if (ini_section_is_cut(section, key))
            return key;
    }
    return ini_section_is_cut(section, "Path") ? "Path" : nullptr;
}

// Fills all but the name. Returns 0 or -ENOMEM.
static int read_settings(const IniSection* section, Share* share, Notes* notes)
{
    for (const TextKey& row : text_keys) {
        if (read_text(section, row.key, &(share->*row.field)) != 0)
            return -ENOMEM;
    }
    for (const SwitchKey& row : switch_keys) {
        if (read_switch(section, share, row) != 0)
            return -ENOMEM;
    }
    for (size_t access = 0; access < SHARE_ACCESS_KINDS; access++) {
        if (read_text(section, users_keys[access], &share->users[access]) != 0)
            return -ENOMEM;
    }
    share->cut = find_cut(section);
    return read_administrator(section, share, notes);
}

static void clear_share(Share* share)
{
    free(share->name);
    for (const TextKey& row : text_keys)
        free(share->*row.field);
    for (char* list : share->users)
        free(list);
    *share = {};
}

// ---- which sections ----

// Whether a later section has the same name.
static bool comes_again(const vylist* names, const vylist_node* node)
{
    const auto* name = static_cast<const char*>(node->data);
    for (node = node->next; node != vylist_end(names); node = node->next) {
        if (strcasecmp(static_cast<const char*>(node->data), name) == 0)
            return true;
    }
    return false;
}

static int count_sections(const vylist* names, const char* name)
{
    int count = 0;
    for (const vylist_node* node = names->next; node != vylist_end(names); node = node->next)
        count += strcasecmp(static_cast<const char*>(node->data), name) == 0 ? 1 : 0;
    return count;
}

// Notes shares that are hidden by a later one of their name; the mark of a withdrawn share is none.
static void note_hidden(const vylist* names, const char* name, bool withdrawn, Notes* notes)
{
    const int count = count_sections(names, name) - (withdrawn ? 1 : 0);
    if (count > 1)
        notes_add(notes, LOG_WARNING,
                  "share %s is described %d times: only the last of them counts", name, count);
}

// Whether the section says that its partition is not mounted. Returns 0 or -ENOMEM.
static int read_unmounted(const IniSection* section, bool* unmounted)
{
    IniValueGuard status;
    const int result = read_text(section, "Status", status.out());
    *unmounted = status && strcasecmp(status.get(), "unmount") == 0;
    return result;
}

// Fills the share from its section. Returns 0 or -ENOMEM.
static int read_share(const IniDoc* doc, const char* name, Notes* notes, Share* share,
                      bool* unmounted)
{
    IniSectionGuard section;
    share->name = strdup(name);
    if (share->name == nullptr || ini_section_open(doc, name, section.out()) == -ENOMEM ||
        read_settings(section.get(), share, notes) != 0)
        return -ENOMEM;
    return read_unmounted(section.get(), unmounted);
}

// Moves the share's name to those that are being withdrawn. Returns 0 or -ENOMEM.
static int withdraw(ShareTable* table, Share* share)
{
    if (vylist_insert(table->withdrawn, vylist_end(table->withdrawn), share->name) == nullptr)
        return -ENOMEM;
    share->name = nullptr;
    clear_share(share);
    return 0;
}

// Reads the section into the table's next entry, which stays free if the share is left out. Returns
// 0 or -ENOMEM.
static int add_share(const IniDoc* doc, const vylist* names, const char* name, Notes* notes,
                     ShareTable* table)
{
    Share* share = &table->shares[table->count];
    bool unmounted = false;
    if (read_share(doc, name, notes, share, &unmounted) != 0) {
        clear_share(share);
        return -ENOMEM;
    }
    const bool withdrawn = share->path == nullptr || share->path[0] == '\0';
    note_hidden(names, name, withdrawn, notes);
    if (!withdrawn && !unmounted) {
        table->count++;
        return 0;
    }
    notes_add(notes, LOG_INFO, "share %s is withdrawn", name);
    if (withdraw(table, share) == 0)
        return 0;
    clear_share(share);
    return -ENOMEM;
}

static int add_shares(const IniDoc* doc, const vylist* names, Notes* notes, ShareTable* table)
{
    for (const vylist_node* node = names->next; node != vylist_end(names); node = node->next) {
        const auto* name = static_cast<const char*>(node->data);
        if (comes_again(names, node))
            continue;
        if (strchr(name, ']') != nullptr) {
            notes_add(notes, LOG_WARNING, "share %s is left out: its name holds a bracket", name);
            continue;
        }
        if (add_share(doc, names, name, notes, table) != 0)
            return -ENOMEM;
    }
    return 0;
}

int shares_read(const IniDoc* doc, Notes* notes, ShareTable** table)
{
    SectionListGuard names;
    if (ini_doc_get_section_list(doc, names.out()) != 0)
        return -ENOMEM;
    ShareTableGuard made(static_cast<ShareTable*>(calloc(1, sizeof(ShareTable))));
    if (!made)
        return -ENOMEM;
    made->shares = static_cast<Share*>(calloc(names->count + 1, sizeof(Share)));
    made->withdrawn = vylist_create();
    if (made->shares == nullptr || made->withdrawn == nullptr)
        return -ENOMEM;
    if (add_shares(doc, names.get(), notes, made.get()) != 0)
        return -ENOMEM;
    *table = made.take();
    return 0;
}

void shares_free(ShareTable* table)
{
    for (size_t i = 0; i < table->count; i++)
        clear_share(&table->shares[i]);
    free(table->shares);
    config_release_section_list(table->withdrawn);
    free(table);
}

// ---- users ----

bool share_next_user(const char** list, char (&entry)[share_user_size])
{
    if (*list == nullptr || **list == '\0')
        return false;
    static constexpr char dots[] = "..."; // no number must be made of the rest
    const size_t length = strcspn(*list, ",");
    const bool fits = length < sizeof entry;
    const size_t copied = fits ? length : sizeof entry - sizeof dots;
    memcpy(entry, *list, copied);
    str_cpy(entry + copied, fits ? "" : dots);
    text_trim(entry);
    *list += length;
    *list += **list == ',' ? 1 : 0;
    return true;
}

static bool is_user_id(const char* entry)
{
    int32_t id = 0;
    return str_to_long(entry, &id, 10) == 0 && id >= 0;
}

const char* share_wrong_user(const Share* share, char (&entry)[share_user_size])
{
    for (size_t access = 0; access < SHARE_ACCESS_KINDS; access++) {
        const char* list = share->users[access];
        while (share_next_user(&list, entry)) {
            if (entry[0] != '\0' && !is_user_id(entry))
                return users_keys[access];
        }
    }
    return nullptr;
}

bool share_lists_users(const Share* share, ShareAccess access)
{
    return share->users[access] != nullptr && share->users[access][0] != '\0';
}
