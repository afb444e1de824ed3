// Log lines: "module(line)message" to syslog, facility daemon.
//
// A source file that logs names its module once, before its first line:
//     static constexpr char log_tag[] = "daemon";
//     VY_LOG(LOG_ERR, "mount %s %s", devnode, mountpoint);
#pragma once

#include <syslog.h>

// Sends one line to syslog; what is below the process's log mask is dropped before formatting. Does
// nothing in a program that is linked with vy_log_off.
void log_write(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

#define VY_LOG(priority, format, ...) VY_LOG_AT(priority, __LINE__, format, ##__VA_ARGS__)

// As VY_LOG with a line number of its own, for lines that tools look for by their number.
#define VY_LOG_AT(priority, line, format, ...)                                                     \
    log_write((priority), "%s(%d)" format, log_tag, (line), ##__VA_ARGS__)
