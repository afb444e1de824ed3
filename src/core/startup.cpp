#include "core/startup.h"

#include "core/daemon.h"
#include "lib/guard.h"
#include "lib/log.h"
#include "lib/process.h"
#include "lib/str.h"
#include "lib/version.h"

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char log_tag[] = "main";
static constexpr char daemon_name[] = "vyhotplugd";
static constexpr char local_config[] = "./vyhotplugd.conf";
static constexpr char default_config[] = "/tmp/vynasmira/vyhotplugd.conf";
static constexpr int announced_level = LOG_ERR; // the help's word; the real default is LOG_WARNING
static constexpr int highest_level = LOG_DEBUG;
static constexpr int last_descriptor = 254;
static constexpr size_t directory_size = 256; // bytes of a working directory's path

// For the signal handler; null outside vyhotplug_main.
static DaemonCtx* process_ctx;

static void set_process_ctx(DaemonCtx* ctx)
{
    __atomic_store_n(&process_ctx, ctx, __ATOMIC_RELEASE);
}

// ---- the end ----

[[noreturn]] static void end_process(DaemonCtx* ctx, int status)
{
    if (ctx->lockfd != -1) {
        (void)flock(ctx->lockfd, LOCK_UN); // closing it unlocks as well
        close(ctx->lockfd);
        ctx->lockfd = -1;
    }
    for (int fd = 0; fd <= last_descriptor; fd++)
        close(fd);
    exit(status);
}

[[noreturn]] static void end_with_error(DaemonCtx* ctx, int status)
{
    set_process_ctx(nullptr);
    VY_LOG(LOG_ERR, "Error - exit %s (%d)", daemon_name, status);
    end_process(ctx, status);
}

[[noreturn]] static void end_initialize(DaemonCtx* ctx, int status)
{
    VY_LOG(LOG_ERR, "Error - initialize");
    end_with_error(ctx, status);
}

// ---- texts ----

static void print_version()
{
    fprintf(stderr, "%s --- version %s\n\n", daemon_name, vy_version);
}

static void print_help()
{
    fprintf(stderr, "\nVY NAS Mira - Hotplug Daemon.\n");
    fprintf(stderr, "Usage: %s {option}\n", daemon_name);
    fprintf(stderr, "\noption:\n");
    fprintf(stderr, " -f --file  [path] : config file path(def=%s)\n", default_config);
    fprintf(stderr, " -d --debug        : debug mode. runs as a non-daemon.\n"
                    " -h --help         : display this help message and exit.\n"
                    " -v --version      : display this program version and exit.\n");
    fprintf(stderr,
            " -l --level [level]    : log level.(def:%d)\n"
            "            Emergency=%d,  Alert=%d,  Critical=%d,   Error=%d\n"
            "            Warning=%d,    Notice=%d, Infomation=%d, Debug=%d\n",
            announced_level, LOG_EMERG, LOG_ALERT, LOG_CRIT, LOG_ERR, LOG_WARNING, LOG_NOTICE,
            LOG_INFO, LOG_DEBUG);
    fprintf(stderr, "\n\n");
}

static void print_undefined_level(int level)
{
    fprintf(stderr,
            "Error : Undefined Log Level(%d)\n"
            " LOG_EMERG  = %d\n"
            " LOG_ALERT  = %d\n"
            " LOG_CRIT   = %d\n"
            " LOG_ERR    = %d\n"
            " LOG_WARNING= %d\n"
            " LOG_NOTICE = %d\n"
            " LOG_INFO   = %d\n"
            " LOG_DEBUG  = %d\n",
            level, LOG_EMERG, LOG_ALERT, LOG_CRIT, LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO,
            LOG_DEBUG);
}

// ---- options ----

static int set_config_path(DaemonCtx* ctx, const char* path)
{
    struct stat status;
    if (path == nullptr || stat(path, &status) != 0) {
        fprintf(stderr, "Error : no such file (%s)\n", path != nullptr ? path : "(null)");
        print_help();
        return -1;
    }
    if (strlen(path) >= sizeof ctx->confpath) {
        fprintf(stderr, "Error : too long (config file path)\n");
        return -1;
    }
    str_cpy(ctx->confpath, path);
    return 0;
}

static int set_level(DaemonCtx* ctx, const char* text)
{
    int32_t level = 0;
    const int32_t result = str_to_long(text, &level, 10);
    if (result != 0) {
        fprintf(stderr, "Error : read log level (%d)\n", result == -EINVAL ? EINVAL : ERANGE);
        return -1;
    }
    if (level < 0 || level > highest_level) {
        print_undefined_level(level);
        return -1;
    }
    ctx->loglevel = static_cast<uint8_t>(level);
    return 0;
}

static constexpr char short_options[] = "-vhl:dkf:D";
static constexpr option long_options[] = {
    {"version", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {"level", required_argument, nullptr, 'l'},
    {"debug", no_argument, nullptr, 'd'},
    {"file", required_argument, nullptr, 'f'},
    {"Daemon", no_argument, nullptr, 'D'},
    {nullptr, 0, nullptr, 0},
};

// Takes one option. Returns -1 for one that ends the start.
static int take_option(DaemonCtx* ctx, int code)
{
    switch (code) {
    case 'v':
        print_version();
        exit(0);
    case 'h':
        print_help();
        exit(0);
    case 'l':
        return set_level(ctx, optarg);
    case 'f':
        return set_config_path(ctx, optarg);
    case 'd':
        ctx->daemonmode = 0;
        return 0;
    case 'D':
        ctx->daemonized = 1;
        return 0;
    default: // -k too: it stands in the option string, but no such option was ever made
        break;
    }
    if (code == '?' && optopt == 'f')
        return set_config_path(ctx, nullptr);
    fprintf(stderr, "getopt returned character code 0x%x\n\n", static_cast<unsigned>(code));
    print_help();
    return -1;
}

static int parse_options(DaemonCtx* ctx, int argc, char* argv[])
{
    int code = 0;
    while ((code = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1) {
        if (take_option(ctx, code) != 0)
            return -1;
    }
    return 0;
}

// ---- paths ----

static void find_default_config(DaemonCtx* ctx)
{
    if (access(local_config, R_OK) == 0)
        str_cpy(ctx->confpath, local_config);
    else if (access(default_config, R_OK) == 0)
        str_cpy(ctx->confpath, default_config);
}

// Writes "<working directory>/<path>", cut to the buffer. Returns -1 without a working directory.
static int join_directory(char (&joined)[DAEMON_PATH_SIZE], const char* path)
{
    char directory[directory_size];
    if (getcwd(directory, sizeof directory) == nullptr)
        return -1;
    char whole[directory_size];
    const int length = snprintf(whole, sizeof whole, "%s/%s", directory, path);
    if (length < 0)
        return -1;
    str_ncpy(joined, whole, sizeof joined);
    return 0;
}

// Finds the path by which the program can start itself again.
static int find_program(DaemonCtx* ctx, const char* argv0)
{
    if (argv0[0] == '/' || strchr(argv0, '/') == nullptr) {
        str_ncpy(ctx->progpath, argv0, sizeof ctx->progpath);
        return 0;
    }
    return join_directory(ctx->progpath, argv0);
}

// The daemon works in "/", so a relative path must not stay one. Without a working directory it
// does.
static void make_config_path_absolute(DaemonCtx* ctx)
{
    if (ctx->confpath[0] == '/')
        return;
    char relative[DAEMON_PATH_SIZE];
    str_cpy(relative, ctx->confpath);
    (void)join_directory(ctx->confpath, relative);
}

// ---- becoming a daemon ----

// Detaches and starts the program again as the daemon. Returns a negated errno when it cannot
// detach, else not at all.
static int restart_as_daemon(DaemonCtx* ctx)
{
    if (daemon(0, 0) != 0)
        return -errno;
    // Low descriptors that the new program finds taken; they hold nothing.
    [[maybe_unused]] const int held[] = {open("/dev/null", O_RDONLY), open("/dev/null", O_WRONLY),
                                         open("/dev/null", O_WRONLY)};
    char level[] = {static_cast<char>('0' + ctx->loglevel % 10), '\0'};
    char file_option[] = "-f";
    char level_option[] = "-l";
    char daemon_option[] = "-D";
    char* const argv[] = {ctx->progpath, file_option,   ctx->confpath, level_option,
                          level,         daemon_option, nullptr};
    execvp(ctx->progpath, argv);
    _exit(1);
}

static void open_log(const DaemonCtx* ctx)
{
    openlog(daemon_name, ctx->daemonmode != 0 ? LOG_PID : LOG_PID | LOG_PERROR, LOG_DAEMON);
    setlogmask(LOG_UPTO(ctx->loglevel));
}

// ---- signals ----

static void handle_signal(int number, siginfo_t*, void*)
{
    DaemonCtx* ctx = __atomic_load_n(&process_ctx, __ATOMIC_ACQUIRE);
    if (ctx == nullptr)
        return;
    if (number == SIGINT || number == SIGTERM)
        flag_set(&ctx->running, 0);
    else if (number == SIGHUP)
        flag_set(&ctx->refresh, 1);
}

namespace {

struct SignalRow {
    int number;
    bool ignored;
    int flags;
};

// A second SIGINT or SIGTERM kills at once: kept, the way out of a daemon that hangs.
constexpr SignalRow signal_rows[] = {
    {SIGINT, false, static_cast<int>(SA_RESETHAND | SA_SIGINFO)},
    {SIGTERM, false, static_cast<int>(SA_RESETHAND | SA_SIGINFO)},
    {SIGHUP, false, SA_RESTART | SA_SIGINFO},
    {SIGPIPE, true, SA_RESTART | SA_NOCLDSTOP},
};

} // namespace

static int install_signal(const SignalRow& row)
{
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = row.flags;
    if (row.ignored)
        action.sa_handler = SIG_IGN;
    else
        action.sa_sigaction = handle_signal;
    return sigaction(row.number, &action, nullptr);
}

static int install_signals()
{
    for (const SignalRow& row : signal_rows) {
        if (install_signal(row) == 0)
            continue;
        const int failure = errno;
        VY_LOG(LOG_ERR, "Error - Signal Handler(%d)", failure);
        return -failure;
    }
    return 0;
}

// ---- the daemon ----

static int take_lock(DaemonCtx* ctx)
{
    ctx->lockfd = vy_create_pid_file(daemon_name);
    if (ctx->lockfd != -1)
        return 0;
    VY_LOG(LOG_ERR, "cannot run more than one process\n");
    return -1;
}

// From the root check to the signal handlers. Returns 0, -1 or a negated errno.
static int initialize(DaemonCtx* ctx)
{
    if (ctx->daemonized == 0)
        make_config_path_absolute(ctx);
    if (ctx->daemonmode != 0 && ctx->daemonized == 0)
        return restart_as_daemon(ctx);
    if (take_lock(ctx) != 0)
        return -1;
    open_log(ctx);
    return install_signals();
}

static void set_defaults(DaemonCtx* ctx)
{
    *ctx = {};
    ctx->daemonmode = 1;
    ctx->loglevel = LOG_WARNING;
    ctx->running = 1;
    ctx->lockfd = -1;
}

int vyhotplug_main(int argc, char* argv[])
{
    DaemonCtx ctx;
    set_defaults(&ctx);
    find_default_config(&ctx);
    if (find_program(&ctx, argc > 0 && argv[0] != nullptr ? argv[0] : "") != 0)
        return -1;
    set_process_ctx(&ctx);
    if (parse_options(&ctx, argc, argv) != 0) {
        fprintf(stderr, "Error - parse command line\n");
        end_with_error(&ctx, -1);
    }
    if (getuid() != 0) {
        fprintf(stderr, "root only.\n");
        end_initialize(&ctx, -1);
    }
    const int status = initialize(&ctx);
    if (status != 0)
        end_initialize(&ctx, status);

    VY_LOG(LOG_INFO, "Application intialize is success.");
    const int result = daemon_run(&ctx);
    set_process_ctx(nullptr);
    if (result != 0)
        end_with_error(&ctx, result);
    VY_LOG(LOG_ERR, "exit %s", daemon_name);
    end_process(&ctx, result);
}
