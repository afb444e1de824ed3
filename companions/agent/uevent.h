// The kernel's device events: what came from the netlink socket, or what stands in the environment
// of a program that was started for one. Pure: bytes in, struct out.
#pragma once

#include "agent/block_device.h"

#include <stddef.h>
#include <stdint.h>

enum UeventAction : uint8_t { UEVENT_ADD, UEVENT_REMOVE, UEVENT_CHANGE };

struct Uevent {
    UeventAction action;
    BlockName name;
    int32_t major; // -1 where the event does not say; so is the next
    int32_t minor;
    bool media_change; // a change event: there is another medium in the drive, or none
    uint64_t sequence; // the kernel's count of events; 0 where the event does not say
};

// Reads a datagram: "add@/devices/...", a zero byte, then items "KEY=VALUE", each with its zero
// byte. Returns 0 for an event of a block device that the service mounts; 1 for any other; -EINVAL
// for one that is not in the kernel's form or whose DEVPATH is none. The event is stored with 0
// only.
[[nodiscard]] int uevent_parse(const char* data, size_t length, Uevent* event);

// As uevent_parse, from "KEY=VALUE" texts up to a null pointer. Without a SUBSYSTEM the device is
// taken for a block device; the numbers may be missing.
[[nodiscard]] int uevent_from_environment(const char* const* environment, Uevent* event);
