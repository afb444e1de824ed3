// Whether the hotplug service has been started anew a short time ago: its share file then tells
// nothing of what it has not been told of yet. Logs nothing.
#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <time.h>

// Milliseconds for which a new service's share file may be incomplete: it is told of each device 2
// seconds after its start, and mounts one after the other.
constexpr uint64_t restart_ms = 60000;

// All zero: no service was seen.
struct RestartWatch {
    ino_t file;       // of the service's pid file
    timespec written; // by each new service
    uint64_t until;   // clock_now() when a new service is to be believed
};

// Looks at the service's pid file. Returns whether the service runs and is new: since less than
// restart_ms before the first look that showed it. The first look of all finds it new. (While no
// service runs, what the share file loses is taken out of it on purpose, before the next one
// starts.)
[[nodiscard]] bool restart_is_recent(RestartWatch* watch, const char* pid_file, uint64_t now);
