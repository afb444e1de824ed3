#include "agent/monitor.h"

#include "agent/announcer.h"
#include "agent/daemon_peer.h"
#include "agent/limits.h"
#include "agent/netlink.h"
#include "agent/state_file.h"
#include "lib/guard.h"
#include "lib/log.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>

static constexpr char log_tag[] = "monitor";

namespace {

struct Monitor {
    const AgentSettings* settings;
    Announcer announcer;
    Courier courier;
    DaemonIdentity daemon; // all zero: none known
    DaemonIdentity stored; // of the state file, until a daemon was met
    int watch;             // its pidfd, owned; -1 for none
    int netlink;           // owned
    bool state_failed;     // has been logged
};

uint8_t stop_asked;
uint8_t walk_asked;

} // namespace

// ---- the state file ----

static void save_state(Monitor* monitor)
{
    const char* path = monitor->settings->state;
    if (path[0] == '\0')
        return;
    const int result = state_save(path, monitor->daemon, &monitor->announcer.table);
    if (result != 0 && !monitor->state_failed)
        VY_LOG(LOG_WARNING, "no state is kept: %s: %s", path, strerror(-result));
    monitor->state_failed = result != 0;
}

// The table of the state file stands until it is known whether its daemon still runs.
static void load_state(Monitor* monitor)
{
    const char* path = monitor->settings->state;
    if (path[0] == '\0')
        return;
    const int result = state_load(path, &monitor->stored, &monitor->announcer.table);
    if (result != 0 && result != -ENOENT)
        VY_LOG(LOG_WARNING, "%s: %s", path, strerror(-result));
}

// ---- the daemon ----

// Whether there is anything to tell a daemon of, once it comes. Disks of the machine count: what
// makes them its own may be an earlier daemon's mounts.
static bool is_anything_plugged(const Monitor* monitor)
{
    static BlockList list; // large for a stack
    return block_list_all(monitor->settings->sysfs, &list) != 0 || list.count > 0;
}

static void forget_daemon(Monitor* monitor)
{
    monitor->daemon = {};
    monitor->stored = {};
    if (monitor->watch >= 0)
        close(monitor->watch);
    monitor->watch = -1;
    announcer_forget(&monitor->announcer);
    monitor->announcer.walk_due = true;
}

static void lose_daemon(Monitor* monitor)
{
    if (monitor->daemon.pid != 0)
        VY_LOG(LOG_NOTICE, "the daemon has gone");
    const bool had_told = monitor->daemon.pid != 0 || monitor->stored.pid != 0;
    forget_daemon(monitor);
    if (had_told)
        save_state(monitor);
    monitor->courier.visit = is_anything_plugged(monitor);
}

static void watch_daemon(Monitor* monitor)
{
    const int watch = daemon_watch(monitor->daemon);
    monitor->watch = watch >= 0 ? watch : -1;
    if (watch >= 0)
        return;
    if (watch == -ESRCH)
        monitor->courier.visit = true; // it has just gone, which the next connection will show
    else if (monitor->daemon.pid <= 0)
        VY_LOG(LOG_WARNING, "the daemon's process cannot be seen, a restart may go unnoticed");
    else
        VY_LOG(LOG_WARNING, "a restart of the daemon will be noticed some seconds later (%s)",
               strerror(-watch));
}

// Whether the daemon is to be looked at from time to time.
static bool is_unwatched(const Monitor* monitor)
{
    return monitor->daemon.pid > 0 && monitor->watch < 0;
}

// A daemon that is not the one of before knows nothing, unless the state file is about it.
static void adopt_daemon(Monitor* monitor, const DaemonIdentity& daemon)
{
    const bool known = daemon.pid > 0 && daemon_is_same(daemon, monitor->stored);
    if (!known)
        forget_daemon(monitor);
    monitor->stored = {};
    monitor->daemon = daemon;
    monitor->announcer.walk_due = true;
    watch_daemon(monitor);
    VY_LOG(LOG_NOTICE, "daemon %ld %s", static_cast<long>(daemon.pid),
           known ? "knows what it was told before" : "is new");
    save_state(monitor);
}

static bool met(void* self, int connection)
{
    auto* monitor = static_cast<Monitor*>(self);
    DaemonIdentity daemon;
    if (daemon_identify(connection, &daemon) != 0) {
        monitor->courier.visit = true; // it has just gone
        courier_pause(&monitor->courier, courier_now());
        return false;
    }
    const bool is_new = monitor->daemon.pid == 0 || !daemon_is_same(daemon, monitor->daemon);
    if (is_new)
        adopt_daemon(monitor, daemon);
    if (!monitor->announcer.walk_due)
        return true;
    // What waits goes first: a device that makes trouble has walks due for ever.
    if (monitor->courier.queue.count > 0) {
        monitor->courier.visit = true; // the walk follows
        return true;
    }
    announcer_walk(&monitor->announcer);
    return false; // the walk may have taken longer than the daemon waits for a message
}

static void missed(void* self)
{
    lose_daemon(static_cast<Monitor*>(self));
}

static void delivered(void* self, const QueuedMessage* message)
{
    auto* monitor = static_cast<Monitor*>(self);
    announcer_delivered(&monitor->announcer, message);
    save_state(monitor);
}

// ---- events ----

static void ask_for_walk(Monitor* monitor)
{
    monitor->announcer.walk_due = true;
    monitor->courier.visit = true;
}

static void take_event(Monitor* monitor, const char* datagram, size_t length)
{
    Uevent event;
    const int result = uevent_parse(datagram, length, &event);
    if (result < 0)
        VY_LOG(LOG_DEBUG, "dropped: event that is none");
    if (result != 0)
        return;
    if (monitor->daemon.pid != 0)
        announcer_event(&monitor->announcer, event);
    else
        monitor->courier.visit = true; // a walk is due when the daemon comes
}

static void take_events(Monitor* monitor)
{
    static char datagram[agent_datagram_size];
    for (int i = 0; i < agent_events_at_once; i++) {
        const ssize_t length = netlink_take(monitor->netlink, datagram, sizeof datagram);
        if (length > 0) {
            take_event(monitor, datagram, static_cast<size_t>(length));
        } else if (length == -ENOBUFS) {
            VY_LOG(LOG_WARNING, "events were lost, all will be looked through");
            ask_for_walk(monitor);
        } else if (length < 0) {
            return;
        }
    }
}

// ---- signals ----

static void handle_signal(int number)
{
    flag_set(number == SIGHUP ? &walk_asked : &stop_asked, 1);
}

// Blocks the signals but while waiting; `waiting` is the mask for that.
static void install_signals(sigset_t* waiting)
{
    static constexpr int numbers[] = {SIGTERM, SIGINT, SIGHUP};
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int number : numbers)
        sigaddset(&blocked, number);
    (void)sigprocmask(SIG_BLOCK, &blocked, waiting);
    for (const int number : numbers) {
        struct sigaction action = {};
        action.sa_handler = handle_signal;
        (void)sigaction(number, &action, nullptr);
        sigdelset(waiting, number);
    }
}

// ---- the loop ----

// The shorter of two waits; -1 is one without end.
static int sooner(int a, int b)
{
    return a >= 0 && (b < 0 || a < b) ? a : b;
}

// Milliseconds until there is something to do unasked; -1: nothing before something happens.
static int next_wait(const Monitor* monitor)
{
    const uint64_t now = courier_now();
    const int look = is_unwatched(monitor) ? int{agent_daemon_look} : -1;
    return sooner(look, sooner(courier_timeout(&monitor->courier, now),
                               announcer_timeout(&monitor->announcer, now)));
}

// Waits until something happens.
static void wait_for_news(Monitor* monitor, const sigset_t* waiting)
{
    pollfd fds[] = {
        {.fd = monitor->netlink, .events = POLLIN, .revents = 0},
        {.fd = monitor->watch, .events = POLLIN, .revents = 0}, // -1 is passed over
        {.fd = monitor->courier.connection, .events = POLLIN, .revents = 0},
    };
    const int timeout = next_wait(monitor);
    const timespec limit = {.tv_sec = timeout / 1000, .tv_nsec = timeout % 1000 * 1000000L};
    if (ppoll(fds, sizeof fds / sizeof fds[0], timeout >= 0 ? &limit : nullptr, waiting) <= 0)
        return; // a signal, or time
    if (fds[1].revents != 0)
        lose_daemon(monitor);
    if (fds[0].revents != 0)
        take_events(monitor);
}

static void run_loop(Monitor* monitor, const sigset_t* waiting)
{
    while (flag_get(&stop_asked) == 0) {
        if (flag_get(&walk_asked) != 0) {
            flag_set(&walk_asked, 0);
            ask_for_walk(monitor);
        }
        if (is_unwatched(monitor) && !daemon_runs(monitor->daemon))
            lose_daemon(monitor);
        announcer_advance(&monitor->announcer, courier_now());
        courier_advance(&monitor->courier, courier_now());
        wait_for_news(monitor, waiting);
    }
}

// A message that is under way is given a moment, and counts as delivered then.
static void finish_delivery(Monitor* monitor)
{
    Courier* courier = &monitor->courier;
    if (!courier->under_way)
        return;
    pollfd connection = {.fd = courier->connection, .events = POLLIN, .revents = 0};
    (void)poll(&connection, 1, agent_farewell_wait);
    message_queue_cut(&courier->queue, 1);
    courier->visit = false;
    courier_advance(courier, courier->due);
}

int monitor_run(const AgentSettings& settings)
{
    static Monitor monitor; // large for a stack
    monitor.settings = &settings;
    monitor.watch = -1;
    monitor.netlink = netlink_open(); // before the first look, so that nothing falls between
    if (monitor.netlink < 0) {
        VY_LOG(LOG_ERR, "no listening to the kernel's events: %s", strerror(-monitor.netlink));
        return 1;
    }
    sigset_t waiting;
    install_signals(&waiting);
    const SurveyView view = {.sysfs = settings.sysfs,
                             .proc = settings.proc,
                             .mount_directory = settings.mounts,
                             .announced = nullptr,
                             .all = settings.all,
                             .leaving = false};
    courier_init(&monitor.courier, {&monitor, met, missed, delivered});
    announcer_init(&monitor.announcer, view, &monitor.courier);
    load_state(&monitor);
    ask_for_walk(&monitor);
    run_loop(&monitor, &waiting);
    finish_delivery(&monitor);
    VY_LOG(LOG_NOTICE, "ends");
    close(monitor.netlink);
    return 0;
}
