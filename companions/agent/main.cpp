#include "agent/modes.h"
#include "lib/platform.h"
#include "lib/version.h"

#include <signal.h>
#include <syslog.h>
#include <unistd.h>

static constexpr char program[] = "vyhotplug-agent";
static constexpr int wrong_command_line = 2;

static int run(const AgentSettings& settings)
{
    switch (settings.mode) {
    case AGENT_MONITOR:
        return monitor_run(settings);
    case AGENT_ONCE:
        return oneshot_once(settings, environ);
    case AGENT_SCAN:
        return oneshot_scan(settings);
    case AGENT_LIST:
        return oneshot_list(settings);
    case AGENT_VERSION:
        printf("%s %s\n", program, vy_build);
        return 0;
    default:
        settings_print_help();
        return 0;
    }
}

int main(int argc, char* argv[])
{
    AgentSettings settings;
    if (settings_parse(argc, argv, &settings) != 0)
        return wrong_command_line;
    openlog(program, LOG_PID, LOG_DAEMON);
    (void)setlogmask(LOG_UPTO(LOG_INFO)); // what is linked besides logs for who debugs the service
    (void)signal(SIGPIPE, SIG_IGN);       // a failed write tells enough
    const int status = run(settings);
    if (stream_flush(stdout) == 0)
        return status;
    fprintf(stderr, "%s: cannot write to standard output\n", program);
    return 1;
}
