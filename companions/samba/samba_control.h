// Has a running Samba reload its configuration and close shares, by smbcontrol(1).
#pragma once

#include "lib/vylist.h"

#include <stdint.h>

// Limit of one step, in milliseconds. On a 400 MHz MIPS processor smbcontrol takes 1 second, 8 to
// 20 when it is read from a slow disk, and eight of them beside four busy programs take 16
// (docs/target.md).
constexpr int64_t samba_limit_ms = 30000;

// Has Samba reload its configuration, and then close the shares of these names (borrowed strings),
// eight at a time. Returns when smbcontrol has ended. The reload, and each eight closings, may take
// `limit_ms`; what takes longer is killed and logged. That no Samba runs is no failure. SIGCHLD
// must be blocked in the calling thread.
void samba_tell(const char* program, const vylist* closed, int64_t limit_ms);
