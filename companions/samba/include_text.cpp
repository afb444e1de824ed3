#include "samba/include_text.h"

#include "common/text.h"
#include "lib/str.h"
#include "samba/text_buffer.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

static constexpr char head[] = "# Made by vynas-samba from the share file of the hotplug service, "
                               "and made anew whenever that\n"
                               "# changes: what is written here by hand is lost.\n";

// ---- what smb.conf can hold ----

bool include_user_fits(const char* name)
{
    if (name[0] == '\0' || strlen(name) >= user_name_size || strchr("@+&-", name[0]) != nullptr)
        return false;
    char copy[user_name_size];
    (void)str_cpy(copy, name);
    return text_clean(copy, " ,;\"'%\\*?") == 0;
}

static bool is_relative(const char* path)
{
    return path[0] != '/';
}

static bool holds_unprintable(const char* path)
{
    while (*path != '\0') {
        char one[5] = "";
        const size_t length = text_sequence(path);
        memcpy(one, path, length);
        if (length == 0 || text_clean(one, "") != 0)
            return true;
        path += length;
    }
    return false;
}

static bool holds_percent(const char* path) // starts a variable
{
    return strchr(path, '%') != nullptr;
}

static bool holds_quote(const char* path) // Samba drops one at an end
{
    return strchr(path, '"') != nullptr;
}

static bool holds_two_blanks(const char* path) // Samba makes one of them
{
    return strstr(path, "  ") != nullptr;
}

static bool ends_badly(const char* path) // Samba joins the next line, or drops the blank
{
    const char last = path[strlen(path) - 1];
    return last == '\\' || last == ' ';
}

// Where ".." leads depends on links, so the mount cannot be found by the path.
static bool leads_up(const char* path)
{
    for (const char* at = strstr(path, "/.."); at != nullptr; at = strstr(at + 1, "/..")) {
        if (at[3] == '/' || at[3] == '\0')
            return true;
    }
    return false;
}

namespace {

struct PathFault {
    bool (*has)(const char* path);
    const char* what;
};

constexpr PathFault path_faults[] = {
    {is_relative, "no slash at its beginning"},
    {holds_unprintable, "a control character or bytes that are not UTF-8"},
    {holds_percent, "a percent sign"},
    {holds_quote, "a quotation mark"},
    {holds_two_blanks, "two blanks side by side"},
    {ends_badly, "a backslash or a blank at its end"},
    {leads_up, "\"..\" as a name"},
};

} // namespace

const char* include_path_fault(const char* path)
{
    for (const PathFault& row : path_faults) {
        if (row.has(path))
            return row.what;
    }
    return nullptr;
}

// Replaces what smb.conf cannot hold in a comment.
static void fit_comment(char* comment)
{
    (void)text_clean(comment, "");
    for (char* at = comment; *at != '\0'; at++) {
        if (*at == '"') // Samba drops one at an end
            *at = '\'';
        if (*at == '%' && at[1] != ' ' && at[1] != '\0') // starts a variable
            *at = '_';
    }
    const size_t length = strlen(comment);
    if (length > 0 && comment[length - 1] == '\\') // Samba would join the next line
        comment[length - 1] = '_';
}

// ---- the users of a share ----

static constexpr ShareAccess every_access[] = {SHARE_FULL, SHARE_READ_ONLY, SHARE_BLOCK,
                                               SHARE_HIDE};

namespace {

struct Member {
    char* name; // owned
    ShareAccess access;
};

// No user twice.
struct Members {
    Member* list; // owned
    size_t count;
};

// State while a share is written.
struct Writing {
    TextBuffer* text;
    const IncludeSettings* settings;
    Notes* notes;
    const Share* share;
    Members members;
    bool readonly;
    bool selective; // only those named may enter
    bool guests;
};

} // namespace

static void members_release(Members* members)
{
    for (size_t i = 0; i < members->count; i++)
        free(members->list[i].name);
    free(members->list);
}

using MembersGuard = Guard<Members, members_release>; // of a record within another

static Member* find_member(const Members* members, const char* name)
{
    for (size_t i = 0; i < members->count; i++) {
        if (strcmp(members->list[i].name, name) == 0)
            return &members->list[i];
    }
    return nullptr;
}

// Adds the user; of one that is there already the stricter access stays. Returns 0 or -ENOMEM.
static int add_member(Members* members, const char* name, ShareAccess access)
{
    Member* known = find_member(members, name);
    if (known != nullptr) {
        known->access = known->access > access ? known->access : access;
        return 0;
    }
    const size_t bytes = (members->count + 1) * sizeof(Member);
    auto* larger = static_cast<Member*>(realloc(members->list, bytes));
    if (larger == nullptr)
        return -ENOMEM;
    members->list = larger;
    MemGuard<char> copy(strdup(name));
    if (!copy)
        return -ENOMEM;
    larger[members->count++] = {.name = copy.take(), .access = access};
    return 0;
}

// Adds the user with that id, or notes why there is none. Returns 0 or -ENOMEM.
static int add_id(Writing* writing, const char* text, ShareAccess access)
{
    int32_t id = 0;
    char name[user_name_size];
    if (str_to_long(text, &id, 10) != 0 || id < 0) // an empty one
        return 0;
    if (!writing->settings->user_name(id, name)) {
        notes_add(writing->notes, LOG_WARNING, "share %s: no user has the id %d",
                  writing->share->name, static_cast<int>(id));
        return 0;
    }
    if (!include_user_fits(name)) {
        notes_add(writing->notes, LOG_WARNING, "share %s: user %s (%d) is left out for the name",
                  writing->share->name, name, static_cast<int>(id));
        return 0;
    }
    return add_member(&writing->members, name, access);
}

// Adds the users of a list of ids. Returns 0 or -ENOMEM.
static int add_list(Writing* writing, ShareAccess access)
{
    const char* list = writing->share->users[access];
    char entry[share_user_size];
    while (share_next_user(&list, entry)) {
        if (add_id(writing, entry, access) != 0)
            return -ENOMEM;
    }
    return 0;
}

// Collects the users of all four lists, the administrator and the guest. Returns 0 or -ENOMEM.
static int gather_members(Writing* writing)
{
    const Share* share = writing->share;
    for (const ShareAccess access : every_access) {
        if (add_list(writing, access) != 0)
            return -ENOMEM;
    }
    if (add_member(&writing->members, writing->settings->administrator, share->administrator) != 0)
        return -ENOMEM;
    if (share->guesthide)
        return add_member(&writing->members, writing->settings->guest, SHARE_HIDE);
    if (share->guestaccess)
        return add_member(&writing->members, writing->settings->guest, SHARE_FULL);
    return 0;
}

static bool may_enter(const Member* member)
{
    return member->access < SHARE_BLOCK;
}

// ---- lines ----

static void write_switch(const Writing* writing, const char* parameter, bool on)
{
    text_buffer_add(writing->text, "\t%s = %s\n", parameter, on ? "yes" : "no");
}

// Writes a line with the users for whom `fits` holds; none, no line. Returns their number.
static size_t write_users(const Writing* writing, const char* parameter,
                          bool (*fits)(const Member* member))
{
    size_t written = 0;
    for (size_t i = 0; i < writing->members.count; i++) {
        const Member* member = &writing->members.list[i];
        if (!fits(member))
            continue;
        if (written++ == 0)
            text_buffer_add(writing->text, "\t%s = ", parameter);
        else
            text_buffer_add(writing->text, ", ");
        text_buffer_add(writing->text, "%s", member->name);
    }
    if (written > 0)
        text_buffer_add(writing->text, "\n");
    return written;
}

static bool reads_only(const Member* member)
{
    return member->access == SHARE_READ_ONLY;
}

static bool may_not_enter(const Member* member)
{
    return !may_enter(member);
}

static bool must_not_see(const Member* member)
{
    return member->access == SHARE_HIDE;
}

static bool hides_from_any(const Members* members)
{
    for (size_t i = 0; i < members->count; i++) {
        if (must_not_see(&members->list[i]))
            return true;
    }
    return false;
}

// Lets nobody enter. An empty list would let everybody enter, so it names the administrator, who is
// among the invalid users then.
static void write_nobody(const Writing* writing)
{
    text_buffer_add(writing->text, "\tvalid users = %s\n", writing->settings->administrator);
}

static void write_access(const Writing* writing)
{
    write_switch(writing, "read only", writing->readonly);
    write_switch(writing, "guest ok", writing->guests);
    write_switch(writing, "guest only", false);
    write_switch(writing, "wide links", false);
    text_buffer_add(writing->text, "\tadmin users =\n\twrite list =\n");
    if (writing->selective && write_users(writing, "valid users", may_enter) == 0)
        write_nobody(writing);
    (void)write_users(writing, "read list", reads_only);
    (void)write_users(writing, "invalid users", may_not_enter);
    if (hides_from_any(&writing->members))
        write_switch(writing, "access based share enum", true);
    const char* forced = writing->settings->forceuser;
    if (forced != nullptr && forced[0] != '\0')
        text_buffer_add(writing->text, "\tforce user = %s\n", forced);
}

// Returns 0 or -ENOMEM; a text that could not grow is marked as failed.
static int write_share(Writing* writing, const char* name)
{
    const Share* share = writing->share;
    MemGuard<char> comment(strdup(share->comment != nullptr ? share->comment : ""));
    if (!comment)
        return -ENOMEM;
    fit_comment(comment.get());
    if (gather_members(writing) != 0)
        return -ENOMEM;
    const Member* guest = find_member(&writing->members, writing->settings->guest);
    writing->guests = share->guestaccess && may_enter(guest);
    writing->selective =
        share_lists_users(share, SHARE_FULL) || share_lists_users(share, SHARE_READ_ONLY);
    text_buffer_add(writing->text, "[%s]\n\tpath = %s\n\tcomment = %s\n", name, share->path,
                    comment.get());
    write_switch(writing, "strict sync", share->sync);
    write_switch(writing, "sync always", share->sync);
    write_access(writing);
    return 0;
}

static int write_shares(TextBuffer* text, const ExportedShare* shares, size_t count,
                        const IncludeSettings* settings, Notes* notes)
{
    text_buffer_add(text, "%s", head);
    for (size_t i = 0; i < count; i++) {
        Writing writing = {};
        const MembersGuard members(&writing.members);
        writing.text = text;
        writing.settings = settings;
        writing.notes = notes;
        writing.share = shares[i].share;
        writing.readonly = shares[i].share->readonly || shares[i].readonly_mount;
        if (write_share(&writing, shares[i].name) != 0)
            return -ENOMEM;
    }
    text_buffer_add(text, "%s", include_text_foot);
    return text->failed ? -ENOMEM : 0;
}

int include_text_make(const ExportedShare* shares, size_t count, const IncludeSettings* settings,
                      Notes* notes, char** text)
{
    TextBuffer made = {};
    const TextBufferGuard held(&made);
    if (write_shares(&made, shares, count, settings, notes) != 0)
        return -ENOMEM;
    *text = made.text;
    made.text = nullptr; // handed on
    return 0;
}
