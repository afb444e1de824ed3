// The daemon's run-time state and its run loop.
#pragma once

#include "config/conf_hotplug.h"

#include <stdint.h>

constexpr uint32_t DAEMON_PATH_SIZE = 128; // bytes with the NUL

// One per process, owned by vyhotplug_main. `running` and `refresh` are set from signal handlers
// and threads without a lock: use flag_get and flag_set (lib/guard.h).
struct DaemonCtx {
    uint8_t daemonmode; // 1: become a daemon
    uint8_t loglevel;   // highest syslog priority logged
    uint8_t running;    // 0 ends the run loop and the receive thread
    uint8_t refresh;    // 1: rewrite the files at the next idle pause
    int32_t lockfd;     // the locked pid file, -1 for none
    uint8_t daemonized; // 1: this is the re-started daemon
    char progpath[DAEMON_PATH_SIZE];
    char confpath[DAEMON_PATH_SIZE];
    ConfHotplug* config; // owned by the run loop; null outside it
};

// Loads the configuration, starts the receive thread and carries out control messages until
// `running` is cleared; every burst of them is followed by one refresh of the device file and the
// share file. Filesystems stay mounted at the end. Returns 0 after an orderly stop, -1 when it
// could not start.
[[nodiscard]] int daemon_run(DaemonCtx* ctx);
