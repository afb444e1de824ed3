// Finds the shares whose clients must be disconnected when one list of shares replaces another:
// those that are gone, and those with another path or other rights. A new comment or another sync
// setting disconnects nobody. Touches no world.
#pragma once

#include "lib/vylist.h"

// Compares two texts as share_list_make writes them; the old one may be anything. A line that
// begins like one of `harmless`, which a null ends, concerns no connected client. Returns 0 and an
// owned list of owned names, in the old text's order, to be released with
// config_release_section_list; -ENOMEM, `names` untouched.
[[nodiscard]] int shares_to_close(const char* old_text, const char* new_text,
                                  const char* const* harmless, vylist** names);
