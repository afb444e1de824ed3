// What a run has to say, at once to whoever started it and to the system log.
#pragma once

#include <syslog.h>

// Sends one line to standard error and to syslog.
void tell(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
