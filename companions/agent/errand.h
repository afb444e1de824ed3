// The modes that do one thing and end: --once, --scan, --list.
#pragma once

#include "agent/settings.h"

// Tells the daemon of the event in the environment. Returns the exit status: 0 when it was told, or
// there was nothing to tell; 1 when it was not, which is logged.
int errand_once(const AgentSettings& settings, const char* const* environment);

// Tells the daemon of everything that is plugged. Returns the exit status as errand_once.
int errand_scan(const AgentSettings& settings);

// Prints what would be told to standard output. Returns the exit status: 0; 1 when there is no
// looking into sysfs.
int errand_list(const AgentSettings& settings);
