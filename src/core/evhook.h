// The administrator's hook, run after every mount and before every unmount.
#pragma once

enum HotplugEvent {
    HOTPLUG_EVENT_ADD = 1,     // mount, for a hotplug message
    HOTPLUG_EVENT_REMOVE = 2,  // unmount, for a hotplug message
    HOTPLUG_EVENT_MOUNT = 3,   // mount, for a request
    HOTPLUG_EVENT_UNMOUNT = 4, // unmount, for a request
};

// Runs "/tmp/vyhotplugd-evhook.sh" with "mount" or "unmount" and the mount directory, and waits for
// it up to 60 seconds. Returns its exit status (1 when there is no hook), -1 when a signal killed
// it, 0 when it goes on running; a negative value for a null or empty path, an unknown code, or a
// hook that cannot be started.
int daemon_call_evhook(int code, const char* path);
