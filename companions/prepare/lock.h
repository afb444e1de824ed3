// The service's pid file, by whose lock service and prepare keep out of each other's way.
#pragma once

#include "lib/guard.h"

// Takes the lock, so that neither the service nor another run of this program can start meanwhile;
// makes the file where there is none, readable by root alone, so that nobody else can lock it. A
// lock of somebody who is not root does not count: the file is made anew, which is told. Returns 0;
// -1, told, when root holds the lock or the file cannot be had. Nothing is locked where there is no
// directory for it.
[[nodiscard]] int lock_take(FdGuard* lock);
