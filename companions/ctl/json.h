// JSON (RFC 8259) written as it comes, on one line. Touches no world but its stream.
#pragma once

#include <stdint.h>
#include <stdio.h>

struct Json {
    FILE* out; // borrowed
    bool more; // something stands before, so that a comma is due
};

// In all of these `key` is null within an array, and at the top.
void json_open(Json* json, const char* key, char bracket); // '{' or '['
void json_close(Json* json, char bracket);                 // '}' or ']'

// Writes a string, or null for a null one. Each byte that is not UTF-8 becomes U+FFFD; control
// characters are escaped, those of terminals too.
void json_text(Json* json, const char* key, const char* text);

void json_number(Json* json, const char* key, int64_t number);
void json_flag(Json* json, const char* key, bool flag);
void json_null(Json* json, const char* key);
