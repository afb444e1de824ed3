#include "share/options.h"

#include <getopt.h>

namespace {

enum OptionCode : int {
    CODE_ONCE = 256, // options without a letter
    CODE_PRINT,
    CODE_HELP,
    CODE_VERSION,
};

constexpr option long_options[] = {
    {"file", required_argument, nullptr, 'f'},
    {"config", required_argument, nullptr, 'c'},
    {"once", no_argument, nullptr, CODE_ONCE},
    {"print", no_argument, nullptr, CODE_PRINT},
    {"help", no_argument, nullptr, CODE_HELP},
    {"version", no_argument, nullptr, CODE_VERSION},
    {nullptr, 0, nullptr, 0},
};

} // namespace

static void take_option(BridgeOptions* options, int code)
{
    switch (code) {
    case 'f':
        options->service_file = optarg;
        return;
    case 'c':
        options->own_file = optarg;
        return;
    case CODE_ONCE:
        options->task = TASK_ONCE;
        return;
    case CODE_PRINT:
        options->task = TASK_PRINT;
        return;
    case CODE_HELP:
        options->task = TASK_HELP;
        return;
    case CODE_VERSION:
        options->task = TASK_VERSION;
        return;
    default:
        options->task = TASK_WRONG;
    }
}

BridgeOptions options_parse(int argc, char* argv[], const char* own_file)
{
    BridgeOptions options = {.service_file = "/etc/vyhotplugd/vyhotplugd.conf",
                             .own_file = own_file,
                             .task = TASK_SERVE};
    int code = 0;
    optind = 0; // 0 starts over with glibc, musl and uClibc alike
    while (options.task != TASK_WRONG &&
           (code = getopt_long(argc, argv, "f:c:", long_options, nullptr)) != -1)
        take_option(&options, code);
    if (optind < argc)
        options.task = TASK_WRONG;
    return options;
}
