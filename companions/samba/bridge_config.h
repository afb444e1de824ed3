// The bridge's own configuration file (docs/man/vynas-samba.conf.5): unnamed entries "key = value".
#pragma once

#include "lib/guard.h"

struct BridgeConfig {
    char* includepath;   // the file that is written; owned, as all of them
    char* administrator; // user names
    char* guest;
    char* forceuser;  // empty: nobody
    char* smbcontrol; // the program, searched on PATH when it is no path
};

// Returns owned: the configuration, with the default for what is not given or is not accepted,
// which is logged; null when memory runs out. A file that is not there leaves every default.
[[nodiscard]] BridgeConfig* bridge_config_load(const char* path);

void bridge_config_free(BridgeConfig* config);
using BridgeConfigGuard = Guard<BridgeConfig, bridge_config_free>;
