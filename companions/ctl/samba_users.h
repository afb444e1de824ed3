// Who has a Samba password.
#pragma once

#include "lib/file.h"

// Asks Samba. Returns whether it told, which it tells root alone; then `lines` are pdbedit's, one
// for each user.
[[nodiscard]] bool samba_users_read(FileBytes* lines);

// Whether a user is among them: "anna:1001:Anna" is anna's line. Touches no world.
[[nodiscard]] bool samba_users_have(const char* lines, const char* name);
