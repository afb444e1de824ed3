// The bridge's life: it waits for signals, for the kernel's table of mounts to change, and for the
// programs that it has started.
#pragma once

#include "share/bridge.h"

// Blocks the signals that are taken where they are waited for: SIGHUP, SIGINT, SIGTERM, SIGCHLD.
void serve_block_signals();

// Refreshes, and again at each SIGHUP; takes out what is not mounted any more at once. Returns the
// exit status: EXIT_SUCCESS after SIGINT or SIGTERM, when the server has been told everything;
// EXIT_FAILURE, logged, when signals cannot be waited for.
[[nodiscard]] int serve_until_told(Bridge* bridge);
