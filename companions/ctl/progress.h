// What a call waits for and how long, on standard error: nothing for the first two seconds; then
// one line, kept up to date on a terminal.
#pragma once

struct Progress {
    const char* what; // borrowed: "waiting for the service"
    bool terminal;
    int told_s; // 0: nothing was told
};

[[nodiscard]] Progress progress_begin(const char* what);
void progress_tick(Progress* progress, int waited_ms);
void progress_end(Progress* progress); // takes the line off a terminal
