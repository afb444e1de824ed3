// The command line.
#pragma once

#include "agent/limits.h"

#include <stdint.h>

enum AgentMode : uint8_t {
    AGENT_NO_MODE,
    AGENT_MONITOR,
    AGENT_ONCE,
    AGENT_SCAN,
    AGENT_LIST,
    AGENT_HELP,
    AGENT_VERSION,
};

// All texts are borrowed from the command line.
struct AgentSettings {
    AgentMode mode = AGENT_NO_MODE;
    bool all = false;                  // the machine's own disks too
    int32_t wait = agent_wait_default; // seconds
    const char* sysfs = "/sys";
    const char* proc = "/proc";              // where the tables of mounts and swaps are read
    const char* mounts = "/media/vyhotplug"; // the service's mount directory
    const char* state = "/run/vyhotplug-agent.state";       // "": none
    const char* config = "/etc/vyhotplugd/vyhotplugd.conf"; // the service's
    bool by_share = false; // links of shares' names are kept in the mount directory
    const char* not_mounted =
        "/run/vyhotplugd/not-mounted"; // what is not mounted, and why; "": nowhere
};

// Returns 0; -1 when the command line is wrong, the reason told on standard error.
[[nodiscard]] int settings_parse(int argc, char* argv[], AgentSettings* settings);

void settings_print_help();
