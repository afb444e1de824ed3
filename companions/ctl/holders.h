// Who holds a mounted filesystem, or a directory: processes by their files, as /proc tells. For
// root, all of them; for others only their own.
#pragma once

#include "ctl/json.h"
#include "ctl/machine.h"
#include "ctl/view.h"

#include <sys/types.h>

// How a process holds it.
enum HolderUse : uint8_t { HOLDS_FILE, HOLDS_DIRECTORY, HOLDS_ROOT, HOLDS_PROGRAM, HOLDS_MAP };

constexpr size_t holder_client_size = 64; // bytes with the NUL

struct Holder {
    pid_t pid;
    uid_t uid;
    HolderUse use;
    char command[machine_name_size];
    char* file;                              // the path as the process sees it; owned, may be null
    char client_user[holder_client_size];    // whom a process of Samba's serves; empty for others
    char client_machine[holder_client_size]; // and where
};

struct HolderTable {
    Holder* holders; // in the order of process numbers; owned
    size_t count;
};

// Looks through all processes for what lies on the mount. A file that a process holds several times
// stands there once. Returns 0 and a table, to be ended by holders_end in either case; a negated
// errno where some may be missing.
[[nodiscard]] int holders_find(const MountinfoEntry& mount, HolderTable* table);

// The same for what lies in a directory of the machine, whatever is mounted below it.
[[nodiscard]] int holders_find_below(const char* directory, HolderTable* table);
void holders_end(HolderTable* table);

// Prints a line for each: process, command, user, file.
void holders_print(FILE* out, const HolderTable& table);
void holders_json(Json* json, const char* key, const HolderTable& table);
