// Maps share names to names that a server accepts, no two of them equal. Touches no world.
//
// "_" replaces control characters, bytes that are not UTF-8, blanks at the ends and behind another
// blank, and what the server cannot have in a name. A name with a meaning of its own (global,
// homes, printers, print$, ipc$, admin$ and the like) gets a "_" in front; an empty name becomes
// "share". Names are cut to 80 bytes, or fewer.
//
// Names are compared as Samba does, without letter case in all of Unicode. Of equal names the first
// that needed no change keeps it; the others get " (2)", " (3)" and so on.
#pragma once

#include "share/notes.h"

#include <stddef.h>
#include <stdint.h>

constexpr size_t share_name_size = 81; // bytes with the NUL

// What a server can have in a name.
struct ShareNameRules {
    const char* forbidden;               // characters of ASCII
    size_t size;                         // bytes with the NUL, at most share_name_size
    bool (*accepts)(uint32_t character); // null: all but those
};

struct ShareName {
    const char* original; // borrowed
    char exported[share_name_size];
    uint32_t hash; // of `exported`; equal for names that are equal to Samba
    bool settled;  // `exported` is final
};

// Fills `exported` of each record and notes each name that is not the original.
void share_names_map(const ShareNameRules* rules, ShareName* names, size_t count, Notes* notes);

// Whether two names, well-formed UTF-8, are equal to Samba.
[[nodiscard]] bool share_names_meet(const char* a, const char* b);

// Returns the character that stands for `character` in comparisons. All rare letters with two cases
// compare as equal: that costs a " (2)" now and then, and saves a table of them.
[[nodiscard]] uint32_t share_name_fold(uint32_t character);
