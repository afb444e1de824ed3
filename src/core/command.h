// Carrying out one control message.
#pragma once

#include "core/daemon.h"
#include "device/crtsec.h"

enum : int {
    COMMAND_ADDED = 1, // bits for the run loop: what the next refresh must take in
    COMMAND_REMOVED = 2,
};

// Waits until the command is due, carries it out and answers a request on its connection, which
// stays open. Borrows the command. Returns COMMAND_ADDED or COMMAND_REMOVED; 0 for a message that
// is none; -1 for a failure and for every request.
int command_handle(DaemonCtx* ctx, const HotplugCmd* cmd);
