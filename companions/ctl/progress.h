// What a call waits for and how long: one line on standard error, kept up to date, where that is a
// terminal and it takes more than two seconds.
#pragma once

struct Progress {
    const char* what; // borrowed: "waiting for the service"
    bool terminal;
    int told_s; // 0: nothing was told
};

[[nodiscard]] Progress progress_begin(const char* what);
void progress_tick(Progress* progress, int waited_ms);
void progress_end(Progress* progress); // takes the line off
