// Control messages: one text of comma-separated items for each connection. The items are listed in
// docs/messages.md.
#pragma once

#include "device/mount_entry.h"

#include <stdint.h>

enum HotplugAction {
    HOTPLUG_ACTION_UNKNOWN = 0,
    HOTPLUG_ACTION_ADD = 1,
    HOTPLUG_ACTION_REMOVE = 2,
    HOTPLUG_ACTION_MOUNT = 3,
    HOTPLUG_ACTION_UNMOUNT = 4,
};

constexpr uint32_t HOTPLUG_TARGET_SIZE = 16; // bytes with the NUL

// What a message says.
struct ControlMessage {
    HotplugDev dev; // its strings are owned
    char target[HOTPLUG_TARGET_SIZE];
    int32_t force;
};

// The action that a text's beginning names.
[[nodiscard]] HotplugAction message_action(const char* text);

// Reads the items of `text`. Returns 0; -1 when memory runs out. The message is to be cleared in
// either case.
[[nodiscard]] int message_parse(const char* text, ControlMessage* message);

// Frees what the message owns.
void message_clear(ControlMessage* message);
