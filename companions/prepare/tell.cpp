#include "prepare/tell.h"

#include "lib/log.h"

#include <stdarg.h>
#include <stdio.h>

static constexpr char log_tag[] = "prepare";
static constexpr size_t line_size = 1024; // longer lines are cut

void tell(int priority, const char* format, ...)
{
    char line[line_size];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    fprintf(stderr, "vyhotplug-prepare: %s\n", line);
    VY_LOG(priority, "%s", line);
}
