// The daemon's run-time state, which every part of the core works on.
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
    uint8_t told;        // TOLD_*: what is not trusted and has been told, so that it is told once
};

enum : uint8_t {
    TOLD_HOOK = 1,
    TOLD_DEVICE_FILE = 2,
};

// Whether only root's commands and root's files count.
inline bool is_strict(const DaemonCtx* ctx)
{
    return ctx->config != nullptr && ctx->config->strict != 0;
}

// What the next refresh must take in, as bits.
enum DirtyTables : int {
    DIRTY_ADDED = 1,   // a device was added
    DIRTY_REMOVED = 2, // a device was removed
};
