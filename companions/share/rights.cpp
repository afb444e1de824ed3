#include "share/rights.h"

#include "common/array.h"
#include "lib/str.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

static constexpr ShareAccess every_access[] = {SHARE_FULL, SHARE_READ_ONLY, SHARE_BLOCK,
                                               SHARE_HIDE};

namespace {

// State while the rights of a share are gathered.
struct Gathering {
    const Share* share;
    const RightsSettings* settings;
    Notes* notes;
    Rights* rights;
};

} // namespace

static Member* find_member(const Rights* rights, const char* name)
{
    for (size_t i = 0; i < rights->count; i++) {
        if (strcmp(rights->members[i].name, name) == 0)
            return &rights->members[i];
    }
    return nullptr;
}

const Member* rights_find(const Rights* rights, const char* name)
{
    return find_member(rights, name);
}

// Adds the user; of one that is there already the stricter access stays. Returns 0 or -ENOMEM.
static int add_member(Rights* rights, const char* name, ShareAccess access)
{
    Member* known = find_member(rights, name);
    if (known != nullptr) {
        known->access = known->access > access ? known->access : access;
        return 0;
    }
    auto* larger = static_cast<Member*>(array_room(rights->members, rights->count, sizeof(Member)));
    if (larger == nullptr)
        return -ENOMEM;
    rights->members = larger;
    MemGuard<char> copy(strdup(name));
    if (!copy)
        return -ENOMEM;
    larger[rights->count++] = {.name = copy.take(), .access = access};
    return 0;
}

// Adds the user with that id, or notes why there is none. Returns 0 or -ENOMEM.
static int add_id(const Gathering* gathering, const char* text, ShareAccess access)
{
    int32_t id = 0;
    char name[user_name_size];
    if (str_to_long(text, &id, 10) != 0 || id < 0) // an empty one
        return 0;
    if (!gathering->settings->user_name(id, name)) {
        notes_add(gathering->notes, LOG_WARNING, "share %s: no user has the id %d",
                  gathering->share->name, static_cast<int>(id));
        return 0;
    }
    if (!gathering->settings->user_fits(name)) {
        notes_add(gathering->notes, LOG_WARNING, "share %s: user %s (%d) is left out for the name",
                  gathering->share->name, name, static_cast<int>(id));
        gathering->rights->unnamed |= access >= SHARE_BLOCK;
        return 0;
    }
    return add_member(gathering->rights, name, access);
}

// Adds the users of a list of ids. Returns 0 or -ENOMEM.
static int add_list(const Gathering* gathering, ShareAccess access)
{
    const char* list = gathering->share->users[access];
    char entry[share_user_size];
    while (share_next_user(&list, entry)) {
        if (add_id(gathering, entry, access) != 0)
            return -ENOMEM;
    }
    return 0;
}

// Collects the users of all four lists, the administrator and the guest. Returns 0 or -ENOMEM.
static int gather_members(const Gathering* gathering)
{
    const Share* share = gathering->share;
    const RightsSettings* settings = gathering->settings;
    for (const ShareAccess access : every_access) {
        if (add_list(gathering, access) != 0)
            return -ENOMEM;
    }
    if (add_member(gathering->rights, settings->administrator, share->administrator) != 0)
        return -ENOMEM;
    if (share->guesthide)
        return add_member(gathering->rights, settings->guest, SHARE_HIDE);
    if (share->guestaccess)
        return add_member(gathering->rights, settings->guest, SHARE_FULL);
    return 0;
}

int rights_make(const ExportedShare* exported, const RightsSettings* settings, Notes* notes,
                Rights* rights)
{
    const Share* share = exported->share;
    *rights = {};
    const Gathering gathering = {
        .share = share, .settings = settings, .notes = notes, .rights = rights};
    if (gather_members(&gathering) != 0)
        return -ENOMEM;
    const Member* guest = find_member(rights, settings->guest);
    rights->readonly = share->readonly || exported->readonly_mount;
    rights->guests = share->guestaccess && member_may_enter(guest);
    rights->selective =
        share_lists_users(share, SHARE_FULL) || share_lists_users(share, SHARE_READ_ONLY);
    return 0;
}

bool rights_let_in_unnamed(const Rights* rights)
{
    return rights->unnamed && !rights->selective;
}

bool member_may_enter(const Member* member)
{
    return member->access < SHARE_BLOCK;
}

bool member_may_not_enter(const Member* member)
{
    return !member_may_enter(member);
}

bool member_reads_only(const Member* member)
{
    return member->access == SHARE_READ_ONLY;
}

bool rights_hide_from_any(const Rights* rights)
{
    for (size_t i = 0; i < rights->count; i++) {
        if (rights->members[i].access == SHARE_HIDE)
            return true;
    }
    return false;
}

void rights_clear(Rights* rights)
{
    for (size_t i = 0; i < rights->count; i++)
        free(rights->members[i].name);
    free(rights->members);
    *rights = {};
}
