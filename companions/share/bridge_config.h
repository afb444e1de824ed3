// The bridge's own configuration file: unnamed entries "key = value". Some keys every server has,
// under names of its own; others are the server's alone.
#pragma once

#include "lib/guard.h"

#include <stddef.h>

constexpr size_t own_key_count = 3; // of one server, at most

struct BridgeKey {
    const char* key; // null: none
    const char* fallback;
    bool (*accepts)(const char* value);
};

struct BridgeKeys {
    BridgeKey includepath; // the file that is written
    BridgeKey control;     // the program that tells the server
    bool (*user_fits)(const char* name);
    BridgeKey own[own_key_count]; // numbered by the server
};

struct BridgeConfig {
    char* includepath;   // all strings are owned
    char* administrator; // a user name, like the next two
    char* guest;
    char* forceuser; // empty for none
    char* control;   // searched on PATH unless it holds a slash
    char* own[own_key_count];
};

// Returns owned: the configuration; null when memory runs out. A key that is missing has its
// default, and so has one whose value is not accepted, which is logged. The file may be missing.
[[nodiscard]] BridgeConfig* bridge_config_load(const char* path, const BridgeKeys* keys);

// Values that keys accept.
[[nodiscard]] bool bridge_config_is_path(const char* value);  // begins with a slash
[[nodiscard]] bool bridge_config_is_given(const char* value); // is not empty

void bridge_config_free(BridgeConfig* config);
using BridgeConfigGuard = Guard<BridgeConfig, bridge_config_free>;
