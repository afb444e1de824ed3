#include "agent/modes.h"

#include "agent/by_share.h"
#include "agent/lookout.h"
#include "agent/netlink.h"
#include "agent/state_file.h"
#include "common/clock.h"
#include "lib/log.h"
#include "lib/platform.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>

static constexpr char log_tag[] = "monitor";

namespace {

struct Monitor {
    const AgentSettings* settings = nullptr;
    Announcer announcer;
    Courier courier;
    Lookout lookout;
    ByShare by_share;
    DaemonIdentity daemon = {}; // all zero: none known
    FdGuard watch;              // its pidfd
    FdGuard signals;
    FdGuard netlink;
    bool seeks = true;         // a daemon is looked for, though there may be nothing to send
    bool state_failed = false; // has been logged
    bool ends = false;
};

} // namespace

// ---- the daemon ----

static void save_state(Monitor* monitor)
{
    const char* path = monitor->settings->state;
    const int result = state_save(path, monitor->daemon, monitor->announcer);
    if (result != 0 && !monitor->state_failed)
        VY_LOG(LOG_WARNING, "no state is kept: %s: %s", path, strerror(-result));
    monitor->state_failed = result != 0;
}

static void lose_daemon(Monitor* monitor)
{
    const bool was_known = monitor->daemon.pid != 0;
    monitor->daemon = {};
    monitor->watch.reset(-1);
    courier_hang_up(&monitor->courier);
    announcer_forget(&monitor->announcer);
    if (was_known) {
        VY_LOG(LOG_NOTICE, "the daemon has gone");
        save_state(monitor);
    }
    // Is there anything to tell the next one of? Disks of the machine count: what makes them its
    // own may be this daemon's mounts.
    BlockList plugged;
    const int result = block_list_read(monitor->settings->sysfs, &plugged);
    monitor->seeks = result != 0 || plugged.count > 0;
}

// Whether the daemon is to be looked at from time to time.
static bool is_unwatched(const Monitor* monitor)
{
    return monitor->daemon.pid > 0 && monitor->watch.get() < 0;
}

// A daemon that is not the one of before knows nothing, unless the state file is about it.
static void adopt_daemon(Monitor* monitor, const DaemonIdentity& daemon)
{
    DaemonIdentity stored;
    const char* path = monitor->settings->state;
    const int result = state_load(path, &stored, &monitor->announcer);
    if (result != 0 && result != -ENOENT)
        VY_LOG(LOG_WARNING, "%s: %s", path, strerror(-result));
    const bool known = daemon.pid > 0 && daemon_is_same(daemon, stored);
    if (!known)
        announcer_forget(&monitor->announcer);
    monitor->daemon = daemon;
    const int watch = daemon_watch(daemon);
    monitor->watch.reset(watch);
    if (watch == -ESRCH)
        monitor->seeks = true; // it has just gone, which the next connection will show
    else if (daemon.pid <= 0)
        VY_LOG(LOG_WARNING, "the daemon's process cannot be seen, a restart may go unnoticed");
    else if (watch < 0)
        VY_LOG(LOG_WARNING, "a restart of the daemon will be noticed some seconds later (%s)",
               strerror(-watch));
    VY_LOG(LOG_NOTICE, "daemon %ld %s", static_cast<long>(daemon.pid),
           known ? "knows what it was told before" : "is new");
    save_state(monitor);
    by_share_watch(&monitor->by_share, monitor->settings);
}

// ---- delivery ----

// Whether a connection is wanted.
static bool has_business(Monitor* monitor)
{
    return !monitor->ends && (monitor->seeks || announcer_has_message(&monitor->announcer));
}

static void meet_daemon(Monitor* monitor, const DaemonIdentity& daemon, uint64_t now)
{
    monitor->seeks = false;
    if (!daemon_is_same(daemon, monitor->daemon))
        adopt_daemon(monitor, daemon);
    char message[agent_message_size];
    const bool any = announcer_take_message(&monitor->announcer, message);
    courier_send(&monitor->courier, any ? message : nullptr, now);
}

// Does all that can be done.
static void work(Monitor* monitor)
{
    const uint64_t now = clock_now();
    if (is_unwatched(monitor) && !daemon_runs(monitor->daemon))
        lose_daemon(monitor);
    DaemonIdentity daemon;
    CourierEvent event;
    do {
        announcer_advance(&monitor->announcer, monitor->daemon.pid != 0, now);
        lookout_advance(&monitor->lookout, &monitor->announcer, now);
        by_share_advance(&monitor->by_share, now);
        event = courier_advance(&monitor->courier, has_business(monitor), now, &daemon);
        if (event == COURIER_MISSED) {
            lose_daemon(monitor);
        } else if (event == COURIER_MET) {
            meet_daemon(monitor, daemon, now);
        } else if (event == COURIER_DELIVERED) {
            announcer_delivered(&monitor->announcer, now);
            save_state(monitor);
        }
    } while (event != COURIER_WAITS);
}

// ---- what happens ----

static void ask_for_walk(Monitor* monitor)
{
    announcer_ask_for_walk(&monitor->announcer);
    monitor->seeks = true;
}

static void take_event(Monitor* monitor, const char* datagram, size_t length)
{
    Uevent event;
    const int result = uevent_parse(datagram, length, &event);
    if (result < 0)
        VY_LOG(LOG_DEBUG, "dropped: event that is none");
    if (result == 0 && monitor->daemon.pid != 0)
        announcer_event(&monitor->announcer, event, clock_now());
    else if (result == 0)
        monitor->seeks = true; // a walk is due when the daemon comes
}

static void take_events(Monitor* monitor)
{
    char datagram[agent_datagram_size];
    for (int i = 0; i < agent_events_at_once; i++) {
        const ssize_t length = netlink_take(monitor->netlink.get(), datagram, sizeof datagram);
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

static void take_signal(Monitor* monitor)
{
    signalfd_siginfo signal;
    if (read(monitor->signals.get(), &signal, sizeof signal) != sizeof signal)
        return;
    if (signal.ssi_signo == SIGCHLD) // it has waked the loop, and the lookout looks who it was
        return;
    if (signal.ssi_signo == SIGHUP)
        return ask_for_walk(monitor);
    monitor->ends = true; // a message that is under way is given a moment
    courier_hurry(&monitor->courier, clock_now() + agent_farewell_wait);
}

// Milliseconds until there is something to do unasked; -1: nothing before something happens.
static int next_wait(Monitor* monitor)
{
    const uint64_t now = clock_now();
    const uint64_t dues[] = {courier_due(&monitor->courier, has_business(monitor)),
                             announcer_due(&monitor->announcer, monitor->daemon.pid != 0),
                             lookout_due(&monitor->lookout, now), by_share_due(&monitor->by_share),
                             is_unwatched(monitor) ? now + agent_daemon_look : agent_never};
    uint64_t next = agent_never;
    for (const uint64_t due : dues)
        next = due < next ? due : next;
    if (next == agent_never)
        return -1;
    return next > now ? static_cast<int>(next - now) : 0;
}

// Waits until something happens.
static void wait_for_news(Monitor* monitor)
{
    pollfd fds[] = {
        {.fd = monitor->signals.get(), .events = POLLIN, .revents = 0},
        {.fd = monitor->watch.get(), .events = POLLIN, .revents = 0}, // negative is passed over
        {.fd = monitor->netlink.get(), .events = POLLIN, .revents = 0},
        {.fd = courier_descriptor(&monitor->courier), .events = POLLIN, .revents = 0},
        {.fd = lookout_tool_descriptor(&monitor->lookout), .events = POLLIN, .revents = 0},
        {.fd = lookout_mounts_descriptor(&monitor->lookout), .events = POLLPRI, .revents = 0},
        {.fd = by_share_descriptor(&monitor->by_share), .events = POLLIN, .revents = 0},
    };
    if (poll(fds, sizeof fds / sizeof fds[0], next_wait(monitor)) <= 0)
        return;
    if (fds[0].revents != 0)
        take_signal(monitor);
    if (fds[1].revents != 0)
        lose_daemon(monitor);
    if (fds[2].revents != 0)
        take_events(monitor);
    if (fds[5].revents != 0) {
        lookout_mounts_changed(&monitor->lookout);
        by_share_mounts_changed(&monitor->by_share);
    }
    if (fds[6].revents != 0)
        by_share_take_changes(&monitor->by_share);
}

// Returns owned: a descriptor to read signals from, which are blocked then for good; -1, and they
// do what they always do.
static int open_signals()
{
    sigset_t numbers;
    sigemptyset(&numbers);
    sigaddset(&numbers, SIGTERM);
    sigaddset(&numbers, SIGINT);
    sigaddset(&numbers, SIGHUP);
    sigaddset(&numbers, SIGCHLD);
    const int fd = signalfd(-1, &numbers, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd >= 0)
        (void)sigprocmask(SIG_BLOCK, &numbers, nullptr);
    return fd;
}

int monitor_run(const AgentSettings& settings)
{
    Monitor monitor;
    monitor.settings = &settings;
    monitor.announcer.settings = &settings;
    monitor.signals.reset(open_signals());
    const int netlink = netlink_open(); // before the first look, so that nothing falls between
    monitor.netlink.reset(netlink);
    if (netlink < 0) {
        VY_LOG(LOG_ERR, "no listening to the kernel's events: %s", strerror(-netlink));
        return 1;
    }
    lookout_open(&monitor.lookout, &settings);
    by_share_watch(&monitor.by_share, &settings);
    work(&monitor);
    while (!monitor.ends || courier_descriptor(&monitor.courier) >= 0) {
        memory_give_back();
        wait_for_news(&monitor);
        work(&monitor);
    }
    lookout_close(&monitor.lookout);
    by_share_close(&monitor.by_share);
    announcer_end(&monitor.announcer);
    VY_LOG(LOG_NOTICE, "ends");
    return 0;
}
