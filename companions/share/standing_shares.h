// Shares that stand in the include file, while the share file is not, or must not be, believed.
// Touches no world.
#pragma once

#include "common/mountinfo.h"
#include "share/share.h"
#include "share/share_mount.h"
#include "share/share_name.h"

#include <stddef.h>

// Makes the include file's text without the shares whose directory lies below the root and on no
// mount any more; the others stay as they stand. Returns 0 and an owned text, `dropped` being how
// many were left out; -ENOMEM, both untouched.
[[nodiscard]] int standing_drop(const char* standing, const MountRoot* root,
                                const Mountinfo* mounts, char** text, size_t* dropped);

// What the share file says, and how its names are mapped; both borrowed.
struct Believed {
    const ShareTable* table;
    const ShareNameRules* rules;
};

// Makes of the new text (as share_list_make writes it) one that also has the sections of
// `standing` that the share file does not mention, neither by path nor by name, and whose directory
// lies below the root and is mounted. Returns 0 and an owned text, `kept` being how many were
// added; -ENOMEM, both untouched.
[[nodiscard]] int standing_keep(const char* standing, const char* new_text,
                                const Believed* believed, const MountRoot* root,
                                const Mountinfo* mounts, char** text, size_t* kept);
