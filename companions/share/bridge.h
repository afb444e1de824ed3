// Makes a server export what the share file describes: reads the share file, the users and the
// mounts, replaces the list of shares if it has changed, and has the server reload. What has
// happened is told by the caller; nothing here waits but bridge_finish.
#pragma once

#include "share/bridge_config.h"
#include "share/notes.h"
#include "share/restart_watch.h"
#include "share/server_control.h"
#include "share/share_server.h"

#include <stdint.h>

struct Bridge {
    const ShareServer* server;  // borrowed
    const BridgeConfig* config; // borrowed
    const char* sharefile;      // borrowed, like the next
    const char* mountpath;      // of the hotplug service, as configured
    // The hotplug service's pid file, borrowed, where the service takes over what stands mounted:
    // then shares outlive its restart. Null where it does not.
    const char* adopting;

    Notes told;            // what the last reading of the share file logged; owned
    ServerControl control; // what is told to the server
    RestartWatch restart;  // of the service
    bool keeps;            // shares stand that the share file does not tell of
};

// Sets up a bridge; the pointers are borrowed.
void bridge_init(Bridge* bridge, const ShareServer* server, const BridgeConfig* config,
                 const char* sharefile, const char* mountpath, const char* adopting);

// Makes the list of shares from the share file. Logs what is new since the last call. A
// share file that cannot be read has no shares. Returns 0 and an owned text; -ENOMEM; another
// negated errno when the mounts cannot be read. Failures are logged.
[[nodiscard]] int bridge_make_text(Bridge* bridge, char** text);

// Updates the list of shares. If it has changed, has the server reload, and close the shares that
// are gone or have changed (shares_to_close.h). Shares that stand in the old file stay for a while
// after a restart of the service that takes over what is mounted (restart_watch.h,
// standing_shares.h). Returns 0; -1, logged, the old file in place.
[[nodiscard]] int bridge_refresh(Bridge* bridge);

// Takes the shares out whose mount has gone, and has the server close them; adds none. To be called
// when the kernel's table of mounts has changed. Returns as bridge_refresh.
[[nodiscard]] int bridge_mounts_changed(Bridge* bridge);

// Does what is due. To be called when a child has ended, and when the time has passed that was
// returned before. Returns the milliseconds until it is to be called again; -1 when time alone
// changes nothing.
[[nodiscard]] int64_t bridge_advance(Bridge* bridge);

// Returns when the server has been told everything. SIGCHLD must be blocked in the calling thread.
void bridge_finish(Bridge* bridge);

// Frees what the record owns.
void bridge_clear(Bridge* bridge);
