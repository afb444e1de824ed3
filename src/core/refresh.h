// The table refresh: brings the device file and the share file in step with what is mounted.
#pragma once

#include "core/context.h"

// Merges the busy-device set into the device file where `dirty` has DIRTY_ADDED, rewrites the
// share file, drops removed entries and unused device records where it has DIRTY_REMOVED, saves
// the device file and tells the file-sharing service. Does nothing when memory runs out at once.
//
// A strict daemon reads the device file only when nobody but root can have made it. One that is
// nobody's of root's counts as none and is left as it is. One that is root's and cannot be read
// whole is told of once, nothing is written, and -1 is returned: the refresh is still to be made.
// Returns 0 otherwise.
int refresh_tables(DaemonCtx* ctx, int dirty);
