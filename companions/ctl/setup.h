// Where everything lies: the service's configuration and the kernel's tables.
#pragma once

#include "config/conf_hotplug.h"

#include <limits.h>

// What the command line says of it. Borrowed.
struct SetupPaths {
    const char* config; // null: that of the packages, or else the service's own default
    const char* sysfs;
    const char* run; // directory of what the agent tells
};

inline constexpr SetupPaths setup_defaults = {
    .config = nullptr, .sysfs = "/sys", .run = "/run/vyhotplugd"};

struct Setup {
    SetupPaths paths;           // `config` is set
    ConfHotplug* config;        // owned
    char mountroot[PATH_MAX];   // `mountpath` as the kernel knows it
    char not_mounted[PATH_MAX]; // the agent's file of what it could not have mounted
};

// Reads the configuration. Returns 0; a negated errno, told on standard error. Either way it is to
// be ended by setup_end.
[[nodiscard]] int setup_begin(const SetupPaths& paths, Setup* setup);
void setup_end(Setup* setup);
