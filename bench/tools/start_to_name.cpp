// start_to_name NAME COMMAND [ARGUMENT]...
//
// Starts a command and prints the nanoseconds until NAME is owned on the system bus. Then kills it.
#include <gio/gio.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static constexpr guint limit_seconds = 30;

static long long began;
static pid_t child = -1;
static GMainLoop* loop;
static int result = 1;

static long long now_ns()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

static void on_owned(GDBusConnection*, const gchar*, const gchar*, gpointer)
{
    printf("%lld\n", now_ns() - began);
    result = 0;
    g_main_loop_quit(loop);
}

// Called once at the beginning, when the watch is known to stand.
static void on_free(GDBusConnection*, const gchar* name, gpointer argv)
{
    if (child != -1)
        return;
    began = now_ns();
    child = fork();
    if (child != 0)
        return;
    char** command = static_cast<char**>(argv);
    execvp(command[0], command);
    fprintf(stderr, "cannot run %s for %s\n", command[0], name);
    _exit(127);
}

static gboolean on_limit(gpointer)
{
    fprintf(stderr, "it did not come up\n");
    g_main_loop_quit(loop);
    return FALSE;
}

int main(int argc, char* argv[])
{
    if (argc < 3) {
        fprintf(stderr, "usage: start_to_name NAME COMMAND [ARGUMENT]...\n");
        return 2;
    }
    loop = g_main_loop_new(nullptr, FALSE);
    (void)g_bus_watch_name(G_BUS_TYPE_SYSTEM, argv[1], G_BUS_NAME_WATCHER_FLAGS_NONE, on_owned,
                           on_free, argv + 2, nullptr);
    (void)g_timeout_add_seconds(limit_seconds, on_limit, nullptr);
    g_main_loop_run(loop);
    if (child > 0) {
        (void)kill(child, SIGKILL);
        (void)waitpid(child, nullptr, 0);
    }
    return result;
}
