// What a server's configuration cannot hold in a path. Touches no world.
#pragma once

#include <stddef.h>

struct PathFault {
    bool (*has)(const char* path);
    const char* what;
};

// Returns what a path holds that no server can export: none at its beginning but a slash, control
// characters, bytes that are not UTF-8, and ".."; or that these rows find. Null when it is right.
[[nodiscard]] const char* path_fault_find(const char* path, const PathFault* rows, size_t count);
