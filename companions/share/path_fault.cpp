#include "share/path_fault.h"

#include "common/text.h"

#include <string.h>

static bool is_relative(const char* path)
{
    return path[0] != '/';
}

static bool holds_unprintable(const char* path)
{
    while (*path != '\0') {
        char one[5] = "";
        const size_t length = text_sequence(path);
        memcpy(one, path, length);
        if (length == 0 || text_clean(one, "") != 0)
            return true;
        path += length;
    }
    return false;
}

// Where ".." leads depends on links, so the mount cannot be found by the path.
static bool leads_up(const char* path)
{
    for (const char* at = strstr(path, "/.."); at != nullptr; at = strstr(at + 1, "/..")) {
        if (at[3] == '/' || at[3] == '\0')
            return true;
    }
    return false;
}

static constexpr PathFault everywhere[] = {
    {is_relative, "no slash at its beginning"},
    {holds_unprintable, "a control character or bytes that are not UTF-8"},
    {leads_up, "\"..\" as a name"},
};

const char* path_fault_find(const char* path, const PathFault* rows, size_t count)
{
    for (const PathFault& row : everywhere) {
        if (row.has(path))
            return row.what;
    }
    for (size_t i = 0; i < count; i++) {
        if (rows[i].has(path))
            return rows[i].what;
    }
    return nullptr;
}
