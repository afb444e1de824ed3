// What the agent does in each of its modes. Each function returns the exit status.
#pragma once

#include "agent/settings.h"

// --monitor: waits for events of the kernel, the daemon's end and signals, and keeps the daemon
// informed, until SIGTERM or SIGINT. Returns 0 after such a signal; 1 when there is no listening to
// the kernel, which is logged.
int monitor_run(const AgentSettings& settings);

// --once: tells the daemon of the event in the environment. Returns 0 when it was told, or there
// was nothing to tell; 1 when it was not, which is logged.
int oneshot_once(const AgentSettings& settings, const char* const* environment);

// --scan: tells the daemon of everything that is plugged. Returns as oneshot_once.
int oneshot_scan(const AgentSettings& settings);

// --list: prints what would be told. Returns 0; 1 when there is no looking into sysfs.
int oneshot_list(const AgentSettings& settings);
