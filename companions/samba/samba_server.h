// Samba, as the bridge sees it: an include file for smb.conf, and smbcontrol(1).
#pragma once

#include "share/share_server.h"

extern const ShareServer samba_server;
