#include "share/share_program.h"

#include "config/config_file.h"
#include "lib/log.h"
#include "lib/platform.h"
#include "lib/process.h"
#include "lib/version.h"
#include "share/bridge.h"
#include "share/options.h"
#include "share/serve.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static constexpr char log_tag[] = "main";
static constexpr char service_name[] =
    "vynas-fssd"; // the name of the pid file that the daemon looks for
static constexpr char hotplug_pid_file[] = "/var/run/vyhotplugd.pid";

static constexpr size_t path_size = 64; // bytes of the own configuration's path, with the NUL

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
static int end_printing(const ShareServer* server, int printed)
{
    if (printed >= 0 && stream_flush(stdout) == 0)
        return EXIT_SUCCESS;
    perror(server->program);
    return EXIT_FAILURE;
}

static int print_include_text(Bridge* bridge)
{
    MemGuard<char> text;
    if (bridge_make_text(bridge, text.out()) != 0)
        return EXIT_FAILURE;
    return end_printing(bridge->server, fputs(text.get(), stdout));
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

static int run_configured(const BridgeOptions* options, const ShareServer* server)
{
    const ConfHotplugGuard service(load_config_hotplug(options->service_file));
    const BridgeConfigGuard own(bridge_config_load(options->own_file, &server->keys));
    if (!service || !own || service->smbconfigpath == nullptr || service->mountpath == nullptr) {
        VY_LOG(LOG_ERR, "out of memory");
        return EXIT_FAILURE;
    }
    Bridge bridge;
    bridge_init(&bridge, server, own.get(), service->smbconfigpath, service->mountpath,
                service->adopt != 0 ? hotplug_pid_file : nullptr);
    const int status = run(options, &bridge);
    bridge_clear(&bridge);
    return status;
}

int share_program(int argc, char* argv[], const ShareServer* server)
{
    char own_file[path_size]; // unless an option names another
    (void)snprintf(own_file, sizeof own_file, "/etc/%s/%s.conf", server->program, server->program);
    const BridgeOptions options = options_parse(argc, argv, own_file);
    if (options.task == TASK_WRONG) {
        fputs(server->help, stderr);
        return EXIT_FAILURE;
    }
    if (options.task == TASK_HELP)
        return end_printing(server, fputs(server->help, stdout));
    if (options.task == TASK_VERSION)
        return end_printing(server, printf("%s %s\n", server->program, vy_build));
    // Run by hand, it prints the lines as well.
    openlog(server->program, options.task == TASK_SERVE ? LOG_PID : LOG_PID | LOG_PERROR,
            LOG_DAEMON);
    setlogmask(LOG_UPTO(LOG_INFO)); // parsers log items at LOG_DEBUG
    return run_configured(&options, server);
}
