#include "agent/errand.h"
#include "agent/monitor.h"
#include "agent/settings.h"
#include "lib/log.h"
#include "lib/version.h"

#include <stdio.h>
#include <unistd.h>

static constexpr char program[] = "vyhotplug-agent";
static constexpr int wrong_command_line = 2;

static int run(const AgentSettings& settings)
{
    switch (settings.mode) {
    case AGENT_MONITOR:
        return monitor_run(settings);
    case AGENT_ONCE:
        return errand_once(settings, environ);
    case AGENT_SCAN:
        return errand_scan(settings);
    case AGENT_LIST:
        return errand_list(settings);
    case AGENT_HELP:
        settings_print_help();
        return 0;
    case AGENT_VERSION:
        printf("%s %s\n", program, vy_build);
        return 0;
    case AGENT_NO_MODE:
        break;
    }
    return wrong_command_line;
}

int main(int argc, char* argv[])
{
    AgentSettings settings;
    if (settings_parse(argc, argv, &settings) != 0)
        return wrong_command_line;
    openlog(program, LOG_PID, LOG_DAEMON);
    return run(settings);
}
