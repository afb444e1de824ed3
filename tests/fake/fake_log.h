// Stands in for lib/log: keeps every line instead of sending it to syslog.
#pragma once

#include <string>
#include <vector>

struct FakeLogLine {
    int priority;     // LOG_ERR, ...
    std::string text; // "daemon(123)mount /dev/sda1 /mnt/sda1"
};

// The lines so far, forgetting them, and both. Safe from any thread.
std::vector<FakeLogLine> fake_log_lines();
void fake_log_clear();
std::vector<FakeLogLine> fake_log_take();

// The lines' texts with the line number replaced by "#": "daemon(#)mount /dev/sda1 /mnt/sda1".
std::vector<std::string> fake_log_texts();
