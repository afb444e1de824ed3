// Telling a running Samba that its configuration has changed, with smbcontrol(1).
#pragma once

#include "lib/vylist.h"

// Has Samba read its configuration again, and then send every client away from the shares of these
// names (borrowed texts). Returns when all of it is told. What takes longer than 5 seconds is
// killed and logged; that no Samba runs is no failure. SIGCHLD must be blocked in the calling
// thread.
void samba_tell(const char* program, const vylist* closed);
