// Changes to the device file that the service takes, and that are known to have been taken.
//
// The service reads the file, and some time later writes all of it anew. So a change is made on a
// copy that takes the file's place in one step, what the service wrote in between is carried over,
// and the changed sections bear a line that the service does not know and therefore drops: while it
// is there, the service has not written the section since. When it has, its values are compared;
// if the change is not there, it lost a race with a refresh and is made again.
//
// Several of these programs wait for each other while they write, not while they wait.
#pragma once

#include "ctl/sections.h"
#include "ctl/setup.h"
#include "ctl/status.h"

// One section and what becomes of it.
struct DeviceEdit {
    const char* identity; // borrowed, like the next
    const SectionChange* changes;
    size_t count;
    bool forget;  // all settings go, before `changes`
    bool dropped; // with `forget`: its header too, for it is not plugged
};

// Makes the changes, all at once, and waits up to `limit_s` seconds until the service holds them.
// What is wrong is told on standard error. Returns EXIT_DONE when the service holds all of them;
// EXIT_NO_SERVICE; EXIT_FAILED.
[[nodiscard]] ExitStatus device_file_apply(const Setup& setup, const DeviceEdit* edits,
                                           size_t count, int limit_s);
