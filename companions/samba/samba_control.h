// Telling a running Samba that its configuration has changed, with smbcontrol(1).
#pragma once

#include "lib/vylist.h"

#include <stdint.h>

// Samba's time for one thing, in milliseconds. On a 400 MHz MIPS processor smbcontrol takes 1
// second when its files are at hand, 8 to 20 when they have to be read from a slow disk, and 16
// when eight of them and four busy programs share the processor (docs/target.md).
constexpr int64_t samba_limit_ms = 30000;

// Has Samba read its configuration again, and then close the shares of these names (borrowed
// texts), eight at a time. Returns when all of it is told. A reload, or eight closings, that takes
// longer than `limit_ms` is killed, which is logged; that no Samba runs is no failure. SIGCHLD must
// be blocked in the calling thread.
void samba_tell(const char* program, const vylist* closed, int64_t limit_ms);
