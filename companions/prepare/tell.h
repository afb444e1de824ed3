// Messages of a run, for whoever started it and for the system log.
#pragma once

#include <syslog.h>

// Sends one line to standard error and to syslog.
void tell(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
