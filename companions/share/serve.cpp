#include "share/serve.h"

#include "common/mountinfo.h"
#include "lib/guard.h"
#include "lib/log.h"
#include "lib/platform.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

static constexpr char log_tag[] = "main";

// The hotplug service gives 400 ms from the signal to the unmounting, however busy the machine is.
static constexpr int urgent = -15; // nice value; the programs that are started inherit it

namespace {

struct Sources {
    FdGuard signals;
    FdGuard mounts; // -1 where the table cannot be watched
};

// What has been heard in one wait.
struct News {
    bool refresh;
    bool mounts;
    bool end;
};

} // namespace

// Without the right, or where whoever started the bridge has seen to it already, it stays as it is.
static void make_urgent()
{
    errno = 0;
    const int now = getpriority(PRIO_PROCESS, 0);
    if (errno == 0 && now > urgent)
        (void)setpriority(PRIO_PROCESS, 0, urgent);
}

static void fill_signals(sigset_t* set)
{
    static constexpr int numbers[] = {SIGHUP, SIGINT, SIGTERM, SIGCHLD};
    sigemptyset(set);
    for (const int number : numbers)
        sigaddset(set, number);
}

void serve_block_signals()
{
    sigset_t blocked;
    fill_signals(&blocked);
    (void)sigprocmask(SIG_BLOCK, &blocked, nullptr); // cannot fail with these arguments
}

// Returns -1, logged, without the signals. The table is opened before the first look at it, so that
// no change is missed.
static int open_sources(Sources* sources)
{
    sigset_t awaited;
    fill_signals(&awaited);
    sources->signals.reset(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
    if (sources->signals.get() < 0) {
        VY_LOG(LOG_ERR, "cannot wait for signals (%d)", errno);
        return -1;
    }
    sources->mounts.reset(open(mountinfo_path, O_RDONLY | O_CLOEXEC));
    if (sources->mounts.get() < 0)
        VY_LOG(LOG_WARNING, "%s cannot be watched (%d)", mountinfo_path, errno);
    return 0;
}

static void take_signals(int fd, News* news)
{
    signalfd_siginfo signal;
    while (read(fd, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) {
        news->refresh |= signal.ssi_signo == SIGHUP;
        news->end |= signal.ssi_signo == SIGINT || signal.ssi_signo == SIGTERM;
    }
}

// Waits, but no longer than so many milliseconds; -1: without limit.
static News wait_for_news(const Sources* sources, int64_t limit_ms)
{
    pollfd fds[] = {{.fd = sources->signals.get(), .events = POLLIN, .revents = 0},
                    {.fd = sources->mounts.get(), .events = POLLPRI, .revents = 0}};
    const timespec limit = {.tv_sec = static_cast<time_t>(limit_ms / 1000),
                            .tv_nsec = static_cast<long>(limit_ms % 1000 * 1000000)};
    News news = {};
    if (ppoll(fds, sizeof fds / sizeof fds[0], limit_ms >= 0 ? &limit : nullptr, nullptr) <= 0)
        return news; // the time has passed, or it was stopped and continued
    if (fds[0].revents != 0)
        take_signals(sources->signals.get(), &news);
    news.mounts = fds[1].revents != 0;
    return news;
}

int serve_until_told(Bridge* bridge)
{
    Sources sources;
    if (open_sources(&sources) != 0)
        return EXIT_FAILURE;
    make_urgent();
    VY_LOG(LOG_INFO, "start");
    News news = {.refresh = true, .mounts = false, .end = false};
    while (!news.end) {
        // A failure is logged, and the next news are the next try.
        if (news.refresh)
            (void)bridge_refresh(bridge);
        else if (news.mounts)
            (void)bridge_mounts_changed(bridge);
        const int64_t limit_ms = bridge_advance(bridge);
        memory_give_back();
        news = wait_for_news(&sources, limit_ms);
    }
    bridge_finish(bridge);
    VY_LOG(LOG_INFO, "end");
    return EXIT_SUCCESS;
}
