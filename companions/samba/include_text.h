// A share in the include file: a section of smb.conf(5). Touches no world.
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

#include "share/rights.h"
#include "share/text_buffer.h"

// Adds a share's section. Returns 0 or -ENOMEM; a text that could not grow is marked as failed.
[[nodiscard]] int include_text_share(TextBuffer* text, const ExportedShare* exported,
                                     const Rights* rights, const RightsSettings* settings,
                                     Notes* notes);

// Returns null for a path that smb.conf can hold exactly; else what it cannot hold: "a control
// character", ...
[[nodiscard]] const char* include_path_fault(const char* path);

// Whether smb.conf reads this user name as a name, and not as a group, a list or a variable.
[[nodiscard]] bool include_user_fits(const char* name);
