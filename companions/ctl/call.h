// What every call is given, and what is known of a call.
#pragma once

#include "ctl/setup.h"
#include "ctl/status.h"
#include "ctl/terminal.h"

#include <stdint.h>

// Borrowed from the command line.
struct CallArgs {
    const Setup* setup;
    Terminal out;
    char** words; // behind the call's name
    int count;
    bool json;
    bool all;
    bool force;
    bool offline; // for the configuration alone
    int wait_s;   // -1: not said
};

enum CallOption : uint8_t {
    TAKES_JSON = 1,
    TAKES_ALL = 2,
    TAKES_FORCE = 4,
    TAKES_WAIT = 8,
    TAKES_CONFIG = 16, // --configuration
};

struct CallRow {
    const char* name;
    const char* synopsis; // what stands behind the name
    const char* help;
    uint8_t options; // CallOption
    uint8_t least;   // words
    uint8_t most;
    bool root;
    int (*run)(const CallArgs& args); // returns the exit status
};
