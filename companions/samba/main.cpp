// vynas-samba: makes Samba the file-sharing service of the hotplug service.
#include "config/config_file.h"
#include "lib/log.h"
#include "lib/platform.h"
#include "lib/process.h"
#include "lib/version.h"
#include "samba/bridge.h"
#include "samba/bridge_config.h"
#include "samba/options.h"
#include "samba/serve.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static constexpr char log_tag[] = "main";
static constexpr char program_name[] = "vynas-samba";
static constexpr char service_name[] =
    "vynas-fssd"; // the name of the pid file that the daemon looks for
static constexpr char hotplug_pid_file[] = "/var/run/vyhotplugd.pid";

static constexpr char help[] =
    "Usage: vynas-samba [option]...\n"
    "Makes the shares of the hotplug service Samba's, now and whenever they change.\n"
    "\n"
    "  -f, --file FILE     configuration of the hotplug service\n"
    "                      (/etc/vyhotplugd/vyhotplugd.conf)\n"
    "  -c, --config FILE   own configuration (/etc/vynas-samba/vynas-samba.conf)\n"
    "      --once          bring the include file up to date, tell Samba, and end\n"
    "      --print         print what the include file should be, and end\n"
    "      --help          print this, and end\n"
    "      --version       print the version, and end\n";

// ---- tasks ----

static int serve(Bridge* bridge)
{
    const FdGuard lock(vy_create_pid_file(service_name));
    if (lock.get() < 0) {
        VY_LOG(LOG_ERR, "cannot lock /var/run/%s.pid, another copy may be running", service_name);
        return EXIT_FAILURE;
    }
    const int status = serve_until_told(bridge);
    // The process id may soon be another process's, which would get the service's signals.
    if (ftruncate(lock.get(), 0) != 0)
        VY_LOG(LOG_WARNING, "cannot empty /var/run/%s.pid (%d)", service_name, errno);
    return status;
}

static int refresh_once(Bridge* bridge)
{
    serve_block_signals();
    const int result = bridge_refresh(bridge);
    bridge_finish(bridge);
    return result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

// Flushes what printf or fputs returned `printed` for. Returns the exit status.
static int end_printing(int printed)
{
    if (printed >= 0 && stream_flush(stdout) == 0)
        return EXIT_SUCCESS;
    perror(program_name);
    return EXIT_FAILURE;
}

static int print_include_text(Bridge* bridge)
{
    MemGuard<char> text;
    if (bridge_make_text(bridge, text.out()) != 0)
        return EXIT_FAILURE;
    return end_printing(fputs(text.get(), stdout));
}

static int run(const BridgeOptions* options, Bridge* bridge)
{
    switch (options->task) {
    case TASK_PRINT:
        return print_include_text(bridge);
    case TASK_ONCE:
        return refresh_once(bridge);
    default:
        serve_block_signals();
        return serve(bridge);
    }
}

static int run_configured(const BridgeOptions* options)
{
    const ConfHotplugGuard service(load_config_hotplug(options->service_file));
    const BridgeConfigGuard own(bridge_config_load(options->own_file));
    if (!service || !own || service->smbconfigpath == nullptr || service->mountpath == nullptr) {
        VY_LOG(LOG_ERR, "out of memory");
        return EXIT_FAILURE;
    }
    Bridge bridge;
    bridge_init(&bridge, own.get(), service->smbconfigpath, service->mountpath,
                service->adopt != 0 ? hotplug_pid_file : nullptr);
    const int status = run(options, &bridge);
    bridge_clear(&bridge);
    return status;
}

int main(int argc, char* argv[])
{
    const BridgeOptions options = options_parse(argc, argv);
    if (options.task == TASK_WRONG) {
        fputs(help, stderr);
        return EXIT_FAILURE;
    }
    if (options.task == TASK_HELP)
        return end_printing(fputs(help, stdout));
    if (options.task == TASK_VERSION)
        return end_printing(printf("%s %s\n", program_name, vy_build));
    // Run by hand, it prints the lines as well.
    openlog(program_name, options.task == TASK_SERVE ? LOG_PID : LOG_PID | LOG_PERROR, LOG_DAEMON);
    setlogmask(LOG_UPTO(LOG_INFO)); // parsers log items at LOG_DEBUG
    return run_configured(&options);
}
