// Carrying out one control message.
#pragma once

#include "core/context.h"
#include "device/crtsec.h"

// Waits until the command is due, carries it out and answers a request on its connection, which
// stays open. Borrows the command. Returns DIRTY_ADDED or DIRTY_REMOVED; 0 for a message that
// is none; -1 for a failure and for every request.
int command_handle(DaemonCtx* ctx, const HotplugCmd* cmd);
