// The text of the include file: a section of smb.conf(5) for each share that is exported. Touches
// no world; names of users are asked for.
//
// What widens access is written in every section, so that no default from smb.conf's [global]
// reaches it: "read only", "guest ok", "guest only", "write list", "admin users" (always empty:
// nobody works as root) and "wide links" (no: a link on a stick must not lead into the system).
// What narrows it is written where it is needed.
//
//     In the share file                  Written
//     Read Only                          read only; nobody writes then. So it is where the
//     directory
//                                        is mounted read-only
//     Sync                               strict sync, sync always
//     Guest Access, and not Guest Hide   guest ok
//     Guest Hide                         the guest account: invalid users, access based share enum
//     Full Access Users                  valid users
//     Read Only Users                    valid users, read list
//     Block Users                        invalid users
//     Hide Users                         invalid users, access based share enum
//     Administrator absent               valid users where these are written
//     Administrator ReadOnly             the same, and read list
//     Administrator Block, HideT         as Block Users, Hide Users
//
// "valid users" is written where Full Access Users or Read Only Users are given, even if nobody of
// them is known: the users of both, the administrator unless blocked, guests where they have
// access. Otherwise everybody with an account may enter. Of several entries of one user the
// strictest counts: Hide, Block, Read Only, Full. Samba hides a share from everybody who may not
// enter or from nobody, so where one user is hidden from, the blocked do not see it either.
#pragma once

#include "samba/notes.h"
#include "samba/share.h"

#include <stddef.h>
#include <stdint.h>

constexpr size_t user_name_size = 256; // bytes with the NUL

// A share, the name it is exported under, both borrowed, and how its directory is mounted.
struct ExportedShare {
    const Share* share;
    const char* name;
    bool readonly_mount = false;
};

struct IncludeSettings {
    const char* administrator; // user names, borrowed; each as include_user_fits wants it
    const char* guest;
    const char* forceuser; // in whose name everybody works; null or empty: each in their own

    // Writes the name of a user id; false when nobody has it.
    bool (*user_name)(int32_t id, char (&name)[user_name_size]);
};

// Makes the text. Returns 0 and an owned text; -ENOMEM, `text` untouched.
[[nodiscard]] int include_text_make(const ExportedShare* shares, size_t count,
                                    const IncludeSettings* settings, Notes* notes, char** text);

// Returns null for a path that the file can carry exactly; else what it holds that the file cannot:
// "a control character", ...
[[nodiscard]] const char* include_path_fault(const char* path);

// Whether smb.conf takes the user name for nothing but a name.
[[nodiscard]] bool include_user_fits(const char* name);
