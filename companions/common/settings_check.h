// Looks for mistakes in the device file (docs/device-file.md): the service passes over what it does
// not understand, and at the next refresh it is gone from the file. A name in the place of a user
// id leaves a list empty, and everybody may write then. Bytes in, findings out.
#pragma once

#include "common/finding.h"

#include <stdint.h>

// A line of this key is no mistake: vyhotplugctl leaves it in a section until the service has
// written the section anew, without it.
inline constexpr char settings_mark[] = "ctlchange";

// Finds a user's id. Returns whether there is such a user.
using UserLookup = bool (*)(const char* name, uint32_t* id);

// Reports each mistake, in the order of the lines. `lookup` is asked for names in user lists; it
// may be null. Returns how many there were.
int settings_check(const char* text, size_t size, UserLookup lookup, FindingReport report,
                   void* context);
