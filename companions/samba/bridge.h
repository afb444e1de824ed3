// Makes Samba export what the share file describes: reads the share file, the users and the mounts,
// replaces the include file if its text has changed, and has Samba reload.
#pragma once

#include "samba/bridge_config.h"
#include "samba/notes.h"

struct Bridge {
    const BridgeConfig* config; // borrowed
    const char* sharefile;      // borrowed, like the next
    const char* mountpath;      // of the hotplug service, as configured
    Notes told;                 // what the last reading of the share file logged; owned
};

// Makes the text of the include file from the share file. Logs what is new since the last call. A
// share file that cannot be read has no shares. Returns 0 and an owned text; -ENOMEM; another
// negated errno when the mounts cannot be read. Failures are logged.
[[nodiscard]] int bridge_make_text(Bridge* bridge, char** text);

// Updates the include file. If its text has changed, Samba reloads, and closes the shares that are
// gone or have changed (shares_to_close.h). Returns 0; -1, logged, the old file in place. SIGCHLD
// must be blocked, see samba_control.h.
[[nodiscard]] int bridge_refresh(Bridge* bridge);

// Frees what the record owns.
void bridge_clear(Bridge* bridge);
