// The bridge's own configuration file (docs/man/vynas-samba.conf.5): unnamed entries "key = value".
#pragma once

#include "lib/guard.h"

struct BridgeConfig {
    char* includepath;   // the include file; all strings are owned
    char* administrator; // a user name, like the next two
    char* guest;
    char* forceuser;  // empty for none
    char* smbcontrol; // the program; searched on PATH unless it holds a slash
};

// Returns owned: the configuration; null when memory runs out. A key that is missing has its
// default, and so has one whose value is not accepted, which is logged. The file may be missing.
[[nodiscard]] BridgeConfig* bridge_config_load(const char* path);

void bridge_config_free(BridgeConfig* config);
using BridgeConfigGuard = Guard<BridgeConfig, bridge_config_free>;
