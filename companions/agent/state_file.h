// The state file: which daemon has been told of which devices. With it an agent that is started
// again does not tell the same daemon twice.
#pragma once

#include "agent/announcer.h"
#include "agent/daemon.h"

// Writes what the daemon has been told beside the file and moves it there; nowhere for the path "".
// Returns 0; a negated errno, the old file untouched.
[[nodiscard]] int state_save(const char* path, const DaemonIdentity& daemon,
                             const Announcer& announcer);

// Reads a state file in the place of all that is known; its devices are told. Returns 0; -ENOENT
// when there is none; -EINVAL when it is not in its form; another negated errno. Nothing is known
// then.
[[nodiscard]] int state_load(const char* path, DaemonIdentity* daemon, Announcer* announcer);
