// The daemon's run loop.
#pragma once

#include "core/context.h"

// Loads the configuration, starts the receive thread and carries out control messages until
// `running` is cleared; every burst of them is followed by one refresh of the device file and the
// share file. Filesystems stay mounted at the end. Returns 0 after an orderly stop, -1 when it
// could not start.
[[nodiscard]] int daemon_run(DaemonCtx* ctx);
