// ksmbd, the kernel's file server, as the bridge sees it: the configuration of ksmbd.mountd(8),
// ksmbd.control(8), and connections that are ended. It knows no closing of a single share: clients
// that may stay come back by themselves.
#pragma once

#include "share/share_server.h"

extern const ShareServer ksmbd_server;
