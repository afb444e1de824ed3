// Mount and unmount requests of the client commands.
#pragma once

#include "core/context.h"
#include "core/message.h"

// Carries `action` (mount or unmount) out on every busy-device entry that `target` names: "all";
// "sd" or "mmcblk" for every device of that kind; with a letter one disk (sda); with a number
// behind it one partition (sda1). Entries stay in the set. Returns 0 when every one of them ended
// as requested, also when there was none; -1 otherwise, and at once for a target that is none of
// these or whose kind has no entry.
[[nodiscard]] int hotplug_mount_request(DaemonCtx* ctx, const char* target, HotplugAction action,
                                        int32_t force, const ConfHotplug* options);
