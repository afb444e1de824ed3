// The share file (docs/share-file.md) as shares: which directories are to be exported, and who may
// do what. Touches no world.
//
// The last section of a name counts, compared without letter case, and the last value of a key. A
// name whose last section has no "Path" is being withdrawn, and "Status=Unmount" says the same:
// there is no share of it then. What is passed over for another reason is noted.
#pragma once

#include "config/ini.h"
#include "lib/guard.h"
#include "samba/notes.h"

#include <stddef.h>
#include <stdint.h>

// What somebody may do; each is stricter than the one before.
enum ShareAccess : uint8_t {
    SHARE_FULL = 0,
    SHARE_READ_ONLY = 1,
    SHARE_BLOCK = 2, // must not enter
    SHARE_HIDE = 3,  // must not see it either
    SHARE_ACCESS_KINDS = 4,
};

struct Share {
    char* name;       // as the share file has it; owned, as all texts here
    char* path;       // as it stands there, never empty
    char* comment;    // may be null
    char* identifier; // the device file's section, for the log; may be null
    bool readonly;
    bool sync;
    bool guestaccess;
    bool guesthide;
    ShareAccess administrator;
    char* users[SHARE_ACCESS_KINDS]; // lists of user ids as written, by what they may; may be null
};

struct ShareTable {
    Share* shares; // in the order in which their last sections stand
    size_t count;
};

// Reads the shares. Returns 0 and an owned table; -ENOMEM, `table` untouched.
[[nodiscard]] int shares_read(const IniDoc* doc, Notes* notes, ShareTable** table);

void shares_free(ShareTable* table);
using ShareTableGuard = Guard<ShareTable, shares_free>;

// Whether a list of users is given at all: one that holds nothing but unknown ids is.
[[nodiscard]] bool share_lists_users(const Share* share, ShareAccess access);
