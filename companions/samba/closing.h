// Which shares clients must be sent away from when one include file takes the place of another:
// those that are gone, and those that lead elsewhere or let somebody do less or more than before. A
// new comment or another way of writing to the disk disturbs nobody. Touches no world.
#pragma once

#include "lib/vylist.h"

// Compares two texts as include_text_make writes them; the old one may be anything. Returns 0 and
// an owned list of owned names, in the old text's order, to be released with
// config_release_section_list; -ENOMEM, `names` untouched.
[[nodiscard]] int closing_find(const char* old_text, const char* new_text, vylist** names);
