// Loading of the daemon's configuration file: one unnamed section of "key = value" lines. The keys
// are listed in docs/configuration.md and in man 5 vyhotplugd.conf.
#pragma once

#include "config/conf_hotplug.h"
#include "lib/guard.h"

// Returns owned: the configuration; null when `path` is null, the record cannot be allocated, or
// one of strict, adopt and mountflags is there but memory for its value is not. A file that cannot
// be read is logged and leaves every default; a text that cannot be allocated stays null.
[[nodiscard]] ConfHotplug* load_config_hotplug(const char* path);

// Takes the record and its four paths; null is accepted. The option texts stay: the mount layer may
// hold on to them until the process ends.
void free_config_hotplug(ConfHotplug* config);

using ConfHotplugGuard = Guard<ConfHotplug, free_config_hotplug>;
