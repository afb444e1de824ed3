// Stands in for the calls of a daemon's start that do not go through lib/sys.h: they can be made to
// fail, and what they were asked for is kept.
#pragma once

#include <stddef.h>

#include <string>

struct FakeStart {
    int pthread_create_error = 0; // what pthread_create(3) returns; 0: it is made
    size_t stack_bytes = 0;       // of the last thread that was asked for with attributes
    int daemon_error = 0;         // errno of daemon(3); 0: it is called
    int sigaction_error = 0;      // errno of sigaction(2) for `sigaction_number`
    int sigaction_number = 0;
    std::string log;           // "openlog vyhotplugd 0x1 0x18"
    std::string sigactions;    // a line each: "SIGINT flags=0x80000004 handler"
    bool keep_signals = false; // keep sigaction calls; off, since others make them too
};

FakeStart& fake_start();
void fake_start_reset();
