// Option map: one text of comma-separated items, each a name with an optional "=" and value, walked
// against a table of known names in the manner of a command-line option parser.
#pragma once

#include "lib/guard.h"

#include <stdint.h>

constexpr int32_t VYOPT_ITEM_SIZE = 512; // bytes of an item with its NUL; longer ones are cut

// One item. Names and values are kept exactly: no trimming, no change of case.
struct vyopt_op {
    char* name;  // owned: the text before the first "="
    char* value; // owned: what stands behind it, possibly empty; null without a "="
};

enum : uint8_t {
    VYOPT_ARG = 1,    // takes a value, which is handed to the caller
    VYOPT_NOCASE = 2, // the name is compared without regard to case
};

// One known name. A table ends with a descriptor whose code is 0 or whose name is null.
struct vyopt_option {
    int8_t code; // what vy_getopt returns for the name
    uint8_t flags;
    const char* name;
};

constexpr int VYOPT_UNKNOWN = '-'; // what vy_getopt returns for a name the table does not hold

// Copies the next non-empty item from `position` on, cut to `size` - 1 bytes and terminated.
// Returns the place of the comma or NUL that ends it; null when no item is left or `position` is
// null.
const char* vyopt_get_section(const char* position, char* buffer, int32_t size);

// Returns owned: the items of `text` up to the first without a name, as a null-terminated array;
// null when the array cannot be made. When memory runs out on the way the map is shortened.
[[nodiscard]] vyopt_op** vyopt_create_opmap(const char* text);

// Takes the map, its items and their texts; null is accepted.
void vyopt_free_opmap(vyopt_op** map);

// Takes the item and its texts; null is accepted.
void vyopt_free_op(vyopt_op* op);

using OptionMapGuard = Guard<vyopt_op*, vyopt_free_opmap>;

// Returns the code of the item at *index (starts at 0) and advances it by one; 0 at the end of the
// map, or when an argument is null or the index negative. `value` (may be null) is lent the item's
// value where it has one and the name takes one, else null; for an unknown name, VYOPT_UNKNOWN, it
// is lent the name. Each item is logged at debug level.
[[nodiscard]] int vy_getopt(int32_t* index, vyopt_op** map, const vyopt_option* table,
                            const char** value);
