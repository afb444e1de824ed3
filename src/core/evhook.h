// The administrator's hook, run after every mount and before every unmount.
#pragma once

enum HotplugEvent {
    HOTPLUG_EVENT_ADD = 1,     // mount, for a hotplug message
    HOTPLUG_EVENT_REMOVE = 2,  // unmount, for a hotplug message
    HOTPLUG_EVENT_MOUNT = 3,   // mount, for a request
    HOTPLUG_EVENT_UNMOUNT = 4, // unmount, for a request
};

#include "core/context.h"

// Runs "/tmp/vyhotplugd-evhook.sh" with "mount" or "unmount" and the mount directory, and waits for
// it up to 60 seconds. Returns its exit status (1 when there is no hook), -1 when a signal killed
// it, 0 when it goes on running; a negative value for a null or empty path, an unknown code, or a
// hook that cannot be started.
//
// With a context that is strict the hook is run only when nobody but root can have made it
// (lib/trust.h), and what was looked at is what is run, whatever has the name by then; another is
// told of once and gives -1. Its $0 is then a path below /proc.
int daemon_call_evhook(int code, const char* path, DaemonCtx* ctx = nullptr);
