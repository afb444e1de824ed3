// JSON (RFC 8259) read from front to back, for what programs print: each value is handed out with
// the keys that lead to it. Pure; needs no memory of its own.
#pragma once

#include <stddef.h>

constexpr size_t json_depth = 8;        // objects and arrays within each other
constexpr size_t json_key_size = 64;    // bytes with the NUL; a longer key is no key that is known
constexpr size_t json_value_size = 256; // likewise: the rest of a longer text is left out

// The keys from the outermost object to the value; empty for what stands in an array.
struct JsonPath {
    size_t count;
    char keys[json_depth][json_key_size];
};

// Takes a value that is no object and no array: a text decoded, any other word as it stands. A
// character beyond ASCII that is written as an escape becomes "?".
using JsonVisit = void (*)(void* context, const JsonPath& path, const char* value);

// Hands out all values. Returns false for a text that is no JSON, or deeper than json_depth; what
// stood before the fault has been handed out.
[[nodiscard]] bool json_read(const char* text, size_t size, JsonVisit visit, void* context);
