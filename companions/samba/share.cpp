#include "samba/share.h"

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

// Looks a key up in the share's section. Returns 0, the value null when there is none; -ENOMEM.
static int read_text(const IniDoc* doc, const char* name, const char* key, char** value)
{
    const int result = ini_doc_get_string(doc, name, key, value, INI_LAST);
    return result == -ENOMEM ? -ENOMEM : 0;
}

static int read_switch(const IniDoc* doc, Share* share, const SwitchKey& row)
{
    IniValueGuard value;
    const int result = read_text(doc, share->name, row.key, value.out());
    share->*row.field = string_enable_disable(value.get()) == 1;
    return result;
}

static int read_administrator(const IniDoc* doc, Share* share, Notes* notes)
{
    IniValueGuard value;
    const int result = read_text(doc, share->name, "Administrator", value.out());
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

// Fills all but the name. Returns 0 or -ENOMEM.
static int read_settings(const IniDoc* doc, Share* share, Notes* notes)
{
    for (const TextKey& row : text_keys) {
        if (read_text(doc, share->name, row.key, &(share->*row.field)) != 0)
            return -ENOMEM;
    }
    for (const SwitchKey& row : switch_keys) {
        if (read_switch(doc, share, row) != 0)
            return -ENOMEM;
    }
    for (size_t access = 0; access < SHARE_ACCESS_KINDS; access++) {
        if (read_text(doc, share->name, users_keys[access], &share->users[access]) != 0)
            return -ENOMEM;
    }
    return read_administrator(doc, share, notes);
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
static int read_unmounted(const IniDoc* doc, const char* name, bool* unmounted)
{
    IniValueGuard status;
    const int result = read_text(doc, name, "Status", status.out());
    *unmounted = status && strcasecmp(status.get(), "unmount") == 0;
    return result;
}

// Reads the section into the table's next entry, which stays free if the share is left out. Returns
// 0 or -ENOMEM.
static int add_share(const IniDoc* doc, const vylist* names, const char* name, Notes* notes,
                     ShareTable* table)
{
    Share* share = &table->shares[table->count];
    share->name = strdup(name);
    bool unmounted = false;
    if (share->name == nullptr || read_settings(doc, share, notes) != 0 ||
        read_unmounted(doc, name, &unmounted) != 0) {
        clear_share(share);
        return -ENOMEM;
    }
    const bool withdrawn = share->path == nullptr || share->path[0] == '\0';
    note_hidden(names, name, withdrawn, notes);
    if (withdrawn || unmounted) {
        notes_add(notes, LOG_INFO, "share %s is withdrawn", name);
        clear_share(share);
        return 0;
    }
    table->count++;
    return 0;
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
    if (made->shares == nullptr)
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
    free(table);
}

bool share_lists_users(const Share* share, ShareAccess access)
{
    return share->users[access] != nullptr && share->users[access][0] != '\0';
}
