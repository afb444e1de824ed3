// What the service is told to mount: its own configuration, read when it is asked for.
#pragma once

#include "config/config_file.h"
#include "lib/guard.h"

void service_config_release(ConfHotplug* config);
using ServiceConfig = Guard<ConfHotplug, service_config_release>;

// Returns owned: the configuration; null when there is no such file, or no memory.
[[nodiscard]] ConfHotplug* service_config_load(const char* path);
