// Share names as Samba can carry them, each of them only once. Touches no world.
//
// What a name cannot hold becomes "_": control characters, bytes that are not UTF-8, blanks at the
// ends and behind another blank, and the characters %<>*?|/\+=;:", and the square brackets. A name
// that means something else to Samba (global, homes, printers, print$, ipc$, admin$ and the like)
// gets a "_" in front, and an empty one is "share". A name is cut to 80 bytes.
//
// Names are compared as Samba does, without letter case in all of Unicode. A name that needs no
// change goes to its share before any that was changed to it; whoever comes later gets " (2)", "
// (3)" and so on.
#pragma once

#include "samba/notes.h"

#include <stddef.h>
#include <stdint.h>

constexpr size_t share_name_size = 81; // bytes with the NUL

struct ShareName {
    const char* original; // borrowed
    char exported[share_name_size];
    uint32_t hash; // of `exported`, the same for names that meet
    bool settled;  // `exported` is final
};

// Fills `exported` of each record and notes each name that is not the original.
void share_names_map(ShareName* names, size_t count, Notes* notes);

// Whether the two, well-formed UTF-8, are one name to Samba.
[[nodiscard]] bool share_names_meet(const char* a, const char* b);

// The one character that stands for `character` in comparisons. Rare letters with two cases all
// stand for one another: that costs a " (2)" now and then, and saves a table of all of them.
[[nodiscard]] uint32_t share_name_fold(uint32_t character);
