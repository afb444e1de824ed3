#include "ctl/interrupt.h"

#include "lib/guard.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

static constexpr int numbers[] = {SIGINT, SIGTERM, SIGHUP};

static sigset_t all()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    return set;
}

void interrupt_hold()
{
    sigset_t set = all();
    for (const int number : numbers) {
        struct sigaction now = {};
        // Held, the kernel would keep one that is ignored, by nohup(1) say.
        if (sigaction(number, nullptr, &now) == 0 && now.sa_handler == SIG_IGN)
            sigdelset(&set, number);
    }
    (void)sigprocmask(SIG_BLOCK, &set, nullptr); // cannot fail so, like the next
}

bool interrupt_release()
{
    const sigset_t set = all();
    (void)sigprocmask(SIG_UNBLOCK, &set, nullptr);
    return true;
}

bool interrupt_waits()
{
    sigset_t waiting;
    sigemptyset(&waiting);
    bool any = sigpending(&waiting) != 0;
    for (const int number : numbers)
        any |= sigismember(&waiting, number) == 1;
    return any;
}

void interrupt_forget_int()
{
    struct sigaction ignored = {};
    struct sigaction before = {};
    ignored.sa_handler = SIG_IGN;
    (void)sigaction(SIGINT, &ignored, &before); // drops what waits
    (void)sigaction(SIGINT, &before, nullptr);
}

bool interrupt_wait_input(int fd)
{
    const sigset_t set = all();
    const FdGuard signals(signalfd(-1, &set, SFD_CLOEXEC));
    pollfd waited[] = {{.fd = fd, .events = POLLIN, .revents = 0},
                       {.fd = signals.get(), .events = POLLIN, .revents = 0}};
    (void)poll(waited, 2, -1);
    return !interrupt_waits();
}
