// The state file: which daemon has been told of which devices. With it an agent that is started
// again does not tell the same daemon twice.
#pragma once

#include "agent/announced.h"
#include "agent/daemon_peer.h"

// Writes what the daemon has been told into "<path>.tmp" and renames it. Returns 0; a negated
// errno, the old file untouched.
[[nodiscard]] int state_save(const char* path, const DaemonIdentity& daemon,
                             const AnnouncedTable* table);

// Reads a state file into an empty table; the devices of it are told. Returns 0; -ENOENT when there
// is none; -EINVAL when it is not in its form, the table empty; another negated errno.
[[nodiscard]] int state_load(const char* path, DaemonIdentity* daemon, AnnouncedTable* table);
