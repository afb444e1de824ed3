#include "fake_start.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

static FakeStart state;

FakeStart& fake_start()
{
    return state;
}

void fake_start_reset()
{
    state = FakeStart();
}

static const char* signal_name(int number)
{
    switch (number) {
    case SIGINT:
        return "SIGINT";
    case SIGTERM:
        return "SIGTERM";
    case SIGHUP:
        return "SIGHUP";
    case SIGPIPE:
        return "SIGPIPE";
    default:
        return "another signal";
    }
}

static void keep_signal(int number, const struct sigaction* action)
{
    char line[64];
    const unsigned flags = static_cast<unsigned>(action->sa_flags);
    const bool ignored = (flags & SA_SIGINFO) == 0 || action->sa_handler == SIG_IGN;
    (void)snprintf(line, sizeof line, "%s 0x%x %s\n", signal_name(number), flags,
                   ignored ? "ignored" : "handled");
    state.sigactions += line;
}

// The linker turns a call of NAME into one of __wrap_NAME, and __real_NAME into NAME.
extern "C" {
int __real_daemon(int nochdir, int noclose);
void __real_openlog(const char* identity, int option, int facility);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument);
int __real_sigaction(int number, const struct sigaction* action, struct sigaction* old);

int __wrap_daemon(int nochdir, int noclose);
void __wrap_openlog(const char* identity, int option, int facility);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument);
int __wrap_sigaction(int number, const struct sigaction* action, struct sigaction* old);

int __wrap_daemon(int nochdir, int noclose)
{
    if (state.daemon_error == 0)
        return __real_daemon(nochdir, noclose);
    errno = state.daemon_error;
    return -1;
}

void __wrap_openlog(const char* identity, int option, int facility)
{
    char text[64];
    (void)snprintf(text, sizeof text, "openlog %s 0x%x 0x%x", identity,
                   static_cast<unsigned>(option), static_cast<unsigned>(facility));
    state.log = text;
    __real_openlog(identity, option, facility);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument)
{
    if (attributes != nullptr)
        (void)pthread_attr_getstacksize(attributes, &state.stack_bytes);
    if (state.pthread_create_error != 0)
        return state.pthread_create_error;
    return __real_pthread_create(thread, attributes, start, argument);
}

int __wrap_sigaction(int number, const struct sigaction* action, struct sigaction* old)
{
    if (state.sigaction_error != 0 && number == state.sigaction_number) {
        errno = state.sigaction_error;
        return -1;
    }
    if (state.keep_signals && action != nullptr)
        keep_signal(number, action);
    return __real_sigaction(number, action, old);
}
}
