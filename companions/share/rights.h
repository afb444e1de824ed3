// Who may do what on an exported share: the four lists, the administrator and the guests made one.
// Touches no world; user names come from a callback.
//
// Of several entries of one user the strictest counts: Hide, Block, Read Only, Full. An entry that
// no user has, or whose name the server cannot hold, is left out and noted. Where everybody else
// may enter, somebody of Hide or Block who is left out for the name could, too: such a share is to
// be withheld (rights_let_in_unnamed).
#pragma once

#include "share/notes.h"
#include "share/share.h"

#include <stddef.h>
#include <stdint.h>

constexpr size_t user_name_size = 256; // bytes with the NUL

// A share whose lists are right (share_wrong_user) and the name it is exported under, both
// borrowed.
struct ExportedShare {
    const Share* share;
    const char* name;
    bool readonly_mount = false; // its directory is mounted read-only
    const char* filesystem = ""; // as the kernel calls it; borrowed
};

struct RightsSettings {
    const char* administrator; // user names, borrowed; user_fits holds for each
    const char* guest;
    const char* forceuser; // everybody works as this user; null or empty for none

    const char* const* own; // values of the server's own keys, borrowed; null for none of them

    // Writes the name of a user id; false when no user has it.
    bool (*user_name)(int32_t id, char (&name)[user_name_size]);

    // Whether the server reads this user name as a name, and not as a group, a list or a variable.
    bool (*user_fits)(const char* name);
};

struct Member {
    char* name; // owned
    ShareAccess access;
};

struct Rights {
    Member* members; // no user twice: those of the lists, the administrator, the guest; owned
    size_t count;
    bool readonly;  // nobody writes
    bool guests;    // guests may enter
    bool selective; // of the others only members may enter; else everybody with an account
    bool unnamed;   // somebody who may not enter is not among the members: the name does not fit
};

// Fills the record. Returns 0 or -ENOMEM; in both cases it is to be cleared.
[[nodiscard]] int rights_make(const ExportedShare* exported, const RightsSettings* settings,
                              Notes* notes, Rights* rights);

// Lends the member of that name; null when there is none.
[[nodiscard]] const Member* rights_find(const Rights* rights, const char* name);

// Whether somebody who may not enter would, for the server cannot be told whom to keep out.
[[nodiscard]] bool rights_let_in_unnamed(const Rights* rights);

[[nodiscard]] bool rights_hide_from_any(const Rights* rights);

// What a member may do.
[[nodiscard]] bool member_may_enter(const Member* member);
[[nodiscard]] bool member_may_not_enter(const Member* member);
[[nodiscard]] bool member_reads_only(const Member* member);

void rights_clear(Rights* rights);
using RightsGuard = Guard<Rights, rights_clear>; // of a record on the stack
