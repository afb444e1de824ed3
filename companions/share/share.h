// Reads shares from the share file (docs/share-file.md): which directories are exported, and who
// may do what. Touches no world.
//
// Of several sections of one name (letter case ignored) the last counts, and of several values of
// one key. A share whose section has no "Path", or "Status=Unmount", is being withdrawn: of it
// there is only its name. What is left out for another reason is noted.
#pragma once

#include "config/ini.h"
#include "lib/guard.h"
#include "share/notes.h"

#include <stddef.h>
#include <stdint.h>

// Access of a user; each is stricter than the one before.
enum ShareAccess : uint8_t {
    SHARE_FULL = 0,
    SHARE_READ_ONLY = 1,
    SHARE_BLOCK = 2, // must not enter
    SHARE_HIDE = 3,  // must not see the share either
    SHARE_ACCESS_KINDS = 4,
};

struct Share {
    char* name;       // as in the share file; all strings are owned
    char* path;       // as in the share file, never empty
    char* comment;    // may be null
    char* identifier; // the device file's section, for the log; may be null
    bool readonly;
    bool sync;
    bool guestaccess;
    bool guesthide;
    ShareAccess administrator;
    char* users[SHARE_ACCESS_KINDS]; // lists of user ids as written, by access; may be null
    const char* cut; // the key of a path or list that is longer than what was read of it; or null
};

struct ShareTable {
    Share* shares; // in the order of their last sections
    size_t count;
    vylist* withdrawn; // names of those being withdrawn; owned, like the list
};

// Reads the shares. Returns 0 and an owned table; -ENOMEM, `table` untouched.
[[nodiscard]] int shares_read(const IniDoc* doc, Notes* notes, ShareTable** table);

void shares_free(ShareTable* table);
using ShareTableGuard = Guard<ShareTable, shares_free>;

constexpr size_t share_user_size = 64; // bytes of an entry with the NUL

// Takes the next entry of a list of user ids, without blanks at its ends, from `list`; null for no
// list. An entry may be empty; one that is too long is cut, and ends in dots. False at the end.
[[nodiscard]] bool share_next_user(const char** list, char (&entry)[share_user_size]);

// Finds an entry of the share's four lists that is no user id. Whoever wrote it meant somebody, and
// without it others may do more than was meant. Returns the key of its list, and fills `entry`;
// null when all lists are right.
[[nodiscard]] const char* share_wrong_user(const Share* share, char (&entry)[share_user_size]);

// Whether a list of users is given, even if no user in it exists.
[[nodiscard]] bool share_lists_users(const Share* share, ShareAccess access);
