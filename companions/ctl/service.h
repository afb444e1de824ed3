// The running service: whether it is there, its signal and its answers.
#pragma once

#include "ctl/progress.h"

#include <limits.h>

// Finds whether somebody listens under the service's name, as the kernel's table /proc/net/unix
// tells everybody. Returns 0; a negated errno, and then it is not known.
[[nodiscard]] int service_look(bool* runs);

// The same for who takes what is not known for a no.
[[nodiscard]] bool service_listens();

// Whether a line of that table is the service's listening socket; more lines may follow. Pure.
[[nodiscard]] bool service_line(const char* line);

// Has the service read the device file: sends SIGHUP to the process that listens. Returns 0;
// -ESRCH when none listens, or what listens is not root's; -EPERM for who is not root.
[[nodiscard]] int service_reload();

// Writes the path of the configuration that the process that listens was started with. Returns
// false where that cannot be told.
[[nodiscard]] bool service_config(char (&path)[PATH_MAX]);

enum ServiceAnswer {
    SERVICE_DONE,
    SERVICE_REFUSED,
    SERVICE_SILENT, // it took the request and has not answered; it may carry it out all the same
    SERVICE_GONE,   // nobody listens
};

// Sends "ACTION=<action>,<target>" and waits up to `limit_ms` for the answer, which
// `progress` tells of.
[[nodiscard]] ServiceAnswer service_request(const char* action, const char* target, bool force,
                                            int limit_ms, Progress* progress);
