// The command line of a bridge. Touches no world.
#pragma once

#include <stdint.h>

enum OptionsTask : uint8_t {
    TASK_SERVE,   // stay, and update at each SIGHUP
    TASK_ONCE,    // update the include file
    TASK_PRINT,   // print its text
    TASK_HELP,    // print the help
    TASK_VERSION, // print the version
    TASK_WRONG,   // the command line is wrong; getopt_long has said why
};

struct BridgeOptions {
    const char* service_file; // borrowed from the command line, or a default
    const char* own_file;
    OptionsTask task;
};

// `own_file` is the configuration of a bridge that is not told of another; borrowed.
BridgeOptions options_parse(int argc, char* argv[], const char* own_file);
