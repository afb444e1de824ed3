// The list of shares as a server reads it. Touches no world.
#pragma once

#include "share/share_server.h"

// Makes the list of these shares, whose names are the server's already. Returns 0 and an owned
// text; -ENOMEM, `text` untouched.
[[nodiscard]] int share_list_make(const ShareServer* server, const ExportedShare* shares,
                                  size_t count, const RightsSettings* settings, Notes* notes,
                                  char** text);
