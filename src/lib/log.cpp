#include "lib/log.h"

#include <stdarg.h>

void log_write(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // The facility goes with each line: lines from before openlog(3) are the daemon's too.
    vsyslog(LOG_DAEMON | priority, format, arguments);
    va_end(arguments);
}
