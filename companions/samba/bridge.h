// From the share file to what Samba exports: one look at the share file, the users and the mounts,
// the include file written anew where that makes a difference, and Samba told of it.
#pragma once

#include "samba/bridge_config.h"
#include "samba/notes.h"

struct Bridge {
    const BridgeConfig* config; // borrowed
    const char* sharefile;      // borrowed, as is the next
    const char* mountpath;      // the directory of the hotplug service's mounts, as configured
    Notes told;                 // what has been logged of the share file as it was last; owned
};

// Makes the include file's text after the share file as it is now, and logs what there is to say
// and was not said the last time. A share file that cannot be read has no shares. Returns 0 and an
// owned text; -ENOMEM, which is logged; another negated errno, logged as well, when the mounts
// cannot be read.
[[nodiscard]] int bridge_make_text(Bridge* bridge, char** text);

// Brings the include file up to date, and tells Samba when it was not. Clients are sent away from
// shares that went or lead elsewhere. Returns 0; -1 with the old file in place and the reason
// logged. SIGCHLD must be blocked, see samba_control.h.
[[nodiscard]] int bridge_refresh(Bridge* bridge);

// Frees what the record owns.
void bridge_clear(Bridge* bridge);
