// The table refresh: brings the device file and the share file in step with what is mounted.
#pragma once

#include "core/context.h"

// Merges the busy-device set into the device file where `dirty` has DIRTY_ADDED, rewrites the
// share file, drops removed entries and unused device records where it has DIRTY_REMOVED, saves
// the device file and tells the file-sharing service. Does nothing when memory runs out at once.
void refresh_tables(const DaemonCtx* ctx, int dirty);
