// The text of the include file: a section of smb.conf(5) for each exported share. Touches no world;
// user names come from a callback.
//
// Parameters that widen access are written in every section, so that no default of smb.conf's
// [global] applies: "read only", "guest ok", "guest only", "write list", "admin users" (always
// empty: nobody works as root) and "wide links" (no: a link on a stick must not lead into the
// system). Parameters that narrow it are written where they are needed.
//
//     In the share file                  Written
//     Read Only, or mounted read-only    read only; nobody writes then
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
// "valid users" is written where Full Access Users or Read Only Users are given, even if none of
// them exists: it holds the users of both lists, the administrator unless blocked, and the guest
// account where guests have access. Otherwise everybody with an account may enter. Of several
// entries of one user the strictest counts: Hide, Block, Read Only, Full. Samba hides a share from
// everybody who may not enter, or from nobody: where it is hidden from one user, blocked users do
// not see it either.
#pragma once

#include "samba/notes.h"
#include "samba/share.h"

#include <stddef.h>
#include <stdint.h>

// The text's last line: else the lines behind smb.conf's include line would belong to the last
// share.
constexpr char include_text_foot[] = "[global]\n";

constexpr size_t user_name_size = 256; // bytes with the NUL

// A share whose lists are right (share_wrong_user) and the name it is exported under, both
// borrowed.
struct ExportedShare {
    const Share* share;
    const char* name;
    bool readonly_mount = false; // its directory is mounted read-only
};

struct IncludeSettings {
    const char* administrator; // user names, borrowed; include_user_fits holds for each
    const char* guest;
    const char* forceuser; // everybody works as this user; null or empty for none

    // Writes the name of a user id; false when no user has it.
    bool (*user_name)(int32_t id, char (&name)[user_name_size]);
};

// Makes the text. Returns 0 and an owned text; -ENOMEM, `text` untouched.
[[nodiscard]] int include_text_make(const ExportedShare* shares, size_t count,
                                    const IncludeSettings* settings, Notes* notes, char** text);

// Returns null for a path that smb.conf can hold exactly; else what it cannot hold: "a control
// character", ...
[[nodiscard]] const char* include_path_fault(const char* path);

// Whether smb.conf reads this user name as a name, and not as a group, a list or a variable.
[[nodiscard]] bool include_user_fits(const char* name);
