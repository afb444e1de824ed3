// --monitor: waits for events of the kernel, the daemon's end and signals, and keeps the daemon
// informed.
#pragma once

#include "agent/settings.h"

// Runs until SIGTERM or SIGINT. Returns the exit status: 0 after such a signal; 1 when there is no
// listening to the kernel, which is logged.
int monitor_run(const AgentSettings& settings);
